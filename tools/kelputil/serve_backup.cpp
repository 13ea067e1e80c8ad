#include "serve_backup.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "files.h"
#include "host_snapshot.h"

using kelp::bytes;
using kelp::error_kind;
using kelp::status;

namespace {

// The state database, when it lives in the work tree, stays out of git
// status without a file of ours in the tree.
status exclude_state_file(const std::string& dir, const std::string& state_file) {
    if (state_file.rfind(dir + "/", 0) != 0) return kelp::ok();
    std::string rule = "/" + state_file.substr(dir.size() + 1) + "*\n";
    std::string path = dir + "/.git/info/exclude";
    kelp::bytes old;
    if (access(path.c_str(), F_OK) == 0 && !read_input(path, &old, 1 << 20)) old.clear();
    std::string text(old.begin(), old.end());
    if (text.find(rule) != std::string::npos) return kelp::ok();
    mkdir((dir + "/.git/info").c_str(), 0755);
    text += rule;
    return write_output(path, bytes(text.begin(), text.end()), 0644);
}

bool is_full_disk(const std::string& message) {
    return message.find(strerror(ENOSPC)) != std::string::npos || message.find(strerror(EDQUOT)) != std::string::npos;
}

}  // namespace

status backup_store::open(const std::string& dir, const std::string& state_file, const std::vector<std::string>& hosts,
                          std::unique_ptr<backup_store>* out) {
    auto store = std::make_unique<backup_store>();
    store->dir_ = dir;
    status st = git_store::open(dir, true, false, &store->git_);
    if (st) st = store->git_->start_clean(hosts);
    // Beside fleet backup's staging, which its commits clear: hosts of the
    // service stage while others commit.
    if (st) store->staging_ = store->git_->staging() + "-serve";
    if (st) remove_tree(store->staging_);
    if (st && mkdir(store->staging_.c_str(), 0700) != 0) st = system_error("create", store->staging_);
    if (st) st = exclude_state_file(dir, state_file);
    if (st) *out = std::move(store);
    return st;
}

backup_result backup_store::back_up(const std::string& host, const kelp::target& t) {
    backup_result r;
    std::string staged = staging_ + "/" + host + ".XXXXXX";
    if (!mkdtemp(staged.data())) {
        r.st = system_error("create a staging folder in", staging_);
        return r;
    }
    host_snapshot taken;
    r.st = take_snapshot(t, staged, false, &taken);
    r.config_bytes = taken.config_bytes;
    if (!r.st && taken.disk_failure) r.repository_failure = true, r.unwritable = is_full_disk(r.st.message);
    std::lock_guard<std::mutex> hold(lock_);
    std::vector<std::string> changed;
    auto message = [&](const std::vector<std::string>&) {
        return "backup " + host + ": configuration changed\n\nby kelputil serve\n";
    };
    if (r.st) {
        r.st = git_->commit_staged({{host, staged}}, message, &changed, &r.commit);
        r.repository_failure = !r.st;
        r.unwritable = !r.st && is_full_disk(r.st.message);
    }
    remove_tree(staged);
    return r;
}
