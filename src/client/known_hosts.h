// Devices' certificates as seen before, the way ssh keeps host keys: one line
// "host:port sha256" per device. The first contact records the certificate;
// a different one later is refused until the operator removes the line.
#pragma once

#include <string>

#include "status.h"

namespace kelp {

// $XDG_CONFIG_HOME/kelputil/known_hosts, else ~/.config/kelputil/known_hosts;
// empty when neither variable is set.
std::string default_known_hosts_file();

// Checks where's certificate against file, under a lock so that parallel runs
// agree. Unknown: recorded, *first_contact set. Known and equal: ok. Known and
// different: a certificate error naming both fingerprints and the line.
status check_known_host(const std::string& file, const std::string& where, const std::string& sha256,
                        bool* first_contact);

}  // namespace kelp
