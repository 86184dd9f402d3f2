"""The real agent in unit-test mode against the fake platform kernel: the
requests it leaves unanswered, what it prints, and the state dump of tunnels
in every state while requests keep arriving."""

import signal
import threading
import time

from fake_kernel import FakeKernelTestCase
from rp_messages import (MSG_PAL, ace_record, acl_modify, be32, be64, cflow_insert, cipher_info, create_keys,
                         decrypt_action, encrypt_action, init_completed, init_start, intf_attach,
                         notify_actions, pal, peer_delete, peer_insert, response, spi_insert)


def answer(cmd, callback):
    return response(MSG_PAL, cmd, be32(callback), be32(1))


class UnitTestMode(FakeKernelTestCase):
    agent_args = ("-d", "7", "-u")

    def setUp(self):
        super().setUp()  # tunnel 2 in slot 1 sets itself up: keys, SPI, flow, peer
        rp = self.rp_client
        self.assertEqual(rp.request(intf_attach(0x11, 1, 2)), answer(5, 0x11))
        ace = ace_record(1, 0x02030400, 24, 0x03040500, 24)
        self.assertEqual(rp.request(acl_modify(0x12, 1, 2, ace + notify_actions(0xABCD))), answer(9, 0x12))
        self.assertEqual(len(self.kernel.sas()), 2)

    def test_unanswered_requests_and_the_console(self):
        rp = self.rp_client
        for silent in (create_keys(0x31, 5, 0x99, cipher_info(0, 0x99, 1, 2)), peer_insert(0x32, 0x100, 0x77, 1),
                       spi_insert(0x33, 1, 0x99, 1, 2, decrypt_action(0x99)),
                       cflow_insert(0x34, 1, encrypt_action(0x98))):
            rp.send(silent)  # the next datagram is the answer to the probe sent after it
            self.assertEqual(rp.request(init_completed(0x77, 1)), answer(2, 0x77))
        self.assertEqual(rp.request(peer_delete(0x35, 1, 0x77)), answer(12, 0x35))
        self.assertEqual(rp.request(pal(14, be32(0x36) + be32(1) + be32(0x99))), answer(14, 0x36))
        self.assertEqual(rp.request(pal(17, be32(0x37) + be32(1) + be64(0) + be64(0x98))), answer(17, 0x37))
        self.assertEqual(rp.request(intf_attach(0x38, 0, 2)), answer(5, 0x38))
        self.assertIn("\nipsec_sa 0x12342222\nWriting esp cipher key Writing esp mac key ", self.agent.stdout())
        self.assertIn("tunn id 2 spi_handle [12342222]", self.agent.stdout())

    def test_dump_of_tunnels_in_every_state_while_requests_keep_arriving(self):
        rp = self.rp_client
        for create in (0x200, 0x300):  # slots 2 (only opened) and 3 (attached, no scenario)
            self.assertEqual(len(rp.request(init_start(0x21, create))), 18)
        self.assertEqual(rp.request(intf_attach(0x23, 3, 77)), answer(5, 0x23))
        answers, done = [], threading.Event()

        def stream():
            while not done.is_set():
                answers.append(rp.request(init_completed(0x1000 + len(answers), 1)))

        def after_30_more():
            goal, deadline = len(answers) + 30, time.monotonic() + 5
            while len(answers) < goal and time.monotonic() < deadline:
                time.sleep(0.01)

        sender = threading.Thread(target=stream)
        sender.start()
        try:
            for dumps in range(1, 4):  # each dump lands between requests of the stream
                after_30_more()
                self.agent.signal(signal.SIGINT)
                self.assertLogged(self.agent, "Signalled! ", count=dumps)
            after_30_more()
        finally:
            done.set()
            sender.join()
        self.assertEqual(answers, [answer(2, 0x1000 + n) for n in range(len(answers))])
        for line in ("SADBHANDLE [1] REQID [1] TUNNELID [2]", "SADBHANDLE [2] REQID [2] TUNNELID [-1]",
                     "SADBHANDLE [3] REQID [3] TUNNELID [77]", "***INBOUND SA:", "***OUTBOUND SA:"):
            self.assertLogged(self.agent, line, count=3)
