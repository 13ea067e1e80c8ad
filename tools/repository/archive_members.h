// A plain configuration that is an archive (the router's helpers make a tar
// of /etc/config) unpacked into files, so that a diff shows changed lines.
#pragma once

#include <string>

#include "status.h"

// Writes the regular files of the archive under dir (created), without the
// archive's top folder when every file lies in it ("config/fw.scr" ->
// dir/fw.scr). Members that would land outside dir, links and devices are
// skipped; sizes are bounded. *is_archive is false, and nothing is written,
// when the bytes are not an archive libarchive reads. A member that cannot
// be a file here (a name both a file and a folder, or too long) fails as the
// device's data (protocol), naming it; a failure of the disk itself stays
// local, with its errno in code.
kelp::status extract_members(const kelp::bytes& data, const std::string& dir, bool* is_archive);

// Whether errno says the disk cannot take anything (full, over quota,
// read-only, failing): every host would fail alike.
bool is_disk_error(int err);
