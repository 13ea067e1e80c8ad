// kelputil serve's parts that need no router: the back-off, where hosts
// fall in the interval at a start and a restart, the core report's lines,
// which listening addresses count as loopback, the metrics' labels, and who
// is told when a run ends.
#include <gtest/gtest.h>
#include <unistd.h>

#include "serve_backup.h"
#include "serve_metrics.h"
#include "serve_options.h"
#include "serve_scheduler.h"
#include "serve_waiters.h"

namespace {

TEST(serve, retry_delay_grows_and_stays_below_half_the_interval) {
    struct row {
        double interval;
        int failures;
        double want;
    } rows[] = {{3600, 1, 225}, {3600, 2, 450}, {3600, 4, 1800}, {3600, 9, 1800}, {6, 0, 0.375}, {6, 3, 1.5}};
    for (const row& r : rows) EXPECT_DOUBLE_EQ(retry_delay(r.interval, r.failures), r.want) << r.failures;
}

inventory_host host(const std::string& name) { return {name, {}}; }

std::map<std::string, double> due_times(const scheduler& s) {
    std::map<std::string, double> out;
    for (const host_state& h : s.hosts()) out[h.name] = h.next_due;
    return out;
}

TEST(serve, hosts_spread_over_the_interval_and_keep_their_place) {
    scheduler s(60, 1, [](const inventory_host&) { return host_run{}; }, [](const host_state&, const host_run&) {});
    std::map<std::string, host_state> saved;
    saved["b"].next_due = 1030;  // still ahead: kept
    saved["c"].next_due = 990;   // overdue, longer than d: before it
    saved["d"].next_due = 995;   // never-run "a" goes first
    s.set_hosts({host("a"), host("b"), host("c"), host("d")}, saved, 1000);
    EXPECT_EQ(due_times(s), (std::map<std::string, double>{{"a", 1000}, {"b", 1030}, {"c", 1020}, {"d", 1040}}));
    // Read again: "e" joins over one interval, "a" leaves, the rest stay.
    s.set_hosts({host("b"), host("c"), host("d"), host("e")}, {}, 1010);
    EXPECT_EQ(due_times(s), (std::map<std::string, double>{{"b", 1030}, {"c", 1020}, {"d", 1040}, {"e", 1010}}));
    EXPECT_DOUBLE_EQ(s.lag(1012), 2);
}

// A run in turn moves the host one interval on from its slot; a run out of
// turn leaves its slot; a failure counts and waits the back-off.
TEST(serve, runs_keep_each_hosts_place) {
    auto runner = [](const inventory_host& h) { return host_run{h.name == "c" ? "refused" : "", "", "", ""}; };
    scheduler s(60, 2, runner, [](const host_state&, const host_run&) {});
    double start = now_seconds();
    s.set_hosts({host("a"), host("b"), host("c")}, {}, start);  // a at start, b +20, c +40
    s.start();
    long long ticket;
    host_state st;
    host_run r;
    ASSERT_TRUE(s.run_now("c", &ticket) && s.wait_for("c", ticket, 5000, &st, &r));
    EXPECT_EQ(st.consecutive_failures, 1);
    EXPECT_EQ(st.last_error, "refused");
    EXPECT_NEAR(st.next_due, now_seconds() + 3.75, 0.5);
    ASSERT_TRUE(s.run_now("b", &ticket) && s.wait_for("b", ticket, 5000, &st, &r));
    EXPECT_DOUBLE_EQ(st.next_due, start + 20);
    wait_end told = wait_end::stopping;
    s.when_done("b", ticket, [&](wait_end end, const host_state& h, const host_run&) {
        told = end;
        st = h;
    });
    EXPECT_EQ(told, wait_end::finished);  // at once: that run is over
    EXPECT_EQ(st.attempts, 1);
    ASSERT_TRUE(s.find("a", &st));
    for (int i = 0; i < 100 && st.attempts == 0; i++) usleep(20000), s.find("a", &st);
    EXPECT_DOUBLE_EQ(st.next_due, start + 60);
    EXPECT_EQ(scheduler::verdict(st), "ok");
    s.stop(5000);
}

// Each waiter is told once: by the run it waits for or a later one, when
// its host leaves, or at stop.
TEST(serve, run_waiters_are_told_once) {
    std::string told;
    run_waiters w;
    auto note = [&](const char* who) {
        return [&told, who](wait_end end, const host_state&, const host_run&) {
            told += std::string(who) + "=" + "FLS"[(int)end] + " ";
        };
    };
    w.add("a", 2, note("a2"));
    w.add("a", 3, note("a3"));
    w.add("b", 1, note("b1"));
    w.add("c", 1, note("c1"));
    struct row { std::function<void()> event; const char* told; } rows[] = {
        {[&] { w.finished("a", 1, {}, {}); }, ""},
        {[&] { w.finished("a", 2, {}, {}); }, "a2=F "},
        {[&] { w.host_left("b"); }, "a2=F b1=L "},
        {[&] { w.finished("a", 2, {}, {}); }, "a2=F b1=L "},
        {[&] { w.stop(); }, "a2=F b1=L a3=S c1=S "},
        {[&] { w.stop(); }, "a2=F b1=L a3=S c1=S "},
    };
    for (const row& r : rows) {
        r.event();
        EXPECT_EQ(told, r.told);
    }
}

TEST(serve, core_report_lines) {
    struct row { const char* report; const char* model; const char* firmware; } rows[] = {
        {"model: simulated kelp-v3 router\nuptime: 5 s\n", "simulated kelp-v3 router", ""},
        {"uptime: 5 s\nfirmware:   3.2.1\nmodel:", "", "3.2.1"}, {"my model: x\n", "", ""},
    };
    for (const row& r : rows) {
        std::string model, firmware;
        read_core_report(r.report, &model, &firmware);
        EXPECT_EQ(model, r.model) << r.report;
        EXPECT_EQ(firmware, r.firmware) << r.report;
    }
}

TEST(serve, loopback_addresses) {
    struct row {
        const char* host;
        bool loopback;
    } rows[] = {{"127.0.0.1", true}, {"127.9.0.1", true}, {"::1", true},        {"localhost", true},
                {"0.0.0.0", false},  {"::", false},       {"128.0.0.1", false}, {"198.18.0.1", false}};
    for (const row& r : rows) EXPECT_EQ(is_loopback(r.host), r.loopback) << r.host;
}

TEST(serve, metrics_escape_label_values) {
    scheduler s(60, 1, [](const inventory_host&) { return host_run{}; }, [](const host_state&, const host_run&) {});
    s.set_hosts({host("a\"b\\c")}, {}, 1000);
    std::string text = metrics_text(s, 1000, 60);
    EXPECT_NE(text.find("kelputil_host_up{host=\"a\\\"b\\\\c\"} 0\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nkelputil_hosts 1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nkelputil_backup_interval_seconds 60\n"), std::string::npos) << text;
}

}  // namespace
