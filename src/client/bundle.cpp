#include "bundle.h"

#include <string.h>

#include "md5.h"
#include "protocol.h"
#include "rc4.h"

namespace kelp {

namespace {

void digest_of(const uint8_t* p, size_t n, uint8_t out[bundle_digest_len]) {
    md5_state st;
    md5_init(&st);
    md5_add(&st, p, n);
    md5_finish(&st, out);
}

// One keystream from the first body byte, whatever the length.
void cipher(uint8_t* p, size_t n) {
    rc4_key key;
    prepare_key(bundle_key, (int)sizeof bundle_key, &key);
    while (n > 0) {
        int chunk = n > (1u << 30) ? 1 << 30 : (int)n;
        rc4(p, chunk, &key);
        p += chunk;
        n -= (size_t)chunk;
    }
}

}  // namespace

bytes pack_bundle(const bytes& plain) {
    bytes out(bundle_header_len + plain.size(), 0);
    memcpy(out.data() + bundle_title_offset, bundle_title, sizeof bundle_title - 1);
    digest_of(plain.data(), plain.size(), out.data() + bundle_digest_offset);
    memcpy(out.data() + bundle_format_offset, bundle_format, sizeof bundle_format);
    put_le32(out.data() + bundle_size_offset, (uint32_t)out.size());
    if (!plain.empty()) {
        memcpy(out.data() + bundle_header_len, plain.data(), plain.size());
        cipher(out.data() + bundle_header_len, plain.size());
    }
    return out;
}

status unpack_bundle(const bytes& bundle, bytes* plain) {
    plain->clear();
    if (bundle.size() < bundle_header_len)
        return fail(error_kind::local, "bundle size check failed: shorter than its 48-byte header");
    const uint8_t* h = bundle.data();
    if (memcmp(h + bundle_format_offset, bundle_format, sizeof bundle_format) != 0)
        return fail(error_kind::local, "bundle format word check failed: not 01 00 00 20");
    uint32_t declared = get_le32(h + bundle_size_offset);
    if (declared != bundle.size())
        return fail(error_kind::local, "bundle size check failed: header says " + std::to_string(declared) +
                                           " bytes, file has " + std::to_string(bundle.size()));
    bytes body(bundle.begin() + bundle_header_len, bundle.end());
    if (!body.empty()) cipher(body.data(), body.size());
    uint8_t digest[bundle_digest_len];
    digest_of(body.data(), body.size(), digest);
    if (memcmp(digest, h + bundle_digest_offset, bundle_digest_len) != 0)
        return fail(error_kind::local, "bundle digest check failed: the body does not match its MD5");
    *plain = std::move(body);
    return ok();
}

status check_bundle_for_device(const bytes& bundle) {
    if (bundle.size() < bundle_min_upload || bundle.size() > upload_max)
        return fail(error_kind::local,
                    "the bundle is " + std::to_string(bundle.size()) + " bytes; the device takes 1024 to 524288");
    bytes plain;
    return unpack_bundle(bundle, &plain);
}

}  // namespace kelp
