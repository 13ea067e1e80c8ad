// One writer per backup repository: kelputil serve for its whole life,
// kelputil fleet backup for its run. Two writers would delete each other's
// staging and move the branch under each other's commits. The lock is an
// flock on GITDIR/kelputil-writer, which the kernel drops however its
// holder ends; the holder writes who it is there, for the refused one's
// message.
#pragma once

#include <memory>
#include <string>

#include "status.h"

class git_store;

struct writer_identity {
    std::string program;  // "kelputil serve" or "kelputil fleet backup"
    std::string api;      // the service's API ("http://127.0.0.1:8750"); empty for fleet backup
};

class writer_lock {
public:
    // Takes the lock of store's repository, or fails saying who holds it
    // and what to do instead.
    static kelp::status take(const git_store& store, const writer_identity& me, std::unique_ptr<writer_lock>* out);
    ~writer_lock();
    writer_lock(const writer_lock&) = delete;
    writer_lock& operator=(const writer_lock&) = delete;

private:
    explicit writer_lock(int fd) : fd_(fd) {}
    int fd_;
};
