// A plain configuration that is an archive (the router's helpers make a tar
// of /etc/config) unpacked into files, so that a diff shows changed lines.
#pragma once

#include <string>

#include "status.h"

// Writes the regular files of the archive under dir (created). Members that
// would land outside dir, links and devices are skipped; sizes are bounded.
// *is_archive is false, and nothing is written, when the bytes are not an
// archive libarchive reads.
kelp::status extract_members(const kelp::bytes& data, const std::string& dir, bool* is_archive);
