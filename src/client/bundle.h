// The configuration bundle, offline: so that an operator can inspect and
// compare backups without a device.
#pragma once

#include <string>

#include "session.h"

namespace kelp {

bytes pack_bundle(const bytes& plain);
// The plain configuration, or an error naming the check that failed.
status unpack_bundle(const bytes& bundle, bytes* plain);

}  // namespace kelp
