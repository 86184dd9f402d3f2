// Builds ACL modify commands and their ACE and action records byte by byte
// from the offsets of the wire layout, independent of the production structs.
#pragma once

#include <cstdint>
#include <vector>

#include "support/wire_builder.h"

namespace cpa::test {

struct PortSpec {
  uint32_t type = 0;
  uint8_t num_port = 0;
  std::vector<uint16_t> ports;  // up to 10; the rest of the list is zero
};

struct AceSpec {
  uint32_t ip_type = 4;
  uint32_t type = 0;
  uint16_t seqno = 0;
  uint32_t reverse = 0;
  uint32_t handle = 0;
  uint32_t local_addr = 0, local_mask = 0, remote_addr = 0, remote_mask = 0;
  uint16_t protocol = 0;
  uint32_t any_port = 0;
  PortSpec local_port{}, remote_port{};
  uint32_t hint = 0;
};

// The 122-byte ACE body.
inline std::vector<uint8_t> ace_body(const AceSpec& a) {
  Bytes b;
  b.be32(a.ip_type).be32(a.type).be16(a.seqno).be32(a.reverse).be32(a.handle);
  b.be32(a.local_addr).be32(a.local_mask).be32(a.remote_addr).be32(a.remote_mask);
  b.be16(a.protocol).zeros(2).be32(a.any_port);
  for (const PortSpec* p : {&a.local_port, &a.remote_port}) {
    b.be32(p->type).u8(p->num_port);
    for (size_t i = 0; i < 10; ++i) b.be16(i < p->ports.size() ? p->ports[i] : 0);
  }
  b.zeros(26).be32(a.hint);
  return b;
}

inline std::vector<uint8_t> ace_record(uint16_t kind, const AceSpec& a) {
  return Bytes().be16(kind).be16(122).append(ace_body(a));
}

// An action body: the action code and the first bytes of its 24-byte data.
inline std::vector<uint8_t> action_body(uint32_t action, const std::vector<uint8_t>& data = {}) {
  Bytes b;
  b.be32(action).append(data).zeros(24 - data.size());
  return b;
}

inline std::vector<uint8_t> action_record(uint16_t kind, uint32_t action,
                                          const std::vector<uint8_t>& data = {}) {
  return Bytes().be16(kind).be16(28).append(action_body(action, data));
}

// An ACL modify command from `pal_api_type` on: the 52-byte fixed part and
// the records.
inline std::vector<uint8_t> acl_command(uint32_t opcode, const std::vector<std::vector<uint8_t>>& records,
                                        uint32_t callback = 0x11, uint32_t sadb = 1) {
  Bytes b;
  b.be16(9).be32(callback).be32(sadb).be32(0x21).be32(0x22).be32(opcode);
  b.be64(0xAAAA000000000005ull).be64(6).be64(7).be16(8).be32(9);
  for (const auto& r : records) b.append(r);
  return b;
}

// The whole datagram of an ACL modify request.
inline std::vector<uint8_t> acl_request(uint32_t opcode, const std::vector<std::vector<uint8_t>>& records,
                                        uint32_t callback = 0x11, uint32_t sadb = 1) {
  const std::vector<uint8_t> command = acl_command(opcode, records, callback, sadb);
  return Bytes().be16(0).be16(static_cast<uint16_t>(command.size())).append(command);
}

}  // namespace cpa::test
