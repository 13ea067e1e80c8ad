#include "records.h"

#include "core/protocol.h"

namespace kelp {

static std::string text_field(const uint8_t* p, size_t width) {
    size_t n = 0;
    while (n < width && p[n] != 0) n++;
    return std::string((const char*)p, n);
}

bool is_end_record(const uint8_t* record) { return record[record_end_flag_offset] == 1; }

ppp_session decode_ppp(const uint8_t* r) {
    ppp_session s;
    s.name = text_field(r + ppp_name_offset, ppp_name_len);
    s.type = text_field(r + ppp_type_offset, ppp_type_len);
    s.ppp = text_field(r + ppp_ppp_offset, ppp_ppp_len);
    s.remote = text_field(r + ppp_remote_offset, ppp_remote_len);
    s.cbq_rule = (int32_t)get_be32(r + ppp_cbqrule_offset);
    return s;
}

hotspot_session decode_hotspot(const uint8_t* r) {
    hotspot_session s;
    s.user = text_field(r + hotspot_user_offset, hotspot_user_len);
    s.ip = text_field(r + hotspot_ip_offset, hotspot_ip_len);
    s.mac = text_field(r + hotspot_mac_offset, hotspot_mac_len);
    s.counter1 = get_le64(r + hotspot_counter1_offset);
    s.counter2 = get_le64(r + hotspot_counter2_offset);
    s.value1 = get_le32(r + hotspot_value1_offset);
    s.value2 = get_le32(r + hotspot_value2_offset);
    return s;
}

}  // namespace kelp
