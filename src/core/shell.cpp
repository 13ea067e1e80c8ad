#include "core/shell.h"

#include <stdlib.h>

void run_helper(const char* command) {
    if (system(command) < 0) {
        // Not examined: the helper's outcome is its own business.
    }
}
