#include "fleet_commands.h"

#include <algorithm>

#include "choose.h"
#include "commands.h"
#include "device_commands.h"
#include "inventory.h"
#include "outcome.h"
#include "reporter.h"
#include "rollout.h"

outcome run_on_fleet(const invocation& inv, const fleet_job& job, kelp::bytes* image) {
    const command_args& a = inv.args;
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
    bool rollout = cmd == "firmware" && a.upgrade;
    kelp::bytes unused;
    if (st && cmd == "firmware" && !rollout && a.file.find("{host}") == std::string::npos)
        st = read_image(a.file, image ? image : &unused);  // one image for all: refused once, not once a host
    if (st && !rollout) st = runner.check_passwords(hosts);
    if (!st) return failure(st);
    return job(runner, hosts);
}

outcome run_fleet(const invocation& inv) {
    device_step step = inv.row->on_device;
    return run_on_fleet(inv, [&](fleet_runner& runner, const std::vector<const inventory_host*>& hosts) {
        auto on_host = [&](const inventory_host& h, const kelp::target& t, reporter& r) {
            return step(inv, t, h.name, r);
        };
        std::vector<host_result> results = runner.run(hosts, on_host);
        return runner.summary(results, inv.command);
    });
}

outcome run_fleet_firmware(const invocation& inv) {
    const command_args& a = inv.args;
    // Without {host}: the image read once, held once, not once a running
    // host.
    kelp::bytes image;
    return run_on_fleet(
        inv,
        [&](fleet_runner& runner, const std::vector<const inventory_host*>& hosts) {
            if (a.upgrade) return run_rollout(inv, runner, hosts);
            std::vector<host_result> results =
                runner.run(hosts, [&](const inventory_host& h, const kelp::target& t, reporter& r) {
                    if (!image.empty()) return upload_image(t, image, false, a.file, r);
                    return run_firmware(inv, t, h.name, r);
                });
            return runner.summary(results, inv.command);
        },
        &image);
}
