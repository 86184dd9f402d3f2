// What the end-to-end suite cannot make a kernel do: refuse a device.
#include "pal/intf_attach.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>

#include "fakes/test_agent.h"
#include "wire/ip_tunnel_parm.h"

namespace cpa::test {
namespace {

std::vector<uint8_t> attach(uint32_t callback, uint32_t sadb, uint32_t tunnel_id) {
  return pal_request(5, Bytes().be32(callback).be32(sadb).be32(tunnel_id).be32(1));
}

TEST(IntfAttach, DeviceFailureAnswersResourcesAndLeavesTheTunnelUnattached) {
  TestAgent t;
  const uint32_t slot = t.open_tunnel(0x100);
  t.devices.fail[SIOCSIFMTU] = EINVAL;
  EXPECT_EQ(t.exchange(attach(5, slot, 7)), pal_answer(5, Bytes().be32(5).be32(3)));
  EXPECT_TRUE(t.log.has(LOG_ERR, "ERROR: svti [svti7] add failed"));
  EXPECT_EQ(t.agent.tunnels.at(slot)->tunnelid, kUnattachedTunnel);
  EXPECT_EQ(t.agent.counters.dbg_ctrs.p_intf_attach_req_resperr, 1u);
}

TEST(IntfAttach, DetachWhoseDeviceStaysKeepsTheTunnelAttached) {
  TestAgent t;
  const uint32_t slot = t.open_tunnel(0x100);
  t.exchange(attach(1, slot, 7));
  t.devices.fail[kSiocDelTunnel] = EPERM;
  EXPECT_EQ(t.exchange(attach(6, 0, 7)), pal_answer(5, Bytes().be32(6).be32(1)));
  EXPECT_TRUE(t.log.has(LOG_ERR, " invalid svti interface "));
  EXPECT_EQ(t.agent.tunnels.at(slot)->tunnelid, 7u);
  EXPECT_NE(t.devices.device("svti7"), nullptr);
}

}  // namespace
}  // namespace cpa::test
