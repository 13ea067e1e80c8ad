// RC4 as the router's in-house library offers it.
#pragma once

#include <stdint.h>

struct rc4_key {
    uint8_t state[256];
    uint8_t x;
    uint8_t y;
};

void prepare_key(const uint8_t* key, int key_length, rc4_key* state);
// Enciphers (or deciphers) in place; the keystream continues across calls.
void rc4(uint8_t* buffer, int length, rc4_key* state);
void do_rc4(uint8_t* buffer, int length, const uint8_t* key, int key_length);
