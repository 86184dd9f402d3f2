"""The fast path's segment is read only when root alone can write it, and a
segment that shrinks under the agent never kills it."""

import os

from sandbox import LOG_ERR, AgentTestCase
from cpa_rp import segment
from cpa_rp.wire import flow_stats, ivrf_stats

SEGMENT = "/dev/shm/fp-shared"
UNTRUSTED = "ERROR: Fastpath shared memory is not owned by root or is writable by others, not mapped"


class SegmentTrust(AgentTestCase):
    def setUp(self):
        super().setUp()
        self.addCleanup(os.unlink, SEGMENT)
        segment.main(["--path", SEGMENT, "--global-counter", "0", "in_packets", "5"])

    def global_counters(self, agent, rp):
        """The counters of a global statistics query: zeros when the agent reads no segment."""
        answer = rp.request(ivrf_stats(3, 9, 3, 0xE1))
        self.assertTrue(agent.alive())
        self.assertEqual(len(answer), 128)
        return answer[16:]

    def test_a_segment_others_may_write_is_not_mapped(self):
        for owner, mode in ((65534, 0o644), (0, 0o664), (0, 0o646)):
            with self.subTest(owner=owner, mode=oct(mode)):
                os.chown(SEGMENT, owner, 0)
                os.chmod(SEGMENT, mode)
                agent = self.start_agent()
                self.assertLogged(agent, UNTRUSTED, LOG_ERR)
                self.assertEqual(self.global_counters(agent, self.rp()), bytes(112))
                self.assertFalse([t for t in agent.texts() if t.startswith("SUCCESS: Fastpath")])

    def test_a_segment_cut_short_after_start_up_reads_as_none(self):
        agent, rp = self.start_agent(), self.rp()
        self.assertNotEqual(self.global_counters(agent, rp), bytes(112))
        os.truncate(SEGMENT, 4096)
        self.assertEqual(len(rp.request(flow_stats(8, [(1, True)]))), 22 + 456)
        self.assertEqual(self.global_counters(agent, rp), bytes(112))
