#include "link/arp.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"

namespace cpa {

void ArpPort::bind_arp_socket(const char* ifname) {
  if (g_arp_bound) return;
  if (!ifname) {
    cpa_log(LOG_DEBUG, "Null ifname");
    return;
  }
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
  if (ioctl(fd_, SIOCGIFINDEX, &ifr) < 0) {
    cpa_log(LOG_ERR, "Error getting Interface index ! reason %s\n", std::strerror(errno));
    return;
  }
  sockaddr_ll link{};
  link.sll_family = AF_PACKET;
  link.sll_protocol = htons(ETH_P_ARP);
  link.sll_ifindex = ifr.ifr_ifindex;
  if (bind(fd_, reinterpret_cast<sockaddr*>(&link), sizeof link) < 0) {
    cpa_log(LOG_ERR, "Error binding socket to interface reason %s\n", std::strerror(errno));
    return;
  }
  cpa_log(LOG_INFO, "ARP BIND is OK");
  g_arp_bound = 1;
}

}  // namespace cpa
