#include "retry.h"

#include <math.h>
#include <unistd.h>

#include <algorithm>

#include "clock.h"

namespace kelp {

bool pause_within(int pause_ms, long long until_ms) {
    if (monotonic_ms() + pause_ms >= until_ms) return false;
    usleep(pause_ms * 1000);
    return true;
}

double backoff(double first, double cap, int failures) {
    return std::min(first * pow(2, std::max(failures, 1) - 1), cap);
}

}  // namespace kelp
