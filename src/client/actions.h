// One function per action of the daemon, each a whole connection: connect,
// log in, send the request, hold the conversation, close.
#pragma once

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "records.h"
#include "scripts.h"
#include "session.h"
#include "status.h"

namespace kelp {

// The admin password, asked for once the device has greeted us (a prompt
// then never waits on a device that is down).
using password_fn = std::function<status(std::string* password)>;
password_fn fixed_password(const std::string& password);
// Decides on a certificate that no pin covers: "host:port" and its SHA-256.
using trust_fn = std::function<status(const std::string& where, const std::string& sha256)>;
// One line of what the connection is doing, for --verbose.
using log_fn = std::function<void(const std::string& line)>;

struct target {
    std::string host = "127.0.0.1";
    int port = tls_port;
    bool tls = true;
    std::string pin_sha256;  // hex SHA-256 of the device certificate, or empty
    password_fn password;
    trust_fn trust;             // null: any certificate is accepted
    log_fn log;                 // may be null
    int timeout_ms = 15000;     // bounds every wait, and all of the connection set-up
    long long deadline_ms = 0;  // CLOCK_MONOTONIC ms bounding the whole action; 0: none
};

// A script's word (scripts.h) -> its number; 0 when unknown.
uint8_t script_by_name(const std::string& name);

// Connects (TLS if asked), logs in and sends the request. All of it is
// bounded by the target's time-out; a connection that the device drops
// before its greeting (queued behind another session as the daemon exited)
// is the one case tried again.
status open_session(session& s, const target& t, const request& r);

// Action 0: nothing, to have the device apply (flag_apply) or reboot (flag_reboot).
status trigger(const target& t, uint8_t flags);
status backup_config(const target& t, uint8_t flags, bytes* bundle, const progress_fn& p = nullptr);
status restore_config(const target& t, uint8_t flags, const bytes& bundle, const progress_fn& p = nullptr);
status get_script(const target& t, uint8_t script, uint8_t flags, bytes* body, const progress_fn& p = nullptr);
// The device announces a missing script as 0 bytes and hangs up.
extern const char* const no_such_script;
bool is_missing_script(const status& s);
status put_script(const target& t, uint8_t script, uint8_t flags, const bytes& body, const progress_fn& p = nullptr);
// action_sysinfo (64), action_core_sysinfo (96) or action_kernlog (65).
status fetch_report(const target& t, uint8_t action, uint8_t flags, bytes* text);
status list_ppp(const target& t, uint8_t flags, std::vector<ppp_session>* out);
status list_hotspot(const target& t, uint8_t flags, std::vector<hotspot_session>* out);
// A device answer of 6 (no such user) comes back as kind device, code 6.
status kick_ppp_user(const target& t, uint8_t flags, const std::string& name);
status kick_hotspot_user(const target& t, uint8_t flags, const std::string& name);
status kick_hotspot_ip(const target& t, uint8_t flags, const std::string& dotted);

using line_fn = std::function<void(const std::string& line)>;
// Uploads the image; with start_upgrade, relays the upgrade's progress lines
// until "done" and reads the second result. on_phase hears of the pause
// while the device checks its space.
status upload_firmware(const target& t, const bytes& image, bool start_upgrade, const progress_fn& p = nullptr,
                       const line_fn& on_line = nullptr, const line_fn& on_phase = nullptr);

// Megabits (10^6 bits) a second; 0 for no time.
inline double mbit_per_s(uint64_t bytes, double seconds) { return seconds > 0 ? bytes * 8 / seconds / 1e6 : 0; }

struct throughput_result {
    uint64_t bytes = 0;
    double seconds = 0;
    double mbit_per_s() const { return kelp::mbit_per_s(bytes, seconds); }
};
// Called at every whole second and once at the end, with the time since the
// start and the bytes moved so far.
using tick_fn = std::function<void(double elapsed, uint64_t bytes_so_far)>;
// receive: the device sends and we count (action 32); else we send (action 33).
// Runs for `seconds`, then closes (or shuts down our side and waits for the
// device to close). No result packet ever comes. A window above 0 fixes our
// side's socket buffers at that size once logged in; 0 leaves them to the
// kernel.
status throughput(const target& t, bool receive, double seconds, uint8_t flags, throughput_result* out,
                  const tick_fn& each_second = nullptr, int window = 0);

// The conversations themselves, on a session whose request is already sent;
// the functions above wrap these. Exposed for tests against a fake device.
status converse_list_ppp(session& s, std::vector<ppp_session>* out);
status converse_list_hotspot(session& s, std::vector<hotspot_session>* out);
status converse_kick_name(session& s, const std::string& name);
status converse_firmware(session& s, const bytes& image, bool start_upgrade, const progress_fn& p,
                         const line_fn& on_line);

}  // namespace kelp
