#include "serve_metrics.h"

#include <stdio.h>

#include <functional>

namespace {

// Label values escaped as the text format asks: backslash, quote, newline.
std::string label(const std::string& value) {
    std::string out;
    for (char c : value) {
        if (c == '\\' || c == '"') out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string number(double v) {
    char text[40];
    snprintf(text, sizeof text, "%.17g", v);
    return text;
}

void family(std::string* out, const char* name, const char* type, const char* help,
            const std::vector<host_state>& hosts, const std::function<double(const host_state&)>& value) {
    *out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
    for (const host_state& h : hosts)
        *out += std::string(name) + "{host=\"" + label(h.name) + "\"} " + number(value(h)) + "\n";
}

}  // namespace

std::string metrics_text(const scheduler& s, double now, double interval) {
    std::vector<host_state> hosts = s.hosts();
    std::string out;
    family(&out, "kelputil_host_up", "gauge", "1 when the host's last backup attempt succeeded.", hosts,
           [](const host_state& h) { return h.attempts > 0 && h.consecutive_failures == 0 ? 1 : 0; });
    family(&out, "kelputil_backup_last_success_timestamp_seconds", "gauge", "When the host's last backup succeeded.",
           hosts, [](const host_state& h) { return h.last_success; });
    family(&out, "kelputil_backup_last_change_timestamp_seconds", "gauge",
           "When a backup last found the host's configuration changed.", hosts,
           [](const host_state& h) { return h.last_change; });
    family(&out, "kelputil_backup_duration_seconds", "gauge", "How long the host's last backup attempt took.", hosts,
           [](const host_state& h) { return h.last_duration; });
    family(&out, "kelputil_backup_attempts_total", "counter", "Backup attempts of the host.", hosts,
           [](const host_state& h) { return (double)h.attempts; });
    family(&out, "kelputil_backup_failures_total", "counter", "Failed backup attempts of the host.", hosts,
           [](const host_state& h) { return (double)h.failures; });
    out += "# HELP kelputil_hosts Hosts served.\n# TYPE kelputil_hosts gauge\nkelputil_hosts " +
           std::to_string(hosts.size()) + "\n";
    out +=
        "# HELP kelputil_backup_interval_seconds How often each host is backed up.\n"
        "# TYPE kelputil_backup_interval_seconds gauge\nkelputil_backup_interval_seconds " +
        number(interval) + "\n";
    out +=
        "# HELP kelputil_schedule_lag_seconds How far the most overdue host is behind its due time.\n"
        "# TYPE kelputil_schedule_lag_seconds gauge\nkelputil_schedule_lag_seconds " +
        number(s.lag(now)) + "\n";
    return out;
}
