// The one way the daemon ends. Tests and fuzzers link their own definition
// (the archive member below is then never pulled in) to intercept it.
#pragma once

[[noreturn]] void end_process(int status);
