// kelputil-store: fleet backup, history and diff, which need libgit2 and
// libarchive. kelputil runs it in its own place with the same arguments,
// which it reads with the same command line.
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

outcome run(const invocation& inv) {
    remove_temporaries_on_signals();
    std::string cmd = inv.device_command();
    if (inv.is_fleet() && cmd == "history") return run_fleet_history(inv);
    if (inv.is_fleet() && cmd == "diff") return run_fleet_diff(inv);
    if (inv.is_fleet() && cmd == "backup") return back_up(inv);
    return local_failure("kelputil-store runs fleet backup, history and diff only");
}

}  // namespace

// As kelputil's own: the outcome printed once, its exit status returned.
int main(int argc, char** argv) {
    return run_program("kelputil-store", [&] {
        invocation inv;
        int end = parse_command_line(argc, argv, &inv);
        if (end >= 0) return end;
        outcome o = run(inv);
        print_outcome(o, inv.output.json, inv.output.quiet);
        return o.exit;
    });
}
