// Kick requests: le32 length + user name (actions 48, 53) or four address
// bytes (action 54). The first input byte picks the handler; with its top
// bit set the length field is rewritten to match the name, so the fuzzer
// spends its time on names rather than on guessing lengths.
#include <stdlib.h>
#include <string.h>

#include "control/kick.h"
#include "fuzz_support.h"
#include "protocol.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    enter_sandbox(sandbox_plain);
    return 0;
}

static int (*const handlers[])(int) = {kick_ppp_user, kick_hotspot_user, kick_hotspot_ip};
static int (*handler)(int);
static int result;

static void serve(void*) { result = handler(daemon_fd); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    handler = handlers[(data[0] & 0x7f) % 3];
    size_t length = size - 1;
    uint8_t* request = (uint8_t*)malloc(length + 1);
    memcpy(request, data + 1, length);
    if ((data[0] & 0x80) && length >= 4) put_le32(request, (uint32_t)(length - 4));
    open_link(request, length);
    free(request);
    result = -1;
    int status = run_to_end(serve, nullptr);
    close_link();
    if (status != still_running) invariant_failed("kick handler ended the process");
    // With no helper to run, no kick can succeed.
    if (result != 1) invariant_failed("kick reported success without its helper");
    clear_dir("/tmp");
    return 0;
}
