// Fleet backups in a git repository, one folder per host (host_snapshot.h):
//   HOST/config.dat      the bundle as the device sent it
//   HOST/config/...      its members, when the configuration is an archive
//   HOST/config.plain    the configuration, when it is not
//   HOST/scripts/...     the four scripts (--scripts; kept when not asked for)
// A host that fails keeps its last good folder untouched. Hosts are fetched
// into staging inside the git folder and the work tree changes only with a
// commit, so a run stopped by a signal or a full disk leaves the last one.
#pragma once

#include <vector>

#include "invocation.h"
#include "runner.h"

// Before anyone is asked for a password: a folder that cannot take the
// backups, or a repository another writer keeps, is refused.
kelp::status check_backup_target(const invocation& inv);
outcome run_fleet_backup(const invocation& inv, fleet_runner& runner, const std::vector<const inventory_host*>& hosts);
outcome run_fleet_history(const invocation& inv);
outcome run_fleet_diff(const invocation& inv);
