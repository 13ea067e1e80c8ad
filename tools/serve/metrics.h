// /metrics in Prometheus' text format: per host, its last attempt's
// verdict, last success and change, duration, counts and whether it is
// overdue; for the service, its hosts, its interval (for alert rules in
// units of it), how far the schedule lags, and the counts of what failed
// beside the backups: commits, pushes, hooks and reloads.
#pragma once

#include <string>

#include "health.h"
#include "scheduler.h"

// push: whether the service pushes (its push metrics are left out if not).
std::string metrics_text(const scheduler& s, const health_figures& f, bool push);
