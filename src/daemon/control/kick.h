// Actions 48, 53, 54. These handlers return 0 on success, 1 on failure.
#pragma once

#include <stdint.h>

int kick_ppp_user(int fd);
int kick_hotspot_user(int fd);
int kick_hotspot_ip(int fd);
