"""Statistics queries of the real agent, read from a segment written by the
developers' tool (tests/tools/fp_segment.py) in the sandbox's /dev/shm."""

import os
import subprocess
import sys
import unittest

from rp_messages import MSG_CEAL, be16, be32, be64, ceal, response
from sandbox import AgentTestCase, REPO

TOOL = os.path.join(REPO, "tests", "tools", "fp_segment.py")
SEGMENT = "/dev/shm/fp-shared"


class GlobalStatistics(AgentTestCase):
    def test_global_counters_are_summed_from_the_segment(self):
        self.addCleanup(os.unlink, SEGMENT)
        subprocess.run([sys.executable, TOOL, "--path", SEGMENT,
                        "--global-counter", "0", "in_packets", str(2**32 + 5),
                        "--global-counter", "127", "in_packets", "3",
                        "--global-counter", "9", "out_bytes", str(2**40)], check=True)
        self.start_agent()
        request = be32(0xCA11) + be16(7) + be32(0xE4)
        g_stats = bytearray(112)
        g_stats[32:36] = be32(8)
        g_stats[68:76] = be64(2**40)
        self.assertEqual(self.rp().request(ceal(3, request)), response(MSG_CEAL, 3, request, g_stats))


if __name__ == "__main__":
    unittest.main()
