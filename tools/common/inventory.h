// Inventories in the INI form Ansible reads, read the way it reads them, so
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
// plain, pin, password_file, password_env and timeout; other ansible_* keys
// are Ansible's and ignored, any other key is warned about. A host named
// twice is one host: its lines' variables merge, the later winning. Group
// variables apply from the shallowest group to the deepest (alphabetically
// within a depth), then the host's own.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "status.h"

// The hosts of a fleet run and how many at once.
struct fleet_options {
    static constexpr int max_jobs = 256;
    std::string inventory, limit;
    int jobs = 16;
    bool list_hosts = false;
};

struct inventory_host {
    std::string name;
    std::map<std::string, std::string> vars;  // merged as above
};

struct inventory {
    std::vector<inventory_host> hosts;                       // in Ansible's order for the group all
    std::vector<std::string> defined;                        // host names in the order first written
    std::vector<std::string> group_order;                    // groups in the order first declared
    std::map<std::string, std::vector<std::string>> groups;  // group -> its hosts, children included
    std::vector<std::string> warnings;                       // "FILE:LINE: ...", for stderr
};

// Host (and group) names become folders of the backups and paths git is
// given: nothing that climbs, hides, reads as an option or as a pattern (a
// host "r*" would name every host starting with r), and short enough for
// any file system. "" for a usable name, else what is wrong with it.
constexpr size_t max_host_name = 200;
std::string host_name_problem(const std::string& name);

// Every bad line is reported as "FILE:LINE: what is wrong"; nothing of a bad
// inventory is used.
kelp::status load_inventory(const std::string& path, inventory* out);

// --limit, as Ansible's --limit: elements separated by ',' (or ':' when there
// is no ','); each a host or group name, a glob, or ~regex, with an optional
// [N], [A:B] or [A:] subscript; "!elem" removes, "&elem" keeps only what it
// also matches. The hosts come in the inventory's order. Unlike Ansible, an
// element that matches nothing is an error: a typo must not reboot the
// wrong routers.
kelp::status select_hosts(const inventory& inv, const std::string& pattern, std::vector<const inventory_host*>* out);
