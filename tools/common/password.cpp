#include "password.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <mutex>

#include "files.h"

using kelp::error_kind;
using kelp::fail;
using kelp::status;

namespace {

const char sources[] = "set KELPUTIL_PASSWORD, give --password-file FILE, or run on a terminal to be asked";

// The terminal as the prompt found it, for the signal handler to put back.
int tty_fd = -1;
struct termios tty_saved;
volatile sig_atomic_t tty_changed = 0;

void restore_terminal() {
    if (tty_changed) tcsetattr(tty_fd, TCSAFLUSH, &tty_saved);
    tty_changed = 0;
}

void on_prompt_signal(int sig) {
    restore_terminal();
    if (tty_fd >= 0 && write(tty_fd, "\n", 1) < 0) {
        // Nothing more to do on the way out.
    }
    signal(sig, SIG_DFL);
    raise(sig);
}

bool have_terminal() {
    int fd = open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    close(fd);
    return true;
}

status from_env(const std::string& name, std::string* out, bool* present) {
    const char* value = getenv(name.c_str());
    *present = value != nullptr;
    if (!value) return kelp::ok();
    if (!*value) return fail(error_kind::local, name + " is set but empty: " + sources);
    *out = value;
    return kelp::ok();
}

status prompt(std::string* out) {
    tty_fd = open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (tty_fd < 0) return fail(error_kind::local, std::string("no password: ") + sources);
    static const char question[] = "admin password: ";
    bool quiet = tcgetattr(tty_fd, &tty_saved) == 0;
    struct sigaction act {
    }, old_int, old_term, old_hup;
    act.sa_handler = on_prompt_signal;
    sigaction(SIGINT, &act, &old_int);
    sigaction(SIGTERM, &act, &old_term);
    sigaction(SIGHUP, &act, &old_hup);
    if (quiet) {
        struct termios silent = tty_saved;
        silent.c_lflag &= ~(tcflag_t)ECHO;
        tty_changed = tcsetattr(tty_fd, TCSAFLUSH, &silent) == 0;
    }
    std::string line;
    bool answered = write(tty_fd, question, sizeof question - 1) >= 0;
    for (char c; answered;) {
        ssize_t n = read(tty_fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || c == '\n' || c == '\r') break;
        line += c;
    }
    restore_terminal();
    if (write(tty_fd, "\n", 1) < 0) {
        // The answer is what matters.
    }
    sigaction(SIGINT, &old_int, nullptr);
    sigaction(SIGTERM, &old_term, nullptr);
    sigaction(SIGHUP, &old_hup, nullptr);
    close(tty_fd);
    tty_fd = -1;
    if (line.empty()) return fail(error_kind::local, "no password given at the prompt");
    *out = line;
    return kelp::ok();
}

// A pipe (--password-file /dev/fd/3, <(...)) can be read only once, and the
// source is read twice: checked before connecting, then used. What a file
// that is not a regular one gave is kept for the rest of the run.
status read_password_file(const std::string& path, std::string* out) {
    static std::mutex lock;
    static std::map<std::string, std::string> read_once;
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) return read_secret_line(path, "password", out);
    std::lock_guard<std::mutex> hold(lock);
    auto kept = read_once.find(path);
    if (kept != read_once.end()) return *out = kept->second, kelp::ok();
    status s = read_secret_line(path, "password", out);
    if (s) read_once[path] = *out;
    return s;
}

status read_now(const password_source& src, std::string* out, bool* prompt_needed) {
    *prompt_needed = false;
    if (!src.file.empty()) return read_password_file(src.file, out);
    bool present = false;
    status s = from_env(src.env, out, &present);
    if (!s || present) return s;
    if (!have_terminal()) return fail(error_kind::local, std::string("no password: ") + sources);
    *prompt_needed = true;
    return kelp::ok();
}

}  // namespace

status check_password_source(const password_source& src) {
    std::string ignored;
    bool prompt_needed;
    return read_now(src, &ignored, &prompt_needed);
}

kelp::password_fn password_provider(const password_source& src) {
    struct cache {
        std::mutex lock;
        bool have = false;
        std::string password;
    };
    auto shared = std::make_shared<cache>();
    return [src, shared](std::string* out) -> status {
        std::lock_guard<std::mutex> hold(shared->lock);
        if (!shared->have) {
            bool prompt_needed = false;
            status s = read_now(src, &shared->password, &prompt_needed);
            if (s && prompt_needed) s = prompt(&shared->password);
            if (!s) return s;
            shared->have = true;
        }
        *out = shared->password;
        return kelp::ok();
    };
}

status read_secret_line(const std::string& path, const std::string& what, std::string* out) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 077)) {
        char mode[8];
        snprintf(mode, sizeof mode, "%04o", st.st_mode & 07777);
        return fail(error_kind::local,
                    "the " + what + " file " + path + " has mode " + mode + ", readable by others: chmod 600 " + path);
    }
    kelp::bytes text;
    status s = read_input(path, &text, 4096);
    if (!s) return s;
    std::string line(text.begin(), text.end());
    *out = line.substr(0, line.find_first_of("\r\n"));
    if (out->empty())
        return fail(error_kind::local,
                    "the " + what + " file " + path + " is empty (its first line is the " + what + ")");
    return kelp::ok();
}
