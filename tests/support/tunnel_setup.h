// Opens tunnels the way the RP does, for tests of the requests that need one.
#pragma once

#include <cstdint>

#include "fakes/test_agent.h"
#include "support/wire_builder.h"

namespace cpa::test {

// Sends SADB_INIT_START with `create_handle`; returns the tunnel's slot.
inline uint32_t open_tunnel(TestAgent& t, uint32_t create_handle) {
  t.deliver(pal_request(1, Bytes().be32(0xC0FFEE).be32(create_handle).be32(0)));
  const auto sent = t.take_sent();
  const std::vector<uint8_t>& r = sent.back();
  return uint32_t{r[10]} << 24 | uint32_t{r[11]} << 16 | uint32_t{r[12]} << 8 | r[13];
}

}  // namespace cpa::test
