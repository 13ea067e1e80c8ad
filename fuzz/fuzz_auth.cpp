// The 34-byte auth reply (02 01 + 32 enciphered password bytes) through
// authenticate() and check_password() against a fixture /etc/passwd.
#include <string.h>

#include "core/auth.h"
#include "fuzz_support.h"
#include "protocol.h"
#include "rc4.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    enter_sandbox(sandbox_passwd | sandbox_fixed_random);
    return 0;
}

static int verdict;

// Traditional DES crypt, as the router's /etc/passwd uses, keys on the first
// 8 characters with their high bit dropped: "se\xe3ret" opens "secret".
static bool des_equivalent(const char* a, const char* b) {
    size_t la = strlen(a), lb = strlen(b);
    for (size_t i = 0; i < 8; i++) {
        unsigned ca = i < la ? (unsigned char)a[i] & 0x7f : 0;
        unsigned cb = i < lb ? (unsigned char)b[i] & 0x7f : 0;
        if (ca != cb) return false;
    }
    return true;
}

static void serve(void*) { verdict = authenticate(daemon_fd); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    open_link(data, size);
    verdict = -2;
    int status = run_to_end(serve, nullptr);
    close_link();
    if (status != still_running) invariant_failed("authenticate ended the process");
    if (verdict < -1 || verdict > 1) invariant_failed("verdict out of range");
    if (size < auth_reply_len || get_le16(data) != protocol_tag) {
        if (verdict != -1) invariant_failed("short or untagged reply not refused as a protocol error");
        return 0;
    }
    // The challenge is fixed here, so the password the daemon saw is known:
    // it must be let in exactly when that is the admin's password.
    uint8_t password[auth_password_len];
    memcpy(password, data + auth_password_offset, sizeof password);
    do_rc4(password, (int)sizeof password, fixture_challenge, (int)sizeof fixture_challenge);
    password[sizeof password - 1] = 0;
    bool right = des_equivalent((const char*)password, fixture_password);
    if (verdict != (right ? 1 : 0)) invariant_failed(right ? "right password refused" : "wrong password accepted");
    return 0;
}
