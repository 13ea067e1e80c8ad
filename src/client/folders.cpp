#include "folders.h"

#include <errno.h>
#include <sys/stat.h>

namespace kelp {

std::string folder_of(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

status make_parent_folders(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        std::string folder = path.substr(0, slash);
        if (mkdir(folder.c_str(), 0700) == 0) continue;
        int err = errno;
        struct stat st;
        if (stat(folder.c_str(), &st) == 0) {
            if (S_ISDIR(st.st_mode)) continue;
            err = ENOTDIR;
        }
        return cannot("create the folder", folder, err);
    }
    return ok();
}

}  // namespace kelp
