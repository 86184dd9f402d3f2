// The XFRM messages of one kernel flavour. The platform kernel and a stock
// kernel differ in the layout of their message bodies and in how an SA or a
// policy is tied to its tunnel (the SVTI device's index, or the xfrm
// interface id), so each flavour builds its own requests (with the netlink
// core, on the request's own buffer) and reads its own events. The entry
// points of xfrm_sa.h and xfrm_policy.h count, log and send, whichever
// dialect built the request.
#pragma once

#include <string.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "kernel/netlink_transport.h"
#include "netlink/nl_message.h"
#include "platform/system_ports.h"
#include "state/cipher_record.h"
#include "state/tunnel_table.h"
#include "wire/cp_dp_msg.h"
#include "wire/received_bytes.h"
#include "wire/xfrm_platform.h"

namespace cpa {

// One IPv4 policy as the policy code describes it (one ACE, one direction).
// A get or delete uses the selector, the direction and the tunnel id only.
struct XfrmPolicyArgs {
  uint32_t src = 0;    // selector source address, host order
  uint32_t smask = 0;  // source prefix length (low byte used)
  uint32_t dst = 0;    // selector destination address, host order
  uint32_t dmask = 0;  // destination prefix length (low byte used)
  uint16_t sport = 0;  // host order
  uint16_t dport = 0;  // host order
  uint16_t family = AF_INET;
  uint8_t dir = 0;    // 0 in, 1 out, 2 forward
  uint8_t proto = 0;  // selector IP protocol
  uint32_t tunnelid = 0;  // selects the tunnel's SVTI device (or xfrm interface)
  uint8_t action = 0;     // 0 allow, 1 block
  uint32_t reqid = 0;     // the template's request id: the tunnel's
  uint8_t tun_mode = 0;   // the template's mode: 0 transport, 1 tunnel
  uint8_t sec_protocol = kIpProtoEsp;  // the template's protocol: 50 ESP, 51 AH
  // The template's outer addresses, host order, 0 for any. Only a stock
  // kernel reads them: in tunnel mode its SAs are found by them.
  uint32_t tmpl_src = 0;
  uint32_t tmpl_dst = 0;
};

// Where a policy event's body keeps the policy's kernel index and direction.
struct PolicyEventBody {
  uint16_t type;
  size_t size;
  size_t index_at;
  size_t dir_at;
};

// An XFRM request being built, on a buffer of its own, with what a dialect
// ties it to: the port id its header names and the devices it may refer to.
struct XfrmRequest {
  explicit XfrmRequest(const NetlinkTransport& nl) : port_id(nl.port_id()), devices(nl.devices()) {}
  XfrmRequest(const XfrmRequest&) = delete;
  XfrmRequest& operator=(const XfrmRequest&) = delete;
  // An SA add carries its keys: none stays in the buffer after the send.
  ~XfrmRequest() { explicit_bzero(buffer.data(), buffer.size()); }

  // Starts the message: a header asking for an acknowledgement, and the body.
  template <class Body>
  void begin(uint16_t type, uint32_t pid, const Body& body) {
    msg.put_header(type, kNlmFlagsRequestAck, pid);
    msg.put_body(body);
  }

  net_buf buffer{};
  NlMessage msg{buffer};
  const uint32_t port_id;
  NetDeviceSysCalls& devices;
};

class KernelDialect {
 public:
  virtual ~KernelDialect() = default;
  // The add of one SA; false (nothing to send) when an algorithm code has
  // no kernel name.
  virtual bool build_sa_add(XfrmRequest& req, const kestrix_ce_cipher_list_t& sa_info,
                            uint32_t tunid, uint32_t reqid, int replay_window) const = 0;
  virtual void build_sa_getordel(XfrmRequest& req, int del, const kestrix_addr& dst,
                                 uint32_t spi, uint8_t proto) const = 0;
  virtual void build_policy_add(XfrmRequest& req, uint32_t update,
                                const XfrmPolicyArgs& policy) const = 0;
  virtual void build_policy_getordel(XfrmRequest& req, uint32_t del,
                                     const XfrmPolicyArgs& policy, uint32_t index) const = 0;
  // The kernel index in a policy answer's body.
  virtual uint32_t policy_index(ReceivedBytes body) const = 0;

  // The policy events whose kernel index the listener can read, and the
  // acquire: its body's size and the body in the platform's layout (what
  // the policy layer is handed).
  virtual std::span<const PolicyEventBody> policy_events() const = 0;
  virtual size_t acquire_size() const = 0;
  virtual xfrm_user_acquire_64 acquire(ReceivedBytes body) const = 0;
};

const KernelDialect& platform_dialect();
const KernelDialect& linux_dialect();

// The dialect of the kernel the transport talks to.
inline const KernelDialect& dialect_of(const NetlinkTransport& nl) {
  return nl.dialect();
}

}  // namespace cpa
