#include "log.h"

#include <stdio.h>
#include <stdlib.h>

#include <mutex>

#include "clock.h"
#include "outcome.h"

void log_event(const std::string& line) {
    static std::mutex lock;
    static const bool journal = getenv("JOURNAL_STREAM") != nullptr;
    std::lock_guard<std::mutex> hold(lock);
    // A device's text may hold control characters: never raw into the log.
    std::string stamp = journal ? "" : kelp::iso_time(kelp::wall_seconds()) + " ";
    fprintf(stderr, "%skelputil serve: %s\n", stamp.c_str(), terminal_text(line).c_str());
    fflush(stderr);
}
