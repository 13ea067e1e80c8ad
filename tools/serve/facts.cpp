#include "facts.h"

#include <stdlib.h>
#include <string.h>

#include "lines.h"

namespace {

// A firmware upgrade reboots the router, which a backup in between sees
// as a failure; beyond that, the facts are read again at least this often.
constexpr double facts_max_age = 24 * 3600;

const char version_banner[] = "---[ Software Version ]";

std::string text_of(const kelp::bytes& b) { return std::string(b.begin(), b.end()); }

}  // namespace

bool facts_due(const host_state& before, bool changed, double now) {
    return before.reports_time == 0 || changed || before.consecutive_failures > 0 ||
           now - before.reports_time > facts_max_age;
}

void read_core_report(const std::string& report, std::string* model, double* uptime) {
    for (std::string_view line : kelp::lines_of(report)) {
        if (line.rfind("model:", 0) == 0) *model = kelp::trim(line.substr(6));
        if (line.rfind("uptime:", 0) == 0) *uptime = atof(std::string(line.substr(7)).c_str());
    }
}

// The section's first line that says something: show-version's output.
std::string software_version(const std::string& full_report) {
    bool inside = false;
    for (std::string_view line : kelp::lines_of(full_report)) {
        if (line.rfind("---[ ", 0) == 0) {
            if (inside) break;
            inside = line.rfind(version_banner, 0) == 0;
        } else if (inside && !kelp::trim(line).empty()) {
            return kelp::trim(line);
        }
    }
    return "";
}

bool read_facts(const kelp::target& t, router_facts* out) {
    kelp::bytes core, full;
    bool got_core = (bool)kelp::fetch_report(t, action_core_sysinfo, 0, &core);
    bool got_full = (bool)kelp::fetch_report(t, action_sysinfo, 0, &full);
    if (got_core) read_core_report(text_of(core), &out->model, &out->uptime);
    if (got_full) out->firmware = software_version(text_of(full));
    return got_core || got_full;
}
