// /metrics in Prometheus' text format: per host, its last attempt's
// verdict, last success and change, duration and counts; for the service,
// its hosts, its interval (for alert rules in units of it) and how far the
// schedule lags.
#pragma once

#include <string>

#include "serve_scheduler.h"

std::string metrics_text(const scheduler& s, double now, double interval);
