#include "runner.h"

#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "clock.h"
#include "lines.h"
#include "net.h"
#include "reporter.h"

namespace {

std::string source_key(const password_source& src) { return src.file.empty() ? "env:" + src.env : "file:" + src.file; }

// Notes from many hosts: first contacts are counted, not listed one by one,
// unless --verbose asks for every line.
class fleet_notes : public reporter {
public:
    explicit fleet_notes(bool verbose) : verbose_(verbose) {}
    void note(const std::string& text) override {
        if (text.rfind("first contact", 0) == 0) {
            first_contacts++;
            if (!verbose_) return;
        }
        std::lock_guard<std::mutex> hold(lock_);
        reporter::note(text);
    }
    std::atomic<int> first_contacts{0};

private:
    bool verbose_;
    std::mutex lock_;
};

const int stop_signals[] = {SIGINT, SIGTERM, SIGHUP};
volatile sig_atomic_t caught_signal = 0;

// The first of them stops the run; the next, whichever it is, ends the
// process.
void on_stop_signal(int sig) {
    caught_signal = sig;
    for (int s : stop_signals) signal(s, SIG_DFL);
}

}  // namespace

struct fleet_runner::state {
    connection_options conn;
    output_options out;
    fleet_options fleet;
    fleet_notes notes;
    std::mutex lock;  // results, the display and stdout
    std::map<std::string, kelp::password_fn> providers;
    bool live = false;  // the status line on stderr
    size_t total = 0, done = 0, failed = 0, running = 0;
    double started = 0;
    std::function<bool()> stop;

    bool stopping() const { return caught_signal != 0 || (stop && stop()); }

    state(const connection_options& c, const output_options& o, const fleet_options& f)
        : conn(c), out(o), fleet(f), notes(o.verbose > 0) {}

    void clear_line() {
        if (live) fprintf(stderr, "\r%s\r", std::string(terminal_width(2) - 1, ' ').c_str());
    }

    // A host's findings as soon as it is done, every line under the host's
    // name as parallel shells print them, so that grep finds one host's lines.
    void print_findings(const std::string& host, const std::string& text) {
        clear_line();
        std::string name = terminal_text(host);
        for (std::string_view line : kelp::lines_of(text))
            printf("%s: %s\n", name.c_str(), terminal_text(std::string(line)).c_str());
        flush_stdout();
    }

    void draw() {
        if (!live) return;
        char line[160];
        snprintf(line, sizeof line, "fleet: %zu done, %zu failed, %zu running, %zu left", done, failed, running,
                 total - done - running);
        std::string text = line;
        int width = terminal_width(2) - 1;
        if ((int)text.size() > width) text.resize(width);
        text.append(width - text.size(), ' ');
        fprintf(stderr, "\r%s", text.c_str());
        fflush(stderr);
    }
};

fleet_runner::fleet_runner(const connection_options& conn, const output_options& out, const fleet_options& fleet)
    : s_(std::make_unique<state>(conn, out, fleet)) {
    s_->live = !out.json && !out.quiet && isatty(2);
}

fleet_runner::~fleet_runner() = default;

reporter& fleet_runner::notes() { return s_->notes; }

void fleet_runner::stop_on_signals() {
    struct sigaction act {};
    act.sa_handler = on_stop_signal;  // no SA_RESTART: a waiting host sees EINTR and carries on
    for (int sig : stop_signals) sigaction(sig, &act, nullptr);
}

int fleet_runner::stopped_by() const { return caught_signal; }

void fleet_runner::stop_when(std::function<bool()> stop) { s_->stop = std::move(stop); }

kelp::status fleet_runner::check_passwords(const std::vector<const inventory_host*>& hosts) {
    bool plain = false;
    for (const inventory_host* h : hosts) {
        host_settings hs = settings_of(*h);
        password_source src = password_source_for(s_->conn, hs);
        plain = plain || hs.tls == 0 || (hs.tls < 0 && s_->conn.plain);
        std::string key = source_key(src);
        if (s_->providers.count(key)) continue;
        kelp::status st = check_password_source(src);
        if (!st) return kelp::fail(st.kind, h->name + ": " + st.message);
        s_->providers[key] = password_provider(src);  // one prompt per source, shared by its hosts
        // Asked now: a prompt in the middle of the run would fight the status
        // line, and its typing would count in every waiting host's time.
        std::string ignored;
        if (!(st = s_->providers[key](&ignored))) return kelp::fail(st.kind, h->name + ": " + st.message);
    }
    if (plain)
        s_->notes.note("some hosts use the plain protocol: their password can be read by anyone who captures it");
    return kelp::ok();
}

kelp::target fleet_runner::target_for(const inventory_host& host, reporter& notes) {
    host_settings hs = settings_of(host);
    password_source src = password_source_for(s_->conn, hs);
    kelp::password_fn provider;
    {
        std::lock_guard<std::mutex> hold(s_->lock);
        kelp::password_fn& p = s_->providers[source_key(src)];
        if (!p) p = password_provider(src);
        provider = p;
    }
    return make_target(s_->conn, hs, provider, notes, s_->out.verbose > 0, true);
}

std::vector<host_result> fleet_runner::run(const std::vector<const inventory_host*>& hosts, const host_job& job,
                                           int parallel) {
    std::vector<host_result> results(hosts.size());
    std::atomic<size_t> next{0};
    {
        std::lock_guard<std::mutex> hold(s_->lock);
        s_->total += hosts.size();
        if (s_->started == 0) s_->started = kelp::monotonic_seconds();
    }
    auto worker = [&] {
        for (size_t i; !s_->stopping() && (i = next++) < hosts.size();) {
            const inventory_host& h = *hosts[i];
            {
                std::lock_guard<std::mutex> hold(s_->lock);
                s_->running++;
                s_->draw();
            }
            double start = kelp::monotonic_seconds();
            outcome o;
            try {
                o = job(h, target_for(h, s_->notes), s_->notes);
            } catch (const std::exception& e) {
                o = local_failure(std::string("internal error: ") + e.what());
            }
            host_result r{h.name, std::move(o), kelp::monotonic_seconds() - start};
            std::lock_guard<std::mutex> hold(s_->lock);
            s_->running--;
            s_->done++;
            s_->failed += !r.result.ok();
            if (s_->out.json) {
                json line = outcome_json(r.result);
                line["host"] = r.host;
                line["seconds"] = json_seconds(r.seconds);
                printf("%s\n", json_line(line).c_str());
                flush_stdout();
            } else if (!r.result.text.empty()) {
                s_->print_findings(r.host, r.result.text);
            }
            s_->draw();
            // Only the table's columns stay: memory does not grow with a
            // host's findings.
            r.result.data = nullptr;
            r.result.text.clear();
            results[i] = std::move(r);
        }
    };
    int n = parallel > 0 ? parallel : s_->fleet.jobs;
    if ((size_t)n > hosts.size()) n = (int)hosts.size();
    std::vector<std::thread> threads;
    for (int i = 1; i < n; i++) threads.emplace_back(worker);
    worker();
    for (std::thread& t : threads) t.join();
    for (size_t i = next; i < hosts.size(); i++)
        results[i] = {hosts[i]->name, local_failure("not started: the run stopped"), 0, false};
    return results;
}

void fleet_runner::end_status_line() { s_->clear_line(); }

outcome fleet_runner::summary(const std::vector<host_result>& results, const std::string& what, json extra) {
    end_status_line();
    json ok_hosts = json::array(), failed_hosts = json::array(), untouched = json::array();
    outcome o;
    o.hosts.emplace();
    for (const host_result& r : results) {
        (!r.touched ? untouched : r.result.ok() ? ok_hosts : failed_hosts).push_back(r.host);
        o.hosts->push_back({r.host, r.result.ok(), r.touched, r.seconds, r.result.message});
    }
    double elapsed = kelp::monotonic_seconds() - s_->started;
    o.exit = failed_hosts.empty() && untouched.empty() ? exit_ok : exit_some_hosts_failed;
    o.message = what + ": " + plural(results.size(), "host") + ", " + std::to_string(ok_hosts.size()) + " ok, " +
                std::to_string(failed_hosts.size()) + " failed" +
                (untouched.empty() ? "" : ", " + std::to_string(untouched.size()) + " not touched") + ", in " +
                kelp::seconds_text(elapsed);
    o.data = {{"hosts", results.size()},
              {"succeeded", ok_hosts},
              {"failed", failed_hosts},
              {"seconds", json_seconds(elapsed)}};
    if (!untouched.empty()) o.data["not_touched"] = untouched;
    if (!extra.is_null()) o.data.update(extra);
    if (s_->notes.first_contacts > 0 && !s_->out.verbose)
        s_->notes.reporter::note("first contact with " + std::to_string(s_->notes.first_contacts) +
                                 (s_->notes.first_contacts == 1 ? " host" : " hosts") +
                                 ": the certificates are now remembered");
    return o;
}
