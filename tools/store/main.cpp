// kelputil-store: fleet backup, history and diff, which need libgit2 and
// libarchive. kelputil runs it in its own place with the same arguments,
// which it reads with the same command line.
#include <map>

#include "choose.h"
#include "cli.h"
#include "commands.h"
#include "files.h"
#include "outcome.h"

namespace {

outcome back_up(const invocation& inv) {
    // A folder that cannot take the backups is refused before anyone is
    // asked for a password.
    kelp::status st = inv.fleet.list_hosts ? kelp::ok() : check_backup_target(inv);
    inventory file;
    std::vector<const inventory_host*> hosts;
    if (st) st = choose_hosts(inv.fleet, inv.output, &file, &hosts);
    if (st && inv.fleet.list_hosts) return host_list(inv.conn, hosts);
    fleet_runner runner(inv.conn, inv.output, inv.fleet);
    if (st) st = runner.check_passwords(hosts);
    if (!st) return failure(st);
    return run_fleet_backup(inv, runner, hosts);
}

// The commands the command table gives this helper.
const std::map<std::string, outcome (*)(const invocation&)> runs = {
    {"fleet backup", back_up}, {"fleet history", run_fleet_history}, {"fleet diff", run_fleet_diff}};

outcome run(const invocation& inv) {
    remove_temporaries_on_signals();
    auto command = runs.find(inv.command);
    if (command == runs.end()) return local_failure("kelputil-store runs fleet backup, history and diff only");
    return command->second(inv);
}

}  // namespace

// As kelputil's own: the outcome printed once, its exit status returned.
int main(int argc, char** argv) {
    return run_program("kelputil-store", [&] {
        invocation inv;
        std::optional<outcome> end = parse_command_line(argc, argv, &inv);
        outcome o = end ? *end : run(inv);
        print_outcome(o, inv.output.json, inv.output.quiet);
        return o.exit;
    });
}
