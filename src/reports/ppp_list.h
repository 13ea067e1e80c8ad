#pragma once

#include <stdint.h>

// Fills the 326-byte record from "/var/run/pppoe/info.ppp<unit>"; 1 if the
// file could be opened.
int read_ppp_info(uint8_t* record, int unit);
void send_ppp_list(int fd);
