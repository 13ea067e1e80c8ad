// One host's files as a backup keeps them, fetched into a fresh folder:
//   config.dat      the bundle as the device sent it (what a restore needs)
//   config/...      the configuration's members when it is an archive,
//                   without its top folder when every member lies in it
//   config.plain    the configuration, only when it is not an archive
//   scripts/...     the four scripts (when asked for)
// Shared by fleet backup and the service, so that both keep the same tree.
#pragma once

#include <string>
#include <vector>

#include "actions.h"

struct host_snapshot {
    size_t config_bytes = 0;
    // The failure was the disk's (full, read-only, failing), not the
    // host's: the other hosts would fail alike.
    bool disk_failure = false;
};

// What a snapshot without scripts leaves out, for the commit to keep.
std::vector<std::string> kept_from_last(bool scripts);

kelp::status take_snapshot(const kelp::target& t, const std::string& folder, bool scripts, host_snapshot* out);
