"""The cpa_rp package on answers no agent sends, and on a bad argument."""

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
                (bytes([0, 1, 0, 23, 0, 1]) + bytes(17), "KESTRIX_CEAL_CE_FLOW_STATS of 23 bytes is not 22 + 456 per flow"),
                (wire.answer(wire.MSG_CEAL, 1, wire.words(0, 0, 2, 1) + bytes(456)), "2 flows announced, 1 sent")):
            with self.subTest(message=message), self.assertRaisesRegex(wire.Malformed, f"^{re.escape(message)}$"):
                wire.decode(data)

    def test_a_bad_argument_is_one_line_and_exit_status_2(self):
        err = io.StringIO()
        with contextlib.redirect_stderr(err):
            code = commands.main(["acl", "install", "--sadb", "1", "--ace", "10.1.0.0/33:10.2.0.0/16"])
        self.assertEqual((code, err.getvalue()), (2, "cpa-rp: argument --ace: not an IPv4 prefix: '10.1.0.0/33'\n"))
