#include "archive_members.h"

#include <archive.h>
#include <archive_entry.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>

#include "durations.h"
#include "files.h"

using kelp::error_kind;
using kelp::fail;
using kelp::status;

namespace {

// A configuration archive far beyond this is a device gone wrong.
constexpr size_t max_total = 64u << 20;
constexpr int max_members = 10000;

// "./config/fw.scr" -> "config/fw.scr"; empty for a name that climbs out or
// starts at the root.
std::string safe_path(const char* name) {
    std::string path = name ? name : "";
    while (path.rfind("./", 0) == 0) path.erase(0, 2);
    if (path.empty() || path[0] == '/') return "";
    for (size_t start = 0; start <= path.size();) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        std::string part = path.substr(start, end - start);
        if (part == ".." || (part.empty() && end != path.size())) return "";
        start = end + 1;
    }
    return path;
}

using archive_ptr = std::unique_ptr<archive, int (*)(archive*)>;

archive_ptr open_archive(const kelp::bytes& data) {
    archive_ptr a(archive_read_new(), archive_read_free);
    archive_read_support_filter_all(a.get());
    archive_read_support_format_tar(a.get());
    archive_read_support_format_cpio(a.get());
    archive_read_support_format_zip(a.get());
    if (archive_read_open_memory(a.get(), data.data(), data.size()) != ARCHIVE_OK) a.reset();
    return a;
}

status damaged(archive* a, const char* what) {
    const char* why = archive_error_string(a);
    return fail(error_kind::protocol, std::string("the configuration archive is damaged: ") + (why ? why : what));
}

// Calls each(path, entry) for every regular member with a safe path, in
// order; a header that does not read is the end when nothing was read yet
// (not an archive), damage after.
status for_each_file(archive* a, bool* is_archive,
                     const std::function<status(const std::string&, archive_entry*)>& each) {
    archive_entry* entry;
    size_t total = 0;
    for (int members = 0;; members++) {
        int r = archive_read_next_header(a, &entry);
        if (r == ARCHIVE_EOF) return kelp::ok();
        if (r != ARCHIVE_OK && r != ARCHIVE_WARN) return *is_archive ? damaged(a, "unreadable header") : kelp::ok();
        *is_archive = true;
        if (members >= max_members) return fail(error_kind::protocol, "the configuration archive has too many members");
        std::string path = safe_path(archive_entry_pathname(entry));
        if (path.empty() || archive_entry_filetype(entry) != AE_IFREG) continue;
        la_int64_t size = archive_entry_size(entry);
        if (size < 0 || total + (size_t)size > max_total)
            return fail(error_kind::protocol, "the configuration archive unpacks to more than " + size_text(max_total));
        total += (size_t)size;
        status st = each(path, entry);
        if (!st) return st;
    }
}

// "config/" when every file lies in the folder config, else "".
std::string common_top(const std::vector<std::string>& paths) {
    if (paths.empty()) return "";
    std::string top = paths[0].substr(0, paths[0].find('/') + 1);
    for (const std::string& p : paths)
        if (top.size() < 2 || p.rfind(top, 0) != 0 || p.size() == top.size()) return "";
    return top;
}

status write_member(archive* a, archive_entry* entry, const std::string& name, const std::string& target) {
    kelp::bytes content((size_t)archive_entry_size(entry));
    if (!content.empty() && archive_read_data(a, content.data(), content.size()) != (la_ssize_t)content.size())
        return damaged(a, "short member");
    unlink(target.c_str());  // a member may come twice: the last one wins, as tar has it
    status st = kelp::make_parent_folders(target);
    if (st) st = write_new_file(target, content, 0600);
    if (st || is_disk_error(st.code)) return st;
    return fail(error_kind::protocol, "the configuration archive's member " + name + " cannot be kept as a file: " +
                                          strerror(st.code) + " (a name both a file and a folder, or too long?)");
}

}  // namespace

bool is_disk_error(int err) { return err == ENOSPC || err == EDQUOT || err == EROFS || err == EIO; }

status extract_members(const kelp::bytes& data, const std::string& dir, bool* is_archive) {
    *is_archive = false;
    // A first pass for the names, so that the top folder is known before
    // anything is written.
    std::vector<std::string> paths;
    archive_ptr names = open_archive(data);
    if (!names) return kelp::ok();
    status st = for_each_file(names.get(), is_archive, [&](const std::string& path, archive_entry*) {
        paths.push_back(path);
        return kelp::ok();
    });
    if (!st || !*is_archive) return st;
    std::string top = common_top(paths);
    archive_ptr files = open_archive(data);
    bool again = false;
    return for_each_file(files.get(), &again, [&](const std::string& path, archive_entry* entry) {
        return write_member(files.get(), entry, path, dir + "/" + path.substr(top.size()));
    });
}
