#pragma once

#include <stdint.h>

// Parses one "do-hotshow simple" line (cut in place) into the 316-byte
// record; 0 when all six separators were there, else 1.
int parse_hotspot_line(char* line, uint8_t* record);
void send_hotspot_list(int fd);
