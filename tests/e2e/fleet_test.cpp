// kelputil against a simulated fleet of fifty routers with one of each kind
// of fault: router3 down, router5 silent, router7 of another password,
// router9's upgrade failing, router11 not back from a reboot.
#include "tool_harness.h"

namespace {

const std::vector<std::string> fleet_of_50 = {"--fleet",  "50",          "--fault", "down:3",
                                              "--fault",  "silent:5",    "--fault", "password:7",
                                              "--fault",  "upgrade-fails:9", "--fault", "no-return:11"};
// Inside ctest's 240 s for these tests, so a hang still shows its output.
constexpr int limit_ms = 180000;

class fleet : public tool_test {};

TEST_F(fleet, one_command_on_every_host) {
    run_steps(
        {
            {"echo $KELP_INVENTORY; head -2 $KELP_INVENTORY; tail -1 $KELP_INVENTORY", 0,
             {"sim/fleet.ini\n[routers]\nrouter1 ansible_host=198.18.0.2\nrouter50 ansible_host=198.18.0.51\n"}},
            {"kelputil --json fleet --timeout 5 check > out; r=$?; grep -c '\"ok\":true' out; "
             "grep '\"host\":\"router3\"' out; grep '\"host\":\"router5\"' out; grep '\"host\":\"router7\"' out; "
             "tail -1 out; exit $r",
             20,
             {"\n47\n", "\"exit\":3,\"host\":\"router3\",\"message\":\"198.18.0.4:857 refused the connection",
              "\"exit\":3,\"host\":\"router5\",\"message\":\"198.18.0.6:857 accepted the connection but sent no greeting",
              "\"exit\":2,\"host\":\"router7\"", "/data/failed=[\"router3\",\"router5\",\"router7\"]", "/exit=20",
              "/data/hosts=50"}},
            // People get a table; the silent host costs its time-out, not everyone's.
            {"kelputil fleet --timeout 5 --limit 'routers[0:4]:!router2' -j 4 ppp", 20,
             {"HOST     RESULT    TIME  MESSAGE\n", "router1  ok  ", "  2 PPP sessions\n", "router3  FAILED  ",
              "router5  FAILED    5.", "!router2 ", "fleet ppp: 4 hosts, 2 ok, 2 failed"}},
            {"kelputil --json fleet --limit 'router1:router2' report core", 0,
             {"\"lines\":[\"model: simulated kelp-v3 router\"", "/data/succeeded=[\"router1\",\"router2\"]"}},
            // Files per host, or none at all.
            {"kelputil fleet --limit 'router1:router2' get-script fw same.scr", 1, {"must contain {host}"}},
            {"kelputil -q fleet --limit 'router1:router2' get-script fw '{host}.scr' && ls *.scr", 0,
             {"router1.scr\nrouter2.scr\n"}},
            // A host named on several lines and ranges is one host: one session.
            {"printf '[a]\\nrouter[1:2]\\nrouter1 ansible_host=198.18.0.2\\n[b]\\nrouter1\\n"
             "router2 ansible_host=198.18.0.3\\n' > dup.ini && log=/run/fleet/router1/messages && "
             "b=$(grep -c 'our ppp list' $log); kelputil -q fleet -i dup.ini ppp; r=$?; for i in $(seq 50); do "
             "[ $(grep -c 'our ppp list' $log) -gt $b ] && break; sleep 0.1; done; sleep 0.3; "
             "echo sessions $(( $(grep -c 'our ppp list' $log) - b )); exit $r",
             0, {"sessions 1\n"}},
            // What a run would touch, with no password and nothing contacted.
            {"env -u KELPUTIL_PASSWORD kelputil fleet --limit 'routers[0:1]' --plain --list-hosts", 0,
             {"HOST     ADDRESS     PORT   MODE\nrouter1  198.18.0.2  856    plain\nrouter2  198.18.0.3  856    plain\n2 hosts\n"}},
            {"kelputil --json fleet --limit router1 --list-hosts reboot; grep -c rebooting /run/fleet/router1/messages", 1,
             {"/data=[{\"address\":\"198.18.0.2\",\"host\":\"router1\",\"mode\":\"TLS\",\"port\":857}]", "\n0\n"}},
            {"kelputil fleet --limit '' check", 1, {"--limit '': an empty pattern selects nothing; leave --limit out"}},
            {"kelputil fleet --limit router1 --limit router2 check", 1, {"--limit is given twice: join the patterns with ','"}},
            // A bad inventory or a missing password: nothing runs.
            {"printf '[routers]\\nrouter1 ansible_host=198.18.0.2 port=85x\\n' > bad.ini && kelputil fleet -i bad.ini check",
             1, {"bad.ini:2: port=85x is not a port"}},
            {"printf 'router1 ansible_host=198.18.0.2 password_env=NOPE\\n' > nopw.ini && kelputil fleet -i nopw.ini check; "
             "r=$?; grep -c 'authentication failed' /run/fleet/router1/messages; exit $r",
             1, {"router1: no password", "\n0\n"}},
        },
        fleet_of_50, limit_ms);
}

// Two backups with one change between: exactly one new commit, touching
// exactly that host; a host that fails keeps its last good files. Scripts
// cost four more sessions a host, so one host shows them.
TEST_F(fleet, backups_in_git) {
    run_steps(
        {
            {"kelputil fleet --timeout 5 backup --into bk; r=$?; ls bk/router1; [ -e bk/router3 ] || echo 'no router3'; "
             "exit $r",
             20, {"fleet backup, commit ", "50 hosts, 47 ok, 3 failed", "config\nconfig.dat\nconfig.plain\nno router3"}},
            // Each router has a configuration of its own.
            {"cat bk/router*/config/config/system.conf | sort -u | wc -l", 0, {"47\n"}},
            {"kelputil get-script -H 198.18.0.3 fw > fw.scr && echo '# one change' >> fw.scr && "
             "kelputil -q -H 198.18.0.3 put-script fw fw.scr && kelputil fleet --timeout 5 backup --into bk",
             20, {"router2   ok  ", "  changed\n", "fleet backup, commit "}},
            {"kelputil --json fleet history router2 --into bk", 0, {"/message=\"router2: 2 backups with changes\""}},
            {"kelputil --json fleet history router1 --into bk", 0, {"/message=\"router1: 1 backups with changes\""}},
            {"kelputil --json fleet diff router2 --into bk", 0,
             {"/data/files/0/path=\"router2/config.dat\"", "+# one change"}},
            {"kelputil fleet diff router2 --into bk | grep '^diff' | grep -vc ' a/router2/'", 1, {"0\n"}},
            // router1 refuses the next run: its folder stays as it was.
            {"cd bk && find router1 -type f | sort | xargs md5sum > ../before && cd .. && "
             "printf 'router1 ansible_host=198.18.0.2 password_env=WRONG\\n' > one.ini && "
             "WRONG=nope kelputil fleet -i one.ini backup --into bk; r=$?; cd bk && md5sum -c --quiet ../before && "
             "echo same; exit $r",
             20, {"router1  FAILED", "nothing to commit", "same"}},
            {"kelputil fleet --limit router1 backup --into bk --scripts && ls bk/router1/scripts && "
             "git -C bk show --name-only --format= HEAD | grep -vc '^router1/'",
             1, {"commit ", "cbq.scr\ndhcpd.conf\nfw.scr\nnat.scr\n0\n"}},
            {"kelputil fleet --limit router1 backup --into bk --scripts", 0, {"nothing to commit"}},
        },
        fleet_of_50, limit_ms);
}

// A staged roll-out: the canary, then batches of two; router9's upgrade
// fails, so its batch finishes and nothing after it starts.
TEST_F(fleet, staged_firmware_rollout) {
    const std::string limit = "--limit 'router1:router2:router4:router9:router12:router13' ";
    run_steps(
        {
            {"head -c 100000 /dev/urandom > fw.bin && kelputil fleet " + limit +
                 "firmware fw.bin --upgrade --batch 2 --dry-run",
             0, {"canary 1: router1\nbatch 1: router2 router4\nbatch 2: router9 router12\nbatch 3: router13\n"}},
            {"kelputil --json fleet " + limit + "firmware fw.bin --upgrade --batch 2 --settle 20 > out; r=$?; tail -1 out; "
             "exit $r", 20,
             {"/data/halted=true", "/data/succeeded=[\"router1\",\"router2\",\"router4\",\"router12\"]",
              "/data/failed=[\"router9\"]", "/data/not_touched=[\"router13\"]"}},
            {"grep -c 'image written' /run/fleet/router1/events /run/fleet/router12/events /run/fleet/router13/events", 0,
             {"router1/events:1", "router12/events:1", "router13/events:0"}},
            {"kelputil --json fleet --limit router2 report core | head -1", 0, {"model: simulated kelp-v3 router"}},
            {"kelputil fleet --limit router11 firmware fw.bin --upgrade --settle 3", 20,
             {"router11  FAILED", "did not take a login again within 3 s of its upgrade"}},
        },
        fleet_of_50, limit_ms);
}

}  // namespace
