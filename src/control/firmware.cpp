#include "control/firmware.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "core/client_log.h"
#include "core/shell.h"
#include "core/connection.h"
#include "core/files.h"
#include "core/process_exit.h"
#include "core/protocol.h"
#include "core/replies.h"
#include "core/state.h"
#include "transfer/frames.h"

// One name for the probe and the upload, so both measure the same file.
static const char* const firmware_path = "/tmp/firmware.bin";
static const char fifo_path[] = "/tmp/upgrade";
static const int line_max = 1024;

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

int sleep_ms(unsigned ms) {
    struct timespec want = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
    struct timespec left;
    while (nanosleep(&want, &left) == -1) want = left;
    return 1;
}

int read_fifo_line(char* line, int fd) {
    int count = 0;
    for (;;) {
        char c;
        ssize_t r = read(fd, &c, 1);
        if (r == 0) {
            if (count == 0) {
                sleep_ms(5);  // no writer yet
                continue;
            }
            break;
        }
        if (r != 1 || c == '\n') break;
        if (count == line_max) break;  // the byte just read is dropped
        line[count++] = c;
    }
    line[count] = '\0';
    return count;
}

static bool send_progress_line(int fd, uint8_t* frame, const char* line) {
    size_t length = strlen(line) + 1;
    memcpy(frame + 2, line, length);
    put_le16(frame, (uint16_t)length);
    return send_all(fd, frame, (int)frame_len) == (int)frame_len;
}

void relay_upgrade(int fd) {
    static uint8_t frame[frame_len];
    memset(frame, 0, sizeof frame);
    unlink(fifo_path);
    if (mknod(fifo_path, S_IFIFO | 0666, 0) != 0) {
        puts("Unable to create fifo.");
        return;
    }
    int fifo = open(fifo_path, O_RDONLY | O_NONBLOCK);
    if (fifo == 0) {
        unlink(fifo_path);
        puts("Unable to open fifo.");
        return;
    }
    run_helper("spawn flash-upgrade x y z");
    char line[line_max + 1];
    for (;;) {
        if (read_fifo_line(line, fifo) == 0) continue;
        size_t n = strlen(line);
        if (n > 0 && line[n - 1] == '\n') line[n - 1] = '\0';
        printf("upgr debug: %s\n", line);
        if (!send_progress_line(fd, frame, line) || strcmp(line, "done") == 0) {
            close(fifo);
            unlink(fifo_path);
            return;
        }
    }
}

int receive_firmware(int fd) {
    if (system_busy()) refuse_action(fd, code_not_supported);
    if (!firmware_fits((int32_t)act_pkt.size)) refuse_action(fd, code_too_large);
    send_ready_or_exit(fd);
    if (!receive_file(fd, firmware_path)) end_process(1);
    log_client(LOG_INFO, "firmware received from client");
    sync();
    if (act_pkt.flags & flag_apply) {
        send_result(fd, code_ok);
        relay_upgrade(fd);
        act_pkt.flags &= (uint8_t)~flag_apply;
    }
    return code_ok;
}
