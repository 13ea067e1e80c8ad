#include "fleet.h"

#include <stdio.h>

#include "device_commands.h"
#include "fleet_backup.h"
#include "fleet_rollout.h"
#include "fleet_runner.h"
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
    o.message = std::to_string(hosts.size()) + (hosts.size() == 1 ? " host" : " hosts");
    if (inv.json) {
        print_outcome(o, true, false);
        return 0;
    }
    size_t name_width = 4, address_width = 7;
    for (const json& row : o.data) {
        name_width = std::max(name_width, row["host"].get<std::string>().size());
        address_width = std::max(address_width, row["address"].get<std::string>().size());
    }
    printf("%-*s  %-*s  %-5s  %s\n", (int)name_width, "HOST", (int)address_width, "ADDRESS", "PORT", "MODE");
    for (const json& row : o.data)
        printf("%-*s  %-*s  %-5d  %s\n", (int)name_width, terminal_text(row["host"]).c_str(), (int)address_width,
               terminal_text(row["address"]).c_str(), row["port"].get<int>(), row["mode"].get<std::string>().c_str());
    printf("%s\n", o.message.c_str());
    fflush(stdout);
    return 0;
}

}  // namespace

int run_fleet(const invocation& inv) {
    std::string cmd = inv.device_command();
    if (cmd == "history") return run_fleet_history(inv);
    if (cmd == "diff") return run_fleet_diff(inv);
    inventory hosts_file;
    std::vector<const inventory_host*> hosts;
    // Nothing runs on a bad inventory, an empty selection or a missing password.
    kelp::status st = load_inventory(inv.inventory, &hosts_file);
    if (st && !inv.quiet)
        for (const std::string& w : hosts_file.warnings) reporter().note(w);
    if (st) st = select_hosts(hosts_file, inv.limit, &hosts);
    if (st && inv.list_hosts) return list_hosts(inv, hosts);
    fleet_runner runner(inv);
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
