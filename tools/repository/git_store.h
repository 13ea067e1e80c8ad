// A folder of backups kept as a git repository (through libgit2: no git
// program needed): one commit per run that changed something, and each
// host's history and changes readable without knowing git.
#pragma once

#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "outcome.h"
#include "status.h"

struct git_repository;
struct git_tree;
struct git_oid;

class git_store {
public:
    ~git_store();
    git_store(const git_store&) = delete;
    git_store& operator=(const git_store&) = delete;

    // Opens the repository at dir. With create, makes dir and the repository
    // when dir is new or empty; a folder that holds other files is made one
    // only with init, so that a mistyped --into takes nobody's folder over.
    // Without out, only says whether it could: nothing is made.
    static kelp::status open_repository(const std::string& dir, bool create, bool init,
                                        std::unique_ptr<git_store>* out);

    // The folder as given, and its git folder (ending in '/').
    const std::string& dir() const { return dir_; }
    std::string git_dir() const;
    // Where one writer's fetched folders wait for the commit: inside the git
    // folder, so that the work tree never holds anything git would show; one
    // per writer ("" for fleet backup, "serve"), so that none clears
    // another's.
    std::string staging(const std::string& writer) const;
    // Brings the named (host) folders of a repository left by an
    // interrupted or failed run back to its last commit: as HEAD has them
    // and nothing more. The rest of the work tree is the operator's. The writer's staging is its own
    // to clear.
    kelp::status start_clean(const std::vector<std::string>& folders);

    // Replaces the top-level folders named in staged (name, staged folder)
    // with the staged ones and commits the result when it differs from the
    // last commit; only then are work tree and index brought to the new
    // commit. On any failure HEAD, index and work tree stay as they were.
    // The staged folders are removed either way.
    // *changed: the folders that differ; message(changed) makes the
    // commit's message; *commit: the new commit's id, empty when nothing
    // changed.
    // keep: entries of a host folder (e.g. "scripts") that this run did
    // not fetch, kept as the last commit has them.
    kelp::status commit_staged(const std::vector<std::pair<std::string, std::string>>& staged,
                               const std::vector<std::string>& keep,
                               const std::function<std::string(const std::vector<std::string>&)>& message,
                               std::vector<std::string>* changed, std::string* commit);

    // Host folders of older versions (config.plain beside config/, and
    // config/config/...) rewritten as today's in one commit saying so, by
    // writer (a program's name); no host is asked. *hosts: those converted.
    kelp::status convert_layout(const std::string& writer, std::vector<std::string>* hosts);

    // Fails when folder is no host's name, or, naming the repository, when
    // no commit ever held it.
    kelp::status require_folder(const std::string& folder);
    // The commits that changed folder, newest first: commit (id), time
    // (Unix seconds), subject, files (path within folder, status).
    kelp::status history(const std::string& folder, json* out, size_t max = SIZE_MAX);
    // The patch of folder between two revisions. Empty from: the change the
    // commit to made (empty to as well: the folder's last change); empty to
    // alone: up to the latest commit. *files as for history.
    kelp::status diff(const std::string& folder, const std::string& from, const std::string& to, std::string* patch,
                      json* files);

    // For kelputil serve's API and --push: the files under folder at rev
    // (paths within folder), one file's content at rev (rev empty: HEAD),
    // every file under each of folders read from one tree (visit returns
    // false to stop; a folder never backed up is passed over), and sending
    // the current branch to remote (a path or URL) as a fast-forward, to
    // remote_branch (empty: the same name).
    struct file_size {
        std::string path;
        size_t size;
    };
    kelp::status files_at(const std::string& rev, const std::string& folder, std::vector<file_size>* files);
    kelp::status read_at(const std::string& rev, const std::string& path, std::string* content);
    kelp::status read_files(
        const std::string& rev, const std::vector<std::string>& folders,
        const std::function<bool(const std::string& folder, const std::string& path, std::string_view content)>& visit);
    // shown: the remote as messages name it (without a password).
    kelp::status push(const std::string& remote, const std::string& remote_branch, const std::string& shown);

    // For kelputil serve, which keeps git as the truth of what it backed up.
    struct folder_change {
        std::string commit;  // short id
        double time = 0;     // Unix seconds
        std::string subject;
    };
    // Each folder's newest change, in one walk of the history; a folder no
    // commit holds is left out.
    kelp::status last_changes(const std::vector<std::string>& folders, std::map<std::string, folder_change>* out);
    // The changes of folder after the commit `after` (an id or its prefix;
    // empty: all of them), oldest first; *found is false when `after` is not
    // in the history.
    kelp::status changes_after(const std::string& folder, const std::string& after, std::vector<folder_change>* out,
                               bool* found);
    // The last commit's short id, "" before the first.
    std::string head_commit();
    // The hosts' folders of the last commit: its top-level folders named as
    // a host may be (inventory.h), so that no folder of the operator's own
    // passes for a host.
    kelp::status folders(std::vector<std::string>* out);
    // Each commit made in [since, until] with the folders it changed (only
    // that one, when given) and their files (paths inside the folder),
    // newest first, at most max entries.
    kelp::status changes_between(double since, double until, const std::string& only, size_t max, json* out);

private:
    kelp::status folder_tree(const std::string& rev, const std::string& folder, git_tree** out);
    kelp::status check_out(const git_tree* old_tree, const git_tree* new_tree, const git_oid& commit_id,
                           const git_oid* parent_id);
    git_store(git_repository* repo, const std::string& dir) : repo_(repo), dir_(dir) {}
    git_repository* repo_;
    std::string dir_;
};
