#include "reports/hotspot_list.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "core/connection.h"
#include "protocol.h"
#include "reports/text_field.h"

// scanf's "%u"/"%Lu" as the router's 32-bit C library reads them: blanks,
// an optional sign, decimal digits; saturating at the field's maximum and
// negated modulo 2^bits. False when there is no digit: the field is kept.
static bool scan_unsigned(const char* text, int bits, uint64_t* out) {
    const uint64_t max = bits == 64 ? UINT64_MAX : (UINT64_MAX >> (64 - bits));
    while (isspace((unsigned char)*text)) text++;
    bool negative = *text == '-';
    if (*text == '-' || *text == '+') text++;
    if (!isdigit((unsigned char)*text)) return false;
    uint64_t value = 0;
    bool saturated = false;
    for (; isdigit((unsigned char)*text); text++) {
        unsigned digit = (unsigned)(*text - '0');
        if (value > (max - digit) / 10) saturated = true;
        if (!saturated) value = value * 10 + digit;
    }
    if (saturated)
        value = max;
    else if (negative)
        value = (0 - value) & max;
    *out = value;
    return true;
}

static void reverse_bytes(uint8_t* field, int size) {
    for (int i = 0, j = size - 1; i < j; i++, j--) {
        uint8_t t = field[i];
        field[i] = field[j];
        field[j] = t;
    }
}

// A converted number goes out least significant byte first whatever the
// host's byte order. A field that does not convert keeps the buffer's bytes
// and is byte-reversed all the same, as the router always did.
static void scan_field(uint8_t* field, int bits, const char* text) {
    uint64_t value;
    if (!scan_unsigned(text, bits, &value))
        reverse_bytes(field, bits / 8);
    else if (bits == 64)
        put_le64(field, value);
    else
        put_le32(field, (uint32_t)value);
}

static char* cut_at_separator(char* text) {
    char* bar = strchr(text, '|');
    if (bar) *bar = '\0';
    return bar;
}

int parse_hotspot_line(char* line, uint8_t* record) {
    record[0] = 0;
    record[1] = 0;
    char* field = line;
    char* bar = cut_at_separator(field);
    if (!bar) return 1;
    copy_text_field(record + hotspot_user_offset, hotspot_user_len, field);
    record[257] = 0;

    field = bar + 1;
    if (!(bar = cut_at_separator(field))) return 1;
    copy_text_field(record + hotspot_ip_offset, hotspot_ip_len, field);
    record[17] = 0;

    field = bar + 1;
    if (!(bar = cut_at_separator(field))) return 1;
    copy_text_field(record + hotspot_mac_offset, hotspot_mac_len, field);
    record[19] = 0;

    static const size_t number_offsets[] = {hotspot_counter1_offset, hotspot_counter2_offset, hotspot_value1_offset};
    static const int number_bits[] = {64, 64, 32};
    for (int i = 0; i < 3; i++) {
        field = bar + 1;
        if (!(bar = cut_at_separator(field))) return 1;
        scan_field(record + number_offsets[i], number_bits[i], field);
    }
    scan_field(record + hotspot_value2_offset, 32, bar + 1);
    return 0;
}

void send_hotspot_list(int fd) {
    uint8_t record[hotspot_rec_len];
    memset(record, 0, sizeof record);
    FILE* pipe = popen("do-hotshow simple", "r");
    if (pipe) {
        char line[512];
        while (fgets(line, sizeof line, pipe)) {
            size_t n = strlen(line);
            if (n > 0 && line[n - 1] == '\n') line[n - 1] = '\0';
            if (parse_hotspot_line(line, record) != 0) continue;
            if (send_all(fd, record, (int)hotspot_rec_len) != (int)hotspot_rec_len) {
                pclose(pipe);
                return;
            }
        }
        pclose(pipe);
    }
    memset(record, 0, sizeof record);
    record[record_end_flag_offset] = 1;
    send_all(fd, record, (int)hotspot_rec_len);
}
