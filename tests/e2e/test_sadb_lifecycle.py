"""A tunnel's SADB life driven over UDP: every response byte, statuses,
duplicates, the allocation cursor over a full table, and the trace."""

import unittest

from counter_report import counter_rows
from rp_messages import attr_update, be16, be32, init_completed, init_start, sadb_delete
from sandbox import AgentTestCase, LOG_ERR, LOG_INFO


def answer(cmd, *words):
    body = b"".join(be32(w) for w in words)
    return be16(0) + be16(6 + len(body)) + be16(cmd) + body


class Lifecycle(AgentTestCase):
    def test_one_tunnel_from_start_to_delete(self):
        agent = self.start_agent()
        rp = self.rp()
        self.assertEqual(rp.request(init_start(0xA1, 0x500, 2)), answer(1, 0xA1, 1, 1))
        self.assertEqual(rp.request(init_completed(0xA2, 1)), answer(2, 0xA2, 1))
        self.assertEqual(rp.request(attr_update(0xA3, 1, b"\0\0\0\5", b"\0\0\0\7")), answer(4, 0xA3, 1))
        self.assertEqual(rp.request(sadb_delete(0xA4, 1)), answer(3, 0xA4, 1))
        self.assertEqual(rp.request(init_completed(0xA5, 1)), answer(2, 0xA5, 6))
        self.assertEqual(rp.request(attr_update(0xA6, 1, bytes(4), bytes(4))), answer(4, 0xA6, 6))
        self.assertEqual(rp.request(sadb_delete(0xA7, 1)), answer(3, 0xA7, 1))
        self.assertLogged(agent, "KESTRIX_PAL_SADB_INIT_START 000000a1 00000500", LOG_INFO)
        self.assertLogged(agent, "KESTRIX_PAL_SADB_DELETE 000000a4 00000001", LOG_INFO)
        ends = [t for _, t in agent.log_lines()
                if t.startswith("KESTRIX_PAL_SADB_INIT_COMPLETED 000000a2 00000001 status 1 Time ")]
        self.assertEqual(len(ends), 1)
        self.assertRegex(ends[0], r" Time \d+\.\d{5} seconds$")
        rows = counter_rows(agent)
        self.assertEqual([rows["KESTRIX_PAL_SADB_" + name] for name in
                          ("INIT_START", "INIT_COMPLETED", "DELETE", "ATTR_UPDATE")],
                         [(1, 1, 0), (2, 1, 1), (2, 2, 0), (2, 1, 1)])

    def test_duplicates_and_zero_handles(self):
        agent = self.start_agent()
        rp = self.rp()
        self.assertEqual(rp.request(init_start(1, 0x77)), answer(1, 1, 1, 1))
        self.assertEqual(rp.request(init_start(2, 0x77)), answer(1, 2, 1, 1))
        self.assertEqual(rp.request(init_start(3, 0x78)), answer(1, 3, 2, 1))
        self.assertLogged(agent, "Duplicate KESTRIX_PAL_SADB_START", LOG_ERR)
        self.assertEqual(rp.request(init_start(4, 0)), answer(1, 4, 0, 8))
        self.assertEqual(rp.request(init_completed(5, 0)), answer(2, 5, 8))
        self.assertEqual(rp.request(sadb_delete(0, 1)), answer(3, 0, 8))


class FullTable(AgentTestCase):
    def test_cursor_over_4095_tunnels(self):
        agent = self.start_agent("-d", "3")
        rp = self.rp()
        for n in range(1, 4096):
            self.assertEqual(rp.request(init_start(n, 0x10000 + n)), answer(1, n, n, 1))
        self.assertEqual(rp.request(init_start(9, 0x9999)), answer(1, 9, 0, 3))
        self.assertLogged(agent, "CPA Main table is full", LOG_ERR)
        self.assertEqual(rp.request(sadb_delete(1, 17)), answer(3, 1, 1))
        self.assertEqual(rp.request(init_start(9, 0x9999)), answer(1, 9, 17, 1))
        self.assertEqual(rp.request(sadb_delete(1, 1)), answer(3, 1, 1))
        self.assertEqual(rp.request(sadb_delete(1, 2)), answer(3, 1, 1))
        self.assertEqual(rp.request(init_start(9, 0xA000)), answer(1, 9, 1, 1))
        self.assertEqual(rp.request(init_start(9, 0xA001)), answer(1, 9, 2, 1))


if __name__ == "__main__":
    unittest.main()
