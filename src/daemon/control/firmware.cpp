#include "control/firmware.h"

#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include "control/upgrade_relay.h"
#include "core/client_log.h"
#include "core/connection.h"
#include "core/files.h"
#include "core/process_exit.h"
#include "core/replies.h"
#include "core/shell.h"
#include "core/state.h"
#include "protocol.h"
#include "transfer/frames.h"

// One name for the probe and the upload, so both measure the same file.
static const char* const firmware_path = "/tmp/firmware.bin";

bool firmware_fits(int32_t size) {
    run_helper("sync; echo 3 > /proc/sys/vm/drop_caches");
    // Sizes of 2 GiB and more are negative here and cannot be probed.
    if (size < 0) return false;
    FILE* f = fopen(firmware_path, "w");
    if (!f) return false;
    static char scratch[1024];  // content irrelevant
    int32_t remaining = size;
    while (remaining != 0) {
        size_t n = remaining < 1025 ? (size_t)remaining : 1024;
        if (fwrite(scratch, 1, n, f) < n) {
            fclose(f);
            unlink(firmware_path);
            return false;
        }
        remaining -= (int32_t)n;
    }
    fclose(f);  // an error only the final flush reports passes, as it always did
    unlink(firmware_path);
    return true;
}

int receive_firmware(int fd) {
    if (system_busy()) refuse_action(fd, code_not_supported);
    if (!firmware_fits((int32_t)act_pkt.size)) refuse_action(fd, code_too_large);
    send_ready_or_exit(fd);
    if (!receive_file(fd, firmware_path, act_pkt.size)) end_process(1);
    log_client(LOG_INFO, "firmware received from client");
    sync();
    if (act_pkt.flags & flag_apply) {
        send_result(fd, code_ok);
        relay_upgrade(fd);
        act_pkt.flags &= (uint8_t)~flag_apply;
    }
    return code_ok;
}
