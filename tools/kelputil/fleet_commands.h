// Fleet runs: one command on every selected host of an inventory.
#pragma once

#include <functional>
#include <vector>

#include "runner.h"
#include "invocation.h"

outcome run_fleet(const invocation& inv);

// What every fleet run does first: reads the inventory, selects the hosts,
// makes the folders of their files and checks their firmware image and
// password sources, then hands them to job. Nothing runs on a bad inventory,
// an empty selection, a folder that cannot be made, an image no router could
// take or a missing password. *image: the firmware image that every host
// gets, when there is one (not for a roll-out, which reads its own).
using fleet_job = std::function<outcome(fleet_runner& runner, const std::vector<const inventory_host*>& hosts)>;
outcome run_on_fleet(const invocation& inv, const fleet_job& job, kelp::bytes* image = nullptr);
