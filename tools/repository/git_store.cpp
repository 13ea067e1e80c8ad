#include "git_store.h"

#include <dirent.h>
#include <errno.h>
#include <git2.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <memory>

#include "files.h"
#include "inventory.h"

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
using builder_ptr = owned<git_treebuilder, git_treebuilder_free>;
using reference_ptr = owned<git_reference, git_reference_free>;
using odb_ptr = owned<git_odb, git_odb_free>;

// The name older versions staged under, in the work tree, with the
// .gitignore that hid it.
const char old_staging[] = ".kelputil-staging";
const char old_ignore_rule[] = ".kelputil-staging/\n";

status git_failure(const std::string& what) {
    const git_error* e = git_error_last();
    std::string why = e && e->message ? e->message : "libgit2 error";
    status st = fail(error_kind::local, what + ": " + why);
    // libgit2 tells an OS error in words only: its errno when it is one a
    // caller acts on (the repository cannot be written).
    for (int err : {ENOSPC, EDQUOT, EROFS, EIO, EACCES, EPERM})
        if (e && e->klass == GIT_ERROR_OS && why.find(strerror(err)) != std::string::npos) st.code = err;
    return st;
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

status folder_diff(git_repository* repo, const git_tree* from, const git_tree* to, const std::string& folder,
                   git_diff** out) {
    // The library's init functions, not its *_INIT macros, which leave
    // fields out and trip -Wmissing-field-initializers under clang.
    git_diff_options options;
    git_diff_options_init(&options, GIT_DIFF_OPTIONS_VERSION);
    // A host's name is a name, never a pattern.
    options.flags |= GIT_DIFF_DISABLE_PATHSPEC_MATCH;
    std::string prefix = folder + "/";
    char* prefixes[] = {prefix.data()};
    options.pathspec = {prefixes, 1};
    if (git_diff_tree_to_tree(out, repo, const_cast<git_tree*>(from), const_cast<git_tree*>(to), &options) != 0)
        return git_failure("comparing two backups");
    return kelp::ok();
}

// The files a diff touches, their paths without the leading "folder/"
// (none: whole paths).
json changed_files(git_diff* diff, const std::string& folder) {
    json files = json::array();
    for (size_t i = 0; i < git_diff_num_deltas(diff); i++) {
        const git_diff_delta* d = git_diff_get_delta(diff, i);
        std::string path = d->new_file.path ? d->new_file.path : d->old_file.path;
        if (!folder.empty() && path.rfind(folder + "/", 0) == 0) path.erase(0, folder.size() + 1);
        files.push_back({{"path", path}, {"status", std::string(1, git_diff_status_char(d->status))}});
    }
    return files;
}

// Walks the history from HEAD, newest first, with each commit's tree and its
// parent's; visit returns false to stop.
template <typename F>
status walk_history(git_repository* repo, F visit) {
    walk_ptr walk;
    if (git_revwalk_new(walk.out(), repo) != 0) return git_failure("reading the history");
    git_revwalk_sorting(walk, GIT_SORT_TOPOLOGICAL | GIT_SORT_TIME);
    if (git_revwalk_push_head(walk) != 0) return kelp::ok();  // no commit yet
    git_oid id;
    while (git_revwalk_next(&id, walk) == 0) {
        commit_ptr c;
        tree_ptr tree, parent;
        if (git_commit_lookup(c.out(), repo, &id) != 0) return git_failure("reading a commit");
        status st = tree_of(repo, id, tree.out());
        if (st) st = parent_tree_of(c, parent.out());
        if (!st) return st;
        if (!visit(id, (const git_commit*)c, (const git_tree*)tree, (const git_tree*)parent)) break;
    }
    return kelp::ok();
}

bool folder_changed(const git_tree* tree, const git_tree* parent, const std::string& folder) {
    git_oid now = folder_id(tree, folder), before = folder_id(parent, folder);
    return !git_oid_equal(&now, &before);
}

// The commit ids, newest first, whose folder differs from their parent's.
status changes_of(git_repository* repo, const std::string& folder, std::vector<git_oid>* out, size_t max = SIZE_MAX) {
    if (max == 0) return kelp::ok();
    return walk_history(repo, [&](const git_oid& id, const git_commit*, const git_tree* tree, const git_tree* parent) {
        if (folder_changed(tree, parent, folder)) out->push_back(id);
        return out->size() < max;
    });
}

status resolve_tree(git_repository* repo, const std::string& rev, git_tree** out) {
    object_ptr obj;
    if (git_revparse_single(obj.out(), repo, (rev + "^{tree}").c_str()) != 0)
        return fail(error_kind::local, "no revision '" + rev + "' in the backups");
    *out = (git_tree*)obj.p;
    obj.p = nullptr;
    return kelp::ok();
}

// false when dir is a folder that holds something, or no folder at all
// (*not_folder); a folder we cannot read is left to libgit2 to report.
bool new_or_empty(const std::string& dir, bool* not_folder) {
    DIR* d = opendir(dir.c_str());
    *not_folder = !d && errno == ENOTDIR;
    if (!d) return !*not_folder;
    bool empty = true;
    while (dirent* e = readdir(d))
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) empty = false;
    closedir(d);
    return empty;
}

// Backups hold secrets: what the work tree gets is for its owner only.
git_checkout_options checkout_options(const git_tree* baseline) {
    git_checkout_options options;
    git_checkout_options_init(&options, GIT_CHECKOUT_OPTIONS_VERSION);
    options.checkout_strategy = GIT_CHECKOUT_FORCE;
    options.file_mode = 0600;
    options.dir_mode = 0700;
    options.baseline = const_cast<git_tree*>(baseline);
    return options;
}

std::string file_text(const std::string& path) {
    kelp::bytes data;
    if (!read_input(path, &data, 4096)) return "";
    return std::string(data.begin(), data.end());
}

// Blobs and the commit this run added, so that a run that fails leaves none
// of them (trees it wrote stay, unreferenced, for git gc: a tree's id is
// known only once written, so whether it is new cannot be told).
struct new_objects {
    git_repository* repo;
    std::vector<git_oid> ids;

    void remove_all() {
        for (const git_oid& id : ids) {
            char hex[GIT_OID_HEXSZ + 1];
            git_oid_tostr(hex, sizeof hex, &id);
            std::string path =
                std::string(git_repository_path(repo)) + "objects/" + std::string(hex, 2) + "/" + (hex + 2);
            unlink(path.c_str());
        }
        ids.clear();
    }
};

status blob_from_file(git_repository* repo, const std::string& path, new_objects* added, git_oid* id) {
    odb_ptr odb;
    if (git_repository_odb(odb.out(), repo) != 0 || git_odb_hashfile(id, path.c_str(), GIT_OBJECT_BLOB) != 0)
        return git_failure("reading " + path);
    if (git_odb_exists(odb, id)) return kelp::ok();
    if (git_blob_create_from_disk(id, repo, path.c_str()) != 0) return git_failure("storing " + path);
    added->ids.push_back(*id);
    return kelp::ok();
}

// The tree of a folder on disk; *empty when it holds no file, as git keeps
// no empty folders.
status tree_from_folder(git_repository* repo, const std::string& dir, new_objects* added, git_oid* id, bool* empty) {
    builder_ptr builder;
    if (git_treebuilder_new(builder.out(), repo, nullptr) != 0) return git_failure("building a tree");
    std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), closedir);
    if (!d) return kelp::cannot("read", dir);
    while (dirent* e = readdir(d.get())) {
        std::string name = e->d_name, path = dir + "/" + name;
        struct stat st;
        if (name == "." || name == ".." || lstat(path.c_str(), &st) != 0) continue;
        git_oid entry;
        bool entry_empty = false;
        status s = S_ISDIR(st.st_mode)   ? tree_from_folder(repo, path, added, &entry, &entry_empty)
                   : S_ISREG(st.st_mode) ? blob_from_file(repo, path, added, &entry)
                                         : kelp::ok();
        if (!s) return s;
        if (entry_empty || !(S_ISDIR(st.st_mode) || S_ISREG(st.st_mode))) continue;
        // A name git refuses (".git") stays out; config.plain still holds it.
        git_treebuilder_insert(nullptr, builder, name.c_str(), &entry,
                               S_ISDIR(st.st_mode) ? GIT_FILEMODE_TREE : GIT_FILEMODE_BLOB);
    }
    *empty = git_treebuilder_entrycount(builder) == 0;
    if (!*empty && git_treebuilder_write(id, builder) != 0) return git_failure("storing the tree of " + dir);
    return kelp::ok();
}

// HEAD's copies of the entries named in keep, carried into the host
// folder's new tree *id where it has none: a backup never deletes a kind
// of file it did not fetch (the scripts of a run without --scripts).
status carry_over(git_repository* repo, const git_tree* head_tree, const std::string& name,
                  const std::vector<std::string>& keep, git_oid* id) {
    git_oid before = folder_id(head_tree, name);
    if (keep.empty() || git_oid_is_zero(&before)) return kelp::ok();
    tree_ptr old_folder, new_folder;
    builder_ptr builder;
    if (git_tree_lookup(old_folder.out(), repo, &before) != 0 || git_tree_lookup(new_folder.out(), repo, id) != 0 ||
        git_treebuilder_new(builder.out(), repo, new_folder) != 0)
        return git_failure("reading the last backup of " + name);
    bool added = false;
    for (const std::string& k : keep) {
        const git_tree_entry* e = git_tree_entry_byname(old_folder, k.c_str());
        if (!e || git_tree_entry_byname(new_folder, k.c_str())) continue;
        if (git_treebuilder_insert(nullptr, builder, k.c_str(), git_tree_entry_id(e), git_tree_entry_filemode(e)) != 0)
            return git_failure("keeping " + name + "/" + k);
        added = true;
    }
    if (added && git_treebuilder_write(id, builder) != 0) return git_failure("storing the tree of " + name);
    return kelp::ok();
}

// A host folder as older versions wrote it (config.plain beside config/,
// which kept the archive's top folder: config/config/...) in today's form;
// *changed false when it is not one.
status convert_host(git_repository* repo, const git_tree_entry* e, git_oid* out, bool* changed) {
    *changed = false;
    tree_ptr host, members;
    if (git_tree_entry_type(e) != GIT_OBJECT_TREE) return kelp::ok();
    if (git_tree_lookup(host.out(), repo, git_tree_entry_id(e)) != 0) return git_failure("reading a host's tree");
    const git_tree_entry* config = git_tree_entry_byname(host, "config");
    if (!git_tree_entry_byname(host, "config.dat") || !git_tree_entry_byname(host, "config.plain") || !config ||
        git_tree_entry_type(config) != GIT_OBJECT_TREE)
        return kelp::ok();
    builder_ptr builder;
    if (git_tree_lookup(members.out(), repo, git_tree_entry_id(config)) != 0 ||
        git_treebuilder_new(builder.out(), repo, host) != 0 || git_treebuilder_remove(builder, "config.plain") != 0)
        return git_failure("converting " + std::string(git_tree_entry_name(e)));
    const git_tree_entry* top = git_tree_entry_byindex(members, 0);
    if (git_tree_entrycount(members) == 1 && git_tree_entry_type(top) == GIT_OBJECT_TREE &&
        git_treebuilder_insert(nullptr, builder, "config", git_tree_entry_id(top), GIT_FILEMODE_TREE) != 0)
        return git_failure("converting " + std::string(git_tree_entry_name(e)));
    if (git_treebuilder_write(out, builder) != 0)
        return git_failure("storing the tree of " + std::string(git_tree_entry_name(e)));
    *changed = true;
    return kelp::ok();
}

// The commit of tree on head (none: the first commit).
status write_commit(git_repository* repo, const git_commit* head, const git_tree* tree, const std::string& message,
                    git_oid* id) {
    signature_ptr who;
    if (git_signature_default(who.out(), repo) != 0 &&
        git_signature_now(who.out(), "kelputil", "kelputil@localhost") != 0)
        return git_failure("making the commit's signature");
    const git_commit* parents[] = {head};
    if (git_commit_create(id, repo, nullptr, who, who, nullptr, message.c_str(), tree, head ? 1 : 0, parents) != 0)
        return git_failure("committing the backups");
    return kelp::ok();
}

// A remote that names a folder here (a path, or file://), not a host.
bool local_path(const std::string& remote, std::string* path) {
    if (remote.rfind("file://", 0) == 0) return *path = remote.substr(7), true;
    size_t colon = remote.find(':'), slash = remote.find('/');
    if (remote.find("://") != std::string::npos || (colon != std::string::npos && colon < slash)) return false;
    return *path = remote, true;
}

status empty_tree(git_repository* repo, git_tree** out) {
    builder_ptr nothing;
    git_oid id;
    if (git_treebuilder_new(nothing.out(), repo, nullptr) != 0 || git_treebuilder_write(&id, nothing) != 0 ||
        git_tree_lookup(out, repo, &id) != 0)
        return git_failure("making the empty tree");
    return kelp::ok();
}

// Points HEAD (or the branch it names) at id, only when it still points
// at before (nowhere when there was no commit yet): a writer that ignores
// the lock must not have its commit dropped from the branch.
status move_head(git_repository* repo, const git_oid& id, const git_oid* before) {
    reference_ptr head, moved;
    if (git_reference_lookup(head.out(), repo, "HEAD") != 0) return git_failure("reading HEAD");
    bool symbolic = git_reference_type(head) == GIT_REFERENCE_SYMBOLIC;
    std::string name = symbolic ? git_reference_symbolic_target(head) : "HEAD";
    int r = before ? git_reference_create_matching(moved.out(), repo, name.c_str(), &id, 1, before, "kelputil backup")
                   : git_reference_create(moved.out(), repo, name.c_str(), &id, 0, "kelputil backup");
    if (r == GIT_EMODIFIED || r == GIT_EEXISTS)
        return fail(error_kind::local, name +
                                           " moved while this backup was made (another program writing the "
                                           "repository?): this commit is not added");
    if (r != 0) return git_failure("moving " + name);
    return kelp::ok();
}

}  // namespace

git_store::~git_store() { git_repository_free(repo_); }

status git_store::open_repository(const std::string& dir, bool create, bool init, std::unique_ptr<git_store>* out) {
    init_once();
    git_repository* repo = nullptr;
    int r = git_repository_open_ext(&repo, dir.c_str(), GIT_REPOSITORY_OPEN_NO_SEARCH, nullptr);
    if (r == GIT_ENOTFOUND && create) {
        bool not_folder = false;
        if (!new_or_empty(dir, &not_folder) && !init)
            return fail(error_kind::local,
                        not_folder ? "cannot keep backups in " + dir + ": it is not a folder"
                                   : dir +
                                         " is not empty and holds no backups (not a git repository): give a new or "
                                         "empty folder, or add --init to keep the backups there beside its files");
        if (!out) return kelp::ok();  // a look only: nothing is made
        mkdir(dir.c_str(), 0700);     // the backups are secrets; parents, if missing, as the umask has them
        git_repository_init_options options;
        git_repository_init_options_init(&options, GIT_REPOSITORY_INIT_OPTIONS_VERSION);
        options.flags = GIT_REPOSITORY_INIT_MKPATH;
        r = git_repository_init_ext(&repo, dir.c_str(), &options);
    }
    if (r == GIT_ENOTFOUND)
        return fail(error_kind::local, dir +
                                           " holds no backups (not a git repository): give the folder of a "
                                           "fleet backup with --into");
    if (r != 0) return git_failure("opening the backups in " + dir);
    std::unique_ptr<git_store> store(new git_store(repo, dir));
    if (!git_repository_workdir(repo))
        return fail(error_kind::local, dir + " is a bare repository: backups need one with a work tree");
    if (out) *out = std::move(store);
    return kelp::ok();
}

std::string git_store::git_dir() const { return git_repository_path(repo_); }

std::string git_store::staging(const std::string& writer) const {
    return git_dir() + "kelputil-staging" + (writer.empty() ? "" : "-" + writer);
}

status git_store::start_clean(const std::vector<std::string>& folders) {
    std::string work = git_repository_workdir(repo_);
    remove_tree(work + old_staging);
    tree_ptr head;
    bool born = git_revparse_single((git_object**)head.out(), repo_, "HEAD^{tree}") == 0;
    if (file_text(work + ".gitignore") == old_ignore_rule && !(born && git_tree_entry_byname(head, ".gitignore")))
        unlink((work + ".gitignore").c_str());
    if (!born) return kelp::ok();  // nothing to go back to
    // The hosts' folders are ours: what they hold beyond the last commit
    // was left by a run that ended midway.
    std::vector<std::string> paths = folders;
    std::vector<char*> pointers;
    for (std::string& f : paths) pointers.push_back(f.data());
    // Only they: whatever else the operator keeps in the repository, edited
    // or not, is left as it is.
    git_checkout_options hosts = checkout_options(nullptr);
    hosts.checkout_strategy |= GIT_CHECKOUT_REMOVE_UNTRACKED | GIT_CHECKOUT_DISABLE_PATHSPEC_MATCH;
    hosts.paths = {pointers.data(), pointers.size()};
    if (!paths.empty() && git_checkout_tree(repo_, (const git_object*)head.p, &hosts) != 0)
        return git_failure("restoring " + dir_ + " to its last commit");
    return kelp::ok();
}

status git_store::commit_staged(const std::vector<std::pair<std::string, std::string>>& staged,
                                const std::vector<std::string>& keep,
                                const std::function<std::string(const std::vector<std::string>&)>& message,
                                std::vector<std::string>* changed, std::string* commit_out) {
    changed->clear();
    commit_out->clear();
    commit_ptr head;
    tree_ptr head_tree, tree;
    git_oid head_id, tree_id, commit_id;
    bool born = git_reference_name_to_id(&head_id, repo_, "HEAD") == 0;
    if (born && (git_commit_lookup(head.out(), repo_, &head_id) != 0 || git_commit_tree(head_tree.out(), head) != 0))
        return git_failure("reading the last commit");
    new_objects added{repo_, {}};
    status st = [&] {
        builder_ptr root;
        if (git_treebuilder_new(root.out(), repo_, head_tree) != 0) return git_failure("building the tree");
        for (const auto& [name, folder] : staged) {
            git_oid id, before = folder_id(head_tree, name);
            bool empty = false;
            status s = tree_from_folder(repo_, folder, &added, &id, &empty);
            if (s && !empty) s = carry_over(repo_, head_tree, name, keep, &id);
            if (!s) return s;
            if (empty || git_oid_equal(&id, &before)) continue;
            changed->push_back(name);
            if (git_treebuilder_insert(nullptr, root, name.c_str(), &id, GIT_FILEMODE_TREE) != 0)
                return git_failure("adding " + name + " to the tree");
        }
        if (changed->empty()) return kelp::ok();
        if (git_treebuilder_write(&tree_id, root) != 0 || git_tree_lookup(tree.out(), repo_, &tree_id) != 0)
            return git_failure("writing the tree");
        status s = write_commit(repo_, head, tree, message(*changed), &commit_id);
        if (s) added.ids.push_back(commit_id);
        return s;
    }();
    // Everything is in objects now: the staged copies only take space the
    // work tree is about to need.
    for (const auto& [name, folder] : staged) remove_tree(folder);
    if (st && !changed->empty()) st = check_out(head_tree, tree, commit_id, born ? &head_id : nullptr);
    if (!st) {
        changed->clear();
        added.remove_all();
        return st;
    }
    if (!changed->empty()) *commit_out = short_id(&commit_id);
    return kelp::ok();
}

status git_store::convert_layout(const std::string& writer, std::vector<std::string>* hosts) {
    hosts->clear();
    commit_ptr head;
    tree_ptr head_tree, tree;
    builder_ptr root;
    git_oid head_id, tree_id, commit_id;
    if (git_reference_name_to_id(&head_id, repo_, "HEAD") != 0) return kelp::ok();  // nothing written yet
    if (git_commit_lookup(head.out(), repo_, &head_id) != 0 || git_commit_tree(head_tree.out(), head) != 0 ||
        git_treebuilder_new(root.out(), repo_, head_tree) != 0)
        return git_failure("reading the last commit");
    for (size_t i = 0; i < git_tree_entrycount(head_tree); i++) {
        const git_tree_entry* e = git_tree_entry_byindex(head_tree, i);
        git_oid id;
        bool changed = false;
        status st = convert_host(repo_, e, &id, &changed);
        if (!st) return st;
        if (!changed) continue;
        if (git_treebuilder_insert(nullptr, root, git_tree_entry_name(e), &id, GIT_FILEMODE_TREE) != 0)
            return git_failure("converting " + std::string(git_tree_entry_name(e)));
        hosts->push_back(git_tree_entry_name(e));
    }
    if (hosts->empty()) return kelp::ok();
    if (git_treebuilder_write(&tree_id, root) != 0 || git_tree_lookup(tree.out(), repo_, &tree_id) != 0)
        return git_failure("writing the tree");
    std::string message =
        "convert HOST folders to one copy of each backup: no config.plain beside config/, no "
        "config/config/\n\n" +
        std::to_string(hosts->size()) + " hosts, by " + writer + ", no router asked:\n";
    for (const std::string& h : *hosts) message += "  " + h + "\n";
    new_objects added{repo_, {}};
    status st = write_commit(repo_, head, tree, message, &commit_id);
    if (st) added.ids.push_back(commit_id);
    if (st) st = check_out(head_tree, tree, commit_id, &head_id);
    if (!st) hosts->clear(), added.remove_all();
    return st;
}

// The work tree and index to the new tree, then HEAD to its commit; on a
// failure, work tree and index back to the old tree.
status git_store::check_out(const git_tree* old_tree, const git_tree* new_tree, const git_oid& commit_id,
                            const git_oid* parent_id) {
    git_checkout_options forward = checkout_options(old_tree);
    status st;
    if (git_checkout_tree(repo_, (const git_object*)new_tree, &forward) != 0)
        st = git_failure("writing the new backups into " + dir_);
    if (st) st = move_head(repo_, commit_id, parent_id);
    if (st) return st;
    tree_ptr empty;
    if (!old_tree && empty_tree(repo_, empty.out())) old_tree = empty;
    git_checkout_options back = checkout_options(new_tree);
    if (old_tree) git_checkout_tree(repo_, (const git_object*)old_tree, &back);
    return st;
}

status git_store::require_folder(const std::string& folder) {
    std::string wrong = host_name_problem(folder);
    if (!wrong.empty()) return fail(error_kind::local, "'" + folder + "' is not a usable host name: " + wrong);
    std::vector<git_oid> ids;
    status st = changes_of(repo_, folder, &ids);
    if (st && ids.empty()) return fail(error_kind::local, "the backups in " + dir_ + " hold no host '" + folder + "'");
    return st;
}

status git_store::history(const std::string& folder, json* out, size_t max) {
    std::vector<git_oid> ids;
    status st = changes_of(repo_, folder, &ids, max);
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
                        {"time", (long long)git_commit_time(c)},
                        {"subject", summary ? summary : ""},
                        {"files", changed_files(diff, folder)}});
    }
    return kelp::ok();
}

status git_store::diff(const std::string& folder, const std::string& from, const std::string& to, std::string* patch,
                       json* files) {
    tree_ptr old_tree, new_tree;
    status st;
    if (from.empty()) {
        std::vector<git_oid> ids;
        if (!(st = require_folder(folder)) || !(st = changes_of(repo_, folder, &ids))) return st;
        git_oid id = ids[0];
        object_ptr named;
        if (!to.empty()) {
            if (git_revparse_single(named.out(), repo_, (to + "^{commit}").c_str()) != 0)
                return fail(error_kind::local, "no revision '" + to + "' in the backups");
            id = *git_object_id(named);
        }
        commit_ptr c;
        if (git_commit_lookup(c.out(), repo_, &id) != 0) return git_failure("reading a commit");
        if (!(st = tree_of(repo_, id, new_tree.out())) || !(st = parent_tree_of(c, old_tree.out()))) return st;
    } else {
        if (!(st = resolve_tree(repo_, from, old_tree.out())) ||
            !(st = resolve_tree(repo_, to.empty() ? "HEAD" : to, new_tree.out())))
            return st;
    }
    diff_ptr d;
    if (!(st = folder_diff(repo_, old_tree, new_tree, folder, d.out()))) return st;
    *files = changed_files(d, folder);
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

// The tree of folder at rev; none when rev has no such folder.
status git_store::folder_tree(const std::string& rev, const std::string& folder, git_tree** out) {
    tree_ptr root;
    status st = resolve_tree(repo_, rev.empty() ? "HEAD" : rev, root.out());
    if (!st) return st;
    git_tree_entry* sub = nullptr;
    *out = nullptr;
    if (git_tree_entry_bypath(&sub, root, folder.c_str()) != 0) return kelp::ok();
    owned<git_tree_entry, git_tree_entry_free> entry{sub};
    if (git_tree_entry_type(entry) != GIT_OBJECT_TREE || git_tree_lookup(out, repo_, git_tree_entry_id(entry)) != 0)
        return fail(error_kind::local, "no files of " + folder + " at " + (rev.empty() ? "HEAD" : rev));
    return kelp::ok();
}

status git_store::files_at(const std::string& rev, const std::string& folder, std::vector<file_size>* files) {
    tree_ptr tree;
    odb_ptr odb;
    files->clear();
    // A host not backed up yet has no files; a revision that is not there
    // is an error.
    git_oid head;
    if (rev.empty() && git_reference_name_to_id(&head, repo_, "HEAD") != 0) return kelp::ok();
    status st = folder_tree(rev, folder, tree.out());
    if (!st) return st;
    if (!tree) return kelp::ok();
    if (git_repository_odb(odb.out(), repo_) != 0) return git_failure("reading the objects");
    struct walk {
        git_odb* odb;
        std::vector<file_size>* files;
    } w{odb, files};
    // Sizes from the objects' headers: no file is read for its size.
    auto collect = [](const char* root_path, const git_tree_entry* e, void* payload) -> int {
        walk* w = (walk*)payload;
        if (git_tree_entry_type(e) != GIT_OBJECT_BLOB) return 0;
        size_t size = 0;
        git_object_t type;
        if (git_odb_read_header(&size, &type, w->odb, git_tree_entry_id(e)) != 0) return -1;
        w->files->push_back({std::string(root_path) + git_tree_entry_name(e), size});
        return 0;
    };
    if (git_tree_walk(tree, GIT_TREEWALK_PRE, collect, &w) != 0) return git_failure("listing files");
    return kelp::ok();
}

status git_store::read_files(
    const std::string& rev, const std::vector<std::string>& folders,
    const std::function<bool(const std::string&, const std::string&, std::string_view)>& visit) {
    tree_ptr root;
    status st = resolve_tree(repo_, rev.empty() ? "HEAD" : rev, root.out());
    if (!st) return st;
    for (const std::string& folder : folders) {
        const git_tree_entry* e = git_tree_entry_byname(root, folder.c_str());
        tree_ptr tree;
        if (!e || git_tree_entry_type(e) != GIT_OBJECT_TREE) continue;  // never backed up yet
        if (git_tree_lookup(tree.out(), repo_, git_tree_entry_id(e)) != 0) return git_failure("reading a tree");
        struct walk {
            git_repository* repo;
            const std::string& folder;
            const std::function<bool(const std::string&, const std::string&, std::string_view)>& visit;
            bool stopped = false;
        } w{repo_, folder, visit};
        auto each = [](const char* root_path, const git_tree_entry* e, void* payload) -> int {
            walk* w = (walk*)payload;
            owned<git_blob, git_blob_free> blob;
            if (git_tree_entry_type(e) != GIT_OBJECT_BLOB ||
                git_blob_lookup(blob.out(), w->repo, git_tree_entry_id(e)) != 0)
                return 0;
            std::string_view content((const char*)git_blob_rawcontent(blob), (size_t)git_blob_rawsize(blob));
            w->stopped = !w->visit(w->folder, std::string(root_path) + git_tree_entry_name(e), content);
            return w->stopped ? 1 : 0;
        };
        git_tree_walk(tree, GIT_TREEWALK_PRE, each, &w);
        if (w.stopped) break;
    }
    return kelp::ok();
}

status git_store::read_at(const std::string& rev, const std::string& path, std::string* content) {
    object_ptr obj;
    std::string object_name = (rev.empty() ? "HEAD" : rev) + ":" + path;
    if (git_revparse_single(obj.out(), repo_, object_name.c_str()) != 0 || git_object_type(obj) != GIT_OBJECT_BLOB)
        return fail(error_kind::local, "no file " + path + " at " + (rev.empty() ? "HEAD" : rev));
    const git_blob* blob = (const git_blob*)obj.p;
    content->assign((const char*)git_blob_rawcontent(blob), (size_t)git_blob_rawsize(blob));
    return kelp::ok();
}

status git_store::push(const std::string& remote_url, const std::string& remote_branch, const std::string& shown) {
    if (git_repository_head_unborn(repo_) == 1) return kelp::ok();  // nothing committed yet
    std::string path;
    struct stat st;
    if (local_path(remote_url, &path) && stat(path.c_str(), &st) != 0)
        return fail(error_kind::local,
                    "the push remote " + path + " does not exist: create it with git init --bare " + path);
    owned<git_reference, git_reference_free> head;
    if (git_repository_head(head.out(), repo_) != 0) return git_failure("finding the branch to push");
    std::string branch = git_reference_name(head);
    owned<git_remote, git_remote_free> remote;
    if (git_remote_create_anonymous(remote.out(), repo_, remote_url.c_str()) != 0)
        return git_failure("pushing to " + shown);
    std::string refspec = branch + ":" + (remote_branch.empty() ? branch : "refs/heads/" + remote_branch);
    char* mappings[] = {refspec.data()};
    git_strarray refspecs = {mappings, 1};
    git_push_options options;
    git_push_options_init(&options, GIT_PUSH_OPTIONS_VERSION);
    // A remote may take the pack and still refuse the branch (a hook, a
    // protected branch): libgit2 says so only through this callback.
    std::string refused;
    options.callbacks.payload = &refused;
    options.callbacks.push_update_reference = [](const char* ref, const char* why, void* payload) -> int {
        if (why) *(std::string*)payload = std::string(ref) + ": " + why;
        return 0;
    };
    if (git_remote_push(remote, &refspecs, &options) != 0) return git_failure("pushing to " + shown);
    if (!refused.empty()) return fail(error_kind::local, "the push remote " + shown + " refused " + refused);
    return kelp::ok();
}

namespace {

git_store::folder_change change_of(const git_commit* c, const git_oid& id) {
    const char* summary = git_commit_summary(const_cast<git_commit*>(c));
    return {short_id(&id), (double)git_commit_time(c), summary ? summary : ""};
}

bool id_starts(const git_oid& id, const std::string& prefix) {
    char hex[GIT_OID_HEXSZ + 1];
    git_oid_tostr(hex, sizeof hex, &id);
    return !prefix.empty() && std::string(hex).rfind(prefix, 0) == 0;
}

}  // namespace

status git_store::last_changes(const std::vector<std::string>& folders, std::map<std::string, folder_change>* out) {
    std::vector<std::string> left = folders;
    return walk_history(repo_,
                        [&](const git_oid& id, const git_commit* c, const git_tree* tree, const git_tree* parent) {
                            for (size_t i = 0; i < left.size();) {
                                if (!folder_changed(tree, parent, left[i])) {
                                    i++;
                                    continue;
                                }
                                if (!git_tree_entry_byname(tree, left[i].c_str())) {
                                    left.erase(left.begin() + i);  // removed last: nothing of it at HEAD
                                    continue;
                                }
                                (*out)[left[i]] = change_of(c, id);
                                left.erase(left.begin() + i);
                            }
                            return !left.empty();
                        });
}

status git_store::changes_after(const std::string& folder, const std::string& after, std::vector<folder_change>* out,
                                bool* found) {
    *found = after.empty();  // after nothing: the whole history
    out->clear();
    status st =
        walk_history(repo_, [&](const git_oid& id, const git_commit* c, const git_tree* tree, const git_tree* parent) {
            if (id_starts(id, after)) {
                *found = true;
                return false;
            }
            if (folder_changed(tree, parent, folder)) out->insert(out->begin(), change_of(c, id));
            return true;
        });
    if (!*found) out->clear();
    return st;
}

std::string git_store::head_commit() {
    git_oid id;
    return git_reference_name_to_id(&id, repo_, "HEAD") == 0 ? short_id(&id) : "";
}

status git_store::folders(std::vector<std::string>* out) {
    out->clear();
    tree_ptr head;
    if (git_revparse_single((git_object**)head.out(), repo_, "HEAD^{tree}") != 0) return kelp::ok();  // no commit yet
    for (size_t i = 0; i < git_tree_entrycount(head); i++) {
        const git_tree_entry* e = git_tree_entry_byindex(head, i);
        if (git_tree_entry_type(e) == GIT_OBJECT_TREE && host_name_problem(git_tree_entry_name(e)).empty())
            out->push_back(git_tree_entry_name(e));
    }
    return kelp::ok();
}

status git_store::changes_between(double since, double until, const std::string& only, size_t max, json* out) {
    *out = json::array();
    status failed;
    status st =
        walk_history(repo_, [&](const git_oid& id, const git_commit* c, const git_tree* tree, const git_tree* parent) {
            double t = (double)git_commit_time(c);
            if (t > until) return true;
            if (t < since) return false;  // time order: nothing older can be in range
            folder_change change = change_of(c, id);
            for (size_t i = 0; i < git_tree_entrycount(tree) && out->size() < max; i++) {
                const git_tree_entry* e = git_tree_entry_byindex(tree, i);
                std::string folder = git_tree_entry_name(e);
                if (git_tree_entry_type(e) != GIT_OBJECT_TREE || (!only.empty() && folder != only) ||
                    !folder_changed(tree, parent, folder))
                    continue;
                diff_ptr d;
                if (!(failed = folder_diff(repo_, parent, tree, folder, d.out()))) return false;
                out->push_back({{"host", folder},
                                {"rev", change.commit},
                                {"time", (long long)t},
                                {"message", change.subject},
                                {"files", changed_files(d, folder)}});
            }
            return out->size() < max;
        });
    return st ? failed : st;
}
