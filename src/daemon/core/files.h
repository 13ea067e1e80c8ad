#pragma once

#include <stdint.h>

// Size of the file at path; 0 when it cannot be opened (missing and empty
// look alike).
uint32_t file_size(const char* path);
bool path_exists(const char* path);
// True while the "/tmp/busy" marker exists.
bool system_busy();
