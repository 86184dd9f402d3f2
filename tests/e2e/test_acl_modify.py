"""ACL modify over UDP: the real binary attached to the fake platform kernel
(kernel policy table, the kernel's index announcements, acquires turned into
notifications to the RP, the SIGINT dump), and against the stock kernel,
which refuses the platform's policy messages."""

import signal
import socket
import unittest

from counter_report import counter_rows
from fake_kernel import FakeKernelTestCase, GROUP_ACQUIRE, GROUP_POLICY
from rp_messages import (ace_record, acl_modify, be16, be32, init_start, intf_attach,
                         notify_actions)
from sandbox import AgentTestCase, LOG_DEBUG, LOG_ERR, LOG_INFO

CALLBACK = 0xCBCBCBCB
TUNNEL_ID = 7


def answer(status, callback=CALLBACK):
    return be16(0) + be16(14) + be16(9) + be32(callback) + be32(status)


def ace(handle):
    """Local 10.0.0.h/24 port 1000+h, remote 192.168.h.1/16 port 2000+h, UDP."""
    return ace_record(handle, 0x0A000000 + handle, 24, 0xC0A80001 + (handle << 8), 16,
                      ports=(1000 + handle, 2000 + handle))


def kernel_pair(h, svti, out_index, in_index):
    """The fake kernel's lines for the outbound and inbound policy of ace(h)."""
    local, remote = f"10.0.0.{h}/24:{1000 + h}", f"192.168.{h}.1/16:{2000 + h}"
    return [f"policy 19 dir1 act0 {local}>{remote} p17 svti{svti} idx{out_index} tmpl50/m0/r1",
            f"policy 19 dir0 act0 {remote}>{local} p17 svti{svti} idx{in_index} tmpl50/m0/r1"]


class AclModifyOnFakeKernel(FakeKernelTestCase):
    def setUp(self):
        super().setUp()
        self.assertEqual(self.rp_client.request(intf_attach(2, 1, TUNNEL_ID))[-4:], be32(1))
        self.svti = socket.if_nametoindex(f"svti{TUNNEL_ID}")

    def modify(self, opcode, records=b""):
        return self.rp_client.request(acl_modify(CALLBACK, 1, opcode, records))

    def test_install_replace_and_remove_reach_the_kernel_and_answer_the_rp(self):
        self.assertEqual(self.modify(2, ace(1) + notify_actions(0xABCD)), answer(1))
        self.assertEqual(self.kernel.policies(), kernel_pair(1, self.svti, 9, 16))
        # The same ACL again is a duplicate: answered success, nothing reaches the kernel.
        self.assertEqual(self.modify(2, ace(1) + notify_actions(0xABCD)), answer(1))
        self.assertLogged(self.agent, "Duplicate policy found. Returning no error\n", LOG_DEBUG)

        # The kernel announces both policies; their indexes reach the ACEs,
        # so the replacement deletes them by index.
        self.assertLogged(self.agent, "XFRM_MSG_NEWPOLICY::", LOG_DEBUG, count=2)
        self.assertEqual(self.modify(5, ace(2) + notify_actions(0xABCE)), answer(1))
        self.assertEqual(self.kernel.policies(), kernel_pair(2, self.svti, 25, 32))
        self.assertTrue(self.kernel.wait_line("request type=20 len=88", count=2))

        self.assertEqual(self.modify(4), answer(1))
        self.assertEqual(self.kernel.policies(), [])
        self.assertEqual(self.modify(3), answer(8))
        self.assertLogged(self.agent, "Got an invalid code for acl processing 3\n", LOG_ERR)
        self.assertEqual(self.rp_client.request(acl_modify(CALLBACK, 9, 2)), answer(6))
        # Requests count once a tunnel and a known opcode are found; an unknown
        # opcode's error counts on the delete row all the same.
        rows = counter_rows(self.agent)
        self.assertEqual(rows["KESTRIX_PAL_ACL_MODIFY-(Add)"], (3, 3, 0))
        self.assertEqual(rows["KESTRIX_PAL_ACL_MODIFY-(Del)"], (1, 1, 1))

    def test_kernel_indexes_and_the_policy_show_in_the_sigint_dump(self):
        self.assertEqual(self.modify(2, ace(1) + notify_actions(0xABCD)), answer(1))
        self.assertLogged(self.agent, "XFRM_MSG_NEWPOLICY::", LOG_DEBUG, count=2)
        self.agent.signal(signal.SIGINT)
        self.assertLogged(self.agent, ">>>KESTRIX POLICIES END<<<", LOG_INFO)
        lines = self.agent.log_lines()
        start = lines.index((LOG_INFO, ">>>KESTRIX POLICIES BEGIN<<<"))
        dump = lines[start:lines.index((LOG_INFO, ">>>KESTRIX POLICIES END<<<"))]
        # The kernel's indexes reached the twin (first) and the ACE of the request.
        self.assertLess(dump.index((LOG_INFO, "Kernel Index [16], direction [IN](0)")),
                        dump.index((LOG_INFO, "Kernel Index [9], direction [OUT](1)")))
        for line in [(LOG_DEBUG, "STATIC_SEQNO [33] DYNAMIC_SEQNO [34] "),
                     (LOG_DEBUG, "notify_rp_handle [0xabcd]")]:
            self.assertIn(line, dump)

    def test_acquires_of_another_group_or_without_a_policy_send_nothing(self):
        self.assertTrue(self.kernel.acquire(GROUP_ACQUIRE, 1))  # not the agent's group
        self.assertTrue(self.kernel.acquire(GROUP_POLICY, 1))
        self.assertLogged(self.agent, "outbound action not found for notify rp", LOG_ERR)
        self.assertTrue(self.kernel.acquire(GROUP_POLICY, 9))
        self.assertLogged(self.agent, "Process an acquire notification ERROR", LOG_ERR)
        self.assertEqual(self.agent.texts().count("XFRM_MSG_ACQUIRE:"), 2)
        self.assertIsNone(self.rp_client.receive(timeout=0.3))

    def test_an_acquire_asks_the_rp_with_the_newest_policys_handle(self):
        self.assertEqual(self.modify(2, ace(1) + notify_actions(0x1111)), answer(1))
        self.assertEqual(self.modify(2, ace(2) + notify_actions(0xABCD)), answer(1))
        self.assertTrue(self.kernel.acquire(GROUP_POLICY, 1))
        expected = (be16(0) + be16(82) + be16(21) + be32(0xABCD) + be32(1) + be32(TUNNEL_ID) +
                    be32(TUNNEL_ID) + bytes(64))
        self.assertEqual(self.rp_client.receive(), expected)
        self.assertLogged(self.agent, "- sendto() is OK...", LOG_INFO)
        self.assertIsNone(self.rp_client.receive(timeout=0.3))


class AclModifyOnStockKernel(AgentTestCase):
    def test_a_policy_the_kernel_refuses_is_answered_with_an_internal_error(self):
        agent = self.start_agent("-d", "7")
        rp = self.rp()
        self.assertEqual(len(rp.request(init_start(1, 0x100))), 18)
        # The stock kernel reads the platform's policy body with its own
        # layout but takes it; a second ACL with the same selector clashes.
        self.assertEqual(rp.request(acl_modify(CALLBACK, 1, 2, ace(1) + notify_actions(0xABCD))),
                         answer(1))
        same_selector = ace_record(5, 0x0A000001, 24, 0xC0A80101, 16, ports=(1001, 2001))
        self.assertEqual(rp.request(acl_modify(CALLBACK, 1, 2, same_selector + notify_actions(0xABCD))),
                         answer(0))
        self.assertLogged(agent, "RTNETLINK answers: File exists (17)\n", LOG_ERR)
        self.assertLogged(agent, "Error in outbound policy creation", LOG_ERR)


if __name__ == "__main__":
    unittest.main()
