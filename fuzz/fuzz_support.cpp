#include "fuzz_support.h"

#include <crypt.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <setjmp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "core/connection.h"
#include "core/process_exit.h"

extern "C" void __sanitizer_symbolize_pc(void* pc, const char* format, char* out, size_t size) __attribute__((weak));

static void setup_failed(const char* what) {
    fprintf(stderr, "fuzz sandbox: %s: %s (run as root)\n", what, strerror(errno));
    exit(1);
}

static void bind_file(const char* source, const char* target) {
    if (mount(source, target, nullptr, MS_BIND, nullptr) != 0) setup_failed(target);
}

static void make_private_dirs() {
    if (unshare(CLONE_NEWNS) != 0) setup_failed("unshare");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) setup_failed("private /");
    // Small on purpose: probes of huge declared sizes fail after 8 MB.
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "size=8m") != 0) setup_failed("/tmp");
    if (mount("tmpfs", "/run", "tmpfs", 0, "size=8m") != 0) setup_failed("/run");
    mkdir("/run/fuzz", 0755);
    mkdir("/run/fuzz/no-helpers", 0755);
}

// The helpers are missing, but "echo 3 > /proc/sys/vm/drop_caches" is a
// shell builtin and would still reach the host; so would syslog.
static void mask_host_side_effects() {
    bind_file("/dev/null", "/proc/sys/vm/drop_caches");
    struct stat st;
    if (stat("/dev/log", &st) == 0) bind_file("/dev/null", "/dev/log");
}

static void install_passwd() {
    const char* hash = crypt(fixture_password, "ab");
    if (!hash) setup_failed("crypt");
    char text[256];
    snprintf(text, sizeof text, "root:*:0:0:root:/root:/bin/sh\nadmin:%s:0:0:admin:/:/bin/sh\n", hash);
    write_file("/run/fuzz/passwd", text, strlen(text));
    bind_file("/run/fuzz/passwd", "/etc/passwd");
}

static void install_fixed_random() {
    write_file("/run/fuzz/random", fixture_challenge, sizeof fixture_challenge);
    bind_file("/run/fuzz/random", "/dev/urandom");
}

void enter_sandbox(unsigned extras) {
    make_private_dirs();
    mask_host_side_effects();
    if (extras & sandbox_passwd) install_passwd();
    if (extras & sandbox_fixed_random) install_fixed_random();
    signal(SIGPIPE, SIG_IGN);
    tls_active = 0;
    // The sanitizers look for llvm-symbolizer on PATH when they first need
    // it; find it now, before PATH loses it.
    if (__sanitizer_symbolize_pc) {
        char scratch[64];
        __sanitizer_symbolize_pc(__builtin_return_address(0), "%p", scratch, sizeof scratch);
    }
    setenv("PATH", "/run/fuzz/no-helpers", 1);
}

static sigjmp_buf* landing = nullptr;
static int last_status = 0;

// Replaces the archive's definition, which is then never linked in.
void end_process(int status) {
    last_status = status;
    if (landing) siglongjmp(*landing, 1);
    _Exit(status);
}

int run_to_end(void (*body)(void*), void* context) {
    // The daemon's alarm(30)/alarm(0) pairs share the timer libFuzzer uses
    // for -timeout: put libFuzzer's back afterwards.
    struct itimerval timer;
    getitimer(ITIMER_REAL, &timer);
    sigjmp_buf here;
    sigjmp_buf* outer = landing;
    landing = &here;
    int status = still_running;
    if (sigsetjmp(here, 1) == 0)
        body(context);
    else
        status = last_status;
    landing = outer;
    setitimer(ITIMER_REAL, &timer, nullptr);
    return status;
}

void open_link(const uint8_t* data, size_t size) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) setup_failed("socketpair");
    if (dup2(pair[0], daemon_fd) < 0 || dup2(pair[1], peer_fd) < 0) setup_failed("dup2");
    close(pair[0]);
    close(pair[1]);
    // What does not fit the socket buffer is dropped rather than waited for.
    fcntl(peer_fd, F_SETFL, O_NONBLOCK);
    while (size > 0) {
        ssize_t n = write(peer_fd, data, size);
        if (n <= 0) break;
        data += n;
        size -= (size_t)n;
    }
    shutdown(peer_fd, SHUT_WR);
}

void close_peer() { close(peer_fd); }

void close_link() {
    close(daemon_fd);
    close(peer_fd);
}

void clear_dir(const char* dir) {
    DIR* d = opendir(dir);
    if (!d) return;
    char path[512];
    while (struct dirent* e = readdir(d)) {
        if (e->d_type == DT_DIR) continue;
        snprintf(path, sizeof path, "%s/%s", dir, e->d_name);
        unlink(path);
    }
    closedir(d);
}

void write_file(const char* path, const void* data, size_t size) {
    FILE* f = fopen(path, "w");
    if (!f) setup_failed(path);
    if (size && fwrite(data, size, 1, f) != 1) setup_failed(path);
    fclose(f);
}

long long size_of(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 ? (long long)st.st_size : -1;
}
