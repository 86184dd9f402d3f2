"""Framing of request datagrams: PAL and CEAL response shapes, the latched RP
address, datagrams cut short."""

import unittest

from counter_report import counter_rows
from rp_messages import be16, be32, ceal, init_start, pal
from sandbox import AgentTestCase, LOG_ERR, LOG_INFO

# Response shape by command: total length and where the status sits.
SHAPES = {1: 18, 2: 14, 3: 14, 4: 14, 5: 14, 9: 14, 11: 18, 12: 14, 13: 18, 14: 14,
          15: 22, 16: 14, 17: 14}


class ResponseShapes(AgentTestCase):
    def test_every_command_number_is_answered_in_its_shape(self):
        agent = self.start_agent("-d", "7")
        rp = self.rp()
        callback = bytes([0xca, 0x11, 0xba, 0xc4])
        for cmd in range(31):
            # Zero handles after the callback: every handler refuses them.
            data = rp.request(pal(cmd, callback + bytes(60)))
            self.assertIsNotNone(data, f"command {cmd} not answered")
            length = SHAPES.get(cmd, 6)
            self.assertEqual(len(data), length, f"command {cmd}")
            self.assertEqual(data[:6], be16(0) + be16(length) + be16(cmd))
            if length > 6:
                self.assertEqual(data[6:10], callback, f"command {cmd}")
                self.assertEqual(data[10:length - 4], bytes(length - 14), f"command {cmd}")
        self.assertLogged(agent, "action: INVALID cmd_type 7 status 1", LOG_INFO)
        self.assertLogged(agent, "action: INVALID cmd_type 30 status 1", LOG_INFO)


class CealShapes(AgentTestCase):
    def test_each_api_type_is_answered_in_its_shape(self):
        agent = self.start_agent()
        rp = self.rp()
        handles = bytes(range(1, 13))
        # api type, response length, handle bytes echoed, where the status sits (0: no status), status.
        # FLOW_STATS echoes num_flows (here 0x090a0b0c) and answers no flow: no handle arrived.
        for api, size, echoed, status_at, status in ((0, 281, 4, 10, 1), (1, 22, 12, 18, 1), (2, 36, 10, 0, 0),
                                                     (3, 128, 10, 0, 0), (4, 14, 4, 10, 1)):
            expected = bytearray(be16(1) + be16(size) + be16(api) + handles[:echoed] + bytes(size - 6 - echoed))
            if status_at:
                expected[status_at:status_at + 4] = be32(status)
            self.assertEqual(rp.request(ceal(api, handles)), bytes(expected), api)
        # A request cut short echoes what did arrive.
        self.assertEqual(rp.request(ceal(4, b"\xaa")), be16(1) + be16(14) + be16(4) + b"\xaa\0\0\0" + be32(1))
        rows = counter_rows(agent)
        self.assertEqual([rows[name] for name in ("KESTRIX_CEAL_CE_CREATE_KEY_BY_KEYS", "KESTRIX_CEAL_CE_DELETE_FLOW")],
                         [(1, 1, 0), (2, 2, 0)])


class RpAddress(AgentTestCase):
    def test_first_sender_fixes_where_all_responses_go(self):
        self.start_agent()
        first = self.rp("127.0.0.5")
        other = self.rp("127.0.0.6")
        first.send(init_start(1, 0x100))
        self.assertEqual(len(first.receive()), 18)
        other.send(init_start(2, 0x200))
        self.assertEqual(len(first.receive()), 18)
        self.assertIsNone(other.receive(timeout=0.3))


class Refused(AgentTestCase):
    def test_datagrams_too_short_for_a_command_are_dropped_with_one_line(self):
        agent = self.start_agent()
        rp = self.rp()
        self.assertIsNone(rp.request(b"\x00", timeout=0.3))
        self.assertIsNone(rp.request(be16(0) + be16(2), timeout=0.3))
        self.assertLogged(agent, "Datagram of 1 bytes has no message header, dropped", LOG_ERR)
        self.assertLogged(agent, "PAL request of 4 bytes has no command, dropped", LOG_ERR)
        self.assertTrue(agent.alive())


if __name__ == "__main__":
    unittest.main()
