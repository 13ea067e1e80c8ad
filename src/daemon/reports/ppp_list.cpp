#include "reports/ppp_list.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/connection.h"
#include "protocol.h"
#include "reports/text_field.h"

// atoi as the router's 32-bit C library does it: out-of-range values
// saturate, whatever the word size of the host.
static int32_t decimal_to_int32(const char* text) {
    long long v = strtoll(text, nullptr, 10);
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return (int32_t)v;
}

void apply_ppp_line(uint8_t* record, char* line) {
    char* equals = strchr(line, '=');
    if (!equals) return;
    *equals = '\0';
    const char* value = equals + 1;
    if (strcmp(line, "PPP") == 0)
        copy_text_field(record + ppp_ppp_offset, ppp_ppp_len, value);
    else if (strcmp(line, "TYPE") == 0)
        copy_text_field(record + ppp_type_offset, ppp_type_len, value);
    else if (strcmp(line, "REMOTE") == 0)
        copy_text_field(record + ppp_remote_offset, ppp_remote_len, value);
    else if (strcmp(line, "NAME") == 0)
        copy_text_field(record + ppp_name_offset, ppp_name_len, value);
    else if (strcmp(line, "CBQRULE") == 0)
        put_be32(record + ppp_cbqrule_offset, (uint32_t)decimal_to_int32(value));
}

int read_ppp_info(uint8_t* record, int unit) {
    memset(record, 0, ppp_rec_len);
    char path[64];
    snprintf(path, sizeof path, "/var/run/pppoe/info.ppp%d", unit);
    FILE* f = fopen(path, "r");
    if (!f) return 0;
    char line[1024];
    while (fgets(line, sizeof line, f)) {
        size_t n = strlen(line);
        // The last character is taken to be the newline, whatever it is.
        if (n > 0) line[n - 1] = '\0';
        apply_ppp_line(record, line);
    }
    // Deliberately left open: the process ends right after the list.
    return 1;
}

void send_ppp_list(int fd) {
    uint8_t record[ppp_rec_len];
    for (int unit = 0;; unit++) {
        if (read_ppp_info(record, unit)) {
            if (send_all(fd, record, (int)ppp_rec_len) != (int)ppp_rec_len) return;
        } else if (unit >= 257) {
            record[record_end_flag_offset] = 1;
            send_all(fd, record, (int)ppp_rec_len);
            return;
        }
    }
}
