#include "fleet.h"

#include "device_commands.h"
#include "fleet_rollout.h"
#include "inventory.h"
#include "outcome.h"

int run_on_fleet(const invocation& inv, const fleet_job& job) {
    std::string cmd = inv.device_command();
    inventory hosts_file;
    std::vector<const inventory_host*> hosts;
    fleet_runner runner(inv);
    kelp::status st = load_inventory(inv.inventory, &hosts_file);
    if (st) st = select_hosts(hosts_file, inv.limit, &hosts);
    std::vector<std::string> names;
    for (const inventory_host* h : hosts) names.push_back(h->name);
    if (st) st = make_host_folders(inv, names);
    // A roll-out checks its image before the passwords, and its dry run
    // needs none.
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
    return job(runner, hosts);
}

int run_fleet(const invocation& inv) {
    std::string cmd = inv.device_command();
    return run_on_fleet(inv, [&](fleet_runner& runner, const std::vector<const inventory_host*>& hosts) {
        if (cmd == "firmware" && inv.upgrade) return run_rollout(inv, runner, hosts);
        std::vector<host_result> results =
            runner.run(hosts, [&](const inventory_host& h, const kelp::target& t, reporter& r) {
                return run_device_command(inv, t, h.name, r);
            });
        return runner.finish(results, "fleet " + cmd);
    });
}
