#include "archive_members.h"

#include <archive.h>
#include <archive_entry.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

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

}  // namespace

status extract_members(const kelp::bytes& data, const std::string& dir, bool* is_archive) {
    *is_archive = false;
    std::unique_ptr<archive, int (*)(archive*)> a(archive_read_new(), archive_read_free);
    archive_read_support_filter_all(a.get());
    archive_read_support_format_tar(a.get());
    archive_read_support_format_cpio(a.get());
    archive_read_support_format_zip(a.get());
    if (archive_read_open_memory(a.get(), data.data(), data.size()) != ARCHIVE_OK) return kelp::ok();
    archive_entry* entry;
    size_t total = 0;
    int members = 0;
    for (;;) {
        int r = archive_read_next_header(a.get(), &entry);
        if (r == ARCHIVE_EOF) break;
        if (r != ARCHIVE_OK && r != ARCHIVE_WARN) {
            if (!*is_archive) return kelp::ok();  // not an archive at all
            return fail(error_kind::protocol, std::string("the configuration archive is damaged: ") +
                                                  archive_error_string(a.get()));
        }
        *is_archive = true;
        if (++members > max_members) return fail(error_kind::protocol, "the configuration archive has too many members");
        std::string path = safe_path(archive_entry_pathname(entry));
        if (path.empty() || archive_entry_filetype(entry) != AE_IFREG) continue;
        kelp::bytes content;
        la_int64_t size = archive_entry_size(entry);
        if (size < 0 || total + (size_t)size > max_total)
            return fail(error_kind::protocol, "the configuration archive unpacks to more than 64 MiB");
        content.resize((size_t)size);
        if (size > 0 && archive_read_data(a.get(), content.data(), content.size()) != (la_ssize_t)size)
            return fail(error_kind::protocol, std::string("the configuration archive is damaged: ") +
                                                  (archive_error_string(a.get()) ? archive_error_string(a.get()) : "short member"));
        total += content.size();
        std::string target = dir + "/" + path;
        unlink(target.c_str());  // a member may come twice: the last one wins, as tar has it
        status st = make_parent_folders(target);
        if (st) st = write_new_file(target, content, 0600);
        if (!st) return st;
    }
    return kelp::ok();
}
