// The commands that keep backups in git. Only they need libgit2 and
// libarchive, which with their own dependencies cost every other command
// several times its start-up: they live in a helper program, kelputil-store,
// which kelputil runs in its own place (as git runs its remote helpers).
#pragma once

#include "invocation.h"

inline bool is_store_command(const invocation& inv) {
    std::string cmd = inv.device_command();
    return inv.is_fleet() && (cmd == "backup" || cmd == "history" || cmd == "diff");
}

// Replaces the process with the helper, given the same arguments, and
// returns only when it cannot.
outcome run_store_command(const invocation& inv, char** argv);

// kelputil serve runs the same way in its helper, kelputil-serve, which
// alone loads SQLite and the HTTP server.
outcome run_serve_command(const invocation& inv, char** argv);
