// The one way the daemon ends. Tests and fuzzers link their own definition
// (the archive member below is then never pulled in) to intercept it.
#pragma once

[[noreturn]] void end_process(int status);
// The same from a signal handler: only what is safe there (no stdio flush,
// no exit handlers). Standard output is line-buffered, so no whole line is
// lost.
[[noreturn]] void end_process_from_signal(int status);
