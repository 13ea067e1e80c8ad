// Decoders for the session list records (actions 18 and 19).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "protocol.h"

namespace kelp {

struct ppp_session {
    std::string name, type, ppp, remote;
    int32_t cbq_rule = 0;
};

struct hotspot_session {
    std::string user, ip, mac;
    uint64_t counter1 = 0, counter2 = 0;
    uint32_t value1 = 0, value2 = 0;
};

// Byte 1 set: the end record, which carries no session.
inline bool is_end_record(const uint8_t* rec) { return rec[record_end_flag_offset] == 1; }

// A fixed-width text field: the bytes up to the first NUL, or all of them.
std::string field_text(const uint8_t* p, size_t width);

ppp_session decode_ppp(const uint8_t rec[ppp_rec_len]);
hotspot_session decode_hotspot(const uint8_t rec[hotspot_rec_len]);

}  // namespace kelp
