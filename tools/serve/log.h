// One line per event on standard error. Under systemd (JOURNAL_STREAM set)
// the journal stamps each line; elsewhere the line starts with its own
// ISO 8601 time, as a log file needs.
#pragma once

#include <string>

void log_event(const std::string& line);
