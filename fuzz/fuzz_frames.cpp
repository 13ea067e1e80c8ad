// receive_file()/receive_chunk(): le32 declared size from the first 4 input
// bytes, then 1462-byte frames. Nothing half-received may survive a failure.
#include "core/state.h"
#include "fuzz_support.h"
#include "protocol.h"
#include "transfer/frames.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    enter_sandbox(sandbox_plain);
    return 0;
}

static const char target[] = "/tmp/upload.dat";
static bool received;

static void serve(void*) { received = receive_file(daemon_fd, target, act_pkt.size); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    act_pkt.size = get_le32(data);
    open_link(data + 4, size - 4);
    received = false;
    int status = run_to_end(serve, nullptr);
    close_link();
    if (status != still_running) invariant_failed("receive_file ended the process");
    long long stored = size_of(target);
    if (!received && stored >= 0) invariant_failed("failed transfer left its target behind");
    if (received && stored != (long long)act_pkt.size) invariant_failed("stored size differs from declared size");
    clear_dir("/tmp");
    return 0;
}
