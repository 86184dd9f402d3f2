#include "pal/intf_attach.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>

#include "fakes/test_agent.h"
#include "support/tunnel_setup.h"
#include "support/wire_builder.h"
#include "wire/ip_tunnel_parm.h"

namespace cpa {
namespace {

using test::Bytes;
using test::pal_request;
using Datagram = std::vector<uint8_t>;

Datagram attach_request(uint32_t callback, uint32_t sadb, uint32_t tunnel_id, uint32_t is_v6 = 0) {
  return pal_request(5, Bytes().be32(callback).be32(sadb).be32(tunnel_id).be32(is_v6));
}

// The 14-byte answer: header, command 5, the callback handle, the status.
Datagram answer(uint32_t callback, uint32_t status) {
  return Bytes().be16(0).be16(14).be16(5).be32(callback).be32(status);
}

class IntfAttachTest : public ::testing::Test {
 protected:
  IntfAttachTest() : slot(test::open_tunnel(t, 0x100)) {}

  Datagram exchange(const Datagram& request) {
    t.deliver(request);
    auto sent = t.take_sent();
    return sent.size() == 1 ? sent[0] : Datagram{};
  }
  const cpa_interface_t& tunnel() const { return *t.agent.tunnels.at(slot); }
  const cpa_pal_ctr_t& ctrs() const { return t.agent.counters.dbg_ctrs; }

  test::TestAgent t;
  uint32_t slot;
};

TEST_F(IntfAttachTest, AttachCreatesTheDeviceAndRecordsTheTunnelId) {
  t.log.clear();
  EXPECT_EQ(exchange(attach_request(0xCA11BAC4, slot, 7, 1)), answer(0xCA11BAC4, 1));

  const test::FakeNetDevices::Device* dev = t.devices.device("svti7");
  ASSERT_NE(dev, nullptr);
  EXPECT_TRUE(dev->flags & IFF_UP);
  EXPECT_EQ(dev->mtu, 9160);
  EXPECT_EQ(t.devices.open_descriptors(), 0);
  EXPECT_EQ(tunnel().tunnelid, 7u);
  EXPECT_EQ(tunnel().is_v6, 1u);

  EXPECT_EQ(ctrs().p_intf_attach_req, 1u);
  EXPECT_EQ(ctrs().p_intf_attach_req_respok, 1u);
  EXPECT_EQ(ctrs().p_intf_detach_req + ctrs().p_intf_detach_req_respok, 0u);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "\ncall handle ca11bac4, sadbhdl 1, tunnel_id 7, is_v6 1"));
  EXPECT_TRUE(t.log.has(LOG_INFO, "KESTRIX_PAL_SADB_INTF_ATTACH ca11bac4 00000001"));
  EXPECT_TRUE(t.log.has(
      LOG_INFO, "KESTRIX_PAL_SADB_INTF_ATTACH ca11bac4 00000001 status 1 Time 0.00000 seconds"));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "Created: svti [svti7] "));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, " KESTRIX_PAL_SADB_INTF_ATTACH req status 1"));
  EXPECT_FALSE(t.log.has_text("action: INVALID cmd_type 5 status 1"));
}

TEST_F(IntfAttachTest, RepeatedAttachAnswersSuccessWithoutTouchingTheDevice) {
  exchange(attach_request(1, slot, 7));
  t.devices.ioctls.clear();
  EXPECT_EQ(exchange(attach_request(2, slot, 7)), answer(2, 1));
  EXPECT_TRUE(t.devices.ioctls.empty());
  EXPECT_TRUE(t.log.has_text("Duplicate tunnel ID 7SADB handle [1] status sent- success"));
  EXPECT_EQ(ctrs().p_intf_attach_req, 2u);
  EXPECT_EQ(ctrs().p_intf_attach_req_respok, 2u);
}

TEST_F(IntfAttachTest, RefusedAttaches) {
  EXPECT_EQ(exchange(attach_request(3, 99, 7)), answer(3, 6));  // no such tunnel
  EXPECT_EQ(ctrs().p_intf_attach_req, 1u);
  EXPECT_EQ(ctrs().p_intf_attach_req_resperr, 1u);

  // Refused before they count: zero callback handle, body cut short.
  EXPECT_EQ(exchange(attach_request(0, slot, 7)), answer(0, 8));
  EXPECT_EQ(exchange(pal_request(5, Bytes().be32(4).be32(slot).be32(7))), answer(4, 8));
  EXPECT_EQ(t.log.count(" isadb attribute request null "), 2);
  EXPECT_EQ(ctrs().p_intf_attach_req, 1u);
  EXPECT_EQ(ctrs().p_intf_detach_req, 0u);
  EXPECT_EQ(t.devices.device("svti7"), nullptr);
}

TEST_F(IntfAttachTest, DeviceFailureAnswersResourcesAndLeavesTheTunnelUnattached) {
  t.devices.fail[SIOCSIFMTU] = EINVAL;
  EXPECT_EQ(exchange(attach_request(5, slot, 7)), answer(5, 3));
  EXPECT_TRUE(t.log.has(LOG_ERR, "ERROR: svti [svti7] add failed"));
  EXPECT_EQ(tunnel().tunnelid, kUnattachedTunnel);
  EXPECT_EQ(ctrs().p_intf_attach_req_resperr, 1u);
}

TEST_F(IntfAttachTest, DetachDeletesTheDeviceAndAlwaysSucceeds) {
  exchange(attach_request(1, slot, 7));
  EXPECT_EQ(exchange(attach_request(6, 0, 7)), answer(6, 1));
  EXPECT_EQ(t.devices.device("svti7"), nullptr);
  EXPECT_EQ(tunnel().tunnelid, kUnattachedTunnel);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "---svti deleted [svti7]"));

  EXPECT_EQ(exchange(attach_request(7, 0, 7)), answer(7, 1));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, " Tunnel Id 7 might have been deleted"));
  EXPECT_EQ(ctrs().p_intf_detach_req, 2u);
  EXPECT_EQ(ctrs().p_intf_detach_req_respok, 2u);
  EXPECT_EQ(ctrs().p_intf_attach_req, 1u);
  EXPECT_TRUE(t.log.has(
      LOG_INFO, "KESTRIX_PAL_SADB_INTF_ATTACH 00000007 00000000 status 1 Time 0.00000 seconds"));
}

TEST_F(IntfAttachTest, DetachWhoseDeviceStaysKeepsTheTunnelAttached) {
  exchange(attach_request(1, slot, 7));
  t.devices.fail[kSiocDelTunnel] = EPERM;
  EXPECT_EQ(exchange(attach_request(6, 0, 7)), answer(6, 1));
  EXPECT_TRUE(t.log.has(LOG_ERR, " invalid svti interface "));
  EXPECT_EQ(tunnel().tunnelid, 7u);
  EXPECT_NE(t.devices.device("svti7"), nullptr);
}

TEST_F(IntfAttachTest, HelpersRefuseWhatTheyCannotActOn) {
  const kestrix_pal_attach_sadb_req req{};
  EXPECT_EQ(kestrix_intf_svti_create_attach(t.agent, req, 2), CRYPTO_ERR_INVALID);
  EXPECT_TRUE(t.log.has(LOG_ERR, "invalid index"));
  EXPECT_EQ(kestrix_intf_svti_del(t.agent, 0x80000000), CRYPTO_ERR_INVALID);
  EXPECT_TRUE(t.log.has(LOG_ERR, "Invalid tunnel id [80000000] "));
}

}  // namespace
}  // namespace cpa
