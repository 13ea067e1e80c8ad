// Intercepts the daemon's end: a test calls the code under run_to_end() and
// gets the exit status instead of losing the process.
#pragma once

#include <functional>

constexpr int still_running = -1000;
// Runs body; returns the status passed to end_process, or still_running.
int run_to_end(const std::function<void()>& body);
