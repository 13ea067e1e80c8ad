// verify_config_bundle() on an uploaded bundle, and a rebuild of what it
// accepted.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fuzz_support.h"
#include "protocol.h"
#include "transfer/config_bundle.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    enter_sandbox(sandbox_plain);
    return 0;
}

static const char bundle_path[] = "/tmp/saved-configs.dat";
static const char plain_path[] = "/tmp/saved-configs";
static bool verified;

static void verify(void*) { verified = verify_config_bundle(); }

static bool rebuilt;
static void rebuild(void*) { rebuilt = build_config_bundle(); }

static uint8_t* read_all(const char* path, long long size) {
    uint8_t* bytes = (uint8_t*)malloc((size_t)size + 1);
    FILE* f = fopen(path, "r");
    if (!f || (size && fread(bytes, (size_t)size, 1, f) != 1)) invariant_failed("cannot read back a bundle");
    fclose(f);
    return bytes;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    clear_dir("/tmp");
    write_file(bundle_path, data, size);
    verified = false;
    if (run_to_end(verify, nullptr) != still_running) invariant_failed("verify ended the process");
    long long plain = size_of(plain_path);
    // The plain file is only written once the header and the digest passed;
    // on this roomy tmpfs its second pass cannot fail, so any refusal must
    // come from the first checks ("!ver", "!size", "!md5(1)").
    if (!verified) {
        if (plain >= 0) invariant_failed("refused bundle left a plain configuration");
        return 0;
    }
    if (plain != (long long)size - (long long)bundle_header_len) invariant_failed("plain size disagrees with header");
    if (plain == 0) return 0;  // nothing to rebuild: the daemon never sends an empty bundle

    // Enciphering the plain file again reproduces everything after the title.
    unlink(bundle_path);
    rebuilt = false;
    if (run_to_end(rebuild, nullptr) != still_running || !rebuilt) invariant_failed("rebuild failed");
    if (size_of(bundle_path) != (long long)size) invariant_failed("rebuilt bundle has another size");
    uint8_t* again = read_all(bundle_path, (long long)size);
    bool same = memcmp(again + bundle_digest_offset, data + bundle_digest_offset, size - bundle_digest_offset) == 0;
    free(again);
    if (!same) invariant_failed("rebuilt bundle differs");
    return 0;
}
