#include "records.h"

#include <string.h>

namespace kelp {

std::string field_text(const uint8_t* p, size_t width) {
    const uint8_t* end = (const uint8_t*)memchr(p, 0, width);
    return std::string((const char*)p, end ? (size_t)(end - p) : width);
}

ppp_session decode_ppp(const uint8_t rec[ppp_rec_len]) {
    ppp_session s;
    s.name = field_text(rec + ppp_name_offset, ppp_name_len);
    s.type = field_text(rec + ppp_type_offset, ppp_type_len);
    s.ppp = field_text(rec + ppp_ppp_offset, ppp_ppp_len);
    s.remote = field_text(rec + ppp_remote_offset, ppp_remote_len);
    s.cbq_rule = (int32_t)get_be32(rec + ppp_cbqrule_offset);
    return s;
}

hotspot_session decode_hotspot(const uint8_t rec[hotspot_rec_len]) {
    hotspot_session h;
    h.user = field_text(rec + hotspot_user_offset, hotspot_user_len);
    h.ip = field_text(rec + hotspot_ip_offset, hotspot_ip_len);
    h.mac = field_text(rec + hotspot_mac_offset, hotspot_mac_len);
    h.counter1 = get_le64(rec + hotspot_counter1_offset);
    h.counter2 = get_le64(rec + hotspot_counter2_offset);
    h.value1 = get_le32(rec + hotspot_value1_offset);
    h.value2 = get_le32(rec + hotspot_value2_offset);
    return h;
}

}  // namespace kelp
