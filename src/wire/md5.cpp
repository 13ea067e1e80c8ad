#include "md5.h"

#include <mbedtls/md5.h>

static_assert(sizeof(mbedtls_md5_context) <= sizeof(md5_state::opaque), "md5_state too small");
static_assert(alignof(mbedtls_md5_context) <= alignof(md5_state), "md5_state misaligned");

static mbedtls_md5_context* context(md5_state* s) { return reinterpret_cast<mbedtls_md5_context*>(s->opaque); }

void md5_init(md5_state* s) {
    mbedtls_md5_init(context(s));
    mbedtls_md5_starts_ret(context(s));
}

void md5_add(md5_state* s, const uint8_t* data, size_t length) { mbedtls_md5_update_ret(context(s), data, length); }

void md5_finish(md5_state* s, uint8_t digest[16]) {
    mbedtls_md5_finish_ret(context(s), digest);
    mbedtls_md5_free(context(s));
}
