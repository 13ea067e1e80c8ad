#include "fleet.h"

#include <algorithm>

#include "device_commands.h"
#include "fleet_rollout.h"
#include "inventory.h"
#include "outcome.h"
#include "reporter.h"

namespace {

// What a run would reach, from the settings the run itself would use;
// nothing is contacted and no password is needed.
int list_hosts(const invocation& inv, const std::vector<const inventory_host*>& hosts) {
    reporter notes;  // never used: nothing connects
    outcome o;
    o.data = json::array();
    for (const inventory_host* h : hosts) {
        kelp::target t = make_target(inv, settings_of(*h), nullptr, notes);
        o.data.push_back({{"host", h->name}, {"address", t.host}, {"port", t.port}, {"mode", t.tls ? "TLS" : "plain"}});
    }
    o.message = plural(hosts.size(), "host");
    size_t name_width = 4, address_width = 7;
    for (const json& row : o.data) {
        name_width = std::max(name_width, row["host"].get<std::string>().size());
        address_width = std::max(address_width, row["address"].get<std::string>().size());
    }
    auto pad = [](const std::string& cell, size_t width) { return cell + std::string(width - cell.size() + 2, ' '); };
    o.text = pad("HOST", name_width) + pad("ADDRESS", address_width) + pad("PORT", 5) + "MODE\n";
    for (const json& row : o.data)
        o.text += pad(terminal_text(row["host"]), name_width) + pad(terminal_text(row["address"]), address_width) +
                  pad(std::to_string(row["port"].get<int>()), 5) + row["mode"].get<std::string>() + "\n";
    print_outcome(o, inv.json, false);  // the count stays under -q: it is the answer
    return 0;
}

}  // namespace

int run_on_fleet(const invocation& inv, const fleet_job& job, kelp::bytes* image) {
    std::string cmd = inv.device_command();
    inventory hosts_file;
    std::vector<const inventory_host*> hosts;
    fleet_runner runner(inv);
    kelp::status st = load_inventory(inv.inventory, &hosts_file);
    if (st && !inv.quiet)
        for (const std::string& w : hosts_file.warnings) reporter().note(w);
    if (st) st = select_hosts(hosts_file, inv.limit, &hosts);
    if (st && inv.list_hosts) return list_hosts(inv, hosts);
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
    if (!st) {
        print_outcome(failure(st), inv.json, inv.quiet);
        return exit_status(st);
    }
    return job(runner, hosts);
}

int run_fleet(const invocation& inv) {
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
            return runner.finish(results, "fleet " + cmd);
        },
        &image);
}
