// Reports (actions 64, 96, 65) and the session lists (18, 19) on the wire.
#include <stdio.h>
#include <unistd.h>

#include "harness.h"

constexpr int info = 86;

static std::string text(const bytes& b) { return std::string(b.begin(), b.end()); }

class Reports : public daemon_test {
protected:
    // Every command of the full report prints one line naming itself.
    void SetUp() override {
        daemon_test::SetUp();
        for (const char* name : {"show-version", "ip", "ifconfig", "iptables", "show-sysinfo", "logread"})
            router::install_helper(name, std::string("echo \"out of ") + name + "${*:+ $*}\"");
        // cat and cut are recorded and then do their real work.
        router::install_helper("cat", "case \"$1\" in /proc/loadavg) echo '0.10 0.20 0.30 1/99 42';; "
                                      "/proc/*) echo \"out of cat $1\";; *) exec /bin/cat \"$@\";; esac");
        router::install_helper("cut", "exec /usr/bin/cut \"$@\"");
    }
    std::string fetch(int action) {
        begin(action);
        bytes size = reply();
        EXPECT_EQ(size.size(), 7u);
        if (size.size() != 7) return "";
        uint32_t n = size[3] | (size[4] << 8) | (size[5] << 16) | ((uint32_t)size[6] << 24);
        std::string report = text(download(n));
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        EXPECT_EQ(exit_status(), 0);
        return report;
    }
};

static const char full_report[] =
    "---[ Software Version ]-------------------------------------\n"
    "out of show-version\n\n"
    "---[ System Load Average ]----------------------------------\n"
    " 1    5    15   (in minutes)\n"
    "0.10 0.20 0.30\n\n"
    "---[ Active Devices ]---------------------------------------\n"
    "out of ip addr show\n\n"
    "---[ Device Stats ]-----------------------------------------\n"
    "out of ifconfig\n\n"
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

TEST_F(Reports, FullReportLayout) {
    std::string report = fetch(64);
    EXPECT_EQ(report, full_report);
    // Banners are 61 bytes with their newline, the end line 24.
    size_t banners = 0;
    for (size_t at = report.find("---["); at != std::string::npos; at = report.find("---[", at + 1)) {
        size_t end = report.find('\n', at) + 1;
        EXPECT_EQ(end - at, report.compare(at, 23, "---[ End of report ]---") == 0 ? 24u : 61u);
        banners++;
    }
    EXPECT_EQ(banners, 14u);
    std::vector<std::string> calls = router::helper_calls();
    EXPECT_NE(std::find(calls.begin(), calls.end(), "cat /proc/loadavg"), calls.end());
    EXPECT_NE(std::find(calls.begin(), calls.end(), "cut -f1,2,3 -d  "), calls.end());
    expect_log(info, "kelputild", "127.0.0.1 - sysinfo sent to client");
    EXPECT_EQ(tmp_files(), std::vector<std::string>{});
}

TEST_F(Reports, LongLinesEmptyOutputAndAStaleFile) {
    router::install_helper("show-version", "head -c 2500 /dev/zero | tr '\\0' v; echo");
    router::install_helper("ifconfig", "true");
    router::install_helper("iptables", "printf 'no newline at the end'");
    start();
    // A report file of the same process id left from before is truncated.
    std::string stale = "/tmp/netrep." + std::to_string(daemon.pid);
    router::write_file(stale, std::string(100000, 's'));
    connect_and_greet();
    login();
    request(64);
    bytes size = reply();
    uint32_t n = size[3] | (size[4] << 8) | (size[5] << 16);
    std::string report = text(download(n));
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    EXPECT_EQ(report.find("sssss"), std::string::npos);
    EXPECT_NE(report.find("---[ Software Version ]-------------------------------------\n" + std::string(1023, 'v') +
                          "\n" + std::string(1023, 'v') + "\n" + std::string(454, 'v') + "\n\n"),
              std::string::npos);
    EXPECT_NE(report.find("---[ Device Stats ]-----------------------------------------\n\n---[ Routing"),
              std::string::npos);
    EXPECT_NE(report.find("\nno newline at the end\n\n\n---[ NAT"), std::string::npos);
    EXPECT_EQ(exit_status(), 0);
    EXPECT_FALSE(router::exists(stale));
}

TEST_F(Reports, CoreReportAndKernelLog) {
    EXPECT_EQ(fetch(96), "out of show-sysinfo\n");
    client.close_now();
    EXPECT_EQ(fetch(65),
              "---[ Kernel Message Log ]-----------------------------------\nout of logread\n---[ End of report ]---\n");
    expect_log(info, "kelputild", "127.0.0.1 - kernlog sent to client");
}

TEST_F(Reports, ClientGoneDuringTheReportLeavesNoFile) {
    router::install_helper("show-sysinfo", "head -c 3000000 /dev/zero");
    begin(96);
    client.close_now();
    EXPECT_EQ(exit_status(15000), 1);
    EXPECT_EQ(tmp_files(), std::vector<std::string>{});
}

class Lists : public daemon_test {
protected:
    bytes list(int action, size_t record_len) {
        begin(action);
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        bytes all;
        for (int i = 0; i < 1000; i++) {
            bytes r = client.receive(record_len);
            if (r.size() != record_len) {
                ADD_FAILURE() << "short record";
                break;
            }
            all.insert(all.end(), r.begin(), r.end());
            if (r[1] == 1) break;
        }
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        EXPECT_EQ(exit_status(), 0);
        return all;
    }
    static void info_file(int unit, const std::string& body) {
        router::write_file("/run/pppoe/info.ppp" + std::to_string(unit), body);
    }
};

TEST_F(Lists, PppListWithoutSessions) {
    bytes all = list(18, 326);
    bytes end(326, 0);
    end[1] = 1;
    EXPECT_EQ(all, end);
    expect_log(info, "kelputild", "127.0.0.1 - sending client our ppp list");
}

TEST_F(Lists, PppRecordsGapsAndTheEnd) {
    info_file(0, "PPP=ppp0\nTYPE=pppoe\nREMOTE=10.64.0.1\nCBQRULE=12\nNAME=alice");
    info_file(2, "PPP=ppp12345678\nCBQRULE=-1\nNAME=a=b\n");
    info_file(300, "NAME=never\n");
    bytes all = list(18, 326);
    ASSERT_EQ(all.size(), 3u * 326);
    const uint8_t* r0 = all.data();
    EXPECT_BYTES(bytes(r0, r0 + 2), "00 00");
    EXPECT_BYTES(bytes(r0 + 2, r0 + 7), "61 6C 69 63 00");  // "alic": last character dropped
    EXPECT_EQ(text(bytes(r0 + 258, r0 + 264)), std::string("pppoe\0", 6));
    EXPECT_EQ(text(bytes(r0 + 274, r0 + 279)), std::string("ppp0\0", 5));
    EXPECT_EQ(text(bytes(r0 + 282, r0 + 291)), std::string("10.64.0.1", 9));
    EXPECT_BYTES(bytes(r0 + 298, r0 + 302), "00 00 00 0C");
    const uint8_t* r2 = all.data() + 326;
    EXPECT_EQ(text(bytes(r2 + 2, r2 + 6)), std::string("a=b\0", 4));
    EXPECT_EQ(text(bytes(r2 + 274, r2 + 283)), std::string("ppp12345\0", 9));  // full field, then REMOTE's zero
    EXPECT_BYTES(bytes(r2 + 298, r2 + 302), "FF FF FF FF");
    EXPECT_EQ(all[2 * 326 + 1], 1);
}

TEST_F(Lists, PppUnitsPast256ListOnlyWhileConsecutive) {
    for (int unit = 0; unit < 260; unit++) info_file(unit, "NAME=u" + std::to_string(unit) + "\n");
    bytes all = list(18, 326);
    ASSERT_EQ(all.size(), 261u * 326);
    EXPECT_EQ(text(bytes(all.begin() + 259 * 326 + 2, all.begin() + 259 * 326 + 7)), std::string("u259\0", 5));
    EXPECT_EQ(all[260 * 326 + 1], 1);
}

TEST_F(Lists, HotspotWithoutSessionsOrHelper) {
    for (const char* helper : {(const char*)"true", (const char*)nullptr}) {
        if (helper) router::install_helper("do-hotshow", helper);
        bytes all = list(19, 316);
        bytes end(316, 0);
        end[1] = 1;
        EXPECT_EQ(all, end);
        expect_log(info, "kelputild", "127.0.0.1 - sending client our hotspot list");
        client.close_now();
    }
}

TEST_F(Lists, HotspotRecords) {
    std::string twenty = "ABCDEFGHIJKLMNOPQRST";
    std::string lines = "alice|10.0.0.5|00:11:22:33:44:55|1000|2000|30|40\n"
                        "five|separators|only|1|2|3\n" +
                        twenty + "|10.0.0.6|mac|18446744073709551615|0|0|0\n" + std::string(600, 'x') + "\n";
    router::write_file("/run/sandbox/hotshow", lines);
    router::install_helper("do-hotshow", "cat /run/sandbox/hotshow");
    bytes all = list(19, 316);
    ASSERT_EQ(all.size(), 3u * 316);
    const uint8_t* r = all.data();
    EXPECT_EQ(text(bytes(r + 2, r + 8)), std::string("alice\0", 6));
    EXPECT_EQ(text(bytes(r + 258, r + 267)), std::string("10.0.0.5\0", 9));
    EXPECT_EQ(text(bytes(r + 274, r + 292)), std::string("00:11:22:33:44:55\0", 18));
    EXPECT_BYTES(bytes(r + 292, r + 316),
                 "E8 03 00 00 00 00 00 00  D0 07 00 00 00 00 00 00  1E 00 00 00  28 00 00 00");
    const uint8_t* t = all.data() + 316;
    EXPECT_EQ(text(bytes(t + 2, t + 22)), std::string("ABCDEFGHIJKLMNO\0Q\0ST", 20));
    EXPECT_BYTES(bytes(t + 292, t + 300), "FF FF FF FF FF FF FF FF");
    // The 600-character line is read as 511 characters and the rest: neither
    // piece has a separator, so neither is sent.
    EXPECT_EQ(all[2 * 316 + 1], 1);
}
