#include "clock.h"

#include <math.h>
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

std::string iso_time(double unix_seconds) {
    time_t whole = (time_t)floor(unix_seconds);
    int ms = (int)((unix_seconds - (double)whole) * 1000);
    struct tm local;
    localtime_r(&whole, &local);
    char day[32], zone[8];
    strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &local);
    strftime(zone, sizeof zone, "%z", &local);  // "+0100": ISO 8601 writes "+01:00"
    char text[64];
    snprintf(text, sizeof text, "%s.%03d%.3s:%s", day, ms, zone, zone + 3);
    return text;
}

std::string local_time(long long unix_seconds) {
    time_t seconds = (time_t)unix_seconds;
    struct tm local;
    localtime_r(&seconds, &local);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

}  // namespace kelp
