#pragma once

#include <stdint.h>

// Runs a router helper through the shell; its exit status is not examined.
void run_helper(const char* command);
// Runs a command through the shell and returns its wait status as the kick
// actions read it: unchanged from -255 to 256, else divided by 256, so only
// an exit status of 0 compares equal to 0.
int32_t run_command(const char* command);
