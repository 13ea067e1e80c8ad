#include "device_commands.h"

#include <errno.h>
#include <mbedtls/sha256.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "bundle.h"
#include "files.h"
#include "table.h"

using kelp::bytes;
using kelp::status;

namespace {

mode_t plain_mode = 0644;
constexpr size_t bundle_read_max = 16u << 20;  // far above the device's limit, for a clear message
constexpr size_t image_max = 0x7FFFFFFF;
// No firmware image is this small: a shorter file is a download cut short,
// not something to flash.
constexpr size_t image_min = 1024;

std::string for_host(std::string pattern, const std::string& host) {
    for (size_t at; (at = pattern.find("{host}")) != std::string::npos;) pattern.replace(at, 6, host);
    return pattern;
}

// The sizes of bundle the device takes, "FROM to TO", each less `less`
// bytes (its header: what the configuration inside may be).
std::string bytes_range(size_t less) {
    return std::to_string(bundle_min_upload - less) + " to " + std::to_string(upload_max - less);
}

std::string text_of(const bytes& b) { return std::string(b.begin(), b.end()); }

std::string after_success(uint8_t flags) {
    if (flags & flag_reboot) return "; the device reboots now";
    if (flags & flag_apply) return "; the device applies its settings";
    return "";
}

// apply and reboot: what they ask for is the flag itself.
outcome logged_in(const kelp::target& t, uint8_t flags) {
    status st = kelp::trigger(t, flags);
    return st ? success("logged in" + after_success(flags)) : failure(st);
}

// who: the user or address as the command's JSON names it.
outcome disconnected(const status& st, uint8_t flags, const char* key, const std::string& who) {
    json data = {{key, who}};
    if (!st) return failure(st, data);
    return success("disconnected " + who + after_success(flags), data);
}

bool reports_failure(const std::string& line) {
    std::string head = line.substr(0, 6);
    std::transform(head.begin(), head.end(), head.begin(), ::tolower);
    return head.rfind("error", 0) == 0 || head.rfind("failed", 0) == 0;
}

outcome saved(const std::string& file, const bytes& b, mode_t mode, const std::string& what) {
    status w = write_output(file, b, mode);
    if (!w) return failure(w);
    outcome o = success("saved " + std::to_string(b.size()) + " bytes of " + what + " to " + file,
                        {{"file", file}, {"bytes", b.size()}});
    o.content = file == "-";  // the bytes themselves went to stdout
    return o;
}

}  // namespace

outcome run_check(const invocation& inv, const kelp::target& t, const std::string&, reporter&) {
    status st = kelp::trigger(t, inv.flags);
    return st ? success("login ok" + after_success(inv.flags)) : failure(st);
}

outcome run_apply(const invocation& inv, const kelp::target& t, const std::string&, reporter&) {
    return logged_in(t, inv.flags | flag_apply);
}

outcome run_reboot(const invocation& inv, const kelp::target& t, const std::string&, reporter&) {
    return logged_in(t, inv.flags | flag_reboot);
}

outcome run_backup(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r) {
    bytes bundle;
    status st = kelp::backup_config(t, inv.flags, &bundle, [&r](uint64_t d, uint64_t n) { r.progress(d, n); });
    if (!st) return failure(st);
    bytes plain;
    if (!(st = kelp::unpack_bundle(bundle, &plain)))
        return failure(kelp::fail(kelp::error_kind::protocol, "the device sent a bundle that does not verify (" +
                                                                  st.message + "); nothing was written"));
    return saved(for_host(inv.args.file, host), bundle, 0600, "configuration");
}

outcome run_restore(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r) {
    std::string file = for_host(inv.args.file, host);
    bytes bundle;
    status st = read_input(file, &bundle, bundle_read_max);
    if (st && !(st = kelp::check_bundle_for_device(bundle)))
        st.message = file + ": " + st.message + "; nothing was sent";
    if (!st) return failure(st);
    st = kelp::restore_config(t, inv.flags, bundle, [&r](uint64_t d, uint64_t n) { r.progress(d, n); });
    if (!st) return failure(st);
    return success("configuration installed" + after_success(inv.flags), {{"file", file}, {"bytes", bundle.size()}});
}

outcome run_get_script(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r) {
    const command_args& a = inv.args;
    bytes body;
    status st = kelp::get_script(t, kelp::script_by_name(a.script), inv.flags, &body,
                                 [&r](uint64_t d, uint64_t n) { r.progress(d, n); });
    if (!st) return failure(st);
    if (!a.file.empty()) return saved(for_host(a.file, host), body, plain_mode, "the " + a.script + " script");
    outcome o = success("script " + a.script + ": " + std::to_string(body.size()) + " bytes" + after_success(inv.flags),
                        {{"script", a.script}, {"bytes", body.size()}, {"text", text_of(body)}});
    o.text = text_of(body);
    o.content = true;
    return o;
}

outcome run_put_script(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r) {
    std::string file = for_host(inv.args.file, host);
    bytes body;
    status st = read_input(file, &body, upload_max);
    if (st && body.empty())
        return local_failure(file + " is empty: the device takes scripts of 1 to " + std::to_string(upload_max) +
                             " bytes");
    if (!st) return failure(st);
    st = kelp::put_script(t, kelp::script_by_name(inv.args.script), inv.flags, body,
                          [&r](uint64_t d, uint64_t n) { r.progress(d, n); });
    if (!st) return failure(st);
    return success("script " + inv.args.script + " installed" + after_success(inv.flags),
                   {{"script", inv.args.script}, {"file", file}, {"bytes", body.size()}});
}

outcome run_report(const invocation& inv, const kelp::target& t, const std::string&, reporter&) {
    const std::string& kind = inv.args.report;
    uint8_t action = kind == "full" ? action_sysinfo : kind == "core" ? action_core_sysinfo : action_kernlog;
    bytes text;
    status st = kelp::fetch_report(t, action, inv.flags, &text);
    if (!st) return failure(st);
    outcome o = success("report " + kind + ": " + std::to_string(text.size()) + " bytes" + after_success(inv.flags),
                        {{"report", kind}, {"lines", json_lines(text_of(text))}});
    o.text = text_of(text);
    o.content = true;
    return o;
}

outcome run_ppp(const invocation& inv, const kelp::target& t, const std::string&, reporter&) {
    std::vector<kelp::ppp_session> list;
    status st = kelp::list_ppp(t, inv.flags, &list);
    if (!st) return failure(st);
    json data = json::array();
    std::vector<std::vector<std::string>> rows;
    for (const kelp::ppp_session& p : list) {
        // -1 is the router's "no shaping rule".
        json rule = p.cbq_rule == -1 ? json(nullptr) : json(p.cbq_rule);
        data.push_back(
            {{"name", p.name}, {"type", p.type}, {"interface", p.ppp}, {"remote", p.remote}, {"cbq_rule", rule}});
        rows.push_back({p.name, p.type, p.ppp, p.remote, p.cbq_rule == -1 ? "none" : std::to_string(p.cbq_rule)});
    }
    outcome o = success(plural(list.size(), "PPP session") + after_success(inv.flags), data);
    o.text = table_text({{"NAME"}, {"TYPE"}, {"INTERFACE"}, {"REMOTE"}, {"CBQ_RULE"}}, rows);
    return o;
}

outcome run_hotspot(const invocation& inv, const kelp::target& t, const std::string&, reporter&) {
    std::vector<kelp::hotspot_session> list;
    status st = kelp::list_hotspot(t, inv.flags, &list);
    if (!st) return failure(st);
    json data = json::array();
    std::vector<std::vector<std::string>> rows;
    for (const kelp::hotspot_session& h : list) {
        // The router's hotspot reports bytes from and to the user, the
        // session's age and its idle time, in seconds.
        data.push_back({{"user", h.user},
                        {"ip", h.ip},
                        {"mac", h.mac},
                        {"bytes_in", h.counter1},
                        {"bytes_out", h.counter2},
                        {"session_s", h.value1},
                        {"idle_s", h.value2}});
        rows.push_back({h.user, h.ip, h.mac, std::to_string(h.counter1), std::to_string(h.counter2),
                        std::to_string(h.value1), std::to_string(h.value2)});
    }
    outcome o = success(plural(list.size(), "hotspot session") + after_success(inv.flags), data);
    o.text = table_text({{"USER"}, {"IP"}, {"MAC"}, {"BYTES_IN"}, {"BYTES_OUT"}, {"SESSION_S"}, {"IDLE_S"}}, rows);
    return o;
}

outcome run_kick_ppp(const invocation& inv, const kelp::target& t, const std::string&, reporter&) {
    return disconnected(kelp::kick_ppp_user(t, inv.flags, inv.args.user), inv.flags, "user", inv.args.user);
}

outcome run_kick_hotspot(const invocation& inv, const kelp::target& t, const std::string&, reporter&) {
    return disconnected(kelp::kick_hotspot_user(t, inv.flags, inv.args.user), inv.flags, "user", inv.args.user);
}

outcome run_kick_ip(const invocation& inv, const kelp::target& t, const std::string&, reporter&) {
    return disconnected(kelp::kick_hotspot_ip(t, inv.flags, inv.args.address), inv.flags, "address", inv.args.address);
}

outcome run_firmware(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r) {
    std::string file = for_host(inv.args.file, host);
    bytes image;
    status st = read_image(file, &image);
    if (!st) return failure(st);
    return upload_image(t, image, inv.args.upgrade, file, r);
}

outcome run_throughput(const invocation& inv, const kelp::target& t, const std::string&, reporter& r) {
    const command_args& a = inv.args;
    bool rx = a.direction == "rx";
    kelp::throughput_result result;
    json intervals = json::array();
    double last_t = 0;
    uint64_t last_bytes = 0;
    auto tick = [&](double now, uint64_t moved) {
        if (now - last_t < 0.05 && !intervals.empty()) return;  // a sliver at the end adds nothing
        r.interval(last_t, now, moved - last_bytes);
        double mbit = kelp::mbit_per_s(moved - last_bytes, now - last_t);
        intervals.push_back({{"start", json_seconds(last_t)},
                             {"end", json_seconds(now)},
                             {"bytes", moved - last_bytes},
                             {"mbit_per_s", mbit}});
        last_t = now;
        last_bytes = moved;
    };
    status st = kelp::throughput(t, rx, a.seconds_ms / 1000.0, inv.flags, &result, tick, a.window);
    if (!st) return failure(st);
    json summary = {
        {"bytes", result.bytes}, {"seconds", json_seconds(result.seconds)}, {"mbit_per_s", result.mbit_per_s()}};
    char text[160];
    snprintf(text, sizeof text, "%s: %llu bytes in %.2f s = %.1f Mbit/s", rx ? "device to us" : "us to device",
             (unsigned long long)result.bytes, result.seconds, result.mbit_per_s());
    return success(text + after_success(inv.flags),
                   {{"direction", a.direction}, {"intervals", intervals}, {"summary", summary}});
}

outcome upload_image(const kelp::target& t, const bytes& image, bool upgrade, const std::string& file, reporter& r) {
    json lines = json::array();
    std::string failed_line;
    auto on_line = [&](const std::string& line) {
        if (line == "done") return;  // the end marker, not news
        if (failed_line.empty() && reports_failure(line)) failed_line = line;
        lines.push_back(line);
        r.upgrade_line(line);
    };
    status st = kelp::upload_firmware(
        t, image, upgrade, [&r](uint64_t d, uint64_t n) { r.progress(d, n); }, on_line,
        [&r](const std::string& p) { r.phase(p); });
    json data = {{"file", file}, {"bytes", image.size()}, {"upgraded", st && upgrade && failed_line.empty()}};
    if (upgrade) data["lines"] = lines;
    if (!st) return failure(st, data);
    if (!failed_line.empty()) {
        outcome o = success("", data);
        o.exit = exit_device;  // the device's own "failed", without a result code
        o.message = "the upgrade failed on the device: " + failed_line;
        return o;
    }
    return success(upgrade ? "upgrade done: " + std::to_string(image.size()) + " bytes flashed"
                           : "firmware stored on the device (" + std::to_string(image.size()) + " bytes)",
                   data);
}

kelp::status make_host_folders(const invocation& inv, const std::vector<std::string>& hosts) {
    const std::string& file = inv.args.file;
    if (inv.device_command() != "get-script" || file.find("{host}") == std::string::npos) return kelp::ok();
    for (const std::string& host : hosts) {
        status st = kelp::make_parent_folders(for_host(file, host));
        if (!st) return kelp::fail(st.kind, st.message + "; no host was contacted");
    }
    return kelp::ok();
}

status read_image(const std::string& file, bytes* image) {
    status st = read_input(file, image, image_max);
    if (st && image->size() < image_min)
        st = kelp::fail(kelp::error_kind::local, file + " is " + plural(image->size(), "byte") +
                                                     ", less than the 1 KiB of any firmware image: a truncated "
                                                     "download? Nothing was sent");
    return st;
}

json image_summary(const std::string& file, const bytes& image) {
    unsigned char digest[32];
    mbedtls_sha256_ret(image.data(), image.size(), digest, 0);
    std::string hex;
    for (unsigned char b : digest) {
        char two[3];
        snprintf(two, sizeof two, "%02x", b);
        hex += two;
    }
    return {{"file", file}, {"bytes", image.size()}, {"sha256", hex}};
}

std::string image_text(const json& summary) {
    return summary["file"].get<std::string>() + ": " + std::to_string(summary["bytes"].get<size_t>()) +
           " bytes, SHA-256 " + summary["sha256"].get<std::string>();
}

void remember_umask() {
    mode_t mask = umask(0);
    umask(mask);
    plain_mode = 0666 & ~mask;
}

outcome run_bundle_pack(const invocation& inv) {
    const command_args& a = inv.args;
    bytes plain;
    status st = read_input(a.file, &plain, bundle_read_max);
    if (!st) return failure(st);
    bytes bundle = kelp::pack_bundle(plain);
    if (bundle.size() < bundle_min_upload || bundle.size() > upload_max)
        return local_failure(a.file + " is " + std::to_string(plain.size()) + " bytes: its bundle would be " +
                             std::to_string(bundle.size()) + " bytes, and the device takes bundles of " +
                             bytes_range(0) + " bytes (" + bytes_range(bundle_header_len) + " bytes of configuration)");
    return saved(a.out, bundle, 0600, "bundle");
}

outcome run_bundle_verify(const invocation& inv) {
    const std::string& file = inv.args.file;
    bytes bundle, plain;
    status st = read_input(file, &bundle, bundle_read_max);
    if (!st) return failure(st);
    if (!(st = kelp::check_bundle_for_device(bundle))) return failure(kelp::fail(st.kind, file + ": " + st.message));
    kelp::unpack_bundle(bundle, &plain);
    return success(file + ": bundle ok, " + std::to_string(plain.size()) + " bytes of configuration",
                   {{"file", file}, {"bytes", bundle.size()}, {"plain_bytes", plain.size()}});
}

outcome run_bundle_unpack(const invocation& inv) {
    const command_args& a = inv.args;
    bytes bundle, plain;
    status st = read_input(a.file, &bundle, bundle_read_max);
    if (!st) return failure(st);
    if (!(st = kelp::unpack_bundle(bundle, &plain))) return failure(kelp::fail(st.kind, a.file + ": " + st.message));
    return saved(a.out, plain, 0600, "configuration");
}
