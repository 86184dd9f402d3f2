"""The agent's NETLINK_XFRM sockets in its own network namespace (the
listener's handling of each event is unit-tested)."""

import re
import unittest

from sandbox import AgentTestCase, LOG_DEBUG

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


if __name__ == "__main__":
    unittest.main()
