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
    // Nothing runs on a bad inventory, an empty selection, a folder for the
    // hosts' files that cannot be made, or a missing password.
    kelp::status st = load_inventory(inv.inventory, &hosts_file);
    if (st) st = select_hosts(hosts_file, inv.limit, &hosts);
    std::vector<std::string> names;
    for (const inventory_host* h : hosts) names.push_back(h->name);
    if (st) st = make_host_folders(inv, names);
    if (st) st = runner.check_passwords(hosts);
    if (!st) {
        print_outcome(failure(st), inv.json, inv.quiet);
        return exit_status(st);
    }
    if (cmd == "backup") return run_fleet_backup(inv, runner, hosts);
    if (cmd == "firmware" && inv.upgrade) return run_rollout(inv, runner, hosts);
    std::vector<host_result> results = runner.run(hosts, [&](const inventory_host& h, const kelp::target& t, reporter& r) {
        return run_device_command(inv, t, h.name, r);
    });
    return runner.finish(results, "fleet " + cmd);
}
