// Action 241: firmware upload and the upgrade's progress relay.
#pragma once

#include <stdint.h>

bool firmware_fits(int32_t size);
int receive_firmware(int fd);
