// One host's files as a backup keeps them, fetched into a fresh folder:
//   config.dat      the bundle as the device sent it
//   config.plain    the configuration inside it
//   config/...      its members, when it is an archive
//   scripts/...     the four scripts (when asked for)
// Shared by fleet backup and the service, so that both keep the same tree.
#pragma once

#include <string>

#include "actions.h"

struct host_snapshot {
    size_t config_bytes = 0;
    // The failure was in writing the folder, not in the host: the other
    // hosts would fail alike.
    bool disk_failure = false;
};

kelp::status take_snapshot(const kelp::target& t, const std::string& folder, bool scripts, host_snapshot* out);

// "cannot WHAT PATH: the reason", from errno.
kelp::status system_error(const std::string& what, const std::string& path);
