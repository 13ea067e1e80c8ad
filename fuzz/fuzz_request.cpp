// The 42-byte action request and whatever follows it (upload frames, kick
// requests), through read_action_request() and the whole dispatcher.
#include <stdio.h>
#include <unistd.h>

#include "core/dispatch.h"
#include "core/request.h"
#include "core/state.h"
#include "fuzz_support.h"
#include "protocol.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    enter_sandbox(sandbox_plain);
    return 0;
}

static bool request_read;

static void serve(void*) {
    request_read = read_action_request(daemon_fd) == 1;
    if (!request_read) return;
    // Endless by design: the reboot loop, and the upgrade relay waiting for
    // a flash program that is not there.
    act_pkt.flags &= (uint8_t)~flag_reboot;
    if (act_pkt.action == action_firmware) act_pkt.flags &= (uint8_t)~flag_apply;
    // Streams for as long as the peer reads; a closed peer ends it at once.
    if (act_pkt.action == action_throughput_rx) close_peer();
    dispatch_action(daemon_fd);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    clear_dir("/tmp");
    open_link(data, size);
    request_read = false;
    int status = run_to_end(serve, nullptr);
    close_link();
    if (size < act_pkt_len) {
        if (request_read) invariant_failed("short request accepted");
        return 0;
    }
    if (!request_read) invariant_failed("complete request not read");
    if (status == still_running) invariant_failed("dispatch returned");
    // However the action ended, the configuration temporaries and the
    // report are gone.
    char report[32];
    snprintf(report, sizeof report, "/tmp/netrep.%d", (int)getpid());
    if (size_of("/tmp/saved-configs") >= 0 || size_of("/tmp/saved-configs.dat") >= 0)
        invariant_failed("configuration temporaries left behind");
    if (size_of(report) >= 0) invariant_failed("report left behind");
    return 0;
}
