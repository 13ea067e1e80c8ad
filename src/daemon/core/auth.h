#pragma once

#include <stdint.h>

// 1 accepted, 0 refused, -1 protocol error.
int authenticate(int fd);
void read_random8(uint8_t out[8]);
int check_password(const char* user, const char* password);
