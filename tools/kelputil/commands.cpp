#include "commands.h"

#include "device_commands.h"
#include "fleet_commands.h"
#include "scripts.h"

argument argument::needed() const {
    argument a = *this;
    a.required = true;
    return a;
}

argument argument::offers(completes c) const {
    argument a = *this;
    a.completion = c;
    return a;
}

argument argument::only(unsigned s) const {
    argument a = *this;
    a.where = s;
    return a;
}

argument argument::in_fleet_says(const char* text) const {
    argument a = *this;
    a.fleet_help = text;
    return a;
}

argument argument::binary_to_stdout() const {
    argument a = *this;
    a.binary_stdout = true;
    return a;
}

argument argument::shown_as(const char* type) const {
    argument a = *this;
    a.type_name = type;
    return a;
}

namespace {

using args = command_args;

argument text(const char* name, const char* help, std::string args::*field) {
    return {argument::text, name, help, field};
}

// A file the command reads or writes, as the shell completes it.
argument file(const char* name, const char* help, std::string args::*field = &args::file) {
    return text(name, help, field).offers(completes::file);
}

argument flag(const char* name, const char* help, bool args::*field) { return {argument::flag, name, help, field}; }

argument choice(const char* name, const char* help, std::string args::*field, std::vector<std::string> words) {
    argument a{argument::choice, name, help, field};
    a.choices = std::move(words);
    return a.needed();
}

argument duration(const char* name, const char* help, int args::*field, long long min_ms, long long max_ms) {
    argument a{argument::duration, name, help, field};
    a.min = min_ms;
    a.max = max_ms;
    return a;
}

argument count(const char* name, const char* help, int args::*field, long long min, long long max, const char* what) {
    argument a{argument::count, name, help, field};
    a.min = min;
    a.max = max;
    a.what = what;
    return a;
}

argument size(const char* name, const char* help, int args::*field, long long min, long long max) {
    argument a{argument::size, name, help, field};
    a.min = min;
    a.max = max;
    return a;
}

// The words of the wire's script table, and "cbq, fw, nat or dhcp" for the help.
std::vector<std::string> script_words() {
    std::vector<std::string> words;
    for (const script_entry& s : script_table) words.push_back(s.word);
    return words;
}

std::string listed(const std::vector<std::string>& words) {
    std::string text;
    for (size_t i = 0; i < words.size(); i++) text += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + words[i];
    return text;
}

const std::vector<std::string> script_names = script_words();
const std::string script_names_text = listed(script_names);
constexpr long long hour_ms = 3600 * 1000;
// --window: the sizes our socket buffers may be fixed at.
constexpr long long window_min = 4 << 10, window_max = 64 << 20;

// clang-format off
const std::vector<command_row> table = {
    {.name = "check", .summary = "log in and do nothing (with --apply or --reboot: that alone)", .where = anywhere,
     .on_device = run_check},
    {.name = "apply", .summary = "ask the device to apply its settings", .where = anywhere, .on_device = run_apply},
    {.name = "reboot", .summary = "ask the device to reboot", .where = anywhere, .on_device = run_reboot},
    {.name = "backup", .summary = "save the configuration bundle to FILE", .where = at_top,
     .arguments = {file("FILE", "where to save it (created mode 600; - for stdout)").needed().binary_to_stdout()},
     .on_device = run_backup},
    {.name = "restore", .summary = "upload a configuration bundle and install it", .where = anywhere,
     .arguments = {file("FILE", "the bundle (checked here before it is sent)").needed()}, .on_device = run_restore},
    {.name = "get-script", .summary = "fetch a script (to stdout without FILE)", .where = anywhere,
     .arguments = {choice("NAME", script_names_text.c_str(), &args::script, script_names),
                   file("FILE", "where to save it").in_fleet_says("where to save it; must contain {host}")},
     .on_device = run_get_script},
    {.name = "put-script", .summary = "replace a script on the device", .where = anywhere,
     .arguments = {choice("NAME", script_names_text.c_str(), &args::script, script_names),
                   file("FILE", "the new script").needed()},
     .on_device = run_put_script},
    {.name = "report", .summary = "fetch a report", .where = anywhere,
     .arguments = {choice("KIND", "full (system), core (core system) or kernel (kernel log)", &args::report,
                          {"full", "core", "kernel"})},
     .on_device = run_report},
    {.name = "ppp", .summary = "list the PPP sessions", .where = anywhere, .on_device = run_ppp},
    {.name = "hotspot", .summary = "list the hotspot sessions", .where = anywhere, .on_device = run_hotspot},
    {.name = "kick-ppp", .summary = "disconnect a PPP user", .where = anywhere,
     .arguments = {text("USER", "user name", &args::user).needed()}, .on_device = run_kick_ppp},
    {.name = "kick-hotspot", .summary = "disconnect a hotspot user", .where = anywhere,
     .arguments = {text("USER", "user name", &args::user).needed()}, .on_device = run_kick_hotspot},
    {.name = "kick-ip", .summary = "disconnect a hotspot client by address", .where = anywhere,
     .arguments = {argument{argument::ipv4, "ADDRESS", "IPv4 address", &args::address}.needed()},
     .on_device = run_kick_ip},
    {.name = "firmware", .summary = "upload firmware; --upgrade flashes it and shows progress", .where = anywhere,
     .arguments = {file("IMAGE", "the firmware image").needed(),
                   flag("--upgrade", "start the flash upgrade and follow it", &args::upgrade),
                   count("--canary", "hosts upgraded first, one after another", &args::canary, 0, 1000,
                         "canary count")
                       .only(in_fleet),
                   count("--batch", "hosts upgraded at once after the canaries", &args::batch, 1, 256, "batch size")
                       .only(in_fleet),
                   duration("--settle", "how long a host may take to answer again after its upgrade",
                            &args::settle_ms, 1000, hour_ms)
                       .only(in_fleet),
                   flag("--dry-run", "show the plan and touch nothing", &args::dry_run).only(in_fleet)},
     .on_device = run_firmware, .fleet_run = run_fleet_firmware,
     .fleet_summary = "upload firmware to every host; with --upgrade, a staged roll-out"},
    {.name = "throughput", .summary = "measure the link (rx: the device sends; tx: it receives)", .where = anywhere,
     .arguments = {choice("DIRECTION", "rx or tx", &args::direction, {"rx", "tx"}),
                   duration("SECONDS", "how long (default 10 s; at most 1 h)", &args::seconds_ms, 100, hour_ms),
                   size("--window", "fix our socket buffers at SIZE once logged in (e.g. 64K)", &args::window,
                        window_min, window_max)
                       .shown_as("SIZE")},
     .on_device = run_throughput},
    {.name = "bundle-pack", .summary = "pack a plain configuration into a bundle (offline)", .where = at_top,
     .arguments = {file("PLAIN", "the plain configuration").needed(),
                   file("OUT", "the bundle to write (mode 600)", &args::out).needed().binary_to_stdout()},
     .run = run_bundle_pack},
    {.name = "bundle-verify", .summary = "check a bundle as the device would (offline)", .where = at_top,
     .arguments = {file("FILE", "the bundle").needed()}, .run = run_bundle_verify},
    {.name = "bundle-unpack", .summary = "verify and unpack a bundle (offline)", .where = at_top,
     .arguments = {file("FILE", "the bundle").needed(),
                   file("OUT", "the plain configuration to write (mode 600; - for stdout)", &args::out)
                       .needed()
                       .binary_to_stdout()},
     .run = run_bundle_unpack},
    // The backups in git: only kelputil-store loads libgit2 and libarchive.
    {.name = "backup", .summary = "back up every host into a git repository", .where = in_fleet,
     .arguments = {text("--into", "the repository folder (created if new or empty)", &args::into)
                       .needed()
                       .offers(completes::folder),
                   flag("--scripts", "fetch the four scripts too", &args::scripts),
                   flag("--init", "make the repository in a folder that already holds other files", &args::init)},
     .helper = "kelputil-store"},
    {.name = "history", .summary = "one host's backups", .where = in_fleet,
     .arguments = {text("HOST", "a host of the inventory", &args::host).needed().offers(completes::host),
                   text("--into", "the repository folder (default: the current one)", &args::into)
                       .offers(completes::folder)},
     .helper = "kelputil-store"},
    {.name = "diff", .summary = "what changed in one host's backup", .where = in_fleet,
     .arguments = {text("HOST", "a host of the inventory", &args::host).needed().offers(completes::host),
                   text("REV", "from this revision (default: before the host's last change)", &args::rev_from),
                   text("REV2", "to this revision (default: the latest)", &args::rev_to),
                   text("--into", "the repository folder (default: the current one)", &args::into)
                       .offers(completes::folder)},
     .helper = "kelputil-store"},
    // With --list-hosts and no command, the hosts a run would reach.
    {.name = "fleet", .summary = "run a command on every host of an inventory", .where = at_top, .group = true},
    // Its options are kelputil-serve's to check: kelputil hands them on.
    {.name = "serve", .summary = "back up an inventory's hosts on a schedule, with an HTTP API and metrics",
     .where = at_top, .helper = "kelputil-serve", .helper_parses = true},
};
// clang-format on

}  // namespace

const std::vector<command_row>& command_table() { return table; }

const command_row* find_command(const std::string& typed) {
    bool fleet = typed.rfind("fleet ", 0) == 0;
    std::string name = fleet ? typed.substr(6) : typed;
    for (const command_row& c : table)
        if (c.name == name && (c.where & (fleet ? in_fleet : at_top))) return &c;
    return nullptr;
}
