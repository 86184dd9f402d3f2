#include "link/arp_handler.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "link/arp.h"

namespace cpa {
namespace {

// The commands are fixed text. What varies reaches the shell only through the
// environment, and every value put there is formatted here from numbers
// (addresses and hardware bytes), never copied from a packet, so no packet
// can inject shell text.
constexpr const char* kStaticArpCommand = "/sbin/arp -s $ARP_SRC_IP $ARP_SRC_MAC";
constexpr const char* kFlushCommand = "/usr/local/fpbin/ip address flush dev $ARP_IF";
constexpr const char* kSetAddressCommand = "/usr/local/fastpath/etc/scripts/setip_arp.sh";

constexpr const char* kProcName = "kestrix_pal_proc_arp";

std::string dotted(uint32_t net_addr) {
  const uint32_t a = ntohl(net_addr);
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", a >> 24, (a >> 16) & 0xff, (a >> 8) & 0xff, a & 0xff);
  return text;
}

// Opens the query socket; logs a failure under the caller's name.
bool open_query_socket(SysCallFd& fd, const char* who) {
  if (fd.valid()) return true;
  cpa_log(LOG_ERR, "%s :: Failed socket() call, reason: %s", who, std::strerror(fd.error()));
  return false;
}

// One address-valued interface ioctl (SIOCGIFADDR, SIOCGIFNETMASK); the
// address in network order, or false after logging the failure.
bool query_interface(NetDeviceSysCalls& sys, const SysCallFd& fd, const char* ifname,
                     unsigned long request, uint32_t& out, const char* who) {
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
  const SysCallResult r = sys.ioctl(fd.get(), request, &ifr);
  if (r.rc < 0) {
    cpa_log(LOG_ERR, "%s :: Failed ioctl() call, reason: %s", who, std::strerror(r.error));
    return false;
  }
  sockaddr_in sin;
  std::memcpy(&sin, &ifr.ifr_addr, sizeof sin);
  out = sin.sin_addr.s_addr;
  return true;
}

void log_interface_address(const char* who, uint32_t if_addr) {
  cpa_log(LOG_INFO, "\n %s ethgrp0 IP address is: %x\n", who, if_addr);
}

}  // namespace

int kestrix_validate_ip_addr(NetDeviceSysCalls& sys, const char* ifname, uint32_t addr) {
  constexpr const char* who = "kestrix_validate_ip_addr";
  SysCallFd fd(sys, sys.socket(AF_INET, SOCK_DGRAM, 0));
  uint32_t if_addr = 0;
  if (!open_query_socket(fd, who) || !query_interface(sys, fd, ifname, SIOCGIFADDR, if_addr, who))
    return -1;
  log_interface_address(who, if_addr);
  if (if_addr == addr) {
    cpa_log(LOG_INFO, "%s :: INFO: IP addresses on ethgrp0 interface and ARP Request IP's are the same\n", who);
    return 0;
  }
  cpa_log(LOG_INFO, "%s :: INFO: IP addresses on ethgrp0 interface and ARP Request IP's are not the same\n", who);
  return 1;
}

int kestrix_validate_subnet(NetDeviceSysCalls& sys, const char* ifname, uint32_t addr, uint32_t* if_addr) {
  constexpr const char* who = "kestrix_validate_subnet";
  SysCallFd fd(sys, sys.socket(AF_INET, SOCK_DGRAM, 0));
  uint32_t netmask = 0;
  if (!open_query_socket(fd, who) || !query_interface(sys, fd, ifname, SIOCGIFNETMASK, netmask, who) ||
      !query_interface(sys, fd, ifname, SIOCGIFADDR, *if_addr, who))
    return -1;
  log_interface_address(who, *if_addr);
  if ((*if_addr & netmask) == (addr & netmask)) {
    cpa_log(LOG_INFO, "%s :: INFO: IP addresses on ethgrp0 interface will be Flushed and re-program the same IP\n", who);
    return 1;
  }
  cpa_log(LOG_INFO,
          "%s :: INFO: IP addresses on ethgrp0 interface will be Flushed and choosing the next available address\n",
          who);
  return 0;
}

bool arp_address_usable(uint32_t addr) {
  const uint32_t a = ntohl(addr);
  return a != 0 && a != 0xffffffffu && (a >> 24) != 127 && (a >> 28) != 0xe;
}

std::string format_print_mac_address(const uint8_t (&mac)[6], bool print) {
  char text[32];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  if (print) cpa_log(LOG_DEBUG, "%s\n", text);
  return text;
}

int ArpHandler::kestrix_pal_proc_arp(ReceivedBytes packet) {
  if (!packet.data()) {
    cpa_log(LOG_ERR, "NULL parameter msg");
    return 1;
  }
  const std::optional<arp_eth_ipv4_t> p = parse_arp_packet(packet);
  if (!p) return 0;
  if (!arp_address_usable(p->ar_sip) || !arp_address_usable(p->ar_tip)) {
    counters_.k_arp_filter_drop++;
    return 0;
  }
  const uint16_t op = ntohs(p->ar_op);
  cpa_log(LOG_DEBUG, "OP code : %d:\n", op);
  if (op == kArpOpRequest) return proc_request(*p);
  if (op == kArpOpReply) return proc_reply(*p);
  return 0;
}

int ArpHandler::proc_request(const arp_eth_ipv4_t& p) {
  cpa_log(LOG_DEBUG, "Got an ARP request:\n");
  // Each hardware address is printed by the formatter before its heading line.
  const std::string sha = format_print_mac_address(p.ar_sha, true);
  cpa_log(LOG_DEBUG, "\tSource MAC address: %s", sha.c_str());
  cpa_log(LOG_DEBUG, "\tSource IP address: %s\n", dotted(p.ar_sip).c_str());
  const std::string tha = format_print_mac_address(p.ar_tha, true);
  cpa_log(LOG_DEBUG, "\tDestination MAC address: %s", tha.c_str());
  cpa_log(LOG_DEBUG, "\tDestination IP address: %s\n", dotted(p.ar_tip).c_str());

  const int differs = kestrix_validate_ip_addr(sys_.devices, kArpInterface, p.ar_tip);
  if (differs < 0) {
    cpa_log(LOG_ERR, "Socket operation failures observed, No action taken on ARP Request\n");
    return 1;
  }
  if (differs == 0) {
    cpa_log(LOG_INFO, "%s :: INFO: IP addresses on ethgrp0 interface is same, Hence need not re-configure\n",
            kProcName);
    return 0;
  }
  uint32_t if_addr = 0;
  const int in_subnet = sender_in_subnet(p, if_addr, "ARP Request");
  if (in_subnet < 0) return 1;
  if (!in_subnet) flush_interface();
  cpa_log(LOG_INFO, "%s :: INFO: IP addresses on ethgrp0 interface is different, Hence re-configuring\n",
          kProcName);
  export_sender(p);
  sys_.environment.set("ARP_DST_IP", dotted(p.ar_tip).c_str());
  sys_.environment.set("ARP_IF", kArpInterface);
  set_interface_address();
  counters_.k_arp_req++;
  cpa_log(LOG_INFO, "ARP processing done:\n");
  return 0;
}

int ArpHandler::proc_reply(const arp_eth_ipv4_t& p) {
  if (!sArpSet) pin_static_arp_entry(p);
  if (p.ar_sip != p.ar_tip) return 0;  // not gratuitous

  // "from" names the sender's hardware address; its addresses follow on lines of their own.
  cpa_log(LOG_INFO, "Received Gratuitous ARP reply from %s\n", format_print_mac_address(p.ar_sha, false).c_str());
  cpa_log(LOG_DEBUG, "\tSource IP address: %s\n", dotted(p.ar_sip).c_str());
  cpa_log(LOG_DEBUG, "\tDestination IP address: %s\n", dotted(p.ar_tip).c_str());
  uint32_t if_addr = 0;
  const int in_subnet = sender_in_subnet(p, if_addr, "Grat ARP");
  if (in_subnet < 0) return 1;
  flush_interface();
  export_sender(p);
  sys_.environment.set("ARP_IF", kArpInterface);
  // Wraps as a 32-bit host-order number: 10.0.0.255 is followed by 10.0.1.0.
  const uint32_t next = in_subnet ? if_addr : htonl(ntohl(p.ar_sip) + 1);
  const std::string address = dotted(next);
  cpa_log(LOG_INFO, "INFO: Flushed IP addresses on ethgrp0 interface, %s is the new ethgrp0 address\n",
          address.c_str());
  sys_.environment.set("ARP_DST_IP", address.c_str());
  set_interface_address();
  counters_.k_arp_reply++;
  cpa_log(LOG_INFO, "INFO: %s is the new ethgrp0 address\n", address.c_str());
  return 0;
}

int ArpHandler::sender_in_subnet(const arp_eth_ipv4_t& p, uint32_t& if_addr, const char* packet_kind) {
  const int in_subnet = kestrix_validate_subnet(sys_.devices, kArpInterface, p.ar_sip, &if_addr);
  if (in_subnet < 0) {
    cpa_log(LOG_ERR, "Socket operation failures observed, No action taken on %s\n", packet_kind);
    counters_.k_arp_err++;
  }
  return in_subnet;
}

void ArpHandler::pin_static_arp_entry(const arp_eth_ipv4_t& p) {
  export_sender(p);
  sys_.commands.run(kStaticArpCommand);
  sArpSet = 1;
  cpa_log(LOG_INFO, "Static ARP set... sArpSet:%d\n", sArpSet);
}

void ArpHandler::export_sender(const arp_eth_ipv4_t& p) {
  sys_.environment.set("ARP_SRC_MAC", format_print_mac_address(p.ar_sha, false).c_str());
  sys_.environment.set("ARP_SRC_IP", dotted(p.ar_sip).c_str());
}

void ArpHandler::flush_interface() {
  sys_.environment.set("ARP_IF", kArpInterface);
  sys_.commands.run(kFlushCommand);
  cpa_log(LOG_INFO, "INFO: Flushed IP addresses on ethgrp0 interface\n");
}

// The exit status is not looked at: the next ARP packet is handled afresh.
void ArpHandler::set_interface_address() { sys_.commands.run(kSetAddressCommand); }

}  // namespace cpa
