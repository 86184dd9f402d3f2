"""The cpa_rp package on answers no agent sends: malformed ones and flow
counters (the agent answers zero counters without a fast-path segment)."""

import contextlib
import io
import os
import re
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
from cpa_rp import commands, wire  # noqa: E402


class Answers(unittest.TestCase):
    def test_answers_not_of_their_commands_shape_are_malformed(self):
        for data, message in (
                (bytes(5), "5 bytes, too short for a header and a command"),
                (bytes([0, 3, 0, 6, 0, 1]), "message type 3"),
                (bytes([0, 0, 0, 20, 0, 1]) + bytes(12), "length field 20, 18 bytes received"),
                (bytes([0, 0, 0, 14, 0, 1]) + bytes(8), "KESTRIX_PAL_SADB_INIT_START of 14 bytes, expected 18"),
                (bytes([0, 1, 0, 6, 0, 9]), "unknown CEAL api type 9"),
                (bytes([0, 1, 0, 23, 0, 1]) + bytes(17), "KESTRIX_CEAL_CE_FLOW_STATS of 23 bytes is not 22 + 456 per flow")):
            with self.subTest(message=message), self.assertRaisesRegex(wire.Malformed, f"^{re.escape(message)}$"):
                wire.decode(data)

    def test_flow_statistics_are_read_per_flow(self):
        flow = bytearray(456)
        flow[0:4] = wire.be32(9)                        # flow 9, outbound
        flow[16 + 192:16 + 200] = wire.be64(1 << 40)    # flow_out_bytes
        flow[16 + 224:16 + 228] = wire.be32(77)         # flow_out_pkts
        data = wire.answer(wire.MSG_CEAL, 1, wire.words(0, 0, 1, 1) + bytes(flow))
        decoded = wire.decode(data)
        self.assertEqual(decoded["flows"][0]["counters"],
                         {name: {"flow_out_bytes": 1 << 40, "flow_out_pkts": 77}.get(name, 0)
                          for name, _, _ in wire.FLOW_COUNTERS})
        self.assertIn(["flow_out_pkts", "77"], [line.split() for line in commands.render(decoded)])
        with self.assertRaisesRegex(wire.Malformed, "2 flows announced, 1 sent"):
            wire.decode(data[:14] + wire.be32(2) + data[18:])

    def test_a_bad_argument_is_one_line_and_exit_status_2(self):
        err = io.StringIO()
        with contextlib.redirect_stderr(err):
            code = commands.main(["acl", "install", "--sadb", "1", "--ace", "10.1.0.0/33:10.2.0.0/16"])
        self.assertEqual((code, err.getvalue()), (2, "cpa-rp: argument --ace: not an IPv4 prefix: '10.1.0.0/33'\n"))


if __name__ == "__main__":
    unittest.main()
