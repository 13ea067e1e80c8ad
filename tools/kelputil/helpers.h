// The commands that need libraries the others should not load at start
// (libgit2 and libarchive for the backups in git; SQLite and the HTTP
// server for the service) run in helper programs, which kelputil runs in its
// own place (as git runs its remote helpers): the command table names them.
#pragma once

#include "outcome.h"

// Replaces the process with the helper, given the same arguments, and
// returns only when it cannot. command: as typed, for the message.
outcome run_helper(const char* helper, const std::string& command, char** argv);
