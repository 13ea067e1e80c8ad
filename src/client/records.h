// Decoders for the session list records. Text fields are bounded by their
// width: a full field carries no terminator.
#pragma once

#include <stdint.h>

#include <string>

namespace kelp {

struct ppp_session {
    std::string name, type, ppp, remote;
    int32_t cbq_rule = 0;  // big-endian on the wire
};

struct hotspot_session {
    std::string user, ip, mac;
    uint64_t counter1 = 0, counter2 = 0;  // little-endian on the wire
    uint32_t value1 = 0, value2 = 0;
};

bool is_end_record(const uint8_t* record);
ppp_session decode_ppp(const uint8_t* record);          // 326 bytes
hotspot_session decode_hotspot(const uint8_t* record);  // 316 bytes

}  // namespace kelp
