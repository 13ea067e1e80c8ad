// The lines of /var/run/pppoe/info.ppp<unit> as read_ppp_info() handles
// them: fgets() pieces of a 1024-byte buffer, last character cut, then
// apply_ppp_line() on the 326-byte record.
#include <stdlib.h>
#include <string.h>

#include "protocol.h"
#include "reports/ppp_list.h"

static const size_t guard_len = 64;
static const uint8_t guard_byte = 0xA5;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint8_t area[guard_len + ppp_rec_len + guard_len];
    memset(area, guard_byte, sizeof area);
    uint8_t* record = area + guard_len;
    memset(record, 0, ppp_rec_len);
    // Exactly fgets()'s buffer, so that ASan sees any access beyond it.
    char* line = (char*)malloc(1024);
    size_t at = 0;
    while (at < size) {
        size_t n = 0;
        while (n < 1023 && at + n < size) {
            if (data[at + n++] == '\n') break;
        }
        memcpy(line, data + at, n);
        line[n] = '\0';
        at += n;
        size_t length = strlen(line);
        if (length > 0) line[length - 1] = '\0';
        apply_ppp_line(record, line);
        for (size_t i = 0; i < guard_len; i++)
            if (area[i] != guard_byte || area[guard_len + ppp_rec_len + i] != guard_byte) abort();
    }
    free(line);
    return 0;
}
