// One line per event on standard error, which systemd sends to the journal.
#pragma once

#include <string>

void log_event(const std::string& line);
// "0.375 s", "12 s": a duration for the log.
std::string seconds_text(double seconds);
