#include "targets.h"

#include <stdlib.h>
#include <unistd.h>

#include "connection.h"

std::string credential_password_file() {
    const char* dir = getenv("CREDENTIALS_DIRECTORY");
    if (!dir || !*dir) return "";
    std::string path = std::string(dir) + "/password";
    return access(path.c_str(), R_OK) == 0 ? path : "";
}

kelp::status serve_targets::provider_for(const password_source& src, kelp::password_fn* out) {
    if (src.file.empty() && !getenv(src.env.c_str()))
        return kelp::fail(
            kelp::error_kind::local,
            "no password: set " + src.env + ", give --password-file FILE, or a systemd credential 'password'");
    std::string key = src.file.empty() ? "env:" + src.env : "file:" + src.file;
    std::lock_guard<std::mutex> hold(lock_);
    kelp::password_fn& p = providers_[key];
    if (!p) {
        kelp::status st = check_password_source(src);
        if (!st) {
            providers_.erase(key);  // the operator may fix it: look again next time
            return st;
        }
        p = password_provider(src);
    }
    *out = p;
    return kelp::ok();
}

kelp::status serve_targets::target_for(const inventory_host& host, reporter& notes, kelp::target* out) {
    host_settings hs = settings_of(host);
    password_source src = password_source_for(o_.conn, hs);
    if (src.file.empty() && hs.password_env.empty() && !getenv(src.env.c_str())) src.file = credential_password_file();
    kelp::password_fn provider;
    kelp::status st = provider_for(src, &provider);
    if (!st) return st;
    *out = make_target(o_.conn, hs, provider, notes, o_.out.verbose > 0, true);
    return kelp::ok();
}
