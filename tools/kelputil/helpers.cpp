#include <errno.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include "helpers.h"
#include "outcome.h"

#ifndef KELP_STORE_HELPER_DIR
#define KELP_STORE_HELPER_DIR "../libexec/kelputil"
#endif

namespace {

std::string own_folder() {
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return "";
    path[n] = '\0';
    std::string p = path;
    return p.substr(0, p.rfind('/'));
}

// Beside kelputil in a build tree; where the package puts it, relative to
// kelputil's folder, once installed.
std::string helper_path(const std::string& helper_name) {
    std::string folder = own_folder();
    for (std::string candidate : {folder + "/" + helper_name, folder + "/" KELP_STORE_HELPER_DIR "/" + helper_name})
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
    return folder + "/" KELP_STORE_HELPER_DIR "/" + helper_name;
}

}  // namespace

outcome run_helper(const char* helper, const std::string& command, char** argv) {
    std::string path = helper_path(helper);
    execv(path.c_str(), argv);
    int err = errno;
    return local_failure(command + " needs " + helper + ", which cannot run (" + path + ": " + strerror(err) +
                         "): reinstall kelputil");
}
