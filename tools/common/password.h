// Where the admin password comes from, never the command line: the
// environment (KELPUTIL_PASSWORD, or another variable a fleet host names),
// a file readable by its owner only, or a prompt on the terminal.
#pragma once

#include <string>

#include "actions.h"

struct password_source {
    std::string env = "KELPUTIL_PASSWORD";  // the variable to read
    std::string file;                       // wins over the variable
};

// Checks the source before any connection: a missing or empty password, or
// a password file that others may read, is a local error. The prompt, when
// no other source is there and a terminal is, is left for later.
kelp::status check_password_source(const password_source& src);

// The password provider for a target: reads the source, or prompts on the
// terminal when first called (a single device: once it has greeted; a
// fleet: before its first connection); the answer is kept for later calls,
// shared by every thread that holds the same provider.
kelp::password_fn password_provider(const password_source& src);

// The first line of a file that holds a secret (a password, the service's
// token), refused when others may read the file, as ssh refuses such a key.
kelp::status read_secret_line(const std::string& path, const std::string& what, std::string* out);
