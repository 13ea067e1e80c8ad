#include "facts.h"

#include <stdlib.h>
#include <string.h>

namespace {

// A firmware upgrade reboots the router, which a backup in between sees
// as a failure; beyond that, the facts are read again at least this often.
constexpr double facts_max_age = 24 * 3600;

const char version_banner[] = "---[ Software Version ]";

std::string trimmed(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r"), e = s.find_last_not_of(" \t\r");
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

template <typename F>
void each_line(const std::string& text, F f) {
    for (size_t at = 0; at < text.size();) {
        size_t end = std::min(text.find('\n', at), text.size());
        if (!f(text.substr(at, end - at))) return;
        at = end + 1;
    }
}

std::string text_of(const kelp::bytes& b) { return std::string(b.begin(), b.end()); }

}  // namespace

bool facts_due(const host_state& before, bool changed, double now) {
    return before.reports_time == 0 || changed || before.consecutive_failures > 0 ||
           now - before.reports_time > facts_max_age;
}

void read_core_report(const std::string& report, std::string* model, double* uptime) {
    each_line(report, [&](const std::string& line) {
        if (line.rfind("model:", 0) == 0) *model = trimmed(line.substr(6));
        if (line.rfind("uptime:", 0) == 0) *uptime = atof(line.c_str() + 7);
        return true;
    });
}

// The section's first line that says something: show-version's output.
std::string software_version(const std::string& full_report) {
    std::string version;
    bool inside = false;
    each_line(full_report, [&](const std::string& line) {
        if (line.rfind("---[ ", 0) == 0) {
            if (inside) return false;
            inside = line.rfind(version_banner, 0) == 0;
            return true;
        }
        if (inside && !trimmed(line).empty()) {
            version = trimmed(line);
            return false;
        }
        return true;
    });
    return version;
}

bool read_facts(const kelp::target& t, router_facts* out) {
    kelp::bytes core, full;
    bool got_core = (bool)kelp::fetch_report(t, action_core_sysinfo, 0, &core);
    bool got_full = (bool)kelp::fetch_report(t, action_sysinfo, 0, &full);
    if (got_core) read_core_report(text_of(core), &out->model, &out->uptime);
    if (got_full) out->firmware = software_version(text_of(full));
    return got_core || got_full;
}
