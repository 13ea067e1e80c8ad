// kelputil-completion: kelputil's bash completion, made at build time so
// that it offers what the command line has. The commands and options come
// from the tree CLI11 builds from the command table, the arguments' words
// from the table itself, and kelputil serve's options from kelputil-serve's
// own --help (the helper checks them, not kelputil).
//
//   kelputil-completion TEMPLATE KELPUTIL_SERVE OUT
//
// TEMPLATE holds the shell's side (words, files, inventories); its line
// @GENERATED@ becomes the variables and functions below.
#include <stdio.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <sstream>

#include "cli.h"
#include "commands.h"
#include "files.h"
#include "outcome.h"

namespace {

using words = std::vector<std::string>;

void add_once(words* list, const std::string& word) {
    if (std::find(list->begin(), list->end(), word) == list->end()) list->push_back(word);
}

std::string joined(const words& list, const std::string& between) {
    std::string out;
    for (const std::string& w : list) out += (out.empty() ? "" : between) + w;
    return out;
}

// Case patterns "a | b | c", continued on the next line past 100 columns.
std::string alternatives(const words& patterns) {
    std::string out, line;
    for (const std::string& p : patterns) {
        if (!line.empty() && line.size() + p.size() > 100) {
            out += line + "| \\\n";
            line = "        ";
        } else if (!line.empty()) {
            line += "| ";
        }
        line += p + " ";
    }
    line.pop_back();
    return out + line;
}

// Cases in the order first met, each with the patterns that lead to it.
struct cases {
    std::vector<std::pair<std::string, words>> arms;

    void add(const std::string& action, const std::string& pattern) {
        for (auto& arm : arms)
            if (arm.first == action) return add_once(&arm.second, pattern);
        arms.push_back({action, {pattern}});
    }

    std::string text() const {
        std::string out;
        for (const auto& [action, patterns] : arms) out += "    " + alternatives(patterns) + ") " + action + " ;;\n";
        return out;
    }
};

// How the shell completes a value, by what the value is.
std::string value_action(const std::string& type, completes hint) {
    if (hint == completes::folder || type == "DIR") return "_kelputil_files -d \"$2\"";
    if (hint == completes::file || type == "FILE") return "_kelputil_files -f \"$2\"";
    if (type == "PATTERN") return "_kelputil_limit \"$2\"";
    return "";
}

std::string argument_action(const argument& a) {
    if (a.kind == argument::choice)
        return "mapfile -t COMPREPLY < <(compgen -W \"" + joined(a.choices, " ") + "\" -- \"$3\")";
    switch (a.completion) {
    case completes::file: return "_kelputil_files -f \"$3\"";
    case completes::folder: return "_kelputil_files -d \"$3\"";
    case completes::host: return "_kelputil_host \"$3\"";
    case completes::nothing: break;
    }
    return "";
}

// A case pattern for a command path: 'fleet backup'.
std::string quoted(const std::string& text) { return text.find(' ') == std::string::npos ? text : "'" + text + "'"; }

struct completion {
    words commands, fleet_commands, globals, takes_value;
    std::vector<std::pair<std::string, words>> own_options;  // by command path
    cases values, arguments;

    // One option of the command at path: its names, whether it takes a
    // value, and how that value completes.
    void add_option(const std::string& path, const words& names, const std::string& type, completes hint) {
        if (path.empty()) {
            for (const std::string& n : names) add_once(&globals, n);
        } else {
            if (own_options.empty() || own_options.back().first != path) own_options.push_back({path, {}});
            words& own = own_options.back().second;
            for (const std::string& n : names)
                if (std::find(globals.begin(), globals.end(), n) == globals.end()) add_once(&own, n);
        }
        if (type.empty()) return;
        std::string action = value_action(type, hint);
        for (const std::string& n : names) {
            add_once(&takes_value, n);
            if (!action.empty()) values.add(action, n);
        }
    }

    void add_command(const std::string& path, const CLI::App& app) {
        if (path == "fleet")
            for (const CLI::App* sub : app.get_subcommands({})) fleet_commands.push_back(sub->get_name());
        if (path.empty())
            for (const CLI::App* sub : app.get_subcommands({})) commands.push_back(sub->get_name());
        const command_row* row = find_command(path);
        for (const CLI::Option* o : app.get_options()) {
            if (!o->nonpositional() || (o == app.get_help_ptr() && !path.empty())) continue;
            words names;
            for (const std::string& s : o->get_snames()) names.push_back("-" + s);
            for (const std::string& l : o->get_lnames()) names.push_back("--" + l);
            completes hint = completes::nothing;
            if (row)
                for (const argument& a : row->arguments) hint = o->get_name() == a.name ? a.completion : hint;
            add_option(path, names, o->get_items_expected_min() > 0 ? o->get_type_name() : "", hint);
        }
        if (!row) return;
        int index = 0;
        unsigned scope = path.rfind("fleet ", 0) == 0 ? in_fleet : at_top;
        for (const argument& a : row->arguments) {
            if (a.is_option() || !(a.where & scope)) continue;
            std::string action = argument_action(a);
            if (!action.empty()) arguments.add(action, quoted(path + ":" + std::to_string(index)));
            index++;
        }
    }

    // A helper's options from its --help, as CLI11 lays them out: the
    // names, then after one blank the value's type ("--into DIR").
    void add_helper_options(const std::string& path, const std::string& help) {
        std::istringstream lines(help);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("  -", 0) != 0) continue;
            line = line.substr(2);
            size_t end = line.find(' ');
            std::string head = line.substr(0, end), type;
            if (end != std::string::npos && end + 1 < line.size() && line[end + 1] != ' ')
                type = line.substr(end + 1, line.find(' ', end + 1) - end - 1);
            words names;
            std::istringstream parts(head);
            for (std::string name; std::getline(parts, name, ',');) names.push_back(name);
            add_option(path, names, type, completes::nothing);
        }
    }

    std::string text() const {
        cases options;
        for (const auto& [path, names] : own_options)
            if (!names.empty()) options.add("options+=\" " + joined(names, " ") + "\"", quoted(path));
        return "_kelputil_commands=\"" + joined(commands, " ") + "\"\n" + "_kelputil_fleet_commands=\"" +
               joined(fleet_commands, " ") + "\"\n" + "_kelputil_globals=\"" + joined(globals, " ") + "\"\n\n" +
               "_kelputil_takes_value() {  # option\n    case $1 in\n    " + alternatives(takes_value) +
               ") return 0 ;;\n    esac\n    return 1\n}\n\n" +
               "_kelputil_value() {  # option, the word so far\n    case $1 in\n" + values.text() + "    esac\n}\n\n" +
               "_kelputil_options_of() {  # command path: adds its own options to options\n    case $1 in\n" +
               options.text() + "    esac\n}\n\n" +
               "_kelputil_argument() {  # command path, arguments before this one, the word so far\n"
               "    case $1:$2 in\n" +
               arguments.text() + "    esac\n}";
    }
};

std::string output_of(const std::string& program) {
    std::string text;
    FILE* p = popen(("'" + program + "' --help").c_str(), "r");
    if (!p) return "";
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, p)) > 0;) text.append(chunk, n);
    return pclose(p) == 0 ? text : "";
}

int make(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: kelputil-completion TEMPLATE KELPUTIL_SERVE OUT\n");
        return exit_usage;
    }
    kelp::bytes read;
    kelp::status st = read_input(argv[1], &read, 1 << 20);
    std::string shell(read.begin(), read.end()), serve_help = output_of(argv[2]);
    if (st && shell.find("@GENERATED@") == std::string::npos)
        st = kelp::fail(kelp::error_kind::local, std::string(argv[1]) + " has no @GENERATED@ line: not the template");
    if (!st) {
        fprintf(stderr, "kelputil-completion: %s\n", st.message.c_str());
        return exit_usage;
    }
    if (serve_help.find("--into") == std::string::npos) {
        fprintf(stderr, "kelputil-completion: %s --help lists no options\n", argv[2]);
        return exit_usage;
    }
    completion c;
    visit_command_tree([&](const std::string& path, const CLI::App& app) { c.add_command(path, app); });
    c.add_helper_options("serve", serve_help);
    shell.replace(shell.find("@GENERATED@"), 11, c.text());
    st = write_output(argv[3], kelp::bytes(shell.begin(), shell.end()), 0644);
    if (!st) fprintf(stderr, "kelputil-completion: %s\n", st.message.c_str());
    return st ? exit_ok : exit_usage;
}

}  // namespace

int main(int argc, char** argv) {
    return run_program("kelputil-completion", [&] { return make(argc, argv); });
}
