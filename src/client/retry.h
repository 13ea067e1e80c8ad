// Trying again, in the two shapes the programs have: a fixed pause while a
// deadline allows (a device between two sessions, a host coming back from
// its upgrade), and a pause that doubles up to a cap (a backup or a push
// that keeps failing while the service runs).
#pragma once

namespace kelp {

// Sleeps pause_ms when the pause still ends before until_ms (on
// monotonic_ms()); returns false at once when it would not.
bool pause_within(int pause_ms, long long until_ms);

// The pause after `failures` failures in a row: first after the first (or
// none), doubling with each further one, at most cap.
double backoff(double first, double cap, int failures);

}  // namespace kelp
