// The configuration bundle, offline: so that an operator can inspect and
// compare backups without a device.
#pragma once

#include "status.h"

namespace kelp {

// 48-byte header (title, MD5 of the plain body, format word, total size) + the
// body enciphered with RC4 under the fixed bundle key.
bytes pack_bundle(const bytes& plain);
// The plain configuration, or an error (kind local) naming the failing check:
// format word, size or digest.
status unpack_bundle(const bytes& bundle, bytes* plain);
// What the device checks before and after an upload, checked here first: its
// size limits (1024 to 524288 bytes), then format, size field and digest.
status check_bundle_for_device(const bytes& bundle);

}  // namespace kelp
