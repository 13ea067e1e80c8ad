#include "choose.h"

#include "reporter.h"
#include "table.h"

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
    std::vector<std::vector<std::string>> rows;
    for (const inventory_host* h : hosts) {
        kelp::target t = make_target(c, settings_of(*h), nullptr, notes, false, true);
        const char* mode = t.tls ? "TLS" : "plain";
        o.data.push_back({{"host", h->name}, {"address", t.host}, {"port", t.port}, {"mode", mode}});
        rows.push_back({h->name, t.host, std::to_string(t.port), mode});
    }
    o.message = plural(hosts.size(), "host");
    o.answer = true;  // the count stays under -q
    o.text = table_text({{"HOST"}, {"ADDRESS"}, {"PORT", 5}, {"MODE"}}, rows);
    return o;
}
