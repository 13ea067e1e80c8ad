#include "clock.h"

#include <stdio.h>
#include <time.h>

namespace kelp {

namespace {

timespec now(clockid_t which) {
    timespec t;
    clock_gettime(which, &t);
    return t;
}

}  // namespace

long long monotonic_ms() {
    timespec t = now(CLOCK_MONOTONIC);
    return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

double monotonic_seconds() {
    timespec t = now(CLOCK_MONOTONIC);
    return t.tv_sec + t.tv_nsec / 1e9;
}

double wall_seconds() {
    timespec t = now(CLOCK_REALTIME);
    return t.tv_sec + t.tv_nsec / 1e9;
}

std::string seconds_text(double seconds) {
    char text[32];
    snprintf(text, sizeof text, seconds >= 100 ? "%.0f s" : "%.3g s", seconds);
    return text;
}

}  // namespace kelp
