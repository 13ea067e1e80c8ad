#include "metrics.h"

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

void header(std::string* out, const char* name, const char* type, const char* help) {
    *out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void per_host(std::string* out, const char* name, const char* type, const char* help,
              const std::vector<host_state>& hosts, const std::function<double(const host_state&)>& value) {
    header(out, name, type, help);
    for (const host_state& h : hosts)
        *out += std::string(name) + "{host=\"" + label(h.name) + "\"} " + number(value(h)) + "\n";
}

void single(std::string* out, const char* name, const char* type, const char* help, double value) {
    header(out, name, type, help);
    *out += std::string(name) + " " + number(value) + "\n";
}

}  // namespace

std::string metrics_text(const scheduler& s, const health_figures& f, bool push) {
    std::vector<host_state> hosts = s.hosts();
    double now = s.wall_now(), interval = s.interval();
    std::string out;
    per_host(&out, "kelputil_host_up", "gauge", "1 when the host's last backup attempt succeeded.", hosts,
             [](const host_state& h) { return h.attempts > 0 && h.consecutive_failures == 0 ? 1 : 0; });
    per_host(&out, "kelputil_backup_overdue", "gauge",
             "1 when the host has had no backup for two intervals since the service or the host started.", hosts,
             [&](const host_state& h) { return is_overdue(h, now, interval) ? 1 : 0; });
    per_host(&out, "kelputil_backup_last_success_timestamp_seconds", "gauge", "When the host's last backup succeeded.",
             hosts, [](const host_state& h) { return h.last_success; });
    per_host(&out, "kelputil_backup_last_change_timestamp_seconds", "gauge",
             "When a backup last found the host's configuration changed.", hosts,
             [](const host_state& h) { return h.last_change; });
    per_host(&out, "kelputil_backup_duration_seconds", "gauge", "How long the host's last backup attempt took.", hosts,
             [](const host_state& h) { return h.last_duration; });
    per_host(&out, "kelputil_backup_attempts_total", "counter", "Backup attempts of the host.", hosts,
             [](const host_state& h) { return (double)h.attempts; });
    per_host(&out, "kelputil_backup_failures_total", "counter", "Failed backup attempts of the host.", hosts,
             [](const host_state& h) { return (double)h.failures; });
    single(&out, "kelputil_hosts", "gauge", "Hosts served.", (double)hosts.size());
    single(&out, "kelputil_backup_interval_seconds", "gauge", "How often each host is backed up.", interval);
    single(&out, "kelputil_schedule_lag_seconds", "gauge",
           "How far the most overdue host is behind its due time, waiting or stuck in its run.", s.lag());
    single(&out, "kelputil_commit_failures_total", "counter", "Backups that could not be written to the repository.",
           (double)f.commit_failures);
    single(&out, "kelputil_repository_writable", "gauge", "0 while the repository cannot be written (a full disk).",
           f.repository_writable ? 1 : 0);
    header(&out, "kelputil_hook_failures_total", "counter", "Hooks that failed, ran out of time or could not start.");
    for (const char* hook : {"on-change", "on-failure", "on-recovery"}) {
        auto n = f.hook_failures.find(hook);
        out += std::string("kelputil_hook_failures_total{hook=\"") + hook + "\"} " +
               number(n == f.hook_failures.end() ? 0 : (double)n->second) + "\n";
    }
    single(&out, "kelputil_config_last_reload_successful", "gauge", "1 when the last reading of the inventory worked.",
           f.reload_ok ? 1 : 0);
    single(&out, "kelputil_config_last_reload_success_timestamp_seconds", "gauge",
           "When the inventory was last read successfully.", f.reload_last_success);
    if (push) {
        single(&out, "kelputil_push_last_success_timestamp_seconds", "gauge", "When a push last succeeded.",
               f.push_last_success);
        single(&out, "kelputil_push_failures_total", "counter", "Pushes that failed or ran out of time.",
               (double)f.push_failures);
    }
    return out;
}
