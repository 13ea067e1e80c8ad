#include "cli.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>

#include "commands.h"
#include "connection_cli.h"
#include "durations.h"
#include "outcome.h"
#include "words.h"

#ifndef KELP_VERSION
#define KELP_VERSION "1.0.0"
#endif

namespace {

CLI::Validator duration(long long min_ms, long long max_ms) {
    return checked_by([=](const std::string& text) { return duration_problem(text, min_ms, max_ms); });
}

CLI::Validator whole_number(long long min, long long max, const char* what) {
    return checked_by([=](const std::string& text) { return whole_number_problem(text, min, max, what); });
}

CLI::Validator size_range(long long min, long long max) {
    return checked_by([=](const std::string& text) { return size_problem(text, min, max); });
}

struct command_line {
    CLI::App app{"kelputil: manage kelputild routers, one or a fleet", "kelputil"};
    invocation& inv;
    // Values kept as text until the validators have passed.
    connection_words conn;
    std::string jobs = std::to_string(fleet_options().jobs);
    bool apply = false, reboot = false;
    std::vector<std::string> help_words;  // listed for --help; help_for reads argv
    CLI::Option* limit = nullptr;

    explicit command_line(invocation& i) : inv(i) {}
};

const char* const password_and_trust =
    "The password comes from KELPUTIL_PASSWORD, --password-file (mode 600), or a prompt on the\n"
    "terminal, never from the command line. TLS is the default; the device's certificate is\n"
    "remembered on first contact (like ssh's known hosts) and a changed one is refused.\n";

// Words joined into lines of at most width columns.
std::string wrapped(const std::string& text, size_t width) {
    std::string out, line;
    for (size_t at = 0; at < text.size();) {
        size_t end = std::min(text.find(' ', at), text.size());
        std::string word = text.substr(at, end - at);
        at = end + 1;
        if (!line.empty() && line.size() + 1 + word.size() > width) {
            out += line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
    }
    return out + line;
}

// The main help's end: where the password comes from, and the exit statuses.
std::string footer() { return std::string("\n") + password_and_trust + wrapped(exit_status_help(), 88) + "\n"; }

CLI::App* add_command(CLI::App& parent, const char* name, const char* summary) {
    CLI::App* sub = parent.add_subcommand(name, summary);
    sub->fallthrough();
    sub->group("Commands");
    return sub;
}

// A text value checked, then turned into the number the command uses.
CLI::Option* add_number(CLI::App& sub, const argument& a, int* into, int (*convert)(const std::string&),
                        const char* help) {
    return sub.add_option_function<std::string>(
        a.name, [=](const std::string& text) { *into = convert(text); }, help);
}

int duration_ms(const std::string& text) { return (int)parse_duration_ms(text); }
int size_bytes(const std::string& text) { return (int)parse_size(text); }

void add_argument(CLI::App& sub, const argument& a, command_args& args, bool fleet) {
    const char* help = fleet && a.fleet_help ? a.fleet_help : a.help;
    auto text = [&] { return &(args.*std::get<std::string command_args::*>(a.field)); };
    auto number = [&] { return &(args.*std::get<int command_args::*>(a.field)); };
    CLI::Option* o = nullptr;
    switch (a.kind) {
    case argument::text: o = sub.add_option(a.name, *text(), help); break;
    case argument::flag: o = sub.add_flag(a.name, args.*std::get<bool command_args::*>(a.field), help); break;
    case argument::choice: o = sub.add_option(a.name, *text(), help)->check(CLI::IsMember(a.choices)); break;
    case argument::ipv4: o = sub.add_option(a.name, *text(), help)->check(CLI::ValidIPV4); break;
    case argument::count: o = sub.add_option(a.name, *number(), help)->check(whole_number(a.min, a.max, a.what)); break;
    case argument::duration: o = add_number(sub, a, number(), duration_ms, help)->check(duration(a.min, a.max)); break;
    case argument::size: o = add_number(sub, a, number(), size_bytes, help)->check(size_range(a.min, a.max)); break;
    }
    if (a.required) o->required();
    if (a.type_name) o->type_name(a.type_name);
}

// One command of the table, at top or under fleet, with its arguments.
void add_row(command_line& c, CLI::App& parent, const command_row& row, bool fleet) {
    CLI::App* sub = add_command(parent, row.name, fleet && row.fleet_summary ? row.fleet_summary : row.summary);
    if (row.helper_parses) sub->fallthrough(false)->prefix_command()->set_help_flag();
    for (const argument& a : row.arguments)
        if (a.where & (fleet ? in_fleet : at_top)) add_argument(*sub, a, c.inv.args, fleet);
}

// Its options and commands only when the command line asks for them: the
// tree is as large as all the others together, and building it would cost
// every single-router command at start.
void add_fleet(command_line& c, const command_row& row, bool whole) {
    invocation& inv = c.inv;
    CLI::App* fleet = add_command(c.app, row.name, row.summary);
    if (!whole) return;
    fleet->add_option("-i,--inventory", inv.fleet.inventory, "INI inventory of hosts and groups")
        ->envname("KELP_INVENTORY")
        ->type_name("FILE");
    // A second --limit is let through, then refused with what to do
    // instead (CLI11 would only count).
    c.limit =
        fleet
            ->add_option("--limit", inv.fleet.limit, "hosts and groups, as Ansible's: a:b, !out, &both, ~regex, g[0:9]")
            ->type_name("PATTERN")
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    fleet->add_flag("--list-hosts", inv.fleet.list_hosts, "list the hosts the command would run on, and run nothing");
    std::string most = std::to_string(fleet_options::max_jobs);
    fleet->add_option("-j,--jobs", c.jobs, "hosts at a time (default " + c.jobs + ", at most " + most + ")")
        ->check(whole_number(1, fleet_options::max_jobs, "job count"))
        ->type_name("N");
    fleet->require_subcommand(0, 1);
    for (const command_row& r : command_table())
        if (r.where & in_fleet) add_row(c, *fleet, r, true);
}

void add_global_options(command_line& c) {
    CLI::App& app = c.app;
    invocation& inv = c.inv;
    add_connection_options(app, inv.conn, c.conn, true);
    app.add_flag("--apply", c.apply, "after success, have the device apply its settings");
    app.add_flag("--reboot", c.reboot, "after success, have the device reboot");
    app.add_flag("--json", inv.output.json, "one JSON object per result (JSON lines while running)");
    app.add_flag("-q,--quiet", inv.output.quiet, "no progress, no message on success");
    app.add_flag("-v,--verbose", inv.output.verbose, "show the connection's steps");
    app.set_version_flag("-V,--version", "kelputil " KELP_VERSION);
    app.fallthrough();
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->label("TEXT", "VALUE");
    app.get_formatter()->column_width(32);
}

// Every command of the table, in its order; fleet's own commands only when
// whole_fleet (see add_fleet); then help.
void add_commands(command_line& c, bool whole_fleet) {
    for (const command_row& row : command_table()) {
        if (!(row.where & at_top)) continue;
        if (row.group)
            add_fleet(c, row, whole_fleet);
        else
            add_row(c, c.app, row, false);
    }
    add_command(c.app, "help", "show a command's help: help [COMMAND [SUBCOMMAND]]")
        ->add_option("COMMAND", c.help_words, "a command, and for fleet one of its commands");
    c.app.footer(footer());  // the main help only: subcommands exist already
}

// The deepest command the parser entered, and its name as typed.
CLI::App* deepest(CLI::App& app, std::string* path) {
    CLI::App* at = &app;
    path->clear();
    while (!at->get_subcommands().empty()) {
        at = at->get_subcommands().back();
        *path += (path->empty() ? "" : " ") + at->get_name();
    }
    return at;
}

// Where the first word that is not an option or an option's value, the
// command, is in argv; argc when there is none. Which options take a value
// the global options themselves say.
int typed_command_at(const CLI::App& app, int argc, char** argv) {
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a.empty() || a[0] != '-') return i;
        const CLI::Option* o = app.get_option_no_throw(a);
        if (o && o->get_items_expected_min() > 0) i++;
    }
    return argc;
}

}  // namespace

namespace {

// path: the command typed so far ("" or "fleet"), for the message.
std::string unknown_command(CLI::App& app, const std::string& typed, const std::string& path = "") {
    std::vector<std::string> names;
    for (const CLI::App* sub : app.get_subcommands({})) names.push_back(sub->get_name());
    std::string best = closest(typed, names);
    std::string kelputil = "kelputil" + (path.empty() ? "" : " " + path);
    return "'" + typed + "' is not a " + kelputil + " command." +
           (best.empty() ? "" : " Did you mean '" + best + "'?") + " (" + kelputil + " --help lists them)";
}

// The option called name where the parser stands: its own or a parent's
// (options fall through to the commands above).
const CLI::Option* option_at(CLI::App* at, const std::string& name) {
    for (; at; at = at->get_parent())
        if (const CLI::Option* o = at->get_option_no_throw(name)) return o;
    return nullptr;
}

std::string unknown_option(CLI::App* at, const std::string& typed) {
    std::vector<std::string> names;
    for (; at; at = at->get_parent())
        for (const CLI::Option* o : at->get_options())
            for (const std::string& l : o->get_lnames()) names.push_back("--" + l);
    std::string best = typed[1] == '-' ? closest(typed, names) : "";
    return "unknown option " + typed + (best.empty() ? "" : ". Did you mean " + best + "?") +
           " (kelputil --help lists them)";
}

const char password_answer[] =
    "--password: the password never comes from the command line, where other users could read it: set "
    "KELPUTIL_PASSWORD, give --password-file FILE, or run on a terminal to be asked";

// Walks the words as the parser will, before it does, so that a wrong word
// gets an answer that names it: a password given on the command line, an
// option that does not exist, a command that does not. "" when all is well.
std::string misspelt_word(CLI::App& app, int argc, char** argv) {
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--password" || a.rfind("--password=", 0) == 0) return password_answer;
    }
    CLI::App* at = &app;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--") break;
        if (a.size() < 2 || a[0] != '-') {
            CLI::App* sub = nullptr;
            for (CLI::App* candidate : at->get_subcommands({}))
                if (candidate->get_name() == a) sub = candidate;
            if (sub)
                at = sub;
            else if (at == &app)
                return unknown_command(app, a);
            if (at->get_prefix_command()) break;  // serve: its helper checks the rest
            continue;
        }
        bool inline_value = a.find('=') != std::string::npos || (a[1] != '-' && a.size() > 2);
        std::string name = a[1] == '-' ? a.substr(0, a.find('=')) : a.substr(0, 2);
        const CLI::Option* o = option_at(at, name);
        if (!o) return unknown_option(at, name);
        if (o->get_items_expected_min() > 0 && !inline_value) i++;  // its value
    }
    return "";
}

// Help and the version, as CLI11 writes them: for people, plain text even
// under --json.
outcome shown(command_line& c, const CLI::Error& e) {
    std::ostringstream text;
    c.app.exit(e, text);
    c.inv.output.json = false;
    outcome o = success("");
    o.text = text.str();
    o.content = true;
    return o;
}

// What CLI11 refused, with the usage of the command it was reading.
outcome refused(command_line& c, const CLI::ParseError& e) {
    std::string path;
    CLI::App* at = deepest(c.app, &path);
    CLI::Formatter f;
    std::string usage = f.make_usage(at, "kelputil" + (path.empty() ? "" : " " + path));
    usage = usage.substr(usage.find(':') + 2);
    while (!usage.empty() && usage.back() == '\n') usage.pop_back();
    return usage_failure((path.empty() ? "" : path + ": ") + e.what(), usage);
}

// "kelputil help fleet backup" is "kelputil fleet backup --help": the words
// after help, each a command of the one before, become that command line.
std::optional<outcome> help_for(command_line& c, int argc, char** argv, int at) {
    std::vector<std::string> args(argv, argv + at);
    CLI::App* level = &c.app;
    std::string path;
    for (int i = at + 1; i < argc; i++) {
        std::string word = argv[i];
        if (!word.empty() && word[0] == '-') continue;
        CLI::App* sub = nullptr;
        for (CLI::App* s : level->get_subcommands({})) sub = s->get_name() == word ? s : sub;
        if (!sub)
            return usage_failure(level->get_subcommands({}).empty()
                                     ? "kelputil " + path + " has no command '" + word + "'"
                                     : unknown_command(*level, word, path),
                                 "kelputil help [COMMAND [SUBCOMMAND]]");
        args.push_back(word);
        path += (path.empty() ? "" : " ") + word;
        level = sub;
        if (sub->get_prefix_command()) {  // serve: its helper answers
            c.inv.command = path;
            c.inv.row = find_command(path);
            return std::nullopt;
        }
    }
    args.push_back("--help");
    std::vector<char*> line;
    for (std::string& a : args) line.push_back(a.data());
    try {
        c.app.parse((int)line.size(), line.data());
    } catch (const CLI::CallForHelp& e) {
        return shown(c, e);
    } catch (const CLI::ParseError& e) {
        return refused(c, e);
    }
    return shown(c, CLI::CallForHelp());
}

// Text options become numbers once checked: "" or what is wrong.
std::string settle_values(command_line& c) {
    invocation& inv = c.inv;
    inv.fleet.jobs = atoi(c.jobs.c_str());
    inv.flags = (uint8_t)((c.apply ? 0x01 : 0) | (c.reboot ? 0x02 : 0));
    return settle_connection(c.conn, &inv.conn);
}

std::string check_combinations(const command_line& c) {
    const invocation& inv = c.inv;
    if (inv.conn.plain && !inv.conn.pin.empty()) return "--pin checks a TLS certificate: it cannot go with --plain";
    if (inv.is_fleet() && c.app.get_option("--host")->count() > 0)
        return "a fleet's hosts come from the inventory: leave out -H, or use --limit";
    std::string device = inv.device_command();
    if (c.limit && c.limit->count() > 1) return "--limit is given twice: join the patterns with ',' (--limit 'a,b')";
    if (c.limit && c.limit->count() && inv.fleet.limit.find_first_not_of(":, \t") == std::string::npos)
        return "--limit '" + inv.fleet.limit +
               "': an empty pattern selects nothing; leave --limit out to run on every host";
    if (inv.command == "fleet" && !inv.fleet.list_hosts) return "fleet needs a command, or --list-hosts";
    if (inv.fleet.list_hosts && (device == "history" || device == "diff"))
        return "--list-hosts shows the hosts of a run: history and diff read a backup repository";
    if (inv.is_fleet() && device != "history" && device != "diff" && inv.fleet.inventory.empty())
        return "a fleet run needs an inventory: -i FILE (or KELP_INVENTORY)";
    const command_args& a = inv.args;
    if (inv.is_fleet() && device == "get-script" && !a.file.empty() && a.file.find("{host}") == std::string::npos)
        return "in a fleet run, get-script's FILE must contain {host}, one file per host";
    if (inv.command == "fleet firmware" && !a.upgrade && (a.dry_run || a.canary != 1))
        return "--canary and --dry-run belong to a staged roll-out: add --upgrade";
    return "";
}

}  // namespace

std::optional<outcome> parse_command_line(int argc, char** argv, invocation* out) {
    for (int i = 1; i < argc; i++)
        if (strcmp(argv[i], "--json") == 0) out->output.json = true;  // so that even a usage error speaks JSON
    command_line c(*out);
    add_global_options(c);
    int at = typed_command_at(c.app, argc, argv);
    std::string typed = at < argc ? argv[at] : "";
    add_commands(c, typed == "fleet" || typed == "help");
    if (typed == "help") return help_for(c, argc, argv, at);
    std::string wrong_word = misspelt_word(c.app, argc, argv);
    if (!wrong_word.empty()) return usage_failure(wrong_word, "kelputil [OPTIONS] COMMAND [ARGS]");
    try {
        c.app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return shown(c, e);
    } catch (const CLI::CallForVersion& e) {
        return shown(c, e);
    } catch (const CLI::ParseError& e) {
        return refused(c, e);
    }
    std::string path;
    deepest(c.app, &path);
    if (path.empty()) return usage_failure("no command given", "kelputil [OPTIONS] COMMAND [ARGS]");
    out->command = path;
    out->row = find_command(path);
    std::string wrong = settle_values(c);
    if (wrong.empty()) wrong = check_combinations(c);
    if (!wrong.empty()) return usage_failure(wrong, "kelputil " + path + " ...");
    return std::nullopt;
}

namespace {

void visit(const std::string& path, const CLI::App& app, const command_visitor& fn) {
    fn(path, app);
    for (const CLI::App* sub : app.get_subcommands({}))
        visit(path + (path.empty() ? "" : " ") + sub->get_name(), *sub, fn);
}

}  // namespace

void visit_command_tree(const command_visitor& fn) {
    invocation inv;
    command_line c(inv);
    add_global_options(c);
    add_commands(c, true);
    visit("", c.app, fn);
}
