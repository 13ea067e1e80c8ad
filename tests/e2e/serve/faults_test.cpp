// kelputil serve meeting the faults an operator's week brings: a fresh
// start, kill -9 at any moment, a lost or damaged state file, a host that
// fails and comes back, a changed password file, a hook that hangs, a
// schedule that cannot keep up, a full disk.
#include "tool_harness.h"

namespace {

constexpr int limit_ms = 180000;
const std::string api = "http://127.0.0.1:8750/api/v1";
const std::string health = "http://127.0.0.1:8750/healthz";

// The service in the background on inv.ini into bk, its log in FILE.
std::string serve(const std::string& options, const std::string& log = "log") {
    return "kelputil serve -i inv.ini --into bk --timeout 1 " + options + " 2>> " + log + " & echo $! > pid; "
           "until_in 'API on' " + log + "; n=0; until curl -so /dev/null " + health + " || [ $n -gt 50 ]; do "
           "n=$((n+1)); sleep 0.1; done; ";
}
const std::string stop = "kill -TERM $(cat pid); n=0; while kill -0 $(cat pid) 2>/dev/null && [ $n -lt 150 ]; "
                         "do n=$((n+1)); sleep 0.1; done; ";
// Waits (at most 20 s) until the jq condition holds of GET URL.
std::string until_json(const std::string& url, const std::string& condition) {
    return "n=0; until [ \"$(curl -s " + url + " | jq -r '" + condition + "')\" = true ] || [ $n -gt 200 ]; do "
           "n=$((n+1)); sleep 0.1; done; ";
}
// One change to router K's fw script, so that its next backup commits.
std::string change_router(const std::string& k) {
    return "a=198.18.0.$((" + k + " + 1)); kelputil -q -H $a get-script fw > fw.scr && echo \"# $RANDOM\" >> fw.scr && "
           "kelputil -q -H $a put-script fw fw.scr; ";
}
// Each host's last commit as git has it and as the API has it, side by side.
const std::string git_and_api =
    "for k in 1 2 3; do echo \"router$k $(git -C bk log -1 --format=%h --abbrev=10 -- router$k/) "
    "$(curl -s " + api + "/hosts/router$k | jq -r .last_commit)\"; done | "
    "awk '$2 == $3 {n++} END {print n \" agree\"}'; ";

class serve_faults : public tool_test {};

// From the first second every host has a full page: address, next due,
// files (none yet), and no outage is called.
TEST_F(serve_faults, fresh_start_and_a_host_down_from_the_start) {
    run_steps({
        {"cp $KELP_INVENTORY inv.ini; " + serve("--interval 1h") +
             "curl -s " + api + "/hosts | jq -r '.hosts[] | \"\\(.name) \\(.address != \"\") \\(.next_due != null) "
             "\\(.overdue)\"'; curl -s -w ' %{http_code}' " + api + "/hosts/router3/files | jq -c '[.state, .files]'; "
             "curl -s " + health + " | jq -r .status",
         0, {"router1 true true false\nrouter2 true true false\nrouter3 true true false\nrouter4 true true false\n",
             "[\"pending\",[]]", "ok"}},
        {"curl -s -d '' '" + api + "/hosts/router4/backup?wait=1' | jq -r '.state, .ok'; "
             "curl -s " + api + "/hosts/router4/files | jq -c '[.state, .files]'; "
             "curl -s " + api + "/hosts/router4/attempts | jq -r '.attempts[0] | .result, (.error | length > 0)'",
         0, {"failed\nfalse\n[\"failed\",[]]\nfailed\ntrue"}},
        // Model and firmware from the reports that carry them.
        {until_json(api + "/hosts/router1", ".state == \"ok\"") + "curl -s " + api + "/hosts/router1 | jq -r '.model, "
             ".firmware'; curl -s '" + api + "/changes?since=0' | jq -r '.changes[] | .host + \" \" + .files[0].path'; "
             "curl -s " + api + "/hosts/router1/attempts | jq -r '.attempts[0].result'; " + stop + "grep -c "
             "'^[0-9]\\{4\\}-[0-9][0-9]-[0-9][0-9]T[0-9:.]*[+-][0-9][0-9]:[0-9][0-9] kelputil serve: ' log | "
             "awk '$1 > 0 {print \"stamped\"}'",
         0, {"simulated kelp-v3 router\nkelp-v3 router firmware 3.2.1 (simulated)\n", "router1 config.dat\n",
             "changed\nstamped\n"}},
    }, {"--fleet", "4", "--fault", "down:4"}, limit_ms);
}

// kill -9 at any moment of a backup: the next start's state is git's, and
// every commit's change hook has run at least once. A deleted state file
// is rebuilt from git; a damaged one is moved aside.
TEST_F(serve_faults, kill_9_lost_and_damaged_state) {
    const std::string hook = "--interval 1s --on-change 'echo $KELPUTIL_HOST $KELPUTIL_COMMIT >> hooks' ";
    run_steps({
        {"cp $KELP_INVENTORY inv.ini; for i in $(seq 14); do " + change_router("$((i % 3 + 1))") +
             serve(hook, "log$i") + "sleep 0.$((RANDOM % 10)); kill -9 $(cat pid); "
             "wait $(cat pid) 2>/dev/null; done; " + serve(hook) +
             until_json(api + "/hosts", "[.hosts[].state] == [\"ok\",\"ok\",\"ok\"]") + git_and_api + stop +
             "git -C bk log --format=%h --abbrev=10 | while read c; do grep -q \" $c\\$\" hooks || "
             "echo \"no hook: $c\"; done; git -C bk log --oneline | wc -l | awk '$1 >= 3 {print \"commits\"}'; "
             "git -C bk status --porcelain; git -C bk fsck --no-dangling && echo fsck clean",
         0, {"3 agree", "commits\nfsck clean", "!no hook"}},
        {"rm bk/.kelputil-serve.db*; " + serve(hook) + git_and_api + "grep -c 'taken from the backups' log; " + stop,
         0, {"3 agree\n1\n"}},
        {"head -c 8192 /dev/urandom > bk/.kelputil-serve.db; rm -f bk/.kelputil-serve.db-*; " + serve(hook) +
             git_and_api + "curl -s -o /dev/null -w '%{http_code}\\n' " + health +
             "; grep -o 'moved aside to [^;]*' log; " + stop + "ls bk/.kelputil-serve.db.damaged-* | wc -l",
         0, {"3 agree\n200\nmoved aside to bk/.kelputil-serve.db.damaged-", "\n1\n"}},
    }, {"--fleet", "3"}, limit_ms);
}

// One hook when a host starts failing, one when it is back; a changed
// password file is read again at SIGHUP, as is the inventory, whose
// failure to read the metrics say.
TEST_F(serve_faults, failure_streak_recovery_and_sighup) {
    run_steps({
        {"echo wrong > pw; chmod 600 pw; sed 's/^router1 .*/& password_file=pw/' $KELP_INVENTORY > inv.ini; " +
             serve("--interval 4s --on-failure 'echo $KELPUTIL_HOST $KELPUTIL_FAILURES >> failed' "
                   "--on-recovery 'echo $KELPUTIL_HOST $KELPUTIL_FAILURES >> back'") +
             until_json(api + "/hosts/router1", ".failures >= 3") + "echo pw > pw; kill -HUP $(cat pid); " +
             until_json(api + "/hosts/router1", ".state == \"ok\"") + "sleep 0.5; cat failed; "
             "awk '$1 == \"router1\" && $2 >= 3 {print \"back after\", NR}' back",
         0, {"router1 1\nback after 1\n"}},
        {"echo '[broken' >> inv.ini; kill -HUP $(cat pid); until_in 'not read again' log; "
             "curl -s http://127.0.0.1:8750/metrics | grep '^kelputil_config_last_reload_successful'; "
             "sed -i '$d' inv.ini; kill -HUP $(cat pid); sleep 0.5; "
             "curl -s http://127.0.0.1:8750/metrics | grep '^kelputil_config_last_reload_successful'; " + stop,
         0, {"kelputil_config_last_reload_successful 0\nkelputil_config_last_reload_successful 1\n"}},
        // A key of the configuration file that does not exist.
        {"printf 'inventory = inv.ini\\nintervall = 1h\\n' > s.conf; kelputil serve --config s.conf --into bk", 1,
         {"s.conf:2: unknown key 'intervall' (did you mean 'interval'?)"}},
        {"printf 'inventory = inv.ini\\n\\ninventory = b.ini\\n' > s.conf; kelputil serve --config s.conf --into bk; "
             "kelputil serve --config s.conf --intervall 1h", 1,
         {"s.conf:3: the key 'inventory' is given again (first on line 1)",
          "unknown option --intervall (did you mean --interval?)"}},
    }, {"--fleet", "2"}, limit_ms);
}

// A schedule that cannot keep up says so; a hook still running at SIGTERM
// ends with everything it started, and the service within its deadline.
TEST_F(serve_faults, stuck_schedule_and_hook_at_stop) {
    run_steps({
        {"cp $KELP_INVENTORY inv.ini; " + serve("-j 1 --interval 1s --stop-timeout 3 "
                                                "--on-change 'sleep 300 & echo $! >> sleepers; wait'") +
             until_json(health, ".status == \"failing\"") + "curl -s " + health + " | jq -r .error; "
             "until_in . sleepers; t=$(date +%s); " + stop + "echo \"stopped in $(( $(date +%s) - t )) s\" | "
             "awk '$3 <= 12 {print \"in time\"}'; for p in $(cat sleepers); do kill -0 $p 2>/dev/null && echo left $p; "
             "done; grep -c 'ended: the service is stopping' log",
         0, {"the schedule is stuck: router", "past its due time, more than one interval\n", "in time\n", "!left"}},
        // The hook the stop ended runs again at the next start.
        {serve("--interval 1h --on-change 'echo $KELPUTIL_HOST $KELPUTIL_COMMIT >> again'") +
             "until_in router1 again; " + stop + "[ \"$(cut -d' ' -f2 again)\" = \"$(git -C bk log -1 --format=%h "
             "--abbrev=10 -- router1/)\" ] && echo again",
         0, {"again\n"}},
    }, {"--fleet", "3", "--fault", "silent:2", "--fault", "silent:3"}, limit_ms);
}

// A full disk: health says so, and comes back when there is room again;
// nothing half-written is left.
TEST_F(serve_faults, full_disk) {
    run_steps({
        {"cp $KELP_INVENTORY inv.ini; mkdir bk && mount -t tmpfs -o size=1200k tmpfs bk && " +
             serve("--interval 2s --on-failure 'echo $KELPUTIL_HOST >> paged'") +
             until_json(api + "/hosts", "[.hosts[].state] == [\"ok\",\"ok\"]") +
             "head -c 2M /dev/zero > bk/filler 2>/dev/null; " + change_router("1") + change_router("2") +
             until_json(health, ".status == \"failing\"") + "curl -s " + health + " | jq -r .error; "
             "curl -s http://127.0.0.1:8750/metrics | grep '^kelputil_repository_writable'; rm bk/filler; " +
             until_json(health, ".status == \"ok\"") + "curl -s " + health + " | jq -r .status; " + stop +
             "git -C bk status --porcelain; git -C bk fsck --no-dangling && echo fsck clean; "
             "umount bk; [ -e paged ] || echo nobody paged",
         0, {"cannot write the backups in bk: ", "kelputil_repository_writable 0\nok\nfsck clean",
             "nobody paged"}},
    }, {"--fleet", "2"}, limit_ms);
}

// Bytes that are not UTF-8 travel as kelputil --json gives them; durations
// have kelputil's bounds; searches, however many, never hold up a backup.
TEST_F(serve_faults, bytes_bounds_and_searches_beside_backups) {
    run_steps({
        {"kelputil serve -i $KELP_INVENTORY --into bk --timeout 1000h", 1,
         {"--timeout: '1000h' is out of range: 0.1 s to 3600 s"}},
        {"cp $KELP_INVENTORY inv.ini; " + serve("--interval 2s") + "kelputil -q -H 198.18.0.3 get-script fw > fw.scr; "
             "printf '# caf\\351 au lait\\n' >> fw.scr; kelputil -q -H 198.18.0.3 put-script fw fw.scr; "
             "curl -s -d '' '" + api + "/hosts/router2/backup?wait=1' > /dev/null; curl -s " + api +
             "/hosts/router2/diff | jq -r '.patch_base64 | @base64d' | grep -c 'caf.* au lait'; "
             "curl -s '" + api + "/search?q=au+lait' | jq -r '.matches[0] | .text, .text_base64'",
         0, {"1\n# café au lait\nIyBjYWbpIGF1IGxhaXQ=\n"}},
        // Four clients searching without a pause for three intervals: every host still backed up in each.
        {"for k in $(seq 25); do grep -c 'configuration being sent' /run/fleet/router$k/messages; done > before; "
             "for c in 1 2 3 4; do (t=$(($(date +%s) + 6)); while [ $(date +%s) -lt $t ]; do "
             "curl -s '" + api + "/search?q=iptables' > /dev/null; done) & done; sleep 6.5; wait; "
             "for k in $(seq 25); do grep -c 'configuration being sent' /run/fleet/router$k/messages; done | "
             "paste - before | awk '$1 - $2 >= 2 {n++} END {print n \" hosts kept their schedule\"}'; "
             "curl -s " + health + " | jq -r .status; " + stop,
         0, {"25 hosts kept their schedule\nok\n"}},
    }, {"--fleet", "25"}, limit_ms);
}

}  // namespace
