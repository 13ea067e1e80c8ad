// A folder of backups kept as a git repository (through libgit2: no git
// program needed): one commit per run that changed something, and each
// host's history and changes readable without knowing git.
#pragma once

#include <string>
#include <vector>

#include "outcome.h"
#include "status.h"

struct git_repository;

class git_store {
public:
    ~git_store();
    git_store(const git_store&) = delete;
    git_store& operator=(const git_store&) = delete;

    // Opens the repository at dir; creates dir and the repository when new
    // (with create), else fails naming the folder.
    static kelp::status open(const std::string& dir, bool create, std::unique_ptr<git_store>* out);

    // Stages the named top-level folders as they are now on disk (added,
    // changed and removed files) and commits them with message when the
    // tree differs from the last commit. *changed: those whose folder
    // differs; *commit: the new commit's id, empty when nothing changed.
    kelp::status commit(const std::vector<std::string>& folders, const std::string& message,
                        std::vector<std::string>* changed, std::string* commit);
    // Which of folders differ from the last commit, without committing.
    kelp::status changed_folders(const std::vector<std::string>& folders, std::vector<std::string>* changed);

    // The commits that changed folder, newest first: id, date, subject, files.
    kelp::status history(const std::string& folder, json* out);
    // The patch of folder between two revisions. Empty from: the folder's
    // last change; empty to: the latest commit.
    kelp::status diff(const std::string& folder, const std::string& from, const std::string& to, std::string* patch,
                      json* files);

    // For kelputil serve's API and --push: the files under folder at rev,
    // one file's content at rev, and sending the current branch to remote
    // (a path or URL) as a fast-forward, to remote_branch (empty: the same
    // name).
    kelp::status files_at(const std::string& rev, const std::string& folder, std::vector<std::string>* paths);
    kelp::status read_at(const std::string& rev, const std::string& path, std::string* content);
    kelp::status push(const std::string& remote, const std::string& remote_branch);
    // commit() for one folder, staging only its own files: its cost does not
    // grow with the other folders (commit()'s staging walks the whole tree).
    kelp::status commit_folder(const std::string& folder, const std::string& message, std::string* commit);

private:
    explicit git_store(git_repository* repo) : repo_(repo) {}
    git_repository* repo_;
};

