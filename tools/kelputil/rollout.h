// A staged firmware roll-out: canaries one at a time, then batches; after
// each host's upgrade, wait until it takes a login again and take its core
// report. The first failure halts the roll-out: hosts not yet started are
// left untouched.
#pragma once

#include <vector>

#include "invocation.h"
#include "runner.h"

outcome run_rollout(const invocation& inv, fleet_runner& runner, const std::vector<const inventory_host*>& hosts);
