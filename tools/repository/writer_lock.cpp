#include "writer_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "git_store.h"
#include "host_snapshot.h"
#include "outcome.h"

using kelp::error_kind;
using kelp::fail;
using kelp::status;

namespace {

const char lock_name[] = "kelputil-writer";

// The holder's line, read again for a moment while it is still empty or
// names a process that has ended: the holder writes it just after taking
// the lock, over the line of the one before.
json holder_of(int fd) {
    for (int tries = 0; tries < 25; tries++) {
        char text[1024];
        ssize_t n = pread(fd, text, sizeof text - 1, 0);
        json line = json::parse(std::string(text, n > 0 ? (size_t)n : 0), nullptr, false);
        bool alive = line.is_object() && line.contains("pid") && line["pid"].is_number_integer() &&
                     (kill((pid_t)line["pid"].get<long long>(), 0) == 0 || errno == EPERM);
        if (alive) return line;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return json::object();
}

status refused(const json& holder, const writer_identity& me, const std::string& dir) {
    std::string program = holder.value("program", ""), api = holder.value("api", "");
    std::string pid = holder.contains("pid") ? holder["pid"].dump() : "unknown";
    if (program == "kelputil serve" && me.program == "kelputil serve")
        return fail(error_kind::local, "another kelputil serve (pid " + pid + ") writes the backups in " + dir +
                                           ": stop it first, or give another --into");
    if (program == "kelputil serve")
        return fail(error_kind::local, dir + " is kept by kelputil serve (pid " + pid +
                                           "): ask it for a backup instead: curl -X POST " + api +
                                           "/api/v1/hosts/HOST/backup (or stop the service)");
    return fail(error_kind::local, (program.empty() ? std::string("another program") : program) + " (pid " + pid +
                                       ") writes the backups in " + dir +
                                       " now: wait until it ends, or give another --into");
}

}  // namespace

status writer_lock::take(const git_store& store, const writer_identity& me, std::unique_ptr<writer_lock>* out) {
    std::string path = store.git_dir() + lock_name;
    // Close-on-exec: a hook or a push that outlives us must not keep it.
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return kelp::cannot("open the lock", path);
    std::unique_ptr<writer_lock> lock(new writer_lock(fd));
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) return kelp::cannot("lock", path);
        return refused(holder_of(fd), me, store.dir());
    }
    json line = {{"pid", (long long)getpid()}, {"program", me.program}};
    if (!me.api.empty()) line["api"] = me.api;
    std::string text = line.dump() + "\n";
    if (ftruncate(fd, 0) != 0 || pwrite(fd, text.data(), text.size(), 0) != (ssize_t)text.size())
        return kelp::cannot("write", path);
    *out = std::move(lock);
    return kelp::ok();
}

writer_lock::~writer_lock() { close(fd_); }
