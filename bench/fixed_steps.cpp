// bench_fixed_steps SIZE: what the daemon does for a firmware upload of SIZE
// bytes besides taking them in, through its own code: the free-space probe (a
// sync, the page-cache drop, SIZE bytes written to /tmp and removed) and the
// sync once the image is stored. With a plain copy of the image (socat) they
// are the floor of an upload.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "control/firmware.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fputs("usage: bench_fixed_steps SIZE\n", stderr);
        return 1;
    }
    if (!firmware_fits((int32_t)strtol(argv[1], nullptr, 10))) {
        fputs("bench_fixed_steps: the probe failed: is /tmp large enough for SIZE bytes?\n", stderr);
        return 3;
    }
    sync();
    return 0;
}
