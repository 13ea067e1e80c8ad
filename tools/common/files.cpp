#include "files.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <set>

using kelp::cannot;
using kelp::error_kind;
using kelp::fail;
using kelp::folder_of;
using kelp::status;

namespace {

// The temporaries being written, for the signal handler: fixed slots, as a
// handler may not allocate. Fleet runs write from several threads.
constexpr int slots = 64;
char pending[slots][PATH_MAX];
std::atomic<bool> busy[slots];

int claim(const std::string& path) {
    if (path.size() >= PATH_MAX) return -1;
    for (int i = 0; i < slots; i++) {
        bool expected = false;
        if (busy[i].compare_exchange_strong(expected, true)) {
            memcpy(pending[i], path.c_str(), path.size() + 1);
            return i;
        }
    }
    return -1;
}

void release(int slot) {
    if (slot >= 0) {
        pending[slot][0] = '\0';
        busy[slot] = false;
    }
}

void on_signal(int sig) {
    for (int i = 0; i < slots; i++)
        if (busy[i] && pending[i][0]) unlink(pending[i]);
    signal(sig, SIG_DFL);
    raise(sig);
}

status write_fd(int fd, const kelp::bytes& data, const std::string& path) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return cannot("write", path, n < 0 ? errno : ENOSPC);
        done += (size_t)n;
    }
    return kelp::ok();
}

// A device, a FIFO or a terminal: nothing to rename over.
status write_in_place(const std::string& path, const kelp::bytes& data) {
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return cannot("write", path);
    status s = write_fd(fd, data, path);
    close(fd);
    return s;
}

// The file path finally names, links followed as open() would (a relative
// one from the link's own folder), so that the link itself stays a link.
status final_target(const std::string& path, std::string* out) {
    std::string at = path;
    for (int hops = 0; hops < 40; hops++) {
        struct stat st;
        if (lstat(at.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) {
            *out = at;
            return kelp::ok();
        }
        char link[PATH_MAX];
        ssize_t n = readlink(at.c_str(), link, sizeof link);
        if (n < 0 || n == sizeof link) return cannot("follow the link", at, n < 0 ? errno : ENAMETOOLONG);
        at = link[0] == '/' ? std::string(link, n) : folder_of(at) + "/" + std::string(link, n);
    }
    return cannot("follow the link", path, ELOOP);
}

// What the replaced file was: its mode, and its owner and group where we
// may give them (root, or the owner). A file that becomes ours loses the
// set-id bits, as chown takes them too.
mode_t kept_mode(int fd, const struct stat& was) {
    mode_t mode = was.st_mode & 07777;
    if (fchown(fd, was.st_uid, was.st_gid) != 0) mode &= ~(mode_t)(S_ISUID | S_ISGID);
    return mode;
}

// The rename itself reaches the disk with the folder.
void sync_folder(const std::string& folder) {
    int dir = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
}

}  // namespace

void remove_temporaries_on_signals() {
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, on_signal);
}

status read_input(const std::string& path, kelp::bytes* out, size_t max_bytes) {
    out->clear();
    // Non-blocking, so that a FIFO without a writer reads as empty instead of
    // hanging; blocking again for the reads themselves.
    int fd = path == "-" ? dup(0) : open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return cannot("read", path);
    struct stat st;
    if (fstat(fd, &st) != 0) {
        status s = cannot("read", path);
        close(fd);
        return s;
    }
    if (S_ISDIR(st.st_mode) || !(S_ISREG(st.st_mode) || S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode))) {
        close(fd);
        return fail(error_kind::local,
                    "cannot read " + path + ": " + (S_ISDIR(st.st_mode) ? "it is a folder" : "it is not a file"));
    }
    if (S_ISREG(st.st_mode) && (size_t)st.st_size > max_bytes) {
        close(fd);
        return fail(error_kind::local, "cannot read " + path + ": " + std::to_string(st.st_size) +
                                           " bytes, more than the " + std::to_string(max_bytes) +
                                           " this command takes");
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    if (S_ISREG(st.st_mode)) out->reserve((size_t)st.st_size);
    uint8_t buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            status s = cannot("read", path);
            close(fd);
            return s;
        }
        if (n == 0) break;
        if (out->size() + (size_t)n > max_bytes) {
            close(fd);
            return fail(error_kind::local, "cannot read " + path + ": more than the " + std::to_string(max_bytes) +
                                               " bytes this command takes");
        }
        out->insert(out->end(), buf, buf + n);
    }
    close(fd);
    return kelp::ok();
}

status write_output(const std::string& path, const kelp::bytes& data, mode_t mode) {
    if (path == "-") return write_fd(1, data, "standard output");
    std::string target;
    status s = final_target(path, &target);
    if (!s) return s;
    struct stat st;
    bool replacing = stat(target.c_str(), &st) == 0;
    if (replacing && S_ISDIR(st.st_mode)) return fail(error_kind::local, "cannot write " + path + ": it is a folder");
    if (replacing && !S_ISREG(st.st_mode)) return write_in_place(path, data);
    std::string temporary = folder_of(target) + "/." + target.substr(target.find_last_of('/') + 1) + ".kelputil-XXXXXX";
    int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return cannot("write into the folder of", path);
    int slot = claim(temporary);
    s = write_fd(fd, data, path);
    if (s && replacing) mode = kept_mode(fd, st);
    if (s && fchmod(fd, mode) != 0) s = cannot("set the mode of", path);
    if (s && fsync(fd) != 0) s = cannot("flush", path);
    if (close(fd) != 0 && s) s = cannot("write", path);
    if (s && rename(temporary.c_str(), target.c_str()) != 0) s = cannot("replace", path);
    if (!s) unlink(temporary.c_str());
    release(slot);
    if (s) sync_folder(folder_of(target));
    return s;
}

status write_new_file(const std::string& path, const kelp::bytes& data, mode_t mode) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0) return cannot("create", path);
    status s = write_fd(fd, data, path);
    if (close(fd) != 0 && s) s = cannot("write", path);
    return s;
}

void remove_tree(const std::string& path) {
    nftw(
        path.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return remove(p) == 0 ? 0 : 0; }, 16,
        FTW_DEPTH | FTW_PHYS);
}
