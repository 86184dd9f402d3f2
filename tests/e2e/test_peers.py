"""Peer insert and delete: response bytes, the decoded parameters, statuses
and counters (the slots are followed by the unit tests)."""

import struct
import unittest

from counter_report import counter_rows
from rp_messages import peer_delete, peer_insert
from sandbox import AgentTestCase, LOG_DEBUG, LOG_ERR, LOG_INFO

CALLBACK = 0xCB000001


def insert_answer(peer_bytes, status):
    return bytes([0, 0, 0, 18, 0, 11]) + struct.pack(">I", CALLBACK) + peer_bytes + struct.pack(">I", status)


def delete_answer(status):
    return bytes([0, 0, 0, 14, 0, 12]) + struct.pack(">II", CALLBACK, status)


class Peers(AgentTestCase):
    def setUp(self):
        super().setUp()
        self.agent = self.start_agent()
        self.client = self.rp()

    def insert(self, sadb, peer, **kw):
        return self.client.request(peer_insert(CALLBACK, 0xC0, peer, sadb, **kw))

    def test_insert_answers_the_peer_handle_bytes_and_decodes_the_parameters(self):
        t1 = self.client.open_tunnel(0x100)
        self.assertEqual(self.insert(t1, 0xAABBCCDD, params=(1, 30, 0x77, 1, 5, 0x88, 1), ports=(8080, 4500)),
                         insert_answer(bytes.fromhex("aabbccdd"), 1))
        self.assertLogged(self.agent, " do_idle_timer 1, idle_timer_setting 30, idle_timer_handle 77, "
                          "do_dpd 1, dpd_threshold 5 \n dpd_hdl 88, do_trnslation 1, "
                          "inside_remort_port 8080, outside_remote_port 4500 ", LOG_DEBUG)
        self.assertLogged(self.agent, "KESTRIX_PAL_PEER_INSERT cb000001 000000c0", LOG_INFO)

    def test_refused_and_idle_requests(self):
        t1 = self.client.open_tunnel(0x100)
        self.assertEqual(self.insert(99, 0x11), insert_answer(bytes(4), 6))
        self.assertEqual(self.insert(0, 0x11), insert_answer(bytes(4), 8))
        self.assertLogged(self.agent, "Null callack handle or create handle or peer request sadb handle",
                          LOG_ERR)
        self.assertEqual(self.client.request(peer_delete(CALLBACK, t1, 0x11)), delete_answer(1))
        self.assertLogged(self.agent, "Duplicate PEER_DELETE", LOG_DEBUG)
        self.insert(t1, 0x11)
        self.assertEqual(self.client.request(peer_delete(CALLBACK, t1, 0x99)), delete_answer(1))
        self.assertEqual(self.client.request(peer_delete(CALLBACK, 0, 0x11)), delete_answer(8))
        self.assertLogged(self.agent, "Invalid handle", LOG_ERR)
        rows = counter_rows(self.agent)
        self.assertEqual(rows["KESTRIX_PAL_PEER_INSERT"], (3, 1, 2))
        self.assertEqual(rows["KESTRIX_PAL_PEER_DELETE"], (3, 2, 1))


if __name__ == "__main__":
    unittest.main()
