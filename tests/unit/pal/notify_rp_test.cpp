#include "pal/notify_rp.h"

#include <gtest/gtest.h>

#include "fakes/kernel_test_agent.h"
#include "kernel/netlink_listener.h"
#include "support/tunnel_setup.h"

namespace cpa::test {
namespace {

void add_policy(cpa_interface_t& tunnel, uint32_t outbound_action, uint32_t notify_handle) {
  auto policy = new_record<cpa_spd_policy_t>();
  policy->outbound.action = outbound_action;
  policy->outbound.data.notify_rp_handle = notify_handle;
  insert_node_policy(tunnel.head_policy, std::move(policy));
}

TEST(NotifyRp, AnAcquireSendsTheRpOneDatagramQuotingTheNewestPolicy) {
  KernelTestAgent t;
  ScopedFd monitor = t.kernel.monitor_socket(kGroupAcquire);
  const uint32_t slot = open_tunnel(t, 0x100);
  cpa_interface_t& tunnel = *t.agent.tunnels.at(slot);
  tunnel.tunnelid = 0x2a;
  const auto acquire = [&] {
    t.kernel.multicast(kGroupAcquire, acquire_event(tunnel.reqid));
    ASSERT_EQ(kestrix_nlink_listener(t.agent, monitor.get()), 0);
  };

  acquire();  // no policy: nothing to quote
  EXPECT_TRUE(t.log.has(LOG_ERR, "outbound action not found for notify rp"));
  EXPECT_TRUE(t.take_sent().empty());

  add_policy(tunnel, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP, 0x77);
  add_policy(tunnel, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP, 0x88);
  acquire();
  EXPECT_EQ(
      t.take_sent(),
      (std::vector<std::vector<uint8_t>>{
          Bytes().be16(0).be16(82).be16(21).be32(0x88).be32(1).be32(0x2a).be32(0x2a).zeros(64)}));
  EXPECT_TRUE(t.log.has(LOG_INFO, "- sendto() is OK..."));

  // A failed send is not reported; a null acquire or a newest policy that
  // does not notify sends nothing.
  KernelPolicyEvents& events = *t.agent.policy_events;
  const xfrm_user_acquire_64 acq{};
  t.rp.fail_sends = true;
  t.log.clear();
  EXPECT_EQ(events.kestrix_notify_rp(&acq, slot), 0);
  EXPECT_TRUE(t.log.has(LOG_INFO, "- sendto() is OK..."));
  t.rp.fail_sends = false;
  EXPECT_EQ(events.kestrix_notify_rp(nullptr, slot), 1);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "Null acp"));
  add_policy(tunnel, CDH_ACTION_FORWARD_PACKET, 0x99);
  EXPECT_EQ(events.kestrix_notify_rp(&acq, slot), 1);
  EXPECT_TRUE(t.take_sent().empty());
}

}  // namespace
}  // namespace cpa::test
