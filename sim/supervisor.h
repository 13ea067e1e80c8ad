// Keeps a daemon running as a router's init would: a new process after
// every exit; one that never exits (a reboot request) is left alone.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace router {

// Forks a supervisor process; returns its pid. Its daemons' output goes to
// log_path.
pid_t supervise(const std::string& binary, const std::string& argv0, const std::string& log_path,
                const std::vector<std::string>& emulator = {});

}  // namespace router
