#include "git_store.h"

#include <dirent.h>
#include <errno.h>
#include <git2.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <memory>

using kelp::error_kind;
using kelp::fail;
using kelp::status;

namespace {

// libgit2 objects, freed however a function ends.
template <typename T, void (*Free)(T*)>
struct owned {
    T* p = nullptr;
    ~owned() {
        if (p) Free(p);
    }
    T** out() { return &p; }
    T* operator->() const { return p; }
    operator T*() const { return p; }
};
using tree_ptr = owned<git_tree, git_tree_free>;
using commit_ptr = owned<git_commit, git_commit_free>;
using object_ptr = owned<git_object, git_object_free>;
using diff_ptr = owned<git_diff, git_diff_free>;
using index_ptr = owned<git_index, git_index_free>;
using walk_ptr = owned<git_revwalk, git_revwalk_free>;
using signature_ptr = owned<git_signature, git_signature_free>;

status git_failure(const std::string& what) {
    const git_error* e = git_error_last();
    return fail(error_kind::local, what + ": " + (e && e->message ? e->message : "libgit2 error"));
}

void init_once() {
    static bool done = [] {
        git_libgit2_init();
        return true;
    }();
    (void)done;
}

// The id of folder's subtree in tree, or zero when it is not there.
git_oid folder_id(const git_tree* tree, const std::string& folder) {
    git_oid zero{};
    if (!tree) return zero;
    const git_tree_entry* e = git_tree_entry_byname(tree, folder.c_str());
    return e ? *git_tree_entry_id(e) : zero;
}

status tree_of(git_repository* repo, const git_oid& commit_id, git_tree** out) {
    commit_ptr c;
    if (git_commit_lookup(c.out(), repo, &commit_id) != 0) return git_failure("reading a commit");
    if (git_commit_tree(out, c) != 0) return git_failure("reading a commit's tree");
    return kelp::ok();
}

// The first parent's tree, or none for the first commit.
status parent_tree_of(const git_commit* c, git_tree** out) {
    *out = nullptr;
    if (git_commit_parentcount(c) == 0) return kelp::ok();
    commit_ptr parent;
    if (git_commit_parent(parent.out(), c, 0) != 0) return git_failure("reading a parent commit");
    if (git_commit_tree(out, parent) != 0) return git_failure("reading a commit's tree");
    return kelp::ok();
}

std::string short_id(const git_oid* id) {
    char text[GIT_OID_HEXSZ + 1];
    git_oid_tostr(text, sizeof text, id);
    return std::string(text).substr(0, 10);
}

std::string date_text(git_time_t t) {
    time_t seconds = (time_t)t;
    struct tm local;
    localtime_r(&seconds, &local);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

status folder_diff(git_repository* repo, const git_tree* from, const git_tree* to, const std::string& folder,
                   git_diff** out) {
    // The library's init functions, not its *_INIT macros, which leave
    // fields out and trip -Wmissing-field-initializers under clang.
    git_diff_options options;
    git_diff_options_init(&options, GIT_DIFF_OPTIONS_VERSION);
    std::string prefix = folder + "/";
    char* prefixes[] = {prefix.data()};
    options.pathspec = {prefixes, 1};
    if (git_diff_tree_to_tree(out, repo, const_cast<git_tree*>(from), const_cast<git_tree*>(to), &options) != 0)
        return git_failure("comparing two backups");
    return kelp::ok();
}

json changed_files(git_diff* diff) {
    json files = json::array();
    for (size_t i = 0; i < git_diff_num_deltas(diff); i++) {
        const git_diff_delta* d = git_diff_get_delta(diff, i);
        files.push_back({{"path", json_text(d->new_file.path ? d->new_file.path : d->old_file.path)},
                         {"status", std::string(1, git_diff_status_char(d->status))}});
    }
    return files;
}

// The commit ids, newest first, whose folder differs from their parent's.
status changes_of(git_repository* repo, const std::string& folder, std::vector<git_oid>* out) {
    walk_ptr walk;
    if (git_revwalk_new(walk.out(), repo) != 0) return git_failure("reading the history");
    git_revwalk_sorting(walk, GIT_SORT_TIME);
    if (git_revwalk_push_head(walk) != 0) return kelp::ok();  // no commit yet
    git_oid id;
    while (git_revwalk_next(&id, walk) == 0) {
        commit_ptr c;
        tree_ptr tree, parent;
        if (git_commit_lookup(c.out(), repo, &id) != 0) return git_failure("reading a commit");
        status st = tree_of(repo, id, tree.out());
        if (st) st = parent_tree_of(c, parent.out());
        if (!st) return st;
        git_oid now = folder_id(tree, folder), before = folder_id(parent, folder);
        if (!git_oid_equal(&now, &before)) out->push_back(id);
    }
    return kelp::ok();
}

status resolve_tree(git_repository* repo, const std::string& rev, git_tree** out) {
    object_ptr obj;
    if (git_revparse_single(obj.out(), repo, (rev + "^{tree}").c_str()) != 0)
        return fail(error_kind::local, "no revision '" + rev + "' in the backups");
    *out = (git_tree*)obj.p;
    obj.p = nullptr;
    return kelp::ok();
}

}  // namespace

git_store::~git_store() { git_repository_free(repo_); }

status git_store::open(const std::string& dir, bool create, std::unique_ptr<git_store>* out) {
    init_once();
    git_repository* repo = nullptr;
    int r = git_repository_open_ext(&repo, dir.c_str(), GIT_REPOSITORY_OPEN_NO_SEARCH, nullptr);
    if (r == GIT_ENOTFOUND && create) {
        git_repository_init_options options;
        git_repository_init_options_init(&options, GIT_REPOSITORY_INIT_OPTIONS_VERSION);
        options.flags = GIT_REPOSITORY_INIT_MKPATH;
        r = git_repository_init_ext(&repo, dir.c_str(), &options);
    }
    if (r == GIT_ENOTFOUND)
        return fail(error_kind::local, dir + " holds no backups (not a git repository): give the folder of a "
                                             "fleet backup with --into");
    if (r != 0) return git_failure("opening the backups in " + dir);
    out->reset(new git_store(repo));
    return kelp::ok();
}

status git_store::changed_folders(const std::vector<std::string>& folders, std::vector<std::string>* changed) {
    std::string unused;
    return commit(folders, "", changed, &unused);
}

status git_store::commit(const std::vector<std::string>& folders, const std::string& message,
                         std::vector<std::string>* changed, std::string* commit_out) {
    changed->clear();
    commit_out->clear();
    index_ptr index;
    if (git_repository_index(index.out(), repo_) != 0) return git_failure("opening the index");
    std::vector<std::string> prefixes;
    for (const std::string& f : folders) prefixes.push_back(f + "/");
    std::vector<char*> pointers;
    for (std::string& s : prefixes) pointers.push_back(s.data());
    git_strarray paths = {pointers.data(), pointers.size()};
    if (!folders.empty() && (git_index_add_all(index, &paths, GIT_INDEX_ADD_DEFAULT, nullptr, nullptr) != 0 ||
                             git_index_update_all(index, &paths, nullptr, nullptr) != 0))
        return git_failure("staging the backups");
    git_oid tree_id;
    if (git_index_write_tree(&tree_id, index) != 0) return git_failure("writing the tree");
    tree_ptr tree, head_tree;
    if (git_tree_lookup(tree.out(), repo_, &tree_id) != 0) return git_failure("reading the tree");
    commit_ptr head;
    git_oid head_id;
    bool born = git_reference_name_to_id(&head_id, repo_, "HEAD") == 0;
    if (born) {
        if (git_commit_lookup(head.out(), repo_, &head_id) != 0 || git_commit_tree(head_tree.out(), head) != 0)
            return git_failure("reading the last commit");
    }
    for (const std::string& f : folders) {
        git_oid now = folder_id(tree, f), before = folder_id(head_tree, f);
        if (!git_oid_equal(&now, &before)) changed->push_back(f);
    }
    if (message.empty()) return kelp::ok();  // a look, not a commit
    if (git_index_write(index) != 0) return git_failure("writing the index");
    if (born && git_oid_equal(&tree_id, git_tree_id(head_tree))) return kelp::ok();
    signature_ptr who;
    if (git_signature_default(who.out(), repo_) != 0 && git_signature_now(who.out(), "kelputil", "kelputil@localhost") != 0)
        return git_failure("making the commit's signature");
    const git_commit* parents[] = {head};
    git_oid commit_id;
    if (git_commit_create(&commit_id, repo_, "HEAD", who, who, nullptr, message.c_str(), tree, born ? 1 : 0,
                          parents) != 0)
        return git_failure("committing the backups");
    *commit_out = short_id(&commit_id);
    return kelp::ok();
}

status git_store::history(const std::string& folder, json* out) {
    std::vector<git_oid> ids;
    status st = changes_of(repo_, folder, &ids);
    if (!st) return st;
    *out = json::array();
    for (const git_oid& id : ids) {
        commit_ptr c;
        tree_ptr tree, parent;
        diff_ptr diff;
        if (git_commit_lookup(c.out(), repo_, &id) != 0) return git_failure("reading a commit");
        if (!(st = tree_of(repo_, id, tree.out())) || !(st = parent_tree_of(c, parent.out())) ||
            !(st = folder_diff(repo_, parent, tree, folder, diff.out())))
            return st;
        const char* summary = git_commit_summary(c);
        out->push_back({{"commit", short_id(&id)},
                        {"date", date_text(git_commit_time(c))},
                        {"subject", json_text(summary ? summary : "")},
                        {"files", changed_files(diff)}});
    }
    return kelp::ok();
}

status git_store::diff(const std::string& folder, const std::string& from, const std::string& to, std::string* patch,
                       json* files) {
    tree_ptr old_tree, new_tree;
    status st;
    if (from.empty()) {
        std::vector<git_oid> ids;
        if (!(st = changes_of(repo_, folder, &ids))) return st;
        if (ids.empty()) return fail(error_kind::local, "the backups hold nothing of " + folder);
        commit_ptr c;
        if (git_commit_lookup(c.out(), repo_, &ids[0]) != 0) return git_failure("reading a commit");
        if (!(st = tree_of(repo_, ids[0], new_tree.out())) || !(st = parent_tree_of(c, old_tree.out()))) return st;
    } else {
        if (!(st = resolve_tree(repo_, from, old_tree.out())) || !(st = resolve_tree(repo_, to.empty() ? "HEAD" : to, new_tree.out())))
            return st;
    }
    diff_ptr d;
    if (!(st = folder_diff(repo_, old_tree, new_tree, folder, d.out()))) return st;
    *files = changed_files(d);
    patch->clear();
    auto print = [](const git_diff_delta*, const git_diff_hunk*, const git_diff_line* line, void* payload) -> int {
        std::string* text = (std::string*)payload;
        if (line->origin == GIT_DIFF_LINE_CONTEXT || line->origin == GIT_DIFF_LINE_ADDITION ||
            line->origin == GIT_DIFF_LINE_DELETION)
            *text += line->origin;
        text->append(line->content, line->content_len);
        return 0;
    };
    if (git_diff_print(d, GIT_DIFF_FORMAT_PATCH, print, patch) != 0) return git_failure("printing the changes");
    return kelp::ok();
}

status git_store::files_at(const std::string& rev, const std::string& folder, std::vector<std::string>* paths) {
    tree_ptr root;
    status st = resolve_tree(repo_, rev.empty() ? "HEAD" : rev, root.out());
    if (!st) return st;
    git_tree_entry* sub = nullptr;
    if (git_tree_entry_bypath(&sub, root, folder.c_str()) != 0) return fail(error_kind::local, "no files of " + folder + " at " + (rev.empty() ? "HEAD" : rev));
    owned<git_tree_entry, git_tree_entry_free> entry{sub};
    tree_ptr tree;
    if (git_tree_lookup(tree.out(), repo_, git_tree_entry_id(entry)) != 0) return git_failure("reading a tree");
    auto collect = [](const char* root_path, const git_tree_entry* e, void* payload) -> int {
        if (git_tree_entry_type(e) == GIT_OBJECT_BLOB)
            ((std::vector<std::string>*)payload)->push_back(std::string(root_path) + git_tree_entry_name(e));
        return 0;
    };
    paths->clear();
    if (git_tree_walk(tree, GIT_TREEWALK_PRE, collect, paths) != 0) return git_failure("listing files");
    return kelp::ok();
}

status git_store::read_at(const std::string& rev, const std::string& path, std::string* content) {
    object_ptr obj;
    std::string spec = (rev.empty() ? "HEAD" : rev) + ":" + path;
    if (git_revparse_single(obj.out(), repo_, spec.c_str()) != 0 || git_object_type(obj) != GIT_OBJECT_BLOB)
        return fail(error_kind::local, "no file " + path + " at " + (rev.empty() ? "HEAD" : rev));
    const git_blob* blob = (const git_blob*)obj.p;
    content->assign((const char*)git_blob_rawcontent(blob), (size_t)git_blob_rawsize(blob));
    return kelp::ok();
}

status git_store::push(const std::string& remote_url, const std::string& remote_branch) {
    owned<git_reference, git_reference_free> head;
    if (git_repository_head(head.out(), repo_) != 0) return git_failure("finding the branch to push");
    std::string branch = git_reference_name(head);
    owned<git_remote, git_remote_free> remote;
    if (git_remote_create_anonymous(remote.out(), repo_, remote_url.c_str()) != 0)
        return git_failure("pushing to " + remote_url);
    std::string refspec = branch + ":" + (remote_branch.empty() ? branch : "refs/heads/" + remote_branch);
    char* specs[] = {refspec.data()};
    git_strarray refspecs = {specs, 1};
    git_push_options options;
    git_push_options_init(&options, GIT_PUSH_OPTIONS_VERSION);
    if (git_remote_push(remote, &refspecs, &options) != 0) return git_failure("pushing to " + remote_url);
    return kelp::ok();
}

namespace {

// Every regular file under dir/folder, as paths relative to dir.
status files_on_disk(const std::string& dir, const std::string& folder, std::vector<std::string>* out) {
    DIR* d = opendir((dir + "/" + folder).c_str());
    if (!d) return fail(error_kind::local, "cannot read " + dir + "/" + folder + ": " + strerror(errno));
    status st;
    while (struct dirent* e = readdir(d)) {
        std::string name = e->d_name, path = folder + "/" + name;
        struct stat info;
        if (name == "." || name == ".." || lstat((dir + "/" + path).c_str(), &info) != 0) continue;
        if (S_ISDIR(info.st_mode)) st = files_on_disk(dir, path, out);
        else if (S_ISREG(info.st_mode)) out->push_back(path);
        if (!st) break;
    }
    closedir(d);
    return st;
}

}  // namespace

status git_store::commit_folder(const std::string& folder, const std::string& message, std::string* commit_out) {
    commit_out->clear();
    index_ptr index;
    std::vector<std::string> files;
    const char* workdir = git_repository_workdir(repo_);
    std::string dir = workdir ? std::string(workdir) : ".";
    if (git_repository_index(index.out(), repo_) != 0) return git_failure("opening the index");
    status st = files_on_disk(dir, folder, &files);
    if (!st) return st;
    if (git_index_remove_directory(index, folder.c_str(), 0) != 0) return git_failure("staging " + folder);
    for (const std::string& f : files)
        if (git_index_add_bypath(index, f.c_str()) != 0) return git_failure("staging " + f);
    git_oid tree_id, head_id;
    if (git_index_write_tree(&tree_id, index) != 0) return git_failure("writing the tree");
    tree_ptr tree, head_tree;
    commit_ptr head;
    bool born = git_reference_name_to_id(&head_id, repo_, "HEAD") == 0;
    if (born && (git_commit_lookup(head.out(), repo_, &head_id) != 0 || git_commit_tree(head_tree.out(), head) != 0))
        return git_failure("reading the last commit");
    if (born && git_oid_equal(&tree_id, git_tree_id(head_tree))) return kelp::ok();
    if (git_tree_lookup(tree.out(), repo_, &tree_id) != 0) return git_failure("reading the tree");
    if (git_index_write(index) != 0) return git_failure("writing the index");
    signature_ptr who;
    if (git_signature_default(who.out(), repo_) != 0 && git_signature_now(who.out(), "kelputil", "kelputil@localhost") != 0)
        return git_failure("making the commit's signature");
    const git_commit* parents[] = {head};
    git_oid commit_id;
    if (git_commit_create(&commit_id, repo_, "HEAD", who, who, nullptr, message.c_str(), tree, born ? 1 : 0, parents) != 0)
        return git_failure("committing the backups");
    *commit_out = short_id(&commit_id);
    return kelp::ok();
}
