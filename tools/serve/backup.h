// One host's backup into the shared repository, as fleet backup writes it
// (host_snapshot.h), committed on its own with a message
// naming the host; a host that fails keeps its last good folder.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "actions.h"
#include "git_store.h"
#include "options.h"
#include "writer_lock.h"

struct backup_result {
    kelp::status st;
    std::string commit;  // empty: nothing changed (or it failed)
    size_t config_bytes = 0;
    // The failure was ours, in staging or committing, not the host's; and
    // then whether the repository cannot be written at all (disk full,
    // read-only or failing, no permission): every host will fail alike
    // until someone makes room.
    bool repository_failure = false, unwritable = false;
};

class backup_store {
public:
    // Opens (creating) the repository in o.into and keeps it as its only
    // writer until destroyed, brings the hosts' folders back to the last
    // commit after a crash, and keeps the state file out of git status.
    static kelp::status open_repository(const serve_options& o, const std::string& state_file,
                                        const std::vector<std::string>& hosts, std::unique_ptr<backup_store>* out);
    // Leaves no staging behind, then lets the next writer in.
    ~backup_store();

    backup_result back_up(const std::string& host, const kelp::target& t);

    // The repository for reading, through a handle of the caller's own
    // (libgit2's objects are not shared between threads) and without a
    // lock: git's objects and references are safe to read while a commit
    // is written, so a search never holds up a backup. Only when no handle
    // opens does the caller wait for the writers' one.
    template <typename F>
    auto reading(F f) {
        std::unique_ptr<git_store> mine;
        if (git_store::open_repository(dir_, false, false, &mine)) return f(*mine);
        std::lock_guard<std::mutex> hold(lock_);
        return f(*git_);
    }
    const std::string& dir() const { return dir_; }
    // Holds the repository for good: at an exit that leaves runs behind, no
    // commit may start.
    void freeze() { lock_.lock(); }

private:
    std::string dir_, staging_;
    bool scripts_ = false;
    std::unique_ptr<git_store> git_;
    std::unique_ptr<writer_lock> writer_;
    std::mutex lock_;
};
