// kelputil: the operator's command-line tool for kelputild.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "actions.h"
#include "bundle.h"
#include "core/protocol.h"

using namespace kelp;

static const char usage_text[] =
    "usage: kelputil [options] COMMAND [ARGS]\n"
    "\n"
    "Commands (each is one connection to the device):\n"
    "  check                     log in and do nothing (action 0)\n"
    "  apply | reboot            ask the device to apply its settings or reboot\n"
    "  backup FILE               save the configuration bundle to FILE\n"
    "  restore FILE              upload a configuration bundle and install it\n"
    "  get-script NAME [FILE]    fetch a script: cbq, fw, nat or dhcp (stdout without FILE)\n"
    "  put-script NAME FILE      replace a script on the device\n"
    "  report full|core|kernel   fetch a report (system, core system, kernel log)\n"
    "  ppp | hotspot             list the PPP or hotspot sessions\n"
    "  kick-ppp USER             disconnect a PPP user\n"
    "  kick-hotspot USER         disconnect a hotspot user\n"
    "  kick-ip ADDRESS           disconnect a hotspot client by IPv4 address\n"
    "  firmware FILE [--upgrade] upload firmware; --upgrade starts flashing and shows its progress\n"
    "  throughput rx|tx [SECS]   measure the link: rx = device sends, tx = device receives (default 10 s)\n"
    "  bundle-pack PLAIN OUT     pack a plain configuration into a bundle (offline)\n"
    "  bundle-verify FILE        check a bundle (offline)\n"
    "  bundle-unpack FILE OUT    verify and unpack a bundle (offline)\n"
    "\n"
    "Options:\n"
    "  -H, --host HOST           device address (default 127.0.0.1)\n"
    "  -p, --port PORT           port (default 856, or 857 with --tls)\n"
    "      --tls                 wrap the login and request in TLS (port 857)\n"
    "      --pin SHA256          accept only the device certificate with this fingerprint\n"
    "      --apply, --reboot     after a successful action, apply settings or reboot\n"
    "      --timeout SECS        give up when the device is silent this long (default 15)\n"
    "      --window SIZE         throughput: fix our socket buffers at SIZE (e.g. 64K) once logged in\n"
    "      --password-file FILE  read the admin password from FILE (first line)\n"
    "      --json                machine-readable output\n"
    "  -q, --quiet               no progress and no messages on success\n"
    "\n"
    "The password comes from KELPUTIL_PASSWORD, --password-file, or a prompt;\n"
    "never from the command line, where other users could read it.\n"
    "\n"
    "Exit status: 0 success; 1 usage or local error; 2 wrong password;\n"
    "3 connection refused, closed or timed out; 4 protocol error; 5 certificate\n"
    "mismatch or TLS failure; 10 + the device's result code otherwise: 10 action\n"
    "failed, 12 file too large, 13 file too small, 14 not supported or device busy,\n"
    "16 no such user.\n";

struct options {
    target t;
    uint8_t flags = 0;
    bool json = false;
    bool quiet = false;
    bool upgrade = false;
    bool port_given = false;
    int window = 0;
    std::string password_file;
    std::vector<std::string> args;
};

static int exit_code(const status& s) {
    switch (s.kind) {
    case error_kind::none: return 0;
    case error_kind::local: return 1;
    case error_kind::refused_password: return 2;
    case error_kind::connect_failed:
    case error_kind::timed_out:
    case error_kind::closed: return 3;
    case error_kind::protocol: return 4;
    case error_kind::certificate: return 5;
    case error_kind::device: return 10 + s.code;
    }
    return 1;
}

static std::string advice(const status& s) {
    switch (s.kind) {
    case error_kind::refused_password: return " (check KELPUTIL_PASSWORD or the password file)";
    case error_kind::connect_failed: return " (is the device up, and the port right? TLS uses 857)";
    case error_kind::timed_out: return " (raise --timeout on a slow link)";
    case error_kind::device:
        if (s.code == code_not_supported) return " (another job may be running on the device; try again later)";
        return "";
    default: return "";
    }
}

static std::string json_escape(const std::string& in) {
    std::string out;
    for (unsigned char c : in) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += (char)c;
        } else if (c < 0x20) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += (char)c;
        }
    }
    return out;
}

static int finish(const options& o, const status& s, const std::string& success) {
    if (o.json) {
        printf("{\"ok\":%s,\"exit\":%d", s ? "true" : "false", exit_code(s));
        if (s.kind == error_kind::device) printf(",\"code\":%d", s.code);
        printf(",\"message\":\"%s\"}\n", json_escape(s ? success : s.message).c_str());
    } else if (!s) {
        fprintf(stderr, "kelputil: %s%s\n", s.message.c_str(), advice(s).c_str());
    } else if (!o.quiet && !success.empty()) {
        printf("%s\n", success.c_str());
    }
    return exit_code(s);
}

static bool read_file(const std::string& path, bytes* out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

static bool write_file(const std::string& path, const bytes& data) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write((const char*)data.data(), (std::streamsize)data.size());
    return (bool)f;
}

static std::string prompt_password() {
    FILE* tty = fopen("/dev/tty", "r+");
    if (!tty) return "";
    fputs("admin password: ", tty);
    fflush(tty);
    struct termios old, quiet;
    bool have = tcgetattr(fileno(tty), &old) == 0;
    if (have) {
        quiet = old;
        quiet.c_lflag &= ~(tcflag_t)ECHO;
        tcsetattr(fileno(tty), TCSAFLUSH, &quiet);
    }
    char line[256] = "";
    if (!fgets(line, sizeof line, tty)) line[0] = '\0';
    if (have) tcsetattr(fileno(tty), TCSAFLUSH, &old);
    fputs("\n", tty);
    fclose(tty);
    line[strcspn(line, "\r\n")] = '\0';
    return line;
}

static bool load_password(options& o) {
    if (!o.password_file.empty()) {
        bytes b;
        if (!read_file(o.password_file, &b)) return false;
        std::string p(b.begin(), b.end());
        o.t.password = p.substr(0, p.find_first_of("\r\n"));
        return true;
    }
    if (const char* env = getenv("KELPUTIL_PASSWORD")) {
        o.t.password = env;
        return true;
    }
    o.t.password = prompt_password();
    return true;
}

// A bar with bytes, rate and time left, on stderr, only on a terminal.
class progress_bar {
public:
    explicit progress_bar(bool on) : on_(on && isatty(2)), start_(now()) {}
    void operator()(uint64_t done, uint64_t total) {
        if (!on_) return;
        double t = now() - start_;
        if (done != total && t - last_ < 0.1) return;
        last_ = t;
        double rate = t > 0 ? done / t : 0;
        int pct = total ? (int)(done * 100 / total) : 100;
        int fill = pct / 4;
        double left = rate > 0 ? (total - done) / rate : 0;
        fprintf(stderr, "\r[%-25.*s] %3d%% %10llu/%llu bytes %8.1f KiB/s %4.0fs left", fill,
                "#########################", pct, (unsigned long long)done, (unsigned long long)total, rate / 1024,
                left);
        if (done == total) fputc('\n', stderr);
        fflush(stderr);
    }

private:
    static double now() {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return ts.tv_sec + ts.tv_nsec / 1e9;
    }
    bool on_;
    double start_;
    double last_ = -1;
};

// "65536", "64K" or "1M", at most 1 GiB; 0 for anything else.
static int parse_size(const std::string& text) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return 0;  // strtoull would take "-1"
    char* end = nullptr;
    errno = 0;
    unsigned long long n = strtoull(text.c_str(), &end, 10);
    if (errno) return 0;
    int shift = 0;
    if (*end == 'K' || *end == 'k') shift = 10, end++;
    else if (*end == 'M' || *end == 'm') shift = 20, end++;
    const unsigned long long limit = 1ull << 30;
    if (*end || n > (limit >> shift)) return 0;
    return (int)(n << shift);
}

static int parse_options(int argc, char** argv, options& o) {
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        auto value = [&](const char* name) -> std::string {
            if (i + 1 >= argc) {
                fprintf(stderr, "kelputil: %s needs a value\n", name);
                exit(1);
            }
            return argv[++i];
        };
        if (a == "-H" || a == "--host") o.t.host = value("--host");
        else if (a == "-p" || a == "--port") o.t.port = atoi(value("--port").c_str()), o.port_given = true;
        else if (a == "--tls") o.t.tls = true;
        else if (a == "--pin") o.t.pin_sha256 = value("--pin");
        else if (a == "--apply") o.flags |= flag_apply;
        else if (a == "--reboot") o.flags |= flag_reboot;
        else if (a == "--upgrade") o.upgrade = true;
        else if (a == "--timeout") o.t.timeout_ms = (int)(atof(value("--timeout").c_str()) * 1000);
        else if (a == "--password-file") o.password_file = value("--password-file");
        else if (a == "--window") {
            o.window = parse_size(value("--window"));
            if (o.window <= 0) {
                fputs("kelputil: --window needs a size such as 65536, 64K or 1M\n", stderr);
                return 1;
            }
        }
        else if (a == "--json") o.json = true;
        else if (a == "-q" || a == "--quiet") o.quiet = true;
        else if (a == "-h" || a == "--help") {
            fputs(usage_text, stdout);
            exit(0);
        } else if (a.size() > 1 && a[0] == '-') {
            fprintf(stderr, "kelputil: unknown option %s\n%s", a.c_str(), usage_text);
            return 1;
        } else
            o.args.push_back(a);
    }
    if (o.t.tls && !o.port_given) o.t.port = tls_port;
    if (o.args.empty()) {
        fputs(usage_text, stderr);
        return 1;
    }
    return 0;
}

static int local_error(const options& o, const std::string& message) {
    return finish(o, fail(error_kind::local, message), "");
}

static int offline_bundle(const options& o) {
    const std::string& cmd = o.args[0];
    size_t need = cmd == "bundle-verify" ? 2 : 3;
    if (o.args.size() != need) return local_error(o, "usage: kelputil " + cmd + (need == 2 ? " FILE" : " IN OUT"));
    bytes in, out;
    if (!read_file(o.args[1], &in)) return local_error(o, "cannot read " + o.args[1]);
    if (cmd == "bundle-pack") {
        if (!write_file(o.args[2], pack_bundle(in))) return local_error(o, "cannot write " + o.args[2]);
        return finish(o, {}, "packed " + std::to_string(in.size()) + " bytes into " + o.args[2]);
    }
    status s = unpack_bundle(in, &out);
    if (s && cmd == "bundle-unpack" && !write_file(o.args[2], out)) return local_error(o, "cannot write " + o.args[2]);
    return finish(o, s, "bundle ok: " + std::to_string(out.size()) + " bytes of configuration");
}

static int print_ppp(const options& o, const std::vector<ppp_session>& list) {
    if (o.json) {
        printf("[");
        for (size_t i = 0; i < list.size(); i++)
            printf("%s{\"name\":\"%s\",\"type\":\"%s\",\"ppp\":\"%s\",\"remote\":\"%s\",\"cbq_rule\":%d}", i ? "," : "",
                   json_escape(list[i].name).c_str(), json_escape(list[i].type).c_str(),
                   json_escape(list[i].ppp).c_str(), json_escape(list[i].remote).c_str(), list[i].cbq_rule);
        printf("]\n");
        return 0;
    }
    printf("%-20s %-10s %-8s %-16s %s\n", "NAME", "TYPE", "IFACE", "REMOTE", "CBQ");
    for (const ppp_session& p : list)
        printf("%-20s %-10s %-8s %-16s %d\n", p.name.c_str(), p.type.c_str(), p.ppp.c_str(), p.remote.c_str(),
               p.cbq_rule);
    if (!o.quiet) printf("%zu session(s)\n", list.size());
    return 0;
}

static int print_hotspot(const options& o, const std::vector<hotspot_session>& list) {
    if (o.json) {
        printf("[");
        for (size_t i = 0; i < list.size(); i++)
            printf("%s{\"user\":\"%s\",\"ip\":\"%s\",\"mac\":\"%s\",\"counter1\":%llu,\"counter2\":%llu,"
                   "\"value1\":%u,\"value2\":%u}",
                   i ? "," : "", json_escape(list[i].user).c_str(), json_escape(list[i].ip).c_str(),
                   json_escape(list[i].mac).c_str(), (unsigned long long)list[i].counter1,
                   (unsigned long long)list[i].counter2, list[i].value1, list[i].value2);
        printf("]\n");
        return 0;
    }
    printf("%-16s %-15s %-17s %12s %12s %8s %8s\n", "USER", "IP", "MAC", "COUNTER1", "COUNTER2", "VALUE1", "VALUE2");
    for (const hotspot_session& h : list)
        printf("%-16s %-15s %-17s %12llu %12llu %8u %8u\n", h.user.c_str(), h.ip.c_str(), h.mac.c_str(),
               (unsigned long long)h.counter1, (unsigned long long)h.counter2, h.value1, h.value2);
    if (!o.quiet) printf("%zu session(s)\n", list.size());
    return 0;
}

static int run_throughput(const options& o) {
    if (o.args.size() < 2 || (o.args[1] != "rx" && o.args[1] != "tx"))
        return local_error(o, "usage: kelputil throughput rx|tx [SECONDS]");
    bool rx = o.args[1] == "rx";
    double seconds = o.args.size() > 2 ? atof(o.args[2].c_str()) : 10;
    throughput_result r;
    uint64_t last = 0;
    auto tick = [&](double t, uint64_t b) {
        if (o.json || o.quiet) return;
        printf("[%4.1f-%4.1f s] %10.1f Mbit/s\n", t - 1, t, (b - last) * 8 / 1e6);
        last = b;
        fflush(stdout);
    };
    status s = throughput(o.t, rx, seconds, o.flags, &r, tick, o.window);
    if (!s) return finish(o, s, "");
    if (o.json) {
        printf("{\"ok\":true,\"direction\":\"%s\",\"bytes\":%llu,\"seconds\":%.3f,\"mbit_per_s\":%.1f}\n",
               rx ? "rx" : "tx", (unsigned long long)r.bytes, r.seconds, r.mbit_per_s());
        return 0;
    }
    printf("%s: %llu bytes in %.2f s = %.1f Mbit/s\n", rx ? "device to us" : "us to device",
           (unsigned long long)r.bytes, r.seconds, r.mbit_per_s());
    return 0;
}

static int run(options& o) {
    const std::string cmd = o.args[0];
    if (cmd.rfind("bundle-", 0) == 0) return offline_bundle(o);
    if (!load_password(o)) return local_error(o, "cannot read the password file");
    progress_bar bar(!o.quiet && !o.json);
    auto progress = [&bar](uint64_t d, uint64_t t) { bar(d, t); };
    size_t n = o.args.size();

    if (cmd == "check" && n == 1) return finish(o, trigger(o.t, o.flags), "login ok");
    if (cmd == "apply" && n == 1) return finish(o, trigger(o.t, o.flags | flag_apply), "apply requested");
    if (cmd == "reboot" && n == 1) return finish(o, trigger(o.t, o.flags | flag_reboot), "reboot requested");
    if (cmd == "backup" && n == 2) {
        bytes b;
        status s = backup_config(o.t, o.flags, &b, progress);
        if (s && !write_file(o.args[1], b)) return local_error(o, "cannot write " + o.args[1]);
        return finish(o, s, "saved " + std::to_string(b.size()) + " bytes to " + o.args[1]);
    }
    if (cmd == "restore" && n == 2) {
        bytes b;
        if (!read_file(o.args[1], &b)) return local_error(o, "cannot read " + o.args[1]);
        return finish(o, restore_config(o.t, o.flags, b, progress), "configuration installed");
    }
    if ((cmd == "get-script" && (n == 2 || n == 3)) || (cmd == "put-script" && n == 3)) {
        uint8_t script = script_by_name(o.args[1]);
        if (!script) return local_error(o, "unknown script " + o.args[1] + " (cbq, fw, nat or dhcp)");
        bytes b;
        if (cmd == "put-script") {
            if (!read_file(o.args[2], &b)) return local_error(o, "cannot read " + o.args[2]);
            return finish(o, put_script(o.t, script, o.flags, b, progress), "script " + o.args[1] + " installed");
        }
        status s = get_script(o.t, script, o.flags, &b);
        if (s && n == 2 && !o.json) {
            fwrite(b.data(), 1, b.size(), stdout);
            return 0;
        }
        if (s && n == 3 && !write_file(o.args[2], b)) return local_error(o, "cannot write " + o.args[2]);
        return finish(o, s, "saved " + std::to_string(b.size()) + " bytes");
    }
    if (cmd == "report" && n == 2) {
        uint8_t action = o.args[1] == "full" ? action_sysinfo : o.args[1] == "core" ? action_core_sysinfo
                         : o.args[1] == "kernel"                  ? action_kernlog
                                                                  : 0;
        if (!action) return local_error(o, "report full, core or kernel");
        bytes text;
        status s = fetch_report(o.t, action, o.flags, &text);
        if (s && !o.json) {
            fwrite(text.data(), 1, text.size(), stdout);
            return 0;
        }
        return finish(o, s, std::string(text.begin(), text.end()));
    }
    if (cmd == "ppp" && n == 1) {
        std::vector<ppp_session> list;
        status s = list_ppp(o.t, o.flags, &list);
        return s ? print_ppp(o, list) : finish(o, s, "");
    }
    if (cmd == "hotspot" && n == 1) {
        std::vector<hotspot_session> list;
        status s = list_hotspot(o.t, o.flags, &list);
        return s ? print_hotspot(o, list) : finish(o, s, "");
    }
    if (cmd == "kick-ppp" && n == 2) return finish(o, kick_ppp_user(o.t, o.flags, o.args[1]), "kicked " + o.args[1]);
    if (cmd == "kick-hotspot" && n == 2)
        return finish(o, kick_hotspot_user(o.t, o.flags, o.args[1]), "kicked " + o.args[1]);
    if (cmd == "kick-ip" && n == 2) return finish(o, kick_hotspot_ip(o.t, o.flags, o.args[1]), "kicked " + o.args[1]);
    if (cmd == "firmware" && n == 2) {
        bytes image;
        if (!read_file(o.args[1], &image)) return local_error(o, "cannot read " + o.args[1]);
        auto line = [&o](const std::string& l) {
            if (o.json)
                printf("{\"progress\":\"%s\"}\n", json_escape(l).c_str());
            else if (!o.quiet)
                printf("upgrade: %s\n", l.c_str());
            fflush(stdout);
        };
        status s = upload_firmware(o.t, image, o.upgrade, progress, line);
        return finish(o, s, o.upgrade ? "upgrade finished" : "firmware stored on the device");
    }
    if (cmd == "throughput") return run_throughput(o);
    fprintf(stderr, "kelputil: unknown command or wrong arguments: %s\n\n%s", cmd.c_str(), usage_text);
    return 1;
}

int main(int argc, char** argv) {
    options o;
    if (parse_options(argc, argv, o) != 0) return 1;
    return run(o);
}
