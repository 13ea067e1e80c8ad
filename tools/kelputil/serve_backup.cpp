#include "serve_backup.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "archive_members.h"
#include "bundle.h"
#include "files.h"

using kelp::bytes;
using kelp::error_kind;
using kelp::status;

namespace {

const char staging_name[] = ".kelputil-staging";

status system_error(const std::string& what, const std::string& path) {
    return kelp::fail(error_kind::local, "cannot " + what + " " + path + ": " + strerror(errno));
}

// The staging area and the state database stay out of the history and out
// of git status, without a file of ours in the tree.
status exclude_own_files(const std::string& dir, const std::string& state_file) {
    std::string rules = std::string("/") + staging_name + "/\n";
    if (state_file.rfind(dir + "/", 0) == 0) rules += "/" + state_file.substr(dir.size() + 1) + "*\n";
    std::string path = dir + "/.git/info/exclude";
    kelp::bytes old;
    if (access(path.c_str(), F_OK) == 0 && !read_input(path, &old, 1 << 20)) old.clear();
    std::string text(old.begin(), old.end());
    if (text.find(rules) != std::string::npos) return kelp::ok();
    mkdir((dir + "/.git/info").c_str(), 0755);
    text += rules;
    return write_output(path, bytes(text.begin(), text.end()), 0644);
}

// The host's files written into a fresh folder of the staging area.
status snapshot(const kelp::target& t, const std::string& folder, backup_result* r) {
    bytes bundle, plain;
    status st = kelp::backup_config(t, 0, &bundle);
    if (!st) return st;
    if (!(st = kelp::unpack_bundle(bundle, &plain)))
        return kelp::fail(error_kind::protocol, "the device sent a bundle that does not verify: " + st.message);
    r->config_bytes = plain.size();
    if (!(st = write_new_file(folder + "/config.dat", bundle, 0600))) return st;
    if (!(st = write_new_file(folder + "/config.plain", plain, 0600))) return st;
    bool is_archive = false;
    return extract_members(plain, folder + "/config", &is_archive);
}

// Replaces dir/host with the staged folder in two renames.
status swap_in(const std::string& dir, const std::string& host, const std::string& staged) {
    std::string target = dir + "/" + host, old = staged + ".old";
    bool had = access(target.c_str(), F_OK) == 0;
    if (had && rename(target.c_str(), old.c_str()) != 0) return system_error("move aside", target);
    if (rename(staged.c_str(), target.c_str()) != 0) {
        status st = system_error("move into place", target);
        if (had) rename(old.c_str(), target.c_str());
        return st;
    }
    if (had) remove_tree(old);
    return kelp::ok();
}

// The model and firmware line are kept with the state; a report that
// fails does not fail the backup, which is already safe.
void fetch_core_report(const kelp::target& t, backup_result* r) {
    bytes text;
    if (kelp::fetch_report(t, action_core_sysinfo, 0, &text))
        read_core_report(std::string(text.begin(), text.end()), &r->model, &r->firmware);
}

}  // namespace

void read_core_report(const std::string& report, std::string* model, std::string* firmware) {
    size_t at = 0;
    while (at < report.size()) {
        size_t end = std::min(report.find('\n', at), report.size());
        std::string line = report.substr(at, end - at);
        at = end + 1;
        for (auto [key, out] : {std::pair{"model:", model}, std::pair{"firmware:", firmware}}) {
            if (line.rfind(key, 0) != 0) continue;
            size_t value = line.find_first_not_of(' ', strlen(key));
            *out = value == std::string::npos ? "" : line.substr(value);
        }
    }
}

status backup_store::open(const std::string& dir, const std::string& state_file, std::unique_ptr<backup_store>* out) {
    auto store = std::make_unique<backup_store>();
    store->dir_ = dir;
    status st = git_store::open(dir, true, &store->git_);
    std::string staging = dir + "/" + staging_name;
    if (st && mkdir(staging.c_str(), 0700) != 0 && errno != EEXIST) st = system_error("create", staging);
    if (st) st = exclude_own_files(dir, state_file);
    if (st) *out = std::move(store);
    return st;
}

backup_result backup_store::back_up(const std::string& host, const kelp::target& t) {
    backup_result r;
    std::string staged = dir_ + "/" + staging_name + "/" + host + ".XXXXXX";
    if (!mkdtemp(staged.data())) {
        r.st = system_error("create a staging folder in", dir_ + "/" + staging_name);
        return r;
    }
    r.st = snapshot(t, staged, &r);
    if (r.st) fetch_core_report(t, &r);
    std::lock_guard<std::mutex> hold(lock_);
    if (r.st) r.st = swap_in(dir_, host, staged);
    if (!r.st) {
        remove_tree(staged);
        return r;
    }
    r.st = git_->commit_folder(host, "backup " + host + ": configuration changed\n\nby kelputil serve\n", &r.commit);
    return r;
}
