// The upgrade program's progress lines through read_fifo_line(), from a pipe
// that is read without blocking and never reaches end of file.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "control/upgrade_relay.h"
#include "fuzz_support.h"

static const int line_max = 1024;

static int unread(int fd) {
    int n = 0;
    if (ioctl(fd, FIONREAD, &n) != 0) invariant_failed("FIONREAD");
    return n;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int ends[2];
    if (pipe2(ends, O_NONBLOCK) != 0) abort();
    // Inputs stay below the pipe's 64 KiB (-max_len), so this never blocks.
    if (size && write(ends[1], data, size) != (ssize_t)size) abort();
    char* line = (char*)malloc(line_max + 1);  // the relay's buffer
    for (int left = unread(ends[0]); left > 0;) {
        memset(line, 0xCC, line_max + 1);
        int n = read_fifo_line(line, ends[0]);
        if (n < 0 || n > line_max) invariant_failed("line length out of range");
        if (line[n] != '\0') invariant_failed("line not terminated");
        if (memchr(line, '\n', (size_t)n)) invariant_failed("newline inside a line");
        int now = unread(ends[0]);
        if (now >= left) invariant_failed("no progress on a non-empty pipe");
        left = now;
    }
    free(line);
    close(ends[0]);
    close(ends[1]);
    return 0;
}
