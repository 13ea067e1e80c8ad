#include "fleet.h"

#include "device_commands.h"
#include "fleet_backup.h"
#include "fleet_rollout.h"
#include "fleet_runner.h"
#include "inventory.h"
#include "outcome.h"

int run_fleet(const invocation& inv) {
    std::string cmd = inv.device_command();
    if (cmd == "history") return run_fleet_history(inv);
    if (cmd == "diff") return run_fleet_diff(inv);
    inventory hosts_file;
    std::vector<const inventory_host*> hosts;
    fleet_runner runner(inv);
    // Nothing runs on a bad inventory, an empty selection or a missing
    // password; a roll-out checks its image before the passwords.
    kelp::status st = load_inventory(inv.inventory, &hosts_file);
    if (st) st = select_hosts(hosts_file, inv.limit, &hosts);
    bool rollout = cmd == "firmware" && inv.upgrade;
    if (st && cmd == "firmware" && !rollout && inv.file.find("{host}") == std::string::npos) {
        kelp::bytes image;  // one image for all: refused once, not once a host
        st = read_image(inv.file, &image);
    }
    if (st && !rollout) st = runner.check_passwords(hosts);
    if (!st) {
        print_outcome(failure(st), inv.json, inv.quiet);
        return exit_status(st);
    }
    if (rollout) return run_rollout(inv, runner, hosts);
    if (cmd == "backup") return run_fleet_backup(inv, runner, hosts);
    std::vector<host_result> results = runner.run(hosts, [&](const inventory_host& h, const kelp::target& t, reporter& r) {
        return run_device_command(inv, t, h.name, r);
    });
    return runner.finish(results, "fleet " + cmd);
}
