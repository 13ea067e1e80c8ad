#pragma once

// Runs a router helper through the shell; its exit status is not examined
// (the kick actions, which do look at it, use run_command).
void run_helper(const char* command);
