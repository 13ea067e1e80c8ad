// How the service reaches a host: the inventory's settings over the
// command line's, and a password from the host's own source, the
// --password-file, or systemd's credentials. There is nobody to prompt: a
// host without a password fails with what to set.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "actions.h"
#include "inventory.h"
#include "options.h"
#include "password.h"
#include "reporter.h"

class serve_targets {
public:
    explicit serve_targets(const serve_options& o) : o_(o) {}
    // notes must outlive the target.
    kelp::status target_for(const inventory_host& host, reporter& notes, kelp::target* out);
    // Passwords are read again at their next use (SIGHUP: a changed file).
    void forget_passwords() {
        std::lock_guard<std::mutex> hold(lock_);
        providers_.clear();
    }

private:
    kelp::status provider_for(const password_source& src, kelp::password_fn* out);
    const serve_options& o_;
    std::mutex lock_;
    std::map<std::string, kelp::password_fn> providers_;
};

// The credential systemd hands over (LoadCredential=password:...), when
// the service has one.
std::string credential_password_file();
