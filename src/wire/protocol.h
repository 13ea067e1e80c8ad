// Wire layouts of the management protocol, shared by the daemon and the client.
// Every multi-byte field is encoded byte by byte: the router is big-endian and
// the protocol mixes little-endian and big-endian fields, so no struct is ever
// cast onto a buffer.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Ports and the greeting.
constexpr int plain_port = 856;
constexpr int tls_port = 857;
constexpr char greeting_text[] = "kelp-v3 utility server\n";  // 23 bytes + NUL
constexpr size_t greeting_text_len = 23;
constexpr size_t greeting_len = 35;
constexpr size_t greeting_marker_offset = 24;  // always 0xFF
constexpr size_t challenge_offset = 25;
constexpr size_t challenge_len = 8;
constexpr size_t greeting_tag_offset = 33;
constexpr uint16_t protocol_tag = 0x0102;  // little-endian on the wire: 02 01

// Auth reply (client to daemon) and answer.
constexpr size_t auth_reply_len = 34;
constexpr size_t auth_password_offset = 2;
constexpr size_t auth_password_len = 32;
constexpr size_t auth_answer_len = 3;

// act_pkt: the 42-byte action request.
constexpr size_t act_pkt_len = 42;
constexpr size_t act_req_offset = 0;  // 2 bytes, printed big-endian
constexpr size_t act_mode_offset = 2;
constexpr size_t act_action_offset = 3;
constexpr size_t act_script_offset = 4;
constexpr size_t act_flags_offset = 5;
constexpr size_t act_reserved_offset = 6;  // 32 bytes, never read
constexpr size_t act_size_offset = 38;     // 4 bytes little-endian

constexpr uint8_t flag_apply = 0x01;
constexpr uint8_t flag_reboot = 0x02;

// Result and size packets: 03 01 code 00 00 00 00 / 03 01 01 size(le32).
constexpr size_t reply_packet_len = 7;

enum result_code : uint8_t {
    code_failed = 0,
    code_ok = 1,
    code_too_large = 2,
    code_too_small = 3,
    code_not_supported = 4,
    code_no_hdd = 5,
    code_no_such_user = 6,
};

// Action numbers.
enum action_number : uint8_t {
    action_nothing = 0,
    action_send_config = 1,
    action_send_script = 2,
    action_receive_config = 3,
    action_receive_script = 4,
    action_ppp_list = 18,
    action_hotspot_list = 19,
    action_throughput_rx = 32,
    action_throughput_tx = 33,
    action_kick_ppp_user = 48,
    action_kick_hotspot_user = 53,
    action_kick_hotspot_ip = 54,
    action_sysinfo = 64,
    action_kernlog = 65,
    action_core_sysinfo = 96,
    action_firmware = 241,
};

// Transfer frame: le16 length + 1460 payload bytes, always 1462 on the wire.
constexpr size_t frame_len = 1462;
constexpr size_t frame_payload_len = 1460;

// Configuration bundle header.
constexpr size_t bundle_header_len = 48;
constexpr size_t bundle_title_offset = 0;
constexpr char bundle_title[] = "kelp-v3 configuration";  // 21 chars
constexpr size_t bundle_digest_offset = 24;
constexpr size_t bundle_digest_len = 16;
constexpr size_t bundle_format_offset = 40;
constexpr uint8_t bundle_format[4] = {0x01, 0x00, 0x00, 0x20};
constexpr size_t bundle_size_offset = 44;
constexpr uint8_t bundle_key[8] = {0x5e, 0x13, 0xc0, 0x7a, 0x9d, 0x4b, 0x22, 0x68};
constexpr uint32_t bundle_min_upload = 1024;
constexpr uint32_t upload_max = 524288;

// Session list records: byte 0 reserved, byte 1 end flag.
constexpr size_t record_end_flag_offset = 1;

constexpr size_t ppp_rec_len = 326;
constexpr size_t ppp_name_offset = 2, ppp_name_len = 256;
constexpr size_t ppp_type_offset = 258, ppp_type_len = 16;
constexpr size_t ppp_ppp_offset = 274, ppp_ppp_len = 8;
constexpr size_t ppp_remote_offset = 282, ppp_remote_len = 16;
constexpr size_t ppp_cbqrule_offset = 298;  // be32, signed

constexpr size_t hotspot_rec_len = 316;
constexpr size_t hotspot_user_offset = 2, hotspot_user_len = 256;
constexpr size_t hotspot_ip_offset = 258, hotspot_ip_len = 16;
constexpr size_t hotspot_mac_offset = 274, hotspot_mac_len = 18;
constexpr size_t hotspot_counter1_offset = 292;  // le64
constexpr size_t hotspot_counter2_offset = 300;  // le64
constexpr size_t hotspot_value1_offset = 308;    // le32
constexpr size_t hotspot_value2_offset = 312;    // le32

// Kick requests.
constexpr size_t kick_read_max = 1000;
constexpr int kick_name_max = 255;

// Throughput test block.
constexpr size_t throughput_block = 131072;

// Byte-order helpers.
inline void put_le16(uint8_t* p, uint16_t v) {
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
}
inline void put_le32(uint8_t* p, uint32_t v) {
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
    p[2] = (uint8_t)(v >> 16);
    p[3] = (uint8_t)(v >> 24);
}
inline void put_le64(uint8_t* p, uint64_t v) {
    for (int i = 0; i < 8; i++) p[i] = (uint8_t)(v >> (8 * i));
}
inline void put_be32(uint8_t* p, uint32_t v) {
    p[0] = (uint8_t)(v >> 24);
    p[1] = (uint8_t)(v >> 16);
    p[2] = (uint8_t)(v >> 8);
    p[3] = (uint8_t)v;
}
inline uint16_t get_le16(const uint8_t* p) { return (uint16_t)(p[0] | (p[1] << 8)); }
inline uint16_t get_be16(const uint8_t* p) { return (uint16_t)((p[0] << 8) | p[1]); }
inline uint32_t get_le32(const uint8_t* p) {
    return (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
}
inline uint32_t get_be32(const uint8_t* p) {
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | (uint32_t)p[3];
}
inline uint64_t get_le64(const uint8_t* p) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; i--) v = (v << 8) | p[i];
    return v;
}

// Packet builders used on both sides.
inline void encode_result(uint8_t out[reply_packet_len], uint8_t code) {
    out[0] = 0x03;
    out[1] = 0x01;
    out[2] = code;
    out[3] = out[4] = out[5] = out[6] = 0;
}
inline void encode_size(uint8_t out[reply_packet_len], uint32_t size) {
    out[0] = 0x03;
    out[1] = 0x01;
    out[2] = 0x01;
    put_le32(out + 3, size);
}
