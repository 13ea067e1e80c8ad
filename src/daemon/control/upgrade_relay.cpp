// Relaying the flash upgrade's progress: its lines, read one byte at a time
// from a FIFO, each sent as a frame until "done".
#include "control/upgrade_relay.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "core/connection.h"
#include "core/shell.h"
#include "protocol.h"

static const char fifo_path[] = "/tmp/upgrade";
static const int line_max = 1024;

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

// Not the shared frame encoder: the frame is cleared once, before the first
// line, and a shorter line leaves the tail of a longer one behind it, as the
// router's own relay does.
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
