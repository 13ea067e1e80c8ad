#include "fleet.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "router.h"

namespace fleet {

uint32_t workstation_address() { return 0xC6120001u; }  // 198.18.0.1

uint32_t router_address(int k) { return workstation_address() + (uint32_t)k; }

std::string dotted(uint32_t a) {
    return std::to_string(a >> 24) + "." + std::to_string((a >> 16) & 255) + "." + std::to_string((a >> 8) & 255) +
           "." + std::to_string(a & 255);
}

// Locally administered, and the address can be read off it.
static std::string hardware_address(uint32_t a) {
    char mac[18];
    snprintf(mac, sizeof mac, "02:00:%02x:%02x:%02x:%02x", a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255);
    return mac;
}

std::string inventory(int routers) {
    std::string text = "[routers]\n";
    for (int k = 1; k <= routers; k++)
        text += "router" + std::to_string(k) + " ansible_host=" + dotted(router_address(k)) + "\n";
    return text;
}

void no_ipv6() {
    for (const char* which : {"all", "default"})
        router::write_file(std::string("/proc/sys/net/ipv6/conf/") + which + "/disable_ipv6", "1\n");
}

std::string link_routers(const std::vector<pid_t>& pids) {
    std::string br = bridge, ws = dotted(workstation_address());
    std::string batch = "link add " + br + " address " + hardware_address(workstation_address()) + " type bridge\n" +
                        "link set " + br + " up\n" + "addr add " + ws + "/15 dev " + br + "\n";
    for (size_t i = 0; i < pids.size(); i++) {
        int k = (int)i + 1;
        std::string name = "router" + std::to_string(k), mac = hardware_address(router_address(k));
        std::string there = " netns " + std::to_string(pids[i]);
        batch += "link add " + name + " type veth peer name eth0 address " + mac + there + "\n";
        batch += "link set " + name + " master " + br + " up\n";
        batch += "neigh add " + dotted(router_address(k)) + " lladdr " + mac + " dev " + br + " nud permanent\n";
    }
    // One ip process for every link: one per link would take seconds.
    const char* path = "/tmp/.fleet-links";
    if (!router::write_file(path, batch)) return std::string("write ") + path + ": " + strerror(errno);
    pid_t ip = fork();
    if (ip == 0) {
        execlp("ip", "ip", "-batch", path, (char*)nullptr);
        perror("ip");
        _exit(127);
    }
    int status = 0;
    while (waitpid(ip, &status, 0) < 0 && errno == EINTR) {}
    unlink(path);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "ip -batch failed with status " + std::to_string(status);
    return "";
}

static void set_ipv4(sockaddr* sa, uint32_t address) {
    sockaddr_in in = {};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = htonl(address);
    memcpy(sa, &in, sizeof in);
}

std::string configure_router(int k) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) return std::string("socket: ") + strerror(errno);
    std::string error;
    ifreq ifr = {};
    strcpy(ifr.ifr_name, "eth0");
    set_ipv4(&ifr.ifr_addr, router_address(k));
    if (ioctl(s, SIOCSIFADDR, &ifr) != 0) error = "eth0 address";
    set_ipv4(&ifr.ifr_netmask, 0xFFFE0000u);  // /15
    if (error.empty() && ioctl(s, SIOCSIFNETMASK, &ifr) != 0) error = "eth0 netmask";
    if (error.empty() && !router::interface_up("eth0")) error = "eth0 up";
    arpreq arp = {};
    set_ipv4(&arp.arp_pa, workstation_address());
    arp.arp_ha.sa_family = ARPHRD_ETHER;
    std::string mac = hardware_address(workstation_address());
    for (int i = 0; i < 6; i++) arp.arp_ha.sa_data[i] = (char)strtoul(mac.c_str() + 3 * i, nullptr, 16);
    arp.arp_flags = ATF_PERM | ATF_COM;
    strcpy(arp.arp_dev, "eth0");
    if (error.empty() && ioctl(s, SIOCSARP, &arp) != 0) error = "workstation's ARP entry";
    if (!error.empty()) error += ": " + std::string(strerror(errno));
    close(s);
    return error;
}

}  // namespace fleet
