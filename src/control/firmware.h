// Action 241: firmware upload and the upgrade's progress relay.
#pragma once

#include <stdint.h>

bool firmware_fits(int32_t size);
int read_fifo_line(char* line, int fd);
int sleep_ms(unsigned ms);
void relay_upgrade(int fd);
int receive_firmware(int fd);
