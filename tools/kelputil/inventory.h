// Inventories in the INI form that configuration-management tools use, so
// that an existing one works as it is:
//
//   edge1 ansible_host=192.0.2.7          # ungrouped, with a host variable
//   [routers]
//   r[01:20] password_env=ROUTER_PW       # a range: r01 ... r20
//   [routers:vars]
//   timeout=30
//   [emea:children]
//   routers
//
// kelputil reads ansible_host, ansible_port and its own keys port, tls,
// plain, pin, password_file, password_env and timeout; other keys are kept
// and ignored. Host variables win over a group's, a nested group's over its
// parent's, and [all:vars] comes last.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "status.h"

struct inventory_host {
    std::string name;
    std::map<std::string, std::string> vars;  // merged as above
};

struct inventory {
    std::vector<inventory_host> hosts;                          // in the file's order
    std::map<std::string, std::vector<std::string>> groups;    // group -> its hosts, children included
};

// Every bad line is reported as "FILE:LINE: what is wrong"; nothing of a bad
// inventory is used.
kelp::status load_inventory(const std::string& path, inventory* out);

// --limit: terms separated by ':' or ','; each a host or group name or a
// glob over them; "!term" removes, "&term" keeps only what it also matches.
// Empty: every host. A term that matches nothing is an error.
kelp::status select_hosts(const inventory& inv, const std::string& pattern, std::vector<const inventory_host*>* out);
