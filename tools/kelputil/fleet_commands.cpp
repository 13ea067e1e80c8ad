#include "fleet_commands.h"

#include <algorithm>

#include "choose.h"
#include "device_commands.h"
#include "rollout.h"
#include "inventory.h"
#include "outcome.h"
#include "reporter.h"


outcome run_on_fleet(const invocation& inv, const fleet_job& job, kelp::bytes* image) {
    std::string cmd = inv.device_command();
    inventory hosts_file;
    std::vector<const inventory_host*> hosts;
    fleet_runner runner(inv.conn, inv.output, inv.fleet);
    kelp::status st = choose_hosts(inv.fleet, inv.output, &hosts_file, &hosts);
    if (st && inv.fleet.list_hosts) return host_list(inv.conn, hosts);
    std::vector<std::string> names;
    for (const inventory_host* h : hosts) names.push_back(h->name);
    if (st) st = make_host_folders(inv, names);
    // A roll-out checks its image before the passwords, and its dry run
    // needs none.
    bool rollout = cmd == "firmware" && inv.upgrade;
    kelp::bytes unused;
    if (st && cmd == "firmware" && !rollout && inv.file.find("{host}") == std::string::npos)
        st = read_image(inv.file, image ? image : &unused);  // one image for all: refused once, not once a host
    if (st && !rollout) st = runner.check_passwords(hosts);
    if (!st) return failure(st);
    return job(runner, hosts);
}

outcome run_fleet(const invocation& inv) {
    std::string cmd = inv.device_command();
    // Firmware without {host}: the image read once, held once, not once a
    // running host.
    kelp::bytes image;
    return run_on_fleet(
        inv,
        [&](fleet_runner& runner, const std::vector<const inventory_host*>& hosts) {
            if (cmd == "firmware" && inv.upgrade) return run_rollout(inv, runner, hosts);
            std::vector<host_result> results =
                runner.run(hosts, [&](const inventory_host& h, const kelp::target& t, reporter& r) {
                    if (!image.empty()) return upload_image(t, image, inv.upgrade, inv.file, r);
                    return run_device_command(inv, t, h.name, r);
                });
            return runner.summary(results, "fleet " + cmd);
        },
        &image);
}
