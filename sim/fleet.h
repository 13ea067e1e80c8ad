// The simulated fleet's network: a bridge in the workstation's namespace and
// one veth pair per router, router K at 198.18.0.1 + K (the benchmarking
// range, which exists only inside these namespaces; nothing routes out).
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace fleet {

// The bridge takes at most 1023 ports.
constexpr int max_routers = 1023;

constexpr const char* inventory_path = "/run/sim/fleet.ini";
constexpr const char* bridge = "fleet0";

uint32_t workstation_address();  // host byte order
uint32_t router_address(int k);
std::string dotted(uint32_t address);

// "[routers]" and one "routerK ansible_host=ADDRESS" line per router.
std::string inventory(int routers);

// Turns IPv6 off in the caller's network namespace for links made from now
// on: their router solicitations and multicast reports would flood every
// port of the bridge.
void no_ipv6();

// The bridge with the workstation's address, and for router K (1-based,
// pids[K-1] its process, already in its own network namespace) a veth pair
// whose router end is that namespace's eth0. Returns what failed, or "".
std::string link_routers(const std::vector<pid_t>& pids);

// Inside router K's namespace: eth0 up with its address, and the
// workstation's hardware address fixed (no ARP to wait for or overflow).
std::string configure_router(int k);

}  // namespace fleet
