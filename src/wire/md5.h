// MD5 (RFC 1321): initialise, add bytes, finish.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct md5_state {
    // Opaque storage for the crypto library's context (88 bytes in mbedTLS
    // 2.28 on 64-bit hosts); checked at compile time in md5.cpp.
    alignas(8) unsigned char opaque[128];
};

void md5_init(md5_state* state);
void md5_add(md5_state* state, const uint8_t* data, size_t length);
void md5_finish(md5_state* state, uint8_t digest[16]);
