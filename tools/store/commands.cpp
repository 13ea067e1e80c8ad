#include "commands.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "archive_members.h"
#include "clock.h"
#include "files.h"
#include "git_store.h"
#include "host_snapshot.h"
#include "writer_lock.h"

using kelp::bytes;
using kelp::error_kind;
using kelp::status;

namespace {

const writer_identity writer = {"kelputil fleet backup", ""};

// Fetched folders by host, for the commit once every host is done.
struct staged_hosts {
    std::mutex lock;
    std::vector<std::pair<std::string, std::string>> folders;
    // The disk failed (full, read-only, failing), "MESSAGE (backing up
    // HOST); ": the other hosts would fail alike. A host's own failure,
    // local or not (an archive member that cannot be a file), is its own.
    std::string disk_failure;
};

outcome back_up_host(const invocation& inv, const std::string& staging, const inventory_host& h, const kelp::target& t,
                     staged_hosts* staged) {
    std::string folder = staging + "/" + h.name + ".XXXXXX";
    host_snapshot taken;
    status st = mkdtemp(folder.data()) ? kelp::ok() : kelp::cannot("create a staging folder in", staging);
    taken.disk_failure = !st && is_disk_error(st.code);
    if (st) st = take_snapshot(t, folder, inv.args.scripts, &taken);
    std::lock_guard<std::mutex> hold(staged->lock);
    if (!st) {
        remove_tree(folder);
        if (taken.disk_failure && staged->disk_failure.empty())
            staged->disk_failure = st.message + " (backing up " + h.name + "); ";
        return failure(st);
    }
    staged->folders.emplace_back(h.name, folder);
    return success("backed up: " + std::to_string(taken.config_bytes) + " bytes of configuration",
                   {{"folder", h.name}, {"config_bytes", taken.config_bytes}});
}

std::string commit_message(const std::vector<host_result>& results, const std::vector<std::string>& changed) {
    std::vector<std::string> failed, unreachable;
    for (const host_result& r : results) {
        if (r.result.ok()) continue;
        std::string line = "  " + r.host + ": " + r.result.message;
        (r.result.exit == exit_unreachable ? unreachable : failed).push_back(line);
    }
    std::string text = "fleet backup: " + std::to_string(changed.size()) + " changed, " +
                       std::to_string(failed.size()) + " failed, " + std::to_string(unreachable.size()) +
                       " unreachable\n";
    if (!changed.empty()) {
        text += "\nchanged:\n";
        for (const std::string& h : changed) text += "  " + h + "\n";
    }
    if (!failed.empty()) text += "\nfailed:\n";
    for (const std::string& l : failed) text += l + "\n";
    if (!unreachable.empty()) text += "\nunreachable:\n";
    for (const std::string& l : unreachable) text += l + "\n";
    return text;
}

// Changed files with their paths in the repository ("HOST/config/fw.scr"),
// as the patch names them.
json in_repository(const std::string& host, json files) {
    for (json& f : files) f["path"] = host + "/" + f["path"].get<std::string>();
    return files;
}

std::string store_dir(const invocation& inv) { return inv.args.into.empty() ? "." : inv.args.into; }

// A run that ends before its commit: what was fetched, and that nothing
// was kept.
outcome stopped(const std::vector<host_result>& results, int exit, const std::string& why) {
    size_t fetched = 0;
    for (const host_result& r : results) fetched += r.result.ok();
    outcome o = local_failure(why + std::to_string(fetched) + " of " + std::to_string(results.size()) +
                              " hosts fetched, nothing committed");
    o.exit = exit;
    o.data = {{"hosts", results.size()}, {"fetched", fetched}};
    return o;
}

}  // namespace

status check_backup_target(const invocation& inv) {
    std::unique_ptr<git_store> store;
    std::unique_ptr<writer_lock> lock;
    status st = git_store::open_repository(inv.args.into, true, inv.args.init, nullptr);
    // An existing repository kept by another writer is refused now; the
    // lock itself is taken for the run.
    if (st && git_store::open_repository(inv.args.into, false, false, &store))
        st = writer_lock::take(*store, writer, &lock);
    return st;
}

outcome run_fleet_backup(const invocation& inv, fleet_runner& runner, const std::vector<const inventory_host*>& hosts) {
    std::unique_ptr<git_store> store;
    std::unique_ptr<writer_lock> lock;
    status st = git_store::open_repository(inv.args.into, true, inv.args.init, &store);
    std::vector<std::string> folders;
    for (const inventory_host* h : hosts) folders.push_back(h->name);
    if (st) st = writer_lock::take(*store, writer, &lock);
    std::vector<std::string> converted;
    if (st) st = store->start_clean(folders);
    if (st) st = store->convert_layout(writer.program, &converted);
    std::string staging = store ? store->staging("") : "";
    if (st) remove_tree(staging);
    if (st && mkdir(staging.c_str(), 0700) != 0) st = kelp::cannot("create", staging);
    if (!st) return failure(st);

    // Nothing reaches the work tree until every host is done: a signal or
    // a full disk on the way leaves the last commit as it was.
    staged_hosts staged;
    runner.stop_on_signals();
    runner.stop_when([&] {
        std::lock_guard<std::mutex> hold(staged.lock);
        return !staged.disk_failure.empty();
    });
    std::vector<host_result> results =
        runner.run(hosts, [&](const inventory_host& h, const kelp::target& t, reporter&) {
            return back_up_host(inv, staging, h, t, &staged);
        });
    runner.end_status_line();  // what follows, a stop or the commit, speaks in its place
    if (runner.stopped_by() || !staged.disk_failure.empty()) {
        remove_tree(staging);
        int sig = runner.stopped_by();
        return sig ? stopped(results, exit_signal + sig, "interrupted: ")
                   : stopped(results, exit_usage, staged.disk_failure);
    }

    std::vector<std::string> changed;
    std::string commit;
    auto message = [&](const std::vector<std::string>& c) { return commit_message(results, c); };
    st = store->commit_staged(staged.folders, kept_from_last(inv.args.scripts), message, &changed, &commit);
    remove_tree(staging);
    if (!st) {
        st.message += "; nothing committed, " + inv.args.into + " is as its last commit left it";
        return failure(st);
    }
    std::vector<host_result> marked = results;
    for (host_result& r : marked)
        if (r.result.ok())
            r.result.message =
                std::find(changed.begin(), changed.end(), r.host) != changed.end() ? "changed" : "unchanged";
    std::string what = "fleet backup" + (commit.empty() ? std::string(", nothing to commit") : ", commit " + commit);
    json commit_id = commit.empty() ? json(nullptr) : json(commit);
    return runner.summary(marked, what, {{"commit", commit_id}, {"changed", changed}});
}

outcome run_fleet_history(const invocation& inv) {
    std::unique_ptr<git_store> store;
    json entries;
    status st = git_store::open_repository(store_dir(inv), false, false, &store);
    if (st) st = store->require_folder(inv.args.host);
    if (st) st = store->history(inv.args.host, &entries);
    if (!st) return failure(st);
    for (json& e : entries) {
        e["date"] = kelp::local_time(e["time"].get<long long>());
        e.erase("time");
        e["files"] = in_repository(inv.args.host, e["files"]);
    }
    outcome o = success(inv.args.host + ": " + plural(entries.size(), "backup") + " with changes", entries);
    for (const json& e : entries)
        o.text += e["commit"].get<std::string>() + "  " + e["date"].get<std::string>() + "  " +
                  plural(e["files"].size(), "file") + "  " + terminal_text(e["subject"].get<std::string>()) + "\n";
    return o;
}

outcome run_fleet_diff(const invocation& inv) {
    std::unique_ptr<git_store> store;
    std::string patch;
    json files;
    status st = git_store::open_repository(store_dir(inv), false, false, &store);
    if (st) st = store->diff(inv.args.host, inv.args.rev_from, inv.args.rev_to, &patch, &files);
    if (!st) return failure(st);
    outcome o = success(inv.args.host + ": " + plural(files.size(), "file") + " changed",
                        {{"files", in_repository(inv.args.host, files)}, {"patch", patch}});
    o.text = patch;
    o.content = true;
    return o;
}
