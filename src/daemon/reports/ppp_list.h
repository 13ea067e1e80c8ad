#pragma once

#include <stdint.h>

// Fills the 326-byte record from "/var/run/pppoe/info.ppp<unit>"; 1 if the
// file could be opened.
// One "KEY=value" line (its newline already removed) into the record.
void apply_ppp_line(uint8_t* record, char* line);
int read_ppp_info(uint8_t* record, int unit);
void send_ppp_list(int fd);
