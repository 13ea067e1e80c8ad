// Process-wide state of the one connection this process serves.
#pragma once

#include <netinet/in.h>
#include <stdint.h>

struct act_pkt_t {
    uint16_t req;  // bytes 0-1 as a big-endian word; printed only
    uint8_t mode;
    uint8_t action;
    uint8_t script;
    uint8_t flags;
    uint8_t reserved[32];
    uint32_t size;  // bytes 38-41, little-endian on the wire
};

extern int listen_fd;
extern int client_fd;
extern struct sockaddr_in client_address;
extern act_pkt_t act_pkt;
