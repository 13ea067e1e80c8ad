#include "log.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <mutex>

#include "outcome.h"
#include "clock.h"

void log_event(const std::string& line) {
    static std::mutex lock;
    static const bool journal = getenv("JOURNAL_STREAM") != nullptr;
    std::lock_guard<std::mutex> hold(lock);
    // A device's text may hold control characters: never raw into the log.
    std::string stamp = journal ? "" : iso_time(kelp::wall_seconds()) + " ";
    fprintf(stderr, "%skelputil serve: %s\n", stamp.c_str(), terminal_text(line).c_str());
    fflush(stderr);
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
