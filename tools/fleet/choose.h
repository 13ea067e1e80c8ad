// What every fleet run does first: the inventory read (its warnings said
// unless quiet), the hosts selected by --limit; and, for --list-hosts, what
// a run would reach, with nothing contacted and no password asked.
#pragma once

#include <vector>

#include "connection.h"
#include "inventory.h"
#include "outcome.h"

kelp::status choose_hosts(const fleet_options& f, const output_options& out, inventory* file,
                          std::vector<const inventory_host*>* hosts);
outcome host_list(const connection_options& c, const std::vector<const inventory_host*>& hosts);
