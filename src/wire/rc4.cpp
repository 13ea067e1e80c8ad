#include "rc4.h"

void prepare_key(const uint8_t* key, int key_length, rc4_key* k) {
    for (int i = 0; i < 256; i++) k->state[i] = (uint8_t)i;
    k->x = 0;
    k->y = 0;
    uint8_t j = 0;
    for (int i = 0; i < 256; i++) {
        j = (uint8_t)(j + k->state[i] + key[i % key_length]);
        uint8_t t = k->state[i];
        k->state[i] = k->state[j];
        k->state[j] = t;
    }
}

void rc4(uint8_t* buffer, int length, rc4_key* k) {
    uint8_t x = k->x;
    uint8_t y = k->y;
    uint8_t* s = k->state;
    for (int i = 0; i < length; i++) {
        x = (uint8_t)(x + 1);
        y = (uint8_t)(y + s[x]);
        uint8_t t = s[x];
        s[x] = s[y];
        s[y] = t;
        buffer[i] ^= s[(uint8_t)(s[x] + s[y])];
    }
    k->x = x;
    k->y = y;
}

void do_rc4(uint8_t* buffer, int length, const uint8_t* key, int key_length) {
    rc4_key k;
    prepare_key(key, key_length, &k);
    rc4(buffer, length, &k);
}
