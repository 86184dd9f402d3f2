"""The agent's kernel side: its NETLINK_XFRM sockets in the agent's own
network namespace, and the groups its monitor socket takes events from (the
listener's handling of each event is unit-tested)."""

import re
import unittest

from fake_kernel import FakeKernelTestCase, GROUP_ACQUIRE, GROUP_POLICY
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
    def test_acquires_arrive_only_on_a_subscribed_group(self):
        self.assertTrue(self.kernel.acquire(GROUP_ACQUIRE, 1))  # not the agent's group
        self.assertTrue(self.kernel.acquire(GROUP_POLICY, 1))
        self.assertLogged(self.agent, "XFRM_MSG_ACQUIRE:", LOG_DEBUG)
        self.assertLogged(self.agent, "outbound action not found for notify rp", LOG_ERR)
        self.assertTrue(self.kernel.acquire(GROUP_POLICY, 9))
        self.assertLogged(self.agent, "Process an acquire notification ERROR", LOG_ERR)
        self.assertEqual(self.agent.texts().count("XFRM_MSG_ACQUIRE:"), 2)
        self.assertIsNone(self.rp_client.receive(timeout=0.3))


if __name__ == "__main__":
    unittest.main()
