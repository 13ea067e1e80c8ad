// Protocol fuzzer for the real daemon binary. It starts the daemon in a
// simulated router again and again, logs in (mostly with the right password),
// sends a mutated request and body for one action, and then checks what must
// hold whatever a client sends:
//   - the process ends with 0, 1 or 2, or sits in the reboot loop when the
//     request's flags asked for a reboot; a sanitizer report is a failure;
//   - /tmp holds nothing but the files the daemon keeps on purpose;
//   - a script or firmware image is either untouched or there whole, with the
//     declared size: never half-written.
//
//   protocol_fuzz [--seconds N] [--runs N] [--seed N] [--out DIR]
//   protocol_fuzz --replay FILE
//
// A failing conversation is saved to DIR as protocol-<seed>-<run>.bin: the
// auth reply with the password in clear (it is enciphered again for the
// challenge of the replay), then every byte that followed it.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "bundle.h"
#include "protocol.h"
#include "rc4.h"
#include "router.h"
#include "session.h"
#include "transfer.h"

using bytes = std::vector<uint8_t>;

namespace {

const char* const password = "fuzz-pw";

struct script_file {
    int number;
    const char* path;
    const char* original;
};
const script_file scripts[] = {
    {1, "/etc/config/cbq.scr", "# cbq rules\n"},
    {2, "/etc/config/fw.scr", "# firewall rules\n"},
    {3, "/etc/config/nat.scr", "# nat rules\n"},
    {7, "/etc/config/dhcpd.conf", "# dhcp settings\n"},
};

// What the daemon leaves in /tmp on purpose: the firmware image, the kick
// hand-off files and the post-action markers.
const char* const kept_in_tmp[] = {"firmware.bin", "kick-user", "hotspot.user2kick",
                                   "monitor",      "all.dirty", "ips.dirty"};

double now_s() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

double since(double t) { return now_s() - t; }

// --- building conversations -------------------------------------------------

bytes request_packet(int action, int script, int flags, uint32_t size) {
    kelp::request r;
    r.action = (uint8_t)action;
    r.script = (uint8_t)script;
    r.flags = (uint8_t)flags;
    r.size = size;
    bytes p(act_pkt_len);
    kelp::encode_request(r, p.data());
    return p;
}

void append_frames(bytes& out, const bytes& body) {
    for (size_t done = 0; done < body.size(); done += frame_payload_len) {
        out.resize(out.size() + frame_len);
        encode_frame(body.data() + done, std::min(frame_payload_len, body.size() - done),
                     out.data() + out.size() - frame_len);
    }
}

bytes random_bytes(std::mt19937& rng, size_t n) {
    bytes b(n);
    for (auto& c : b) c = (uint8_t)rng();
    return b;
}

bytes random_text(std::mt19937& rng, size_t n) {
    bytes b(n);
    for (auto& c : b) c = (uint8_t)(rng() % 10 == 0 ? '\n' : 'a' + rng() % 26);
    return b;
}

// A valid conversation after the auth reply for one action, before mutation.
bytes valid_conversation(std::mt19937& rng, int action) {
    int flags = (int)(rng() % 4);
    bytes out;
    auto add = [&](const bytes& b) { out.insert(out.end(), b.begin(), b.end()); };
    switch (action) {
    case action_send_script: add(request_packet(action, scripts[rng() % 4].number, flags, 0)); break;
    case action_receive_config: {
        bytes bundle = kelp::pack_bundle(random_text(rng, 1000 + rng() % 3000));
        add(request_packet(action, 0, flags, (uint32_t)bundle.size()));
        append_frames(out, bundle);
        break;
    }
    case action_receive_script: {
        bytes body = random_text(rng, 1 + rng() % 3000);
        add(request_packet(action, scripts[rng() % 4].number, flags, (uint32_t)body.size()));
        append_frames(out, body);
        break;
    }
    case action_firmware: {
        bytes image = random_bytes(rng, rng() % 4000);
        add(request_packet(action, 0, flags, (uint32_t)image.size()));
        append_frames(out, image);
        break;
    }
    case action_kick_ppp_user:
    case action_kick_hotspot_user: {
        bytes name = random_text(rng, 1 + rng() % 12);
        add(request_packet(action, 0, flags, 0));
        bytes length(4);
        put_le32(length.data(), (uint32_t)name.size());
        add(length);
        add(name);
        break;
    }
    case action_kick_hotspot_ip:
        add(request_packet(action, 0, flags, 0));
        add({10, 0, 0, (uint8_t)rng()});
        break;
    case action_throughput_tx:
        add(request_packet(action, 0, flags, 0));
        add(random_bytes(rng, rng() % 200000));
        break;
    default:  // actions whose request is the whole conversation
        add(request_packet(action, 0, flags, 0));
        break;
    }
    return out;
}

const uint8_t interesting[] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x07, 0x08, 0x7f, 0x80, 0xfe, 0xff};

void mutate(std::mt19937& rng, bytes& b) {
    int rounds = 1 + (int)(rng() % 4);
    for (int i = 0; i < rounds; i++) {
        size_t pos = b.empty() ? 0 : rng() % b.size();
        switch (rng() % 9) {
        case 0:  // flip a bit
            if (!b.empty()) b[pos] ^= (uint8_t)(1u << (rng() % 8));
            break;
        case 1:  // an interesting byte anywhere
            if (!b.empty()) b[pos] = interesting[rng() % sizeof interesting];
            break;
        case 2:  // the request's own fields: action, script, flags
            if (b.size() > act_flags_offset)
                b[act_action_offset + rng() % 3] = rng() % 2 ? interesting[rng() % sizeof interesting] : (uint8_t)rng();
            break;
        case 3: {  // the declared size
            if (b.size() < act_pkt_len) break;
            static const uint32_t sizes[] = {0,      1,      1023,       1024,        1460,       1461,
                                             524288, 524289, 0x7fffffff, 0x80000000u, 0xffffffffu};
            put_le32(b.data() + act_size_offset, rng() % 2 ? sizes[rng() % 11] : (uint32_t)rng() % 70000);
            break;
        }
        case 4:  // a frame's length field, where frames start
            if (b.size() >= act_pkt_len + 2) {
                size_t f = act_pkt_len + frame_len * (rng() % ((b.size() - act_pkt_len) / frame_len + 1));
                if (f + 2 <= b.size()) put_le16(b.data() + f, (uint16_t)(rng() % 2 ? rng() % 1600 : rng()));
            }
            break;
        case 5:  // cut short
            b.resize(pos);
            break;
        case 6:  // extra bytes at the end
            for (uint32_t n = rng() % 64; n > 0; n--) b.push_back((uint8_t)rng());
            break;
        case 7:  // a stretch repeated
            if (!b.empty()) {
                size_t n = std::min<size_t>(1 + rng() % 64, b.size() - pos);
                b.insert(b.begin() + (long)pos, b.begin() + (long)pos, b.begin() + (long)(pos + n));
            }
            break;
        case 8:  // a stretch dropped
            if (!b.empty()) b.erase(b.begin() + (long)pos, b.begin() + (long)std::min(b.size(), pos + 1 + rng() % 64));
            break;
        }
    }
}

// --- talking to the daemon ----------------------------------------------------

int connect_daemon() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(plain_port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, (sockaddr*)&a, sizeof a) != 0) {
        if (fd >= 0) close(fd);
        return -1;
    }
    fcntl(fd, F_SETFL, O_NONBLOCK);
    return fd;
}

// Reads exactly n bytes within the time limit.
bool read_exact(int fd, uint8_t* p, size_t n, double limit_s) {
    double t = now_s();
    while (n > 0 && since(t) < limit_s) {
        pollfd pf{fd, POLLIN, 0};
        poll(&pf, 1, 50);
        ssize_t r = recv(fd, p, n, 0);
        if (r == 0 || (r < 0 && errno != EAGAIN)) return false;
        if (r > 0) p += r, n -= (size_t)r;
    }
    return n == 0;
}

// Sends the conversation in pieces of random size while draining whatever
// the daemon sends back, then reads on until it closes or goes quiet.
void converse(int fd, const bytes& talk, std::mt19937& rng) {
    size_t sent = 0;
    double start = now_s(), last_data = start, all_sent = 0;
    static uint8_t sink[65536];
    bool closed = false;
    while (!closed && since(start) < 3.0) {
        pollfd pf{fd, (short)(POLLIN | (sent < talk.size() ? POLLOUT : 0)), 0};
        poll(&pf, 1, 20);
        ssize_t r;
        while ((r = recv(fd, sink, sizeof sink, 0)) > 0) last_data = now_s();
        if (r == 0 || (r < 0 && errno != EAGAIN)) closed = true;
        if (sent < talk.size() && (pf.revents & POLLOUT)) {
            size_t piece = std::min(talk.size() - sent, (size_t)(rng() % 3 ? talk.size() : 1 + rng() % 2000));
            ssize_t w = send(fd, talk.data() + sent, piece, MSG_NOSIGNAL);
            if (w > 0)
                sent += (size_t)w, last_data = now_s();
            else if (w < 0 && errno != EAGAIN)
                closed = true;
        }
        if (sent == talk.size()) {
            if (all_sent == 0) all_sent = now_s();
            // Quiet, or streaming (a throughput test): enough either way.
            if (since(last_data) > 0.1 || since(all_sent) > 0.3) break;
        }
    }
}

// --- one run ------------------------------------------------------------------

struct outcome {
    std::string failure;  // empty when every check held
    int status = 0;
};

void reset_router() {
    for (const std::string& name : router::list_dir("/tmp")) unlink(("/tmp/" + name).c_str());
    for (const script_file& s : scripts) router::write_file(s.path, s.original);
}

std::string check_files(const bytes& talk) {
    uint32_t declared =
        talk.size() >= auth_reply_len + act_pkt_len ? get_le32(talk.data() + auth_reply_len + act_size_offset) : 0;
    for (const std::string& name : router::list_dir("/tmp")) {
        bool kept = false;
        for (const char* k : kept_in_tmp) kept |= name == k;
        if (!kept) return "left behind in /tmp: " + name;
    }
    bool image = false;
    std::string fw = router::read_file("/tmp/firmware.bin", &image);
    if (image && fw.size() != declared)
        return "firmware image of " + std::to_string(fw.size()) + " bytes for a declared " + std::to_string(declared);
    for (const script_file& s : scripts) {
        std::string now = router::read_file(s.path);
        if (now != s.original && now.size() != declared)
            return std::string(s.path) + " holds " + std::to_string(now.size()) + " bytes for a declared " +
                   std::to_string(declared);
    }
    return "";
}

outcome run_once(const std::string& daemon, const std::vector<std::string>& emulator, const bytes& clear_talk,
                 std::mt19937& rng) {
    outcome o;
    reset_router();
    router::process p = router::start(daemon, "kelputild", emulator);
    if (p.pid <= 0 || !router::wait_for_listener(plain_port, 10000)) {
        router::kill_process(p);
        o.failure = "the daemon did not start: " + router::output(p);
        return o;
    }
    bytes talk = clear_talk;
    int fd = connect_daemon();
    uint8_t greeting[greeting_len];
    if (fd >= 0 && read_exact(fd, greeting, sizeof greeting, 5.0)) {
        if (talk.size() >= auth_reply_len)
            do_rc4(talk.data() + auth_password_offset, (int)auth_password_len, greeting + challenge_offset,
                   (int)challenge_len);
        converse(fd, talk, rng);
    }
    if (fd >= 0) close(fd);

    // Once its client is gone the daemon's own waits end at once; 15 s is
    // far beyond them. A daemon that asked the monitor for a reboot stays in
    // its loop for good: that is the one way it may not end.
    double t = now_s();
    bool reboot_loop = false;
    while ((o.status = router::wait_exit(p, 10)) == router::still_running && since(t) < 15) {
        if (router::read_file("/tmp/monitor").find("reboot") != std::string::npos) {
            reboot_loop = true;
            break;
        }
    }
    if (o.status == router::still_running) {
        router::kill_process(p);
        if (!reboot_loop)
            o.failure = "the daemon did not end within 15 s";
        else if (clear_talk.size() < auth_reply_len + act_pkt_len ||
                 !(clear_talk[auth_reply_len + act_flags_offset] & flag_reboot))
            o.failure = "a reboot that the request did not ask for";
    } else if (o.status < 0 || o.status > 2) {
        o.failure = "exit status " + std::to_string(o.status);
    }
    std::string out = router::output(p), err = router::read_file(p.err_path);
    if (o.failure.empty() &&
        (err.find("Sanitizer") != std::string::npos || err.find("runtime error") != std::string::npos))
        o.failure = "sanitizer report:\n" + err.substr(0, 4000);
    if (o.failure.empty()) o.failure = check_files(clear_talk);
    auto tail = [](const std::string& t) { return t.substr(t.size() > 4000 ? t.size() - 4000 : 0); };
    if (!o.failure.empty())
        o.failure += "\n--- daemon stdout ---\n" + tail(out) + "\n--- daemon stderr ---\n" + tail(err);
    unlink(p.out_path.c_str());
    unlink(p.err_path.c_str());
    return o;
}

const int actions[] = {action_nothing,        action_send_config,   action_send_script,       action_receive_config,
                       action_receive_script, action_ppp_list,      action_hotspot_list,      action_throughput_rx,
                       action_throughput_tx,  action_kick_ppp_user, action_kick_hotspot_user, action_kick_hotspot_ip,
                       action_sysinfo,        action_kernlog,       action_core_sysinfo,      action_firmware};

bytes make_conversation(std::mt19937& rng) {
    bytes auth(auth_reply_len, 0);
    put_le16(auth.data(), protocol_tag);
    memcpy(auth.data() + auth_password_offset, password, strlen(password));
    int action = rng() % 20 == 0 ? (int)(rng() % 256) : actions[rng() % (sizeof actions / sizeof actions[0])];
    bytes rest = valid_conversation(rng, action);
    if (rng() % 8 != 0) mutate(rng, rest);
    if (rng() % 10 == 0) mutate(rng, auth);  // now and then the login itself
    auth.insert(auth.end(), rest.begin(), rest.end());
    return auth;
}

// Fast, recording stand-ins for the router's helpers.
void install_helpers() {
    for (const char* name : {"do-saveconfigs", "save-configs", "do-advnet", "sync"}) router::install_helper(name);
    router::install_helper("do-prepconfigs", "head -c 2000 /dev/urandom > /tmp/saved-configs");
    router::install_helper("do-pppkick", "exit $(( $(wc -c < /tmp/kick-user) % 2 ))");
    router::install_helper("do-hotkick", "[ \"$1\" = ip ] && exit 0; exit 1");
    router::install_helper("do-hotshow", "echo 'carol|10.0.0.5|00:11:22:33:44:55|1024|4096|60|0'");
    router::install_helper("show-sysinfo", "echo router; echo uptime 42");
    router::install_helper("show-version", "echo kelp 3");
    router::install_helper("logread", "echo kernel: line");
    router::install_helper("iptables", "echo Chain INPUT");
    router::install_helper("spawn", "\"$@\" </dev/null >/dev/null 2>&1 &");
    router::install_helper("flash-upgrade", "printf 'checking\\n50%%\\ndone\\n' > /tmp/upgrade");
    router::write_file("/run/pppoe/info.ppp0", "NAME=alice\nTYPE=pppoe\nPPP=ppp0\nREMOTE=10.64.0.2\n");
}

// dir_fd was opened before entering the sandbox, whose /tmp and /run hide
// the caller's.
bool save(int dir_fd, const std::string& name, const bytes& talk) {
    int fd = openat(dir_fd, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool ok = fd >= 0 && write(fd, talk.data(), talk.size()) == (ssize_t)talk.size();
    if (fd >= 0) close(fd);
    if (ok)
        fprintf(stderr, "protocol_fuzz: conversation saved as %s\n", name.c_str());
    else
        fprintf(stderr, "protocol_fuzz: could not save the conversation as %s: %s\n", name.c_str(), strerror(errno));
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 30;
    long runs = -1;
    unsigned seed = (unsigned)time(nullptr);
    std::string out_dir = ".", replay;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        auto value = [&] { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
        if (a == "--seconds")
            seconds = atof(value().c_str());
        else if (a == "--runs")
            runs = atol(value().c_str());
        else if (a == "--seed")
            seed = (unsigned)strtoul(value().c_str(), nullptr, 10);
        else if (a == "--out")
            out_dir = value();
        else if (a == "--replay")
            replay = value();
        else {
            fprintf(stderr, "usage: protocol_fuzz [--seconds N] [--runs N] [--seed N] [--out DIR] [--replay FILE]\n");
            return 2;
        }
    }
    int out_fd = open(out_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (out_fd < 0) {
        fprintf(stderr, "protocol_fuzz: %s: %s\n", out_dir.c_str(), strerror(errno));
        return 2;
    }
    bytes replayed;
    if (!replay.empty()) {
        std::string text = router::read_file(replay);
        replayed.assign(text.begin(), text.end());
    }

    // A sanitizer's report must not pass for the daemon's own exit status 1.
    setenv("ASAN_OPTIONS", "detect_leaks=0:exitcode=97", 0);
    setenv("UBSAN_OPTIONS", "print_stacktrace=1:halt_on_error=1:exitcode=98", 0);
    signal(SIGPIPE, SIG_IGN);
    std::string error = router::enter();
    if (!error.empty()) {
        fprintf(stderr, "protocol_fuzz: %s\n", error.c_str());
        return 2;
    }
    // A declared size near 2 GiB would otherwise be probed in full.
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777,size=64m") != 0) {
        perror("protocol_fuzz: a small /tmp");
        return 2;
    }
    router::set_admin_password(password);
    install_helpers();
    router::serve_syslog("/run/sandbox/syslog");
    std::vector<std::string> emulator = router::split_list(KELP_EMULATOR);

    printf("protocol_fuzz: seed %u\n", seed);
    std::mt19937 rng(seed);
    long done = 0;
    // Per action byte as the daemon read it (256: the request was cut
    // short): exit 0, 1, 2 and the reboot loop.
    std::vector<std::array<long, 4>> tally(257, std::array<long, 4>{});
    double start = now_s();
    while (replay.empty() ? (runs < 0 ? since(start) < seconds : done < runs) : done < 1) {
        bytes talk = replay.empty() ? make_conversation(rng) : replayed;
        outcome o = run_once(KELP_DAEMON, emulator, talk, rng);
        if (!o.failure.empty()) {
            fprintf(stderr, "protocol_fuzz: run %ld (seed %u): %s\n", done, seed, o.failure.c_str());
            save(out_fd, "protocol-" + std::to_string(seed) + "-" + std::to_string(done) + ".bin", talk);
            return 1;
        }
        size_t action_at = auth_reply_len + act_action_offset;
        int action = talk.size() >= auth_reply_len + act_pkt_len ? talk[action_at] : 256;
        tally[(size_t)action][o.status >= 0 && o.status <= 2 ? o.status : 3]++;
        done++;
    }
    printf("protocol_fuzz: %ld conversations in %.0f s\n", done, since(start));
    printf("%8s %7s %7s %7s %7s\n", "action", "exit 0", "exit 1", "exit 2", "reboot");
    for (size_t a = 0; a < tally.size(); a++) {
        const auto& t = tally[a];
        if (t[0] + t[1] + t[2] + t[3] == 0) continue;
        if (a == 256)
            printf("%8s", "short");
        else
            printf("%8zu", a);
        printf(" %7ld %7ld %7ld %7ld\n", t[0], t[1], t[2], t[3]);
    }
    return 0;
}
