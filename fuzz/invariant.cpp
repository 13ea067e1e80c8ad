// The one way a fuzz target reports a broken promise: loud, then abort, so
// libFuzzer keeps the input.
#include <cstdio>
#include <cstdlib>

#include "fuzz_support.h"

void invariant_failed(const char* why) {
    fprintf(stderr, "INVARIANT BROKEN: %s\n", why);
    abort();
}
