// The ARP packet socket on the internal Ethernet interface, and the link
// events that say when that interface exists. The packet socket is opened
// without a protocol, so it hears nothing until it is bound to ethgrp0's
// index; the index comes from the kernel's link messages (one query at
// start-up, then the RTM_NEWLINK events), never from a lookup by name,
// which on a stock kernel makes the kernel try to load a module.
#pragma once

#include "platform/scoped_fd.h"
#include "wire/received_bytes.h"

namespace cpa {

inline constexpr const char* kArpInterface = "ethgrp0";

class ArpPort {
 public:
  // `frames`: AF_PACKET, no protocol; `link_events`: NETLINK_ROUTE, unbound.
  ArpPort(ScopedFd frames, ScopedFd link_events) : frames_(std::move(frames)), events_(std::move(link_events)) {}

  // Joins the link group and asks for ethgrp0; the answer arrives as an event.
  void watch_interface();
  // Reads the pending link messages; binds the packet socket to a new ethgrp0.
  void on_link_events();

  int link_events_fd() const { return events_.get(); }
  int frames_fd() const { return ifindex_ > 0 ? frames_.get() : -1; }  // -1 until bound

 private:
  void on_link_message(ReceivedBytes msg);
  void bind_to(int ifindex);

  ScopedFd frames_;
  ScopedFd events_;
  int ifindex_ = 0;  // ethgrp0's index the socket is bound to
};

}  // namespace cpa
