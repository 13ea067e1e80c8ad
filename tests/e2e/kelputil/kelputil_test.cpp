// The operator's tool against the simulated router: every command, the
// careless uses a new user tried, connection trouble, the JSON schema and
// the terminal.
#include <dirent.h>
#include <unistd.h>

#include "router.h"
#include "tool_harness.h"

namespace {

const char retry[] = "retry() { n=0; until \"$@\"; do n=$((n+1)); [ $n -lt 40 ] || return 1; sleep 0.2; done; }; ";

class kelputil : public tool_test {};

TEST_F(kelputil, every_command) {
    run_steps({
        {"kelputil check", 0, {"first contact with 127.0.0.1:857: its certificate has SHA-256 ", "login ok"}},
        // Only the backup store's helper loads libgit2 and libarchive.
        {"LD_DEBUG=files kelputil -q check 2>&1 | grep -c 'libgit2\\|libarchive'", 1, {"0\n"}},
        {"cp \"$(command -v kelputil)\" alone && ./alone fleet history r1", 1,
         {"fleet history needs kelputil-store, which cannot run (", "reinstall kelputil"}},
        {"kelputil apply && until_in 'monitor: apply' /run/sim/events", 0, {"the device applies its settings"}},
        {"kelputil backup b.dat && stat -c %a b.dat", 0, {" bytes of configuration to b.dat\n600\n"}},
        // Offline: port 1 would refuse any connection.
        {"kelputil -p 1 bundle-verify b.dat && kelputil -p 1 bundle-unpack b.dat - | tar -tf -", 0,
         {"b.dat: bundle ok, ", "config/fw.scr"}},
        {"kelputil -q restore b.dat && cat /run/sim/events", 0, {"configuration installed"}},
        {"kelputil get-script fw fw.scr && echo 'iptables -A INPUT -j LOG' >> fw.scr && "
         "kelputil --apply put-script fw fw.scr && kelputil get-script fw", 0,
         {"script fw installed; the device applies its settings\n",
          "iptables -A INPUT -i lo -j ACCEPT\niptables -A INPUT -j LOG\n"}},
        {"kelputil report full | head -3", 0, {"---[ Software Version ]", "firmware 3.2.1 (simulated)"}},
        {"kelputil report core", 0, {"model: simulated kelp-v3 router"}},
        {"kelputil report kernel", 0, {"---[ Kernel Message Log ]"}},
        {"kelputil ppp > t && cat t && aligned < t", 0,
         {"~NAME TYPE INTERFACE REMOTE CBQ_RULE\n", "~alice pppoe ppp0 10.64.0.1 12\n",
          "~bob pptp ppp1 10.64.0.2 none\n2 PPP sessions\n", "columns line up"}},
        {"kelputil hotspot > t && cat t && aligned < t", 0,
         {"~USER IP MAC BYTES_IN BYTES_OUT SESSION_S IDLE_S\n",
          "~carol 10.0.0.101 00:11:22:33:44:55 1048576 5242880 3600 12\n", "columns line up"}},
        {"kelputil kick-ppp alice && kelputil ppp", 0, {"disconnected alice\n", "1 PPP session\n", "!alice "}},
        {"kelputil kick-hotspot carol && kelputil kick-ip 10.0.0.102 && kelputil hotspot", 0,
         {"disconnected carol\n", "disconnected 10.0.0.102\n", "0 hotspot sessions"}},
        // Every second, the last one too.
        {"kelputil throughput rx 3", 0, {"~[ 0.0- 1.0 s]", "~[ 1.0- 2.0 s]", "~[ 2.0- 3.0 s]", "device to us: "}},
        {"kelputil throughput --window 64K tx 1", 0, {"us to device: "}},
        // Without a terminal, no meter: only the final line.
        {"head -c 300000 /dev/urandom > fw.bin && kelputil firmware fw.bin", 0,
         {"firmware stored on the device (300000 bytes)\n", "!\r", "!%"}},
        {"kelputil firmware fw.bin --upgrade", 0,
         {"upgrade: checking image (300000 bytes)\n", "upgrade: writing flash 50%\n",
          "upgrade done: 300000 bytes flashed\n", "!upgrade: done"}},
        // The upgrade rebooted the router; so does this.
        {std::string(retry) + "retry kelputil -q check && kelputil reboot && "
                              "until_in 'monitor: reboot' /run/sim/events && retry kelputil check 2>/dev/null",
         0, {"the device reboots now", "login ok"}},
    });
}

// Each row a mistake a new user made, which once lost a file, crashed,
// sent an empty password or hid a problem.
TEST_F(kelputil, careless_use) {
    run_steps({
        {"kelputil --json get-script fw", 0,
         {"/data/script=\"fw\"", "/data/bytes=78", "\"text\":\"#!/bin/sh\\n# firewall"}},
        // A full disk keeps the previous backup whole and leaves no temporary.
        {"mkdir small && mount -t tmpfs -o size=16k tmpfs small && kelputil -q backup small/b.dat && "
         "cp small/b.dat good && head -c 100000 /dev/zero > small/fill 2>/dev/null; kelputil backup small/b.dat; "
         "r=$?; cmp small/b.dat good && ls -a small; exit $r", 1,
         {"cannot write small/b.dat: No space left on device", "\n.\n..\nb.dat\nfill\n"}},
        {"kelputil get-script fw > small/fw.scr", 1,
         {"kelputil: cannot write standard output: No space left on device"}},
        {"for c in 'report core' ppp hotspot '--json check'; do kelputil $c > /dev/full; echo \"status $?\"; done", 0,
         {"kelputil: cannot write standard output: No space left on device\nstatus 1\n", "!status 0"}},
        // Binary on a terminal: refused before connecting (port 1 would refuse).
        {"script -qfec 'kelputil -p 1 backup -; echo status $?; "
         "kelputil bundle-unpack good -; echo status $?' /dev/null",
         0, {"binary output can mess up your terminal: redirect it (> FILE) or give a FILE", "status 1", "!status 0",
             "!refused"}},
        // A replaced file keeps its owner and mode; a link stays a link.
        {"kelputil -q get-script fw s.scr && chown 65534 s.scr && chmod 640 s.scr && "
         "kelputil -q get-script fw s.scr && stat -c '%a %u' s.scr && "
         "mkdir real sub && echo old > real/fw.scr && ln -s ../real/fw.scr sub/fw.link && "
         "kelputil -q get-script fw sub/fw.link && [ -L sub/fw.link ] && head -2 real/fw.scr",
         0, {"640 65534\n#!/bin/sh\n# firewall"}},
        {"(umask 027; kelputil -q get-script fw a.scr); (umask 022; kelputil -q get-script fw b.scr); "
         "stat -c %a a.scr b.scr",
         0, {"640\n644\n"}},
        {"mkdir d; for c in 'restore d' 'put-script fw d' 'firmware d' 'bundle-verify d' 'bundle-pack d out' "
         "'backup d' 'bundle-unpack good d'; do kelputil $c; [ $? -eq 1 ] || echo BAD; done", 0,
         {"cannot read d: it is a folder", "cannot write d: it is a folder", "!BAD"}},
        {"mkfifo f; kelputil restore f; echo \"status $?\"; kelputil -q backup /dev/full", 1,
         {"f: the bundle is 0 bytes", "status 1", "cannot write /dev/full: No space left on device"}},
        {"kelputil --plain --pin 00 check", 1, {"--pin checks a TLS certificate: it cannot go with --plain"}},
        {"kelputil -q check && sed -i 's/ .*/ " + std::string(64, 'a') + "/' $XDG_CONFIG_HOME/kelputil/known_hosts && "
         "kelputil check; r=$?; rm $XDG_CONFIG_HOME/kelputil/known_hosts; exit $r", 5,
         {"the certificate of 127.0.0.1:857 has changed: it now has SHA-256 ", " holds " + std::string(64, 'a'),
          "delete line 1 of /run/sim/config/kelputil/known_hosts, or pass --pin "}},
        // No password, an empty one, or a file others can read: refused
        // before any connection, so the device logs no failed login.
        {"unset KELPUTIL_PASSWORD; kelputil check", 1,
         {"no password: set KELPUTIL_PASSWORD, give --password-file FILE, or run on a terminal to be asked"}},
        {"KELPUTIL_PASSWORD= kelputil check", 1, {"KELPUTIL_PASSWORD is set but empty"}},
        {": > empty && chmod 600 empty && kelputil --password-file empty check", 1,
         {"the password file empty is empty"}},
        {"echo pw > open && chmod 644 open && kelputil --password-file open check", 1,
         {"has mode 0644, readable by others: chmod 600 open"}},
        // A pipe is read once, though the source is read before connecting and again to log in.
        {"echo $KELPUTIL_PASSWORD | (unset KELPUTIL_PASSWORD; kelputil --password-file /proc/self/fd/0 check)", 0,
         {"login ok"}},
        {"grep -c 'authentication failed' /run/sim/messages", 1, {"0\n"}},
        {"for o in '-p 66392' '-p 856abc' '-p abc' '--timeout abc' '--timeout -1' '--timeout 0'; do kelputil $o check; "
         "done; kelputil fleet -i x firmware f --upgrade --batch 0; kelputil throughput rx 100000", 1,
         {"--port: '66392' is out of range: 1 to 65535", "--batch: '0' is out of range: 1 to 256",
          "--port: '856abc' is not a port", "--port: 'abc' is not a port", "--timeout: 'abc' is not a duration",
          "--timeout: '-1' is not a duration", "--timeout: '0' is out of range", "SECONDS: '100000' is out of range",
          "usage: kelputil throughput [OPTIONS] DIRECTION [SECONDS]"}},
        {"for a in 'bakup x' '--password s3cret check' '--password=s3cret check' '--tiemout 5 check' 'check --jsn' "
         "'-H 127.0.0.1 fleet -i x check' '-H 127.0.0.1:857 check' '-H [::1] check' '-H ::1 check'; do kelputil $a; "
         "[ $? -eq 1 ] || echo BAD; done", 0,
         {"'bakup' is not a kelputil command. Did you mean 'backup'?",
          "kelputil: --password: the password never comes from the command line, where other users could read it: set "
          "KELPUTIL_PASSWORD, give --password-file FILE, or run on a terminal to be asked\n",
          "unknown option --tiemout. Did you mean --timeout?", "unknown option --jsn. Did you mean --json?",
          "a fleet's hosts come from the inventory: leave out -H, or use --limit",
          "127.0.0.1:857 looks like HOST:PORT: give the host alone and the port on its own (-H 127.0.0.1 -p 857",
          "[::1] is an IPv6 address: the router speaks IPv4 only", "\nkelputil: ::1 is an IPv6 address", "!s3cret",
          "!BAD"}},
        {"kelputil -V", 0, {"kelputil 1.0.0\n"}},
        // Only the default folder is made; a damaged trust file trusts nothing.
        {"kelputil --known-hosts /run/nodir/kh check; r=$?; ls -d /run/nodir; exit $r", 1,
         {"cannot use /run/nodir/kh: the folder /run/nodir does not exist", "No such file"}},
        {"echo garbage > kh && kelputil --known-hosts kh check", 1,
         {"kh:1 is not a known host (HOST:PORT and a SHA-256 of 64 hex digits): correct or delete that line"}},
        {"kelputil help fleet backup > a && kelputil fleet backup --help > b && cmp a b && cat a", 0,
         {"Usage: kelputil fleet backup [OPTIONS]", "--scripts"}},
        {"kelputil help fleet bakup", 1, {"'bakup' is not a kelputil fleet command. Did you mean 'backup'?"}},
        // Checked here first: nothing travels that the device would refuse.
        {"cp good bad.dat && printf X | dd of=bad.dat bs=1 seek=2000 conv=notrunc 2>/dev/null && "
         "kelputil restore bad.dat", 1, {"bad.dat: bundle digest check failed", "nothing was sent"}},
        {"printf abcd > tiny && kelputil bundle-pack tiny t.dat; ls t.dat", 2,
         {"tiny is 4 bytes: its bundle would be 52 bytes", "No such file"}},
        // A whole bundle of no configuration: intact, but too small for the device.
        {"printf 'kelp-v3 configuration\\0\\0\\0\\324\\035\\214\\331\\217\\0\\262\\004\\351\\200\\011\\230"
         "\\354\\370\\102\\176\\001\\0\\0\\040\\060\\0\\0\\0' > empty.dat && kelputil bundle-verify empty.dat",
         1, {"empty.dat: the bundle is 48 bytes; the device takes 1024 to 524288"}},
        {"grep -c 'uploading new configuration' /run/sim/messages", 1, {"0\n"}},
        {": > zero.bin && printf x > one.bin && kelputil firmware zero.bin --upgrade; a=$?; kelputil firmware one.bin; "
         "echo \"$a $?\"; grep -c 'firmware received' /run/sim/messages",
         1, {"zero.bin is 0 bytes, less than the 1 KiB of any firmware image: a truncated download? Nothing was sent",
             "one.bin is 1 byte, less than", "1 1\n0\n"}},
    });
}

// What the operator reads when the connection does not work.
TEST_F(kelputil, connection_trouble) {
    run_steps({
        {"kelputil -p 1 check", 3, {"127.0.0.1:1 refused the connection: is kelputild running there"}},
        {"kelputil -p 856 check", 4, {"speaks the plain protocol, not TLS: add --plain"}},
        {"kelputil --plain -p 857 --timeout 2 check", 4, {"answers as a TLS server: drop --plain"}},
        // The daemon serves one session at a time.
        {"kelputil throughput rx 3 >/dev/null & sleep 1; kelputil --timeout 1 check; r=$?; wait; exit $r", 3,
         {"accepted the connection but sent no greeting within", "may be busy with another"}},
        // A host that accepts and resets every connection: bounded by the time-out.
        {"perl -MIO::Socket::INET -e '$s = IO::Socket::INET->new(LocalPort => 9000, Listen => 5, ReuseAddr => 1) "
         "or die; while (1) { close($s->accept) }' & sleep 0.5; start=$(date +%s); kelputil -p 9000 --timeout 2 check; "
         "r=$?; [ $(( $(date +%s) - start )) -le 4 ] || echo SLOW; kill $!; exit $r",
         3, {"127.0.0.1:9000 closed the connection before its greeting ", "!SLOW"}},
        {"kelputil -v --plain check", 0,
         {"--plain: the password travels in a form anyone who captures", "connecting to 127.0.0.1:856",
          "greeting received", "logged in", "closed; 0 bytes sent and 14 received", "login ok"}},
    });
}

TEST_F(kelputil, json_schema) {
    run_steps({
        {"kelputil --json check", 0, {"/ok=true", "/exit=0", "/code=null", "/data=null"}},
        {"kelputil --json backup b.dat", 0, {"/data:file,bytes"}},
        {"kelputil --json restore b.dat", 0, {"/data:file,bytes"}},
        {"kelputil --json get-script fw fw.scr", 0, {"/data:file,bytes"}},
        {"kelputil --json put-script fw fw.scr", 0, {"/data:script,file,bytes"}},
        {"kelputil --json report core", 0, {"/data:report,lines", "/data/lines/0=\"model: simulated kelp-v3 router\""}},
        {"kelputil --json ppp", 0, {"/data/0:name,type,interface,remote,cbq_rule", "/data/1/cbq_rule=null"}},
        // A name that is not UTF-8 (Latin-1 ö) still makes valid JSON.
        {"printf 'J\\366rg|10.0.0.9|00:11:22:33:44:77|1|2|3|4\\n' >> /run/sim/hotspot && kelputil --json hotspot", 0,
         {"/data/0:user,ip,mac,bytes_in,bytes_out,session_s,idle_s", "/data/2/user=\"J\xC3\xB6rg\"",
          "/data/2/user_base64=\"SvZyZw==\""}},
        // Bytes that are not UTF-8 come back exactly from the base64 beside their Latin-1 reading.
        {"printf 'a\\377b\\n' > odd.scr && kelputil -q put-script fw odd.scr && kelputil --json get-script fw > got && "
         "sed -n 's/.*\"text_base64\":\"\\([^\"]*\\)\".*/\\1/p' got | base64 -d | cmp - odd.scr && cat got",
         0, {"/data/text=\"a\xC3\xBF" "b\\n\"", "/data/text_base64=\"Yf9iCg==\""}},
        {"kelputil --json bundle-verify \"$(printf 'n\\377')\"", 1,
         {"/message_base64=\"Y2Fubm90IHJlYWQgbv86IE5vIHN1Y2ggZmlsZSBvciBkaXJlY3Rvcnk=\""}},
        {"kelputil --json kick-ppp nobody", 16, {"/code=6", "/data:user"}},
        {"kelputil --json kick-ip 10.0.0.9", 0, {"/data:address"}},
        {"head -c 5000 /dev/zero > fw.bin && kelputil --json firmware fw.bin", 0,
         {"\"event\":\"phase\"", "/data:file,bytes,upgraded"}},
        {"kelputil --json throughput rx 2", 0,
         {"\"event\":\"interval\"", "/data:direction,intervals,summary", "/data/intervals/1:start,end,bytes,mbit_per_s",
          "/data/summary/mbit_per_s>0"}},
        {"kelputil --json bundle-verify b.dat", 0, {"/data:file,bytes,plain_bytes"}},
        {"kelputil --json bundle-unpack b.dat p && kelputil --json bundle-pack p q", 0, {"/data:file,bytes"}},
        {"kelputil --json backup", 1, {"/data:usage", "/message=\"backup: FILE is required\""}},
        {"KELPUTIL_PASSWORD=wrong kelputil --json check", 2, {"/exit=2", "/ok=false"}},
        {"kelputil --json firmware fw.bin --upgrade", 0, {"\"event\":\"upgrade\"", "/data:file,bytes,upgraded,lines"}},
    });
}

// The meter on a terminal of 60 and of 120 columns: no line wider than the
// terminal, redrawn in place, ending at 100%.
TEST_F(kelputil, meter_fits_the_terminal) {
    run_result r = in_router(
        "cd /run && head -c 2000000 /dev/urandom > fw.bin && kelputil -q check && echo '@@ 0' && for c in 60 120; do "
        "script -qfec \"stty cols $c rows 20; kelputil firmware fw.bin\" /dev/null; echo \"@@ $c\"; done");
    ASSERT_EQ(r.status, 0) << r.out;
    for (int columns : {60, 120}) {
        std::string end = "@@ " + std::to_string(columns);
        size_t stop = r.out.find(end), from = r.out.find(columns == 60 ? "@@ 0" : "@@ 60") + 5;
        ASSERT_NE(stop, std::string::npos) << r.out;
        std::string shown = r.out.substr(from, stop - from);
        size_t widest = 0, meters = 0;
        std::string last_meter;
        for (size_t at = 0, next; at < shown.size(); at = next + 1) {
            next = std::min(shown.find_first_of("\r\n", at), shown.size());
            std::string piece = shown.substr(at, next - at);
            widest = std::max(widest, piece.size());
            if (piece.rfind("[", 0) == 0) meters++, last_meter = piece;
        }
        EXPECT_LT(widest, (size_t)columns) << shown;
        EXPECT_GT(meters, 1u) << shown;
        EXPECT_NE(last_meter.find("100%"), std::string::npos) << last_meter;
        EXPECT_NE(shown.find("the device is checking that 2000000 bytes fit..."), std::string::npos) << shown;
    }
}

// The prompt: after the greeting (a host that is down is known before
// anyone types), without echo, and Ctrl-C gives the terminal back.
TEST_F(kelputil, password_prompt) {
    run_steps({
        {"unset KELPUTIL_PASSWORD; script -qfec 'kelputil -p 1 check' /dev/null", 3,
         {"refused the connection", "!admin password"}},
        {"unset KELPUTIL_PASSWORD; (sleep 1; echo pw) | script -qfec 'kelputil check' /dev/null", 0,
         {"admin password: ", "login ok", "!password: pw"}},
        {"unset KELPUTIL_PASSWORD; (sleep 1; printf '\\003'; sleep 1) | script -qfec \"trap '' INT; kelputil check; "
         "echo status=\\$?; stty -a | grep -q ' echo ' && echo ECHO-ON\" /dev/null",
         0, {"admin password: ", "status=130", "ECHO-ON"}},
    });
}

TEST_F(kelputil, password_never_in_a_command_line) {
    const std::string password = "pw-" + std::to_string(getpid()) + "-q7";
    int looked = 0;
    std::vector<std::string> leaks;
    auto scan = [&] {
        std::vector<std::string> lines;
        bool running = false;
        DIR* proc = opendir("/proc");
        while (dirent* e = proc ? readdir(proc) : nullptr) {
            if (!isdigit((unsigned char)e->d_name[0])) continue;
            std::string line = router::read_file(std::string("/proc/") + e->d_name + "/cmdline");
            running |= line.find(std::string("throughput\0rx", 13)) != std::string::npos;
            lines.push_back(line);
        }
        if (proc) closedir(proc);
        if (!running) return;  // kelp-router blanks its own copy only once started
        looked++;
        for (const std::string& l : lines)
            if (l.find(password) != std::string::npos) leaks.push_back(l);
    };
    run_result r = in_router("kelputil throughput rx 2", {}, password, scan);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_GT(looked, 10);
    EXPECT_TRUE(leaks.empty()) << leaks[0];
}

}  // namespace
