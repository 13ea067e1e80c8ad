// "do-hotshow simple" lines as send_hotspot_list() reads them: fgets()
// pieces of a 512-byte buffer, newline cut, parsed into one 316-byte record
// that is reused from line to line.
#include <stdlib.h>
#include <string.h>

#include "protocol.h"
#include "reports/hotspot_list.h"

static const size_t guard_len = 64;
static const uint8_t guard_byte = 0x5A;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint8_t area[guard_len + hotspot_rec_len + guard_len];
    memset(area, guard_byte, sizeof area);
    uint8_t* record = area + guard_len;
    memset(record, 0, hotspot_rec_len);
    size_t at = 0;
    while (at < size) {
        size_t n = 0;
        while (n < 511 && at + n < size) {
            if (data[at + n++] == '\n') break;
        }
        // Just the piece and its NUL, so that ASan sees any read past it.
        char* line = (char*)malloc(n + 1);
        memcpy(line, data + at, n);
        line[n] = '\0';
        at += n;
        size_t length = strlen(line);
        if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';
        int r = parse_hotspot_line(line, record);
        free(line);
        if (r != 0 && r != 1) abort();
        for (size_t i = 0; i < guard_len; i++)
            if (area[i] != guard_byte || area[guard_len + hotspot_rec_len + i] != guard_byte) abort();
    }
    return 0;
}
