// kelputil against a simulated fleet of fifty routers with one of each kind
// of fault: router3 down, router5 silent, router7 of another password,
// router9's upgrade failing, router11 not back from a reboot.
#include "tool_harness.h"

namespace {

const std::vector<std::string> fleet_of_50 = {"--fleet", "50", "--fault", "down:3", "--fault", "silent:5", "--fault",
                                              "password:7", "--fault", "upgrade-fails:9", "--fault", "no-return:11"};
// Inside ctest's 240 s for these tests, so a hang still shows its output.
constexpr int limit_ms = 180000;
// What the real git program and find say of a backup repository: "clean[]"
// when it is exactly its last commit, with nothing left over.
const std::string clean =
    "clean() { echo \"clean[$(git -C $1 status --porcelain)$(git -C $1 fsck 2>&1)$(find $1 -name '*staging*')]\"; }; ";

class fleet : public tool_test {};

TEST_F(fleet, one_command_on_every_host) {
    run_steps({
        {"echo $KELP_INVENTORY; head -2 $KELP_INVENTORY; tail -1 $KELP_INVENTORY", 0,
         {"sim/fleet.ini\n[routers]\nrouter1 ansible_host=198.18.0.2\nrouter50 ansible_host=198.18.0.51\n"}},
        {"kelputil --json fleet --timeout 5 check > out; r=$?; grep -c '\"ok\":true' out; "
         "grep -c 'seconds\":[0-9]*\\.[0-9]\\{4\\}' out; "
         "grep '\"host\":\"router3\"' out; grep '\"host\":\"router5\"' out; grep '\"host\":\"router7\"' out; "
         "tail -1 out; exit $r", 20,
         {"\n47\n0\n", "\"exit\":3,\"host\":\"router3\",\"message\":\"198.18.0.4:857 refused the connection",
          "\"exit\":3,\"host\":\"router5\",\"message\":\"198.18.0.6:857 accepted the connection but sent no greeting",
          "\"exit\":2,\"host\":\"router7\"", "/data/failed=[\"router3\",\"router5\",\"router7\"]", "/exit=20",
          "/data/hosts=50"}},
        // People get a table; the silent host costs its time-out, not everyone's.
        {"kelputil fleet --timeout 5 --limit 'routers[0:4]:!router2' -j 4 ppp", 20,
         {"~router1: NAME TYPE INTERFACE REMOTE CBQ_RULE\n", "~router4: bob pptp ppp1 10.64.0.2 none\n",
          "~HOST RESULT TIME MESSAGE\n", "~router1 ok ", " 2 PPP sessions\n", "~router3 FAILED ", "~router5 FAILED 5",
          "!router2 ", "fleet ppp: 4 hosts, 2 ok, 2 failed"}},
        {"kelputil --json fleet --limit 'router1:router2' report core", 0,
         {"\"lines\":[\"model: simulated kelp-v3 router\"", "/data/succeeded=[\"router1\",\"router2\"]"}},
        {"kelputil fleet --limit router1 report core; kelputil fleet --limit router1 report core > /dev/full", 1,
         {"router1: model: simulated kelp-v3 router\n", "fleet report: 1 host, 1 ok",
          "kelputil: cannot write standard output: No space left on device"}},
        // Files per host, or none at all; their folders made before any host is contacted.
        {"kelputil fleet --limit 'router1:router2' get-script fw same.scr", 1, {"must contain {host}"}},
        {"kelputil -q fleet --limit 'router1:router2' get-script fw 'scripts/{host}.scr' && stat -c %a scripts && "
         "ls scripts", 0, {"700\nrouter1.scr\nrouter2.scr\n"}},
        {"touch f && kelputil fleet --limit router3 get-script fw 'f/{host}.scr'", 1,
         {"cannot create the folder f: Not a directory", "!refused"}},
        // The prompt comes once, before the status line and the hosts' clocks;
        // findings start on a line of their own, the status line cleared.
        {"unset KELPUTIL_PASSWORD; (sleep 2; echo pw) | script -qfec 'kelputil fleet --limit router1 report core' "
         "/dev/null > tty; echo first: $(tr '\\r' '\\n' < tty | grep -m1 -e 'password:' -e 'fleet:'); cat tty",
         0, {"first: admin password:", "~router1 ok 0.", "\rrouter1: model: simulated kelp-v3 router"}},
        // A host named on several lines and ranges is one host: one session.
        {"printf '[a]\\nrouter[1:2]\\nrouter1 ansible_host=198.18.0.2\\n[b]\\nrouter1\\n"
         "router2 ansible_host=198.18.0.3\\n' > dup.ini && log=/run/fleet/router1/messages && "
         "b=$(grep -c 'our ppp list' $log); kelputil -q fleet -i dup.ini ppp; r=$?; for i in $(seq 50); do "
         "[ $(grep -c 'our ppp list' $log) -gt $b ] && break; sleep 0.1; done; sleep 0.3; "
         "echo sessions $(( $(grep -c 'our ppp list' $log) - b )); exit $r", 0, {"sessions 1\n"}},
        // What a run would touch, with no password and nothing contacted.
        {"env -u KELPUTIL_PASSWORD kelputil fleet --limit 'routers[0:1]' --plain --list-hosts > t && cat t && "
         "aligned < t", 0,
         {"~HOST ADDRESS PORT MODE\nrouter1 198.18.0.2 856 plain\nrouter2 198.18.0.3 856 plain\n2 hosts\n",
          "columns line up"}},
        {"kelputil --json fleet --limit router1 --list-hosts reboot; grep -c rebooting /run/fleet/router1/messages", 1,
         {"/data=[{\"address\":\"198.18.0.2\",\"host\":\"router1\",\"mode\":\"TLS\",\"port\":857}]", "\n0\n"}},
        {"kelputil fleet --limit '' check", 1, {"--limit '': an empty pattern selects nothing; leave --limit out"}},
        {"kelputil fleet --limit router1 --limit router2 check", 1,
         {"--limit is given twice: join the patterns with ','"}},
        // Into one file, the table comes before the verdict.
        {"kelputil fleet --limit 'router2:router3' check > both 2>&1; tail -1 both", 0,
         {"kelputil: fleet check: 2 hosts, 1 ok, 1 failed, in "}},
        // A bad inventory or a missing password: nothing runs.
        {"printf '[routers]\\nrouter1 ansible_host=198.18.0.2 port=85x\\n' > bad.ini && "
         "kelputil fleet -i bad.ini check", 1, {"bad.ini:2: port=85x is not a port"}},
        {"printf 'router1 ansible_host=198.18.0.2 password_env=NOPE\\n' > nopw.ini && "
         "kelputil fleet -i nopw.ini check; r=$?; grep -c 'authentication failed' /run/fleet/router1/messages; exit $r",
         1, {"router1: no password", "\n0\n"}},
    }, fleet_of_50, limit_ms);
}

// Two backups with one change between: exactly one new commit, touching
// exactly that host; a host that fails keeps its last good files. Scripts
// cost four more sessions a host, so one host shows them.
TEST_F(fleet, backups_in_git) {
    run_steps({
        {clean + "kelputil fleet --timeout 5 backup --into bk; r=$?; ls bk/router1; "
         "[ -e bk/router3 ] || echo 'no router3'; stat -c %a bk/router1/config.dat; clean bk; exit $r",
         20, {"fleet backup, commit ", "50 hosts, 47 ok, 3 failed", "config\nconfig.dat\nno router3\n600\nclean[]"}},
        // Each router has a configuration of its own.
        {"cat bk/router*/config/system.conf | sort -u | wc -l", 0, {"47\n"}},
        // Interrupted after router2 changed, with leftovers of an older
        // version (staging, .gitignore, a half-written folder) and an
        // edited file: none of it stays, nothing is committed.
        {clean + "kelputil get-script -H 198.18.0.3 fw > fw.scr && echo '# one change' >> fw.scr && "
         "kelputil -q -H 198.18.0.3 put-script fw fw.scr && printf '.kelputil-staging/\\n' > bk/.gitignore && "
         "mkdir -p bk/.kelputil-staging/router1.x bk/router3 && touch bk/router3/half && "
         "echo edit >> bk/router1/config/fw.scr && "
         "kelputil --json fleet -j 2 --timeout 5 backup --into bk > out 2>&1 & pid=$!; n=0; "
         "until [ $(grep -c '\"host\"' out) -ge 4 ]; do n=$((n+1)); [ $n -lt 300 ] || break; sleep 0.05; done; "
         "kill -INT $pid; wait $pid; r=$?; tail -1 out; clean bk; git -C bk rev-list --count HEAD; exit $r",
         130, {"\"message\":\"interrupted: ", " of 50 hosts fetched, nothing committed\"", "/exit=130",
               "clean[]\n1\n"}},
        {"kelputil fleet --timeout 5 backup --into bk", 20, {"~router2 ok ", " changed\n", "fleet backup, commit "}},
        // A full disk: nothing committed and nothing left; with room, the next run commits.
        {clean + "mkdir small && mount -t tmpfs -o size=400k tmpfs small && "
         "kelputil -q fleet --limit router1 backup --into small/bk && "
         "kelputil fleet --timeout 5 backup --into small/bk; r=$?; clean small/bk; "
         "mount -o remount,size=8m small && kelputil -q fleet --timeout 5 backup --into small/bk >/dev/null 2>&1; "
         "echo \"next $?\"; clean small/bk; git -C small/bk rev-list --count HEAD; exit $r",
         1, {"No space left on device (backing up router", " hosts fetched, nothing committed\n",
             "clean[]\nnext 20\nclean[]\n2\n"}},
        // Refused before a password is looked for.
        {"mkdir plain && touch plain/notes && "
         "env -u KELPUTIL_PASSWORD kelputil fleet --limit router1 backup --into plain; echo \"r=$?\"; "
         "kelputil -q fleet --limit router1 backup --into plain --init && git -C plain ls-files",
         0, {"plain is not empty and holds no backups (not a git repository)", "r=1\n", "router1/config.dat\n"}},
        {"kelputil --json fleet history router2 --into bk", 0, {"/message=\"router2: 2 backups with changes\""}},
        {"kelputil --json fleet history router1 --into bk", 0, {"/message=\"router1: 1 backup with changes\""}},
        {"a=$(kelputil fleet history nosuch --into bk 2>&1; echo $?); b=$(kelputil fleet diff nosuch --into bk 2>&1; "
         "echo $?); [ \"$a\" = \"$b\" ] && echo \"$a\"", 0, {"kelputil: the backups in bk hold no host 'nosuch'\n1\n"}},
        {"kelputil --json fleet diff router2 --into bk", 0,
         {"/data/files/0/path=\"router2/config.dat\"", "+# one change"}},
        {"kelputil fleet diff router2 --into bk | grep '^diff' | grep -vc ' a/router2/'", 1, {"0\n"}},
        // router1 refuses the next run: its folder stays as it was.
        {"cd bk && find router1 -type f | sort | xargs md5sum > ../before && cd .. && "
         "printf 'router1 ansible_host=198.18.0.2 password_env=WRONG\\n' > one.ini && "
         "WRONG=nope kelputil fleet -i one.ini backup --into bk; r=$?; cd bk && md5sum -c --quiet ../before && "
         "echo same; exit $r", 20, {"~router1 FAILED", "nothing to commit", "same"}},
        // A host's own local failure (an address it cannot have) is not
        // a full disk: the others are still committed.
        {"printf 'router1 ansible_host=::1\\nrouter2 ansible_host=198.18.0.3\\n' > six.ini && "
         "kelputil fleet -i six.ini backup --into bk",
         20, {"~router1 FAILED", "is an IPv6 address", "2 hosts, 1 ok, 1 failed"}},
        {"kelputil fleet --limit router1 backup --into bk --scripts && ls bk/router1/scripts && "
         "git -C bk show --name-only --format= HEAD | grep -vc '^router1/'",
         1, {"commit ", "cbq.scr\ndhcpd.conf\nfw.scr\nnat.scr\n0\n"}},
        {"kelputil fleet --limit router1 backup --into bk --scripts", 0, {"nothing to commit"}},
    }, fleet_of_50, limit_ms);
}

// One writer at a time; a router whose archive no folder can hold fails
// alone; a host name that is a pattern is refused; an older repository is
// converted in one commit, as git itself shows it.
TEST_F(fleet, one_writer_odd_hosts_and_older_repositories) {
    run_steps({
        {clean + "kelputil fleet --timeout 3 backup --into bk > first 2>&1 & p=$!; n=0; "
         "until grep -qs 'fleet backup' bk/.git/kelputil-writer || [ $n -gt 100 ]; do n=$((n+1)); sleep 0.1; done; "
         "kelputil fleet backup --into bk; echo \"second $?\"; wait $p; echo \"first $?\"; cat first; clean bk; "
         "git -C bk ls-tree --name-only HEAD",
         0, {"kelputil fleet backup (pid ", ") writes the backups in bk now: wait until it ends, or give another "
             "--into\nsecond 1\nfirst 20\n", "~router1 ok ", "~router2 FAILED ", "the configuration archive's "
             "member config/odd/inner cannot be kept as a file: Not a directory", "4 hosts, 2 ok, 2 failed",
             "clean[]\nrouter1\nrouter3\n"}},
        {"printf '[routers]\\nr1 ansible_host=198.18.0.2\\nr* ansible_host=198.18.0.3\\n' > star.ini; "
         "kelputil fleet -i star.ini backup --into bk", 1, {"star.ini:3: 'r*' is not a usable host name"}},
        // The layout of older versions, made by hand; the next run converts it without a router.
        {clean + "cd bk && for h in router1 router3; do mv $h/config $h/c && mkdir $h/config && "
         "mv $h/c $h/config/config && echo plain > $h/config.plain; done && git add -A && "
         "git -c user.name=o -c user.email=o@x commit -qm old && cd .. && "
         "kelputil -q fleet --limit router3 backup --into bk; git -C bk log --format=%s -2; "
         "git -C bk show --stat --format= HEAD | tail -1; git -C bk diff --quiet HEAD~2 HEAD && echo as before; "
         "clean bk",
         0, {"convert HOST folders to one copy of each backup: no config.plain beside config/, no config/config/\nold\n"
             " 12 files changed, 2 deletions(-)\nas before\nclean[]"}},
    }, {"--fleet", "4", "--fault", "odd-archive:2", "--fault", "silent:4"}, limit_ms);
}

// A staged roll-out: the canary, then batches of two; router9's upgrade
// fails, so its batch finishes and nothing after it starts.
TEST_F(fleet, staged_firmware_rollout) {
    const std::string image_sha256 = "4264919e026998928f39b113e273719f6a8cfa0b1d401678e06e148b9601b940";
    const std::string limit = "--limit 'router1:router2:router4:router9:router12:router13' ";
    run_steps({
        // The plan needs the image, not a password.
        {"yes kelp | head -c 100000 > fw.bin && unset KELPUTIL_PASSWORD && kelputil fleet " + limit +
             "firmware fw.bin --upgrade --batch 2 --dry-run",
         0, {"image fw.bin: 100000 bytes, SHA-256 " + image_sha256 + "\ncanary 1: router1\nbatch 1: router2 router4\n"
             "batch 2: router9 router12\nbatch 3: router13\n"}},
        {"kelputil fleet firmware nonexistent.bin --upgrade --dry-run", 1,
         {"cannot read nonexistent.bin: No such file"}},
        // A truncated download goes nowhere: no router received anything.
        {": > zero.bin && kelputil fleet firmware zero.bin --upgrade; a=$?; kelputil fleet firmware zero.bin; "
         "echo \"$a $?\"; cat /run/fleet/router*/messages | grep -c 'firmware received'",
         1, {"zero.bin is 0 bytes, less than the 1 KiB of any firmware image: a truncated download?", "1 1\n0\n"}},
        // Without --upgrade, every host gets the one image read.
        {"kelputil fleet --limit 'router6,router8' firmware fw.bin; r=$?; "
         "cat /run/fleet/router6/messages /run/fleet/router8/messages | grep -c 'firmware received'; exit $r",
         0, {"fleet firmware: 2 hosts, 2 ok, 0 failed", "\n2\n"}},
        {"kelputil --json fleet " + limit + "firmware fw.bin --upgrade --batch 2 --settle 20 > out; r=$?; tail -1 out; "
         "exit $r", 20,
         {"/data/halted=true", "/data/succeeded=[\"router1\",\"router2\",\"router4\",\"router12\"]",
          "/data/failed=[\"router9\"]", "/data/not_touched=[\"router13\"]",
          "/data/image={\"file\":\"fw.bin\",\"bytes\":100000,\"sha256\":\"" + image_sha256 + "\"}"}},
        {"grep -c 'image written' /run/fleet/router1/events /run/fleet/router12/events /run/fleet/router13/events", 0,
         {"router1/events:1", "router12/events:1", "router13/events:0"}},
        {"kelputil --json fleet --limit router2 report core | head -1", 0, {"model: simulated kelp-v3 router"}},
        {"kelputil fleet --limit router11 firmware fw.bin --upgrade --settle 3", 20,
         {"~router11 FAILED", "did not take a login again within 3 s of its upgrade",
          "firmware roll-out halted (fw.bin: 100000 bytes, SHA-256 " + image_sha256 + "): 1 host"}},
    }, fleet_of_50, limit_ms);
}

}  // namespace
