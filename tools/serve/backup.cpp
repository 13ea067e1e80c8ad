#include "backup.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "archive_members.h"
#include "files.h"
#include "host_snapshot.h"
#include "log.h"

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
    if (access(path.c_str(), F_OK) == 0 && !read_input(path, &old, settings_file_max)) old.clear();
    std::string text(old.begin(), old.end());
    if (text.find(rule) != std::string::npos) return kelp::ok();
    mkdir((dir + "/.git/info").c_str(), 0755);
    text += rule;
    return write_output(path, bytes(text.begin(), text.end()), 0644);
}

bool unwritable(const status& st) {
    return !st && st.kind == error_kind::local && (is_disk_error(st.code) || st.code == EACCES || st.code == EPERM);
}

// Where the API answers, for whoever is refused the repository.
std::string api_address(const serve_options& o) {
    std::string host = o.listen_host.find(':') != std::string::npos ? "[" + o.listen_host + "]" : o.listen_host;
    return (o.tls_cert.empty() ? "http://" : "https://") + host + ":" + std::to_string(o.listen_port);
}

}  // namespace

status backup_store::open_repository(const serve_options& o, const std::string& state_file,
                                     const std::vector<std::string>& hosts, std::unique_ptr<backup_store>* out) {
    auto store = std::make_unique<backup_store>();
    store->dir_ = o.into;
    store->scripts_ = o.scripts;
    status st = git_store::open_repository(o.into, true, false, &store->git_);
    if (st) st = writer_lock::take(*store->git_, {"kelputil serve", api_address(o)}, &store->writer_);
    std::vector<std::string> converted;
    if (st) st = store->git_->start_clean(hosts);
    if (st) st = store->git_->convert_layout("kelputil serve", &converted);
    if (st && !converted.empty())
        log_event(o.into + ": " + std::to_string(converted.size()) +
                  " host folders converted to one copy of each backup");
    if (st) store->staging_ = store->git_->staging("serve");
    if (st) remove_tree(store->staging_);
    if (st && mkdir(store->staging_.c_str(), 0700) != 0) st = kelp::cannot("create", store->staging_);
    if (st) st = exclude_state_file(o.into, state_file);
    if (st) *out = std::move(store);
    return st;
}

backup_store::~backup_store() {
    if (writer_) remove_tree(staging_);
}

backup_result backup_store::back_up(const std::string& host, const kelp::target& t) {
    backup_result r;
    std::string staged = staging_ + "/" + host + ".XXXXXX";
    if (!mkdtemp(staged.data())) {
        r.st = kelp::cannot("create a staging folder in", staging_);
        r.repository_failure = true;
        r.unwritable = unwritable(r.st);
        return r;
    }
    host_snapshot taken;
    r.st = take_snapshot(t, staged, scripts_, &taken);
    r.config_bytes = taken.config_bytes;
    r.repository_failure = !r.st && taken.disk_failure;
    std::lock_guard<std::mutex> hold(lock_);
    std::vector<std::string> changed;
    auto message = [&](const std::vector<std::string>&) {
        return "backup " + host + ": configuration changed\n\nby kelputil serve\n";
    };
    if (r.st) {
        r.st = git_->commit_staged({{host, staged}}, kept_from_last(scripts_), message, &changed, &r.commit);
        r.repository_failure = !r.st;
    }
    remove_tree(staged);
    r.unwritable = r.repository_failure && unwritable(r.st);
    return r;
}
