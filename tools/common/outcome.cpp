#include "outcome.h"

#include <errno.h>
#include <math.h>
#include <stdio.h>

#include <algorithm>
#include <atomic>

#include "clock.h"
#include "json_bytes.h"
#include "lines.h"
#include "natural_order.h"
#include "table.h"

const exit_meaning exit_meanings[8] = {
    {exit_ok, "success"},
    {exit_usage, "usage or local error"},
    {exit_password, "wrong password"},
    {exit_unreachable, "could not connect, connection lost or timed out"},
    {exit_protocol, "protocol error"},
    {exit_tls, "certificate or TLS failure"},
    {exit_device,
     "+ the device's result code (10 failed, 12 too large, 13 too small, 14 not supported or busy, "
     "16 no such user)"},
    {exit_some_hosts_failed, "a fleet run where some hosts failed"},
};

std::string exit_status_help() {
    std::string text = "Exit status:";
    for (const exit_meaning& e : exit_meanings)
        text += (&e == exit_meanings ? " " : "; ") + std::to_string(e.status) + " " + e.meaning;
    return text + ".";
}

int exit_status(const kelp::status& s) {
    using kelp::error_kind;
    switch (s.kind) {
    case error_kind::none: return exit_ok;
    case error_kind::local: return exit_usage;
    case error_kind::refused_password: return exit_password;
    case error_kind::connect_failed:
    case error_kind::timed_out:
    case error_kind::closed: return exit_unreachable;
    case error_kind::protocol:
    case error_kind::wrong_protocol: return exit_protocol;
    case error_kind::certificate: return exit_tls;
    case error_kind::device: return exit_device + s.code;
    }
    return exit_usage;
}

static std::string with_advice(const kelp::status& s) {
    if (s.kind == kelp::error_kind::refused_password)
        return s.message + " (check KELPUTIL_PASSWORD, --password-file, or what was typed)";
    if (s.kind == kelp::error_kind::device && s.code == 4)
        return s.message + ": the device may be busy with another job (an upgrade); try again later";
    return s.message;
}

outcome success(const std::string& message, json data) {
    outcome o;
    o.message = message;
    o.data = std::move(data);
    return o;
}

outcome failure(const kelp::status& s, json data) {
    outcome o;
    o.exit = exit_status(s);
    o.code = s.kind == kelp::error_kind::device ? s.code : -1;
    o.message = with_advice(s);
    o.data = std::move(data);
    return o;
}

outcome local_failure(const std::string& message) {
    outcome o;
    o.exit = exit_usage;
    o.message = message;
    return o;
}

outcome usage_failure(const std::string& message, const std::string& usage) {
    outcome o = local_failure(message);
    o.usage = usage;
    o.data = {{"usage", usage}};
    return o;
}

json outcome_json(const outcome& o) {
    return {{"ok", o.ok()},
            {"exit", o.exit},
            {"code", o.code < 0 ? json(nullptr) : json(o.code)},
            {"message", o.message},
            {"data", o.data}};
}

std::string json_line(const json& j) { return printable(j).dump(-1, ' ', false, json::error_handler_t::replace); }

json json_lines(const std::string& text) {
    json lines = json::array();
    for (std::string_view line : kelp::lines_of(text)) lines.push_back(std::string(line));
    return lines;
}

std::string terminal_text(const std::string& bytes) {
    std::string out = bytes;
    for (char& c : out)
        if ((unsigned char)c < 0x20 || c == 0x7F) c = '?';
    return out;
}

namespace {

// Hosts in natural order: HOST, RESULT, TIME, MESSAGE.
void print_host_table(std::vector<host_row> rows, bool quiet) {
    bool any_failed = std::any_of(rows.begin(), rows.end(), [](const host_row& r) { return r.touched && !r.ok; });
    if (quiet && !any_failed) return;
    std::stable_sort(rows.begin(), rows.end(),
                     [](const host_row& a, const host_row& b) { return natural_less(a.host, b.host); });
    std::vector<std::vector<std::string>> cells;
    for (const host_row& r : rows) {
        if (quiet && r.ok) continue;
        const char* verdict = !r.touched ? "-" : r.ok ? "ok" : "FAILED";
        cells.push_back({r.host, verdict, r.touched ? kelp::seconds_text(r.seconds) : "", r.message});
    }
    std::string text = table_text({{"HOST"}, {"RESULT"}, {"TIME", 6, true}, {"MESSAGE"}}, cells);
    fwrite(text.data(), 1, text.size(), stdout);
}

}  // namespace

void print_outcome(const outcome& o, bool as_json, bool quiet) {
    if (as_json) {
        printf("%s\n", json_line(outcome_json(o)).c_str());
    } else {
        if (o.hosts) print_host_table(*o.hosts, quiet);
        if (!o.ok()) {
            flush_stdout();  // the table before the message, where both go to one place
            fprintf(stderr, "kelputil: %s\n", terminal_text(o.message).c_str());
            if (!o.usage.empty()) fprintf(stderr, "usage: %s\n", o.usage.c_str());
        } else {
            fwrite(o.text.data(), 1, o.text.size(), stdout);
            if (!o.content && (!quiet || o.answer) && !o.message.empty())
                printf("%s\n", terminal_text(o.message).c_str());
        }
    }
    flush_stdout();
}

void print_usage_error(bool as_json, const std::string& message, const std::string& usage) {
    print_outcome(usage_failure(message, usage), as_json, false);
}

namespace {
std::atomic<int> stdout_errno{0};

void keep_stdout_error(int err) {
    int none = 0;
    stdout_errno.compare_exchange_strong(none, err ? err : EIO);
}
}  // namespace

void flush_stdout() {
    if (fflush(stdout) != 0) keep_stdout_error(errno);
}

int close_stdout() {
    flush_stdout();
    if (ferror(stdout)) keep_stdout_error(0);  // a failure a flush elsewhere saw first
    if (fclose(stdout) != 0) keep_stdout_error(errno);
    return stdout_errno;
}

double json_seconds(double seconds) { return round(seconds * 1000) / 1000; }

std::string plural(size_t n, const std::string& word) { return std::to_string(n) + " " + word + (n == 1 ? "" : "s"); }

int run_program(const char* program, const std::function<int()>& body) {
    int status = exit_usage;
    try {
        status = body();
    } catch (const std::exception& e) {
        fprintf(stderr, "%s: internal error: %s\n", program, e.what());
    } catch (...) {
        fprintf(stderr, "%s: internal error\n", program);
    }
    int err = close_stdout();
    if (err == 0) return status;
    fprintf(stderr, "%s: cannot write standard output: %s\n", program, strerror(err));
    return exit_usage;
}
