// Fleet runs: one command on every selected host of an inventory.
#pragma once

#include <functional>
#include <vector>

#include "invocation.h"
#include "runner.h"

// The command's device step on every host (the row's on_device), or with
// --list-hosts the hosts it would reach.
outcome run_fleet(const invocation& inv);
// Firmware under fleet: one image read once for every host (unless the
// file names {host}); with --upgrade, a staged roll-out.
outcome run_fleet_firmware(const invocation& inv);

// What every fleet run does first: reads the inventory, selects the hosts,
// makes the folders of their files and checks their firmware image and
// password sources, then hands them to job. Nothing runs on a bad inventory,
// an empty selection, a folder that cannot be made, an image no router could
// take or a missing password. *image: the firmware image that every host
// gets, when there is one (not for a roll-out, which reads its own).
using fleet_job = std::function<outcome(fleet_runner& runner, const std::vector<const inventory_host*>& hosts)>;
outcome run_on_fleet(const invocation& inv, const fleet_job& job, kelp::bytes* image = nullptr);
