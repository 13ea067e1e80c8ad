// Reports (actions 64, 96, 65) and the session lists (18, 19) on the wire.
#include "harness.h"

class Reports : public daemon_test {
protected:
    // Every command of the full report prints one line naming itself.
    void install_helpers() override {
        for (const char* name : {"show-version", "ip", "ifconfig", "iptables", "show-sysinfo", "logread"})
            router::install_helper(name, std::string("echo \"out of ") + name + "${*:+ $*}\"");
        // cat and cut are recorded and then do their real work.
        router::install_helper("cat", "case \"$1\" in /proc/loadavg) echo '0.10 0.20 0.30 1/99 42';; "
                                      "/proc/*) echo \"out of cat $1\";; *) exec /bin/cat \"$@\";; esac");
        router::install_helper("cut", "exec /usr/bin/cut \"$@\"");
    }
};

// A line of 2,500 bytes, a command with no output and one whose last line
// has no newline.
static const std::string full_report =
    "---[ Software Version ]-------------------------------------\n" + std::string(1023, 'v') + "\n" +
    std::string(1023, 'v') + "\n" + std::string(454, 'v') + "\n\n"
    "---[ System Load Average ]----------------------------------\n"
    " 1    5    15   (in minutes)\n"
    "0.10 0.20 0.30\n\n"
    "---[ Active Devices ]---------------------------------------\n"
    "out of ip addr show\n\n"
    "---[ Device Stats ]-----------------------------------------\n"
    "\n"
    "---[ Routing Table ]----------------------------------------\n"
    "out of ip route show\n\n\n"
    "---[ ARP Table ]--------------------------------------------\n"
    "out of ip neigh show\n\n\n"
    "---[ IRQ Information ]--------------------------------------\n"
    "out of cat /proc/interrupts\n\n\n"
    "---[ I/O Memory Information ]-------------------------------\n"
    "out of cat /proc/iomem\n\n\n"
    "---[ I/O Port Information ]---------------------------------\n"
    "out of cat /proc/ioports\n\n\n"
    "---[ CPU Information ]--------------------------------------\n"
    "out of cat /proc/cpuinfo\n\n"
    "---[ Firewall chains ]--------------------------------------\n"
    "out of iptables -L -v -n -x\n\n\n"
    "---[ NAT chains ]-------------------------------------------\n"
    "out of iptables -t nat -L -v -n -x\n\n\n"
    "---[ MANGLE chains ]----------------------------------------\n"
    "out of iptables -t mangle -L -v -n -x\n\n\n"
    "---[ End of report ]---\n";

TEST_F(Reports, ThreeReports) {
    run({
        {.name = "full",
         .helpers = {{"show-version", "head -c 2500 /dev/zero | tr '\\0' v; echo"}, {"ifconfig", ""},
                     {"iptables", "printf '%s' \"out of iptables $*\""}},
         // A report file of the same process id left from before is truncated.
         .started =
             [](pid_t pid) { router::write_file("/tmp/netrep." + std::to_string(pid), std::string(100000, 's')); },
         .request = act_pkt(64), .replies = hex("03 01 01 41 0E 00 00") + frames(text(full_report)) + ok,
         .logs = {{info, "127.0.0.1 - sysinfo sent to client"}},
         .calls = {"show-version", "cat /proc/loadavg", "cut -f1,2,3 -d  ", "ip addr show", "ifconfig", "ip route show",
                   "ip neigh show", "cat /proc/interrupts", "cat /proc/iomem", "cat /proc/ioports", "cat /proc/cpuinfo",
                   "iptables -L -v -n -x", "iptables -t nat -L -v -n -x", "iptables -t mangle -L -v -n -x"}},
        {.name = "core", .request = act_pkt(96),
         .replies = hex("03 01 01 14 00 00 00") + frame(text("out of show-sysinfo\n")) + ok,
         .logs = {{info, "127.0.0.1 - core sysinfo sent to client"}}, .calls = {"show-sysinfo"}},
        {.name = "kernel log", .request = act_pkt(65),
         .replies = hex("03 01 01 64 00 00 00") +
                    frame(text("---[ Kernel Message Log ]-----------------------------------\nout of logread\n"
                               "---[ End of report ]---\n")) + ok,
         .logs = {{info, "127.0.0.1 - kernlog sent to client"}}, .calls = {"logread"}},
        {.name = "client gone", .helpers = {{"show-sysinfo", "head -c 3000000 /dev/zero"}}, .request = act_pkt(96),
         .hang_up = true, .status = 1, .calls = {"show-sysinfo"}},
    });
}

class Lists : public daemon_test {};

// n zero bytes with the fields laid in at their offsets.
static bytes record(size_t n, std::initializer_list<std::pair<size_t, bytes>> fields) {
    bytes r(n, 0);
    for (auto& [at, b] : fields) std::copy(b.begin(), b.end(), r.begin() + (long)at);
    return r;
}

static files ppp_units(std::initializer_list<int> units) {
    files made;
    for (int u : units)
        made.push_back({"/run/pppoe/info.ppp" + std::to_string(u), "NAME=u" + std::to_string(u) + "\n"});
    return made;
}

static bytes ppp(const std::string& name) { return record(326, {{2, text(name)}}); }

TEST_F(Lists, PppAndHotspot) {
    const bytes ppp_end = record(326, {{1, {1}}}), hotspot_end = record(316, {{1, {1}}});
    run({
        {.name = "no ppp sessions", .request = act_pkt(18), .replies = ok + ppp_end + ok,
         .logs = {{info, "127.0.0.1 - sending client our ppp list"}}},
        // Gaps below 257 are skipped; the first missing unit from 257 on ends the list.
        {.name = "ppp gaps", .files = ppp_units({0, 2, 258}), .request = act_pkt(18),
         .replies = ok + ppp("u0") + ppp("u2") + ppp_end + ok},
        {.name = "ppp units past 256", .files = ppp_units({256, 257, 258, 260}), .request = act_pkt(18),
         .replies = ok + ppp("u256") + ppp("u257") + ppp("u258") + ppp_end + ok},
        {.name = "no hotspot helper", .request = act_pkt(19), .replies = ok + hotspot_end + ok,
         .logs = {{info, "127.0.0.1 - sending client our hotspot list"}}},
        // A line with five separators is skipped; one of 600 characters is
        // read as 511 and the rest, each parsed as a line of its own.
        {.name = "hotspot lines",
         .files = {{"/run/sandbox/hotshow", "alice|10.0.0.5|00:11:22:33:44:55|1000|2000|30|40\n"
                                            "five|separators|only|1|2|3\n" +
                                                std::string(511, 'x') + "bob|10.0.0.6|m|1|2|3|4\n"}},
         .helpers = {{"do-hotshow", "cat /run/sandbox/hotshow"}}, .request = act_pkt(19),
         .replies = ok +
                    record(316, {{2, text("alice")}, {258, text("10.0.0.5")}, {274, text("00:11:22:33:44:55")},
                                 {292, hex("E8 03 00 00 00 00 00 00  D0 07 00 00 00 00 00 00  "
                                           "1E 00 00 00  28 00 00 00")}}) +
                    record(316, {{2, text("bob")}, {258, text("10.0.0.6")}, {274, text("m")},
                                 {292, hex("01 00000000000000 02 00000000000000 03 000000 04 000000")}}) +
                    hotspot_end + ok,
         .calls = {"do-hotshow simple"}},
    });
}
