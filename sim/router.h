// A simulated router around the current process: fresh mount and network
// namespaces, a private /tmp, /run, /dev and an overlay on /etc, fake router
// helpers first in PATH, and a /dev/log socket read by the caller. Used by
// the end-to-end tests and by the router simulator alike.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace router {

struct options {
    bool with_urandom = true;  // leave /dev/urandom out to test the fallback
    bool own_proc = false;     // a /proc of the caller's pid namespace
};

// Where the sandbox keeps its own state, outside the daemon's /tmp.
extern const char* const state_dir;   // "/run/sandbox"
extern const char* const helper_dir;  // state_dir + "/bin"

// Enters new namespaces and lays out the router. Must run single-threaded.
// Returns an empty string on success, else what failed.
std::string enter(const options& opts = options());
// enter() in two steps, for a caller with work between them: the fresh
// mount and network namespaces (with own_proc, a new /proc too), then the
// router's file system, /dev/log and loopback.
std::string new_namespaces(bool own_proc);
std::string lay_out(const options& opts);
// Empty tmpfs on /tmp and /run.
std::string private_tmp_and_run();
bool interface_up(const char* name);

bool write_file(const std::string& path, const std::string& content, mode_t mode = 0644);
std::string read_file(const std::string& path, bool* exists = nullptr);
bool exists(const std::string& path);
// Names in dir, sorted, without "." and "..".
std::vector<std::string> list_dir(const std::string& dir);

// /etc/passwd with an "admin" entry hashed with traditional DES crypt.
void set_admin_password(const std::string& password, const std::string& salt = "ab");
std::string des_hash(const std::string& password, const std::string& salt = "ab");

// A shell script named name in helper_dir that appends "name args" to the
// calls log and then runs body (a shell fragment; may use "$@").
void install_helper(const std::string& name, const std::string& body = "");
std::vector<std::string> helper_calls();

struct log_line {
    int priority = -1;  // facility and level, as sent (80 + level for authpriv)
    std::string ident;
    std::string text;
};
// Waits up to timeout_ms for at least want lines in all; returns every line
// received so far.
std::vector<log_line> syslog_lines(size_t want = 0, int timeout_ms = 0);
// The router's syslogd: forks a process that drains /dev/log into path, one
// "<priority> ident: text" line each, for as long as the caller lives.
pid_t serve_syslog(const std::string& path);
// Drops the lines received so far (the next daemon run starts afresh).
void forget_syslog();
// The /dev/log socket, and what a syslogd that serves it in its own loop
// calls when it is readable: appends every waiting line to out.
int syslog_socket();
void relay_syslog(int out);

// "a;b;c" (a CMake list, such as an emulator and its options) -> {a, b, c}.
std::vector<std::string> split_list(const std::string& list);

struct process {
    pid_t pid = -1;
    std::string out_path;  // stdout
    std::string err_path;  // stderr
};
// Starts binary under the program name argv0 (through a link of that base
// name, so an emulator prefix sees the same name), stdout and stderr to files.
process start(const std::string& binary, const std::string& argv0, const std::vector<std::string>& emulator = {});
constexpr int still_running = -1;
// Exit status (128 + signal for a killed process), or still_running.
int wait_exit(const process& p, int timeout_ms);
void kill_process(const process& p);
std::string output(const process& p);

// Waits until something listens on TCP port (read from the kernel's table:
// a probing connect would be taken as the daemon's one client).
bool wait_for_listener(int port, int timeout_ms);
bool is_listening(int port);

}  // namespace router
