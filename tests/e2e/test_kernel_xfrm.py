"""The agent's kernel side: its NETLINK_XFRM sockets in the agent's own
network namespace, and the events of a fake platform kernel reaching the
listener of the real binary."""

import re
import unittest

from fake_kernel import FakeKernelTestCase, GROUP_POLICY, acquire, nlmsg
from rp_messages import init_start
from sandbox import AgentTestCase, LOG_DEBUG, LOG_ERR

NETLINK_XFRM = 6


def xfrm_sockets():
    """(port id, groups) of the user NETLINK_XFRM sockets of this network
    namespace (port id 0 is the kernel's own)."""
    with open("/proc/net/netlink") as f:
        rows = [line.split() for line in f.readlines()[1:]]
    return [(int(r[2]) & 0xffffffff, int(r[3], 16)) for r in rows
            if int(r[1]) == NETLINK_XFRM and int(r[2]) != 0]


class RealKernelSockets(AgentTestCase):
    def test_request_socket_has_the_process_id_and_the_monitor_the_policy_group(self):
        agent = self.start_agent("-d", "7")
        self.assertLogged(agent, "nl_pid now  0", LOG_DEBUG, count=2)
        self.assertLogged(agent, "nl_grps 0x8", LOG_DEBUG)
        texts = agent.texts()
        self.assertTrue(any(re.fullmatch(r"nlsock_fd = \d+", t) for t in texts))
        self.assertTrue(any(re.fullmatch(r"nlmon_fd = \d+", t) for t in texts))
        sockets = xfrm_sockets()
        self.assertIn((agent.proc.pid, 0), sockets)
        self.assertEqual(sorted(groups for _, groups in sockets), [0, 8])


class FakeKernelEvents(FakeKernelTestCase):
    def policy(self, pid, index, direction, reqid):
        self.assertTrue(self.kernel.command(f"policy 19 {pid} {index} {direction} {reqid}"))

    def test_new_policy_of_a_tunnel_reaches_its_policy_layer(self):
        self.policy(self.agent.proc.pid, 0x19, 1, 1)
        self.assertLogged(self.agent, "got notification from netlink", LOG_DEBUG)
        self.assertLogged(self.agent, "XFRM_MSG_NEWPOLICY::", LOG_DEBUG)
        self.assertLogged(self.agent, "no policy found for dir 1, index 0x19", LOG_ERR)
        self.policy(0, 0x20, 0, 1)
        self.assertLogged(self.agent, "no policy found for dir 0, index 0x20", LOG_ERR)

    def test_policies_of_other_processes_or_unknown_tunnels_change_nothing(self):
        self.policy(4242, 0x19, 1, 1)
        self.policy(0, 0x21, 1, "none")
        self.policy(0, 0x22, 1, 77)
        self.assertLogged(self.agent, "ERROR: requested rta not found: XFRMA_TMPL", LOG_ERR)
        self.assertLogged(self.agent, "reqid 77 not found", LOG_ERR)
        self.assertLogged(self.agent, " netlink process message error ", LOG_ERR)
        self.assertEqual(self.agent.texts().count("XFRM_MSG_NEWPOLICY::"), 2)
        self.assertNotIn("no policy found for dir 1, index 0x19", self.agent.texts())

    def test_acquires_arrive_only_on_a_subscribed_group(self):
        self.assertTrue(self.kernel.command("acquire 1"))  # the acquire group: not the agent's
        self.assertTrue(self.kernel.multicast(GROUP_POLICY, acquire(1)))
        self.assertLogged(self.agent, "XFRM_MSG_ACQUIRE:", LOG_DEBUG)
        self.assertLogged(self.agent, "outbound action not found for notify rp", LOG_ERR)
        self.assertTrue(self.kernel.multicast(GROUP_POLICY, acquire(9)))
        self.assertLogged(self.agent, "Process an acquire notification ERROR", LOG_ERR)
        self.assertEqual(self.agent.texts().count("XFRM_MSG_ACQUIRE:"), 2)
        self.assertIsNone(self.rp_client.receive(timeout=0.3))

    def test_other_and_malformed_messages_are_logged_and_the_agent_serves_on(self):
        self.assertTrue(self.kernel.multicast(GROUP_POLICY, b"\x10\x00\x00\x00\x13\x00"))
        self.assertTrue(self.kernel.multicast(GROUP_POLICY, nlmsg(30)))
        self.assertTrue(self.kernel.multicast(GROUP_POLICY, nlmsg(2, bytes(20))))
        self.assertTrue(self.kernel.multicast(GROUP_POLICY, nlmsg(40, flags=0x300)))
        self.assertLogged(self.agent, "ERROR: NLMSG_OK failed!", LOG_ERR)
        self.assertLogged(self.agent, "XFRM_MSG_NEWAE:", LOG_DEBUG)
        self.assertLogged(self.agent, "msg type 2\n", LOG_DEBUG)
        self.assertLogged(self.agent, "Unknown message: 00000016 0x00000028 0x00000300\n", LOG_ERR)
        self.assertNotIn("Unknown message: 00000036 0x00000002 0x00000000\n", self.agent.texts())
        self.assertEqual(len(self.rp_client.request(init_start(2, 0x200))), 18)


if __name__ == "__main__":
    unittest.main()
