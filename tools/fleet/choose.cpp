#include "choose.h"

#include <algorithm>

#include "reporter.h"

kelp::status choose_hosts(const fleet_options& f, const output_options& out, inventory* file,
                          std::vector<const inventory_host*>* hosts) {
    kelp::status st = load_inventory(f.inventory, file);
    if (st && !out.quiet)
        for (const std::string& w : file->warnings) reporter().note(w);
    if (st) st = select_hosts(*file, f.limit, hosts);
    return st;
}

// What a run would reach, from the settings the run itself would use;
// nothing is contacted and no password is needed.
outcome host_list(const connection_options& c, const std::vector<const inventory_host*>& hosts) {
    reporter notes;  // never used: nothing connects
    outcome o;
    o.data = json::array();
    for (const inventory_host* h : hosts) {
        kelp::target t = make_target(c, settings_of(*h), nullptr, notes, false, true);
        o.data.push_back({{"host", h->name}, {"address", t.host}, {"port", t.port}, {"mode", t.tls ? "TLS" : "plain"}});
    }
    o.message = plural(hosts.size(), "host");
    o.answer = true;  // the count stays under -q
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
    return o;
}
