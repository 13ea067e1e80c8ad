#include "core/request.h"

#include <stdio.h>
#include <string.h>

#include "core/connection.h"
#include "core/state.h"
#include "protocol.h"

static void decode_act_pkt(const uint8_t* b, act_pkt_t* p) {
    p->req = get_be16(b + act_req_offset);
    p->mode = b[act_mode_offset];
    p->action = b[act_action_offset];
    p->script = b[act_script_offset];
    p->flags = b[act_flags_offset];
    memcpy(p->reserved, b + act_reserved_offset, sizeof p->reserved);
    p->size = get_le32(b + act_size_offset);
}

int read_action_request(int fd) {
    uint8_t wire[act_pkt_len];
    memset(&act_pkt, 0, sizeof act_pkt);
    memset(wire, 0, sizeof wire);
    printf("act size: %d, struct act_pkt %d\n", (int)act_pkt_len, (int)act_pkt_len);
    if (recv_all(fd, wire, (int)act_pkt_len) != (int)act_pkt_len) return 0;
    decode_act_pkt(wire, &act_pkt);
    printf("req: %04X\n", act_pkt.req);
    printf("mode: %d\n", act_pkt.mode);
    printf("action: %d\n", act_pkt.action);
    printf("script: %d\n", act_pkt.script);
    printf("flags: %02X\n", act_pkt.flags);
    printf("size: %d\n", (int)act_pkt.size);
    return 1;
}
