#include "serve_log.h"

#include <stdio.h>

#include <mutex>

#include "outcome.h"

void log_event(const std::string& line) {
    static std::mutex lock;
    std::lock_guard<std::mutex> hold(lock);
    // A device's text may hold control characters: never raw into the log.
    fprintf(stderr, "kelputil serve: %s\n", terminal_text(line).c_str());
    fflush(stderr);
}

std::string seconds_text(double seconds) {
    char text[32];
    snprintf(text, sizeof text, seconds >= 100 ? "%.0f s" : "%.3g s", seconds);
    return text;
}
