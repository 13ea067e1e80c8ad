#include "bundle.h"

#include <string.h>

#include "core/protocol.h"
#include "crypto/md5.h"
#include "crypto/rc4.h"

namespace kelp {

static void md5(const bytes& data, uint8_t digest[16]) {
    md5_state s;
    md5_init(&s);
    md5_add(&s, data.data(), data.size());
    md5_finish(&s, digest);
}

bytes pack_bundle(const bytes& plain) {
    bytes b(bundle_header_len, 0);
    memcpy(b.data() + bundle_title_offset, bundle_title, sizeof bundle_title - 1);
    md5(plain, b.data() + bundle_digest_offset);
    memcpy(b.data() + bundle_format_offset, bundle_format, sizeof bundle_format);
    put_le32(b.data() + bundle_size_offset, (uint32_t)(bundle_header_len + plain.size()));
    b.insert(b.end(), plain.begin(), plain.end());
    do_rc4(b.data() + bundle_header_len, (int)plain.size(), bundle_key, (int)sizeof bundle_key);
    return b;
}

status unpack_bundle(const bytes& b, bytes* plain) {
    if (b.size() < bundle_header_len) return fail(error_kind::local, "too short for a bundle header");
    if (memcmp(b.data() + bundle_format_offset, bundle_format, sizeof bundle_format) != 0)
        return fail(error_kind::local, "unknown format word (the device reports !ver)");
    if (get_le32(b.data() + bundle_size_offset) != b.size())
        return fail(error_kind::local, "size field does not match the file (the device reports !size)");
    plain->assign(b.begin() + bundle_header_len, b.end());
    do_rc4(plain->data(), (int)plain->size(), bundle_key, (int)sizeof bundle_key);
    uint8_t digest[16];
    md5(*plain, digest);
    if (memcmp(digest, b.data() + bundle_digest_offset, sizeof digest) != 0)
        return fail(error_kind::local, "digest mismatch: damaged bundle (the device reports !md5(1))");
    return {};
}

}  // namespace kelp
