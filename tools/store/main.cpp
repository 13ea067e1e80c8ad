#include "fleet.h"
#include "fleet_backup.h"
#include "outcome.h"
#include "store_command.h"

int run_store_command(const invocation& inv, char**) {
    std::string cmd = inv.device_command();
    if (cmd == "history") return run_fleet_history(inv);
    if (cmd == "diff") return run_fleet_diff(inv);
    // A folder that cannot take the backups is refused before anyone is
    // asked for a password.
    kelp::status st = inv.list_hosts ? kelp::ok() : check_backup_target(inv);
    if (!st) {
        print_outcome(failure(st), inv.json, inv.quiet);
        return exit_status(st);
    }
    return run_on_fleet(inv, [&](fleet_runner& runner, const std::vector<const inventory_host*>& hosts) {
        return run_fleet_backup(inv, runner, hosts);
    });
}

// kelputil sends serve to its own helper, never here.
int run_serve_command(const invocation& inv, char**) {
    print_outcome(local_failure("serve runs in kelputil-serve, not kelputil-store"), inv.json, inv.quiet);
    return exit_usage;
}
