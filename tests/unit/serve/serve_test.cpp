// kelputil serve's parts that need no router: where hosts fall in the
// interval on the monotonic clock, what counts as overdue, natural order,
// the state file (old layouts, damage, attempts), the reports' facts,
// which listening addresses count as loopback, the metrics' labels, and
// who is told when a run ends, and hooks ended with their process groups.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdio.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>

#include "clock.h"
#include "facts.h"
#include "hooks.h"
#include "metrics.h"
#include "options.h"
#include "scheduler.h"
#include "state.h"
#include "waiters.h"

namespace {

// A folder of the test's own, gone with it.
struct private_dir {
    std::string path;
    private_dir() {
        char t[] = "/tmp/serve-test-XXXXXX";
        path = mkdtemp(t);
    }
    ~private_dir() { EXPECT_EQ(system(("rm -rf " + path).c_str()), 0); }
};

// Running, not a zombie left for init to reap.
bool alive(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string pid_text, name, state;
    return stat >> pid_text >> name >> state && state != "Z";
}

inventory_host host(const std::string& name) { return {name, {}}; }

// A clock the test moves: monotonic and wall apart, as after a boot.
struct test_clock {
    double mono = 100, wall = 1000;
    schedule_clock get() {
        return {[this] { return mono; }, [this] { return wall; }};
    }
};

scheduler idle_schedule(double interval, test_clock& c) {
    return scheduler(interval, 1, [](const inventory_host&, const host_state&) { return host_run{}; },
                     [](const host_state&, const host_run&, int) {}, c.get());
}

std::map<std::string, double> due_times(const scheduler& s) {
    std::map<std::string, double> out;
    for (const host_state& h : s.hosts()) out[h.name] = h.next_due;
    return out;
}

TEST(serve, hosts_spread_over_the_interval_and_keep_their_place) {
    test_clock c;
    scheduler s = idle_schedule(60, c);
    std::map<std::string, host_state> saved;
    saved["b"].next_due = 1030;  // still ahead: kept
    saved["b"].since = 500;      // in the schedule since before this start: overdue counts from then
    saved["c"].next_due = 990;   // overdue, longer than d: before it
    saved["d"].next_due = 995;   // never-run "a" goes first
    saved["f"].next_due = 4600;  // an hour ahead, from a longer --interval: due now, after d
    s.set_hosts({host("a"), host("b"), host("c"), host("d"), host("f")}, saved);
    EXPECT_EQ(due_times(s),
              (std::map<std::string, double>{{"a", 1000}, {"b", 1030}, {"c", 1015}, {"d", 1030}, {"f", 1045}}));
    std::map<std::string, double> since;
    for (const host_state& h : s.hosts()) since[h.name] = h.since;
    EXPECT_EQ(since, (std::map<std::string, double>{{"a", 1000}, {"b", 500}, {"c", 1000}, {"d", 1000}, {"f", 1000}}));
    // Read again: "e" joins over one interval, "a" and "f" leave, the rest stay.
    c.mono += 10, c.wall += 10;
    s.set_hosts({host("b"), host("c"), host("d"), host("e")}, {});
    EXPECT_EQ(due_times(s), (std::map<std::string, double>{{"b", 1030}, {"c", 1015}, {"d", 1030}, {"e", 1010}}));
    // The wall clock stepped back an hour: due times stay where the monotonic
    // clock has them, and show an hour earlier.
    c.mono += 2, c.wall += 2 - 3600;
    EXPECT_DOUBLE_EQ(s.lag(), 2);
    EXPECT_DOUBLE_EQ(due_times(s)["e"], 1010 - 3600);
}

TEST(serve, overdue_counts_from_the_later_of_start_and_success) {
    struct row { double since, last_success, now; bool overdue; } rows[] = {
        {1000, 0, 1119, false},   // a fresh start is not an outage
        {1000, 0, 1121, true},    // two intervals of 60 without a success
        {1000, 1100, 1219, false}, {1000, 1100, 1221, true}, {1200, 900, 1300, false},
    };
    for (const row& r : rows) {
        host_state h;
        h.since = r.since, h.last_success = r.last_success;
        EXPECT_EQ(is_overdue(h, r.now, 60), r.overdue) << r.since << " " << r.last_success << " " << r.now;
    }
}

TEST(serve, natural_order) {
    std::vector<std::string> names = {"router10", "router2", "r01", "router1", "b", "router02x", "a10b", "a9c", "r1"};
    std::sort(names.begin(), names.end(), natural_less);
    EXPECT_EQ(names, (std::vector<std::string>{"a9c", "a10b", "b", "r01", "r1", "router1", "router2", "router02x",
                                               "router10"}));
}

// A run in turn moves the host one interval on from its slot; a run out of
// turn leaves its slot; a failure counts and waits the back-off; the
// listener hears the failures that came before.
TEST(serve, runs_keep_each_hosts_place) {
    std::vector<int> before;
    std::mutex m;
    auto runner = [](const inventory_host& h, const host_state&) {
        host_run r;
        if (h.name == "c") r.error = "refused";
        return r;
    };
    scheduler s(60, 2, runner, [&](const host_state&, const host_run&, int f) {
        std::lock_guard<std::mutex> hold(m);
        before.push_back(f);
    });
    s.set_hosts({host("a"), host("b"), host("c")}, {});  // a at start, b +20, c +40
    double start = kelp::wall_seconds();
    long long ticket;
    host_state st;
    host_run r;
    s.start();
    for (int i = 0; i < 2; i++) ASSERT_TRUE(s.run_now("c", &ticket) && s.wait_for("c", ticket, 5000, &st, &r));
    EXPECT_EQ(st.consecutive_failures, 2);
    EXPECT_EQ(st.last_error, "refused");
    // The wait the log announces (the e2e tests read its figures), and
    // however long a host fails, it is tried again within the interval.
    EXPECT_NEAR(st.next_due, kelp::wall_seconds() + retry_delay(60, 2), 0.5);
    EXPECT_LT(retry_delay(60, 1000), 60);
    ASSERT_TRUE(s.run_now("b", &ticket) && s.wait_for("b", ticket, 5000, &st, &r));
    EXPECT_NEAR(st.next_due, start + 20, 0.5);
    wait_end told = wait_end::stopping;
    s.when_done("b", ticket, [&](wait_end end, const host_state& h, const host_run&) { told = end, st = h; });
    EXPECT_EQ(told, wait_end::finished);  // at once: that run is over
    EXPECT_EQ(st.attempts, 1);
    for (int i = 0; i < 100 && (s.find("a", &st), st.attempts == 0); i++) usleep(20000);
    EXPECT_NEAR(st.next_due, start + 60, 0.5);
    EXPECT_EQ(scheduler::verdict(st), "ok");
    s.stop(5000);
    std::sort(before.begin(), before.end());
    EXPECT_EQ(before, (std::vector<int>{0, 0, 0, 1}));
}

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

TEST(serve, state_keeps_every_field_by_name) {
    private_dir dir;
    std::unique_ptr<state_db> db;
    std::string note;
    host_state h;
    h.name = "r1", h.address = "a", h.last_commit = "abc", h.hooked_commit = "abb", h.model = "m", h.firmware = "f";
    h.last_attempt = 1, h.last_success = 2, h.last_change = 3, h.last_duration = 4, h.next_due = 5, h.reports_time = 6;
    h.uptime = 7, h.consecutive_failures = 8, h.attempts = 9, h.failures = 10, h.last_error = "e";
    h.since = 11, h.failure_hooked = true;
    ASSERT_TRUE(state_db::open(dir.path + "/s.db", &db, &note));
    for (int i = 0; i < state_db::max_attempts + 5; i++) {
        attempt a{(double)i, 0.5, "unchanged", "", ""};
        ASSERT_TRUE(db->save(h, &a));
    }
    db.reset();
    std::map<std::string, host_state> loaded;
    std::vector<attempt> list;
    ASSERT_TRUE(state_db::open(dir.path + "/s.db", &db, &note) && db->load(&loaded) && db->attempts("r1", &list));
    EXPECT_EQ(note, "");
    const host_state& g = loaded["r1"];
    EXPECT_EQ(std::tie(g.address, g.last_commit, g.hooked_commit, g.model, g.firmware, g.last_error),
              std::tie(h.address, h.last_commit, h.hooked_commit, h.model, h.firmware, h.last_error));
    EXPECT_EQ(std::vector<double>({g.last_attempt, g.last_success, g.last_change, g.last_duration, g.next_due,
                                   g.reports_time, g.uptime, (double)g.consecutive_failures, (double)g.attempts,
                                   (double)g.failures, g.since, (double)g.failure_hooked}),
              std::vector<double>({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 1}));
    ASSERT_EQ(list.size(), (size_t)state_db::max_attempts);
    EXPECT_EQ(list.front().time, state_db::max_attempts + 4);  // the newest first
}

// The first layout's file: its rows stay, their hooks count as run.
TEST(serve, state_of_the_first_layout_is_brought_up) {
    private_dir dir;
    std::string path = dir.path + "/old.db";
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw,
                           "CREATE TABLE hosts (name TEXT PRIMARY KEY, address TEXT, last_attempt REAL, last_success "
                           "REAL, last_change REAL, last_commit TEXT, consecutive_failures INTEGER, attempts INTEGER, "
                           "failures INTEGER, last_error TEXT, last_duration REAL, next_due REAL, model TEXT, "
                           "firmware TEXT); INSERT INTO hosts VALUES ('r1','a',1,2,3,'c0ffee',0,4,0,'',0.5,99,'m','f')",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(raw);
    std::unique_ptr<state_db> db;
    std::map<std::string, host_state> loaded;
    std::string note;
    ASSERT_TRUE(state_db::open(path, &db, &note) && db->load(&loaded));
    EXPECT_EQ(note, "");
    EXPECT_EQ(loaded["r1"].hooked_commit, "c0ffee");
    EXPECT_EQ(loaded["r1"].attempts, 4);
    EXPECT_EQ(loaded["r1"].next_due, 99);
    // A newer kelputil's file is refused, not taken for damaged.
    db.reset();
    ASSERT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw, "PRAGMA user_version = 99", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(raw);
    kelp::status st = state_db::open(path, &db, &note);
    EXPECT_NE(st.message.find("written by a newer kelputil"), std::string::npos) << st.message;
    EXPECT_EQ(system(("ls " + path + ".damaged-* 2> /dev/null").c_str()), 512);
}

TEST(serve, damaged_state_is_moved_aside) {
    private_dir dir;
    std::string path = dir.path + "/s.db";
    for (const char* junk : {"this is not a database, it was overwritten", "SQLite format 3\0garbage"}) {
        std::ofstream(path) << junk << std::string(4096, 'x');
        std::unique_ptr<state_db> db;
        std::string note;
        ASSERT_TRUE(state_db::open(path, &db, &note)) << junk;
        EXPECT_NE(note.find("moved aside to " + path + ".damaged-"), std::string::npos) << note;
        host_state h;
        h.name = "r1";
        EXPECT_TRUE(db->save(h));
        db.reset();
        EXPECT_EQ(system(("ls " + path + ".damaged-* > /dev/null").c_str()), 0);
        EXPECT_EQ(system(("rm -f " + path + "*").c_str()), 0);
    }
}

TEST(serve, facts_from_the_reports) {
    const std::string banner = "---[ Software Version ]-------------------------------------\n";
    const std::string next = "---[ System Load Average ]----------------------------------\n";
    struct row { std::string full, version; } rows[] = {
        {banner + "kelp-v3 router firmware 3.2.1\n\n" + next + " 1    5\n", "kelp-v3 router firmware 3.2.1"},
        {banner + "\n  4.0 (beta)  \n" + next, "4.0 (beta)"},
        {banner + next + "firmware 9\n", ""},  // an empty section says nothing
        {"firmware: 3\n", ""},
    };
    for (const row& r : rows) EXPECT_EQ(software_version(r.full), r.version) << r.full;
    std::string model;
    double uptime = 0;
    read_core_report("uptime: 12.5 s\nmodel:  kelp x1 \nmy model: y\n", &model, &uptime);
    EXPECT_EQ(model, "kelp x1");
    EXPECT_EQ(uptime, 12.5);
    struct due { double reports_time; int failures; bool changed; bool want; } dues[] = {
        {0, 0, false, true}, {1000, 0, false, false}, {1000, 0, true, true}, {1000, 2, false, true},
        {1000 - 24 * 3600 - 1, 0, false, true},
    };
    for (const due& d : dues) {
        host_state h;
        h.reports_time = d.reports_time, h.consecutive_failures = d.failures;
        EXPECT_EQ(facts_due(h, d.changed, 1000), d.want) << d.reports_time << " " << d.failures << " " << d.changed;
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

TEST(serve, metrics_escape_label_values_and_say_overdue) {
    test_clock c;
    scheduler s = idle_schedule(60, c);
    s.set_hosts({host("a\"b\\c")}, {});
    c.mono += 121, c.wall += 121;
    std::string text = metrics_text(s, health_figures{}, false);
    for (const char* line : {"\nkelputil_host_up{host=\"a\\\"b\\\\c\"} 0\n",
                             "\nkelputil_backup_overdue{host=\"a\\\"b\\\\c\"} 1\n",
                             "\nkelputil_hosts 1\n", "\nkelputil_backup_interval_seconds 60\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    EXPECT_EQ(text.find("kelputil_push"), std::string::npos);
}

// A hook that outlives the service's stop is ended with everything it started.
TEST(serve, stop_ends_each_hook_with_its_group) {
    private_dir dir;
    std::string pids = dir.path + "/pids";
    hook_runner hooks(60000);
    hook_runner::end told = hook_runner::end::ok;
    hooks.start("test", "sleep 60 & echo $$ $! > " + pids + "; wait", {}, [&](hook_runner::end how) { told = how; });
    for (int i = 0; i < 200 && access(pids.c_str(), F_OK) != 0; i++) usleep(10000);
    auto began = std::chrono::steady_clock::now();
    hooks.stop(100);
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(5));
    EXPECT_EQ(told, hook_runner::end::stopped);  // to be run again at the next start
    int shell = 0, sleeper = 0;
    std::ifstream(pids) >> shell >> sleeper;
    ASSERT_GT(sleeper, 0);
    for (int i = 0; i < 100 && alive(sleeper); i++) usleep(10000);
    EXPECT_FALSE(alive(sleeper));
}

}  // namespace
