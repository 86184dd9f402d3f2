"""The real agent in unit-test mode against the fake platform kernel: an
attach and an ACL install of test tunnel 2 bring both of its SAs into the
kernel by themselves; the requests the mode leaves unanswered; what it prints;
and the state dump of tunnels in every state while requests keep arriving."""

import signal
import threading
import time

from fake_kernel import FakeKernelTestCase
from rp_messages import (ace_record, be16, be32, be64, cflow_insert, create_keys, cipher_info,
                         decrypt_action, encrypt_action, init_completed, init_start, intf_attach,
                         notify_actions, pal, peer_delete, peer_insert, acl_modify, spi_insert)
from sandbox import LOG_INFO

OK = be32(1)


def answer(cmd, callback, status=OK):
    body = be16(cmd) + be32(callback) + status
    return be16(0) + be16(4 + len(body)) + body


class UnitTestMode(FakeKernelTestCase):
    agent_args = ("-d", "7", "-u")

    def set_up_tunnel_2(self):
        rp = self.rp_client
        self.assertEqual(rp.request(intf_attach(0x11, 1, 2)), answer(5, 0x11))
        ace = ace_record(1, 0x02030400, 24, 0x03040500, 24)
        self.assertEqual(rp.request(acl_modify(0x12, 1, 2, ace + notify_actions(0xABCD))),
                         answer(9, 0x12))

    def assertSilent(self, request):
        """No answer: the next datagram the RP gets is the answer to a probe sent after it."""
        self.rp_client.send(request)
        self.assertEqual(self.rp_client.request(init_completed(0x77, 1)), answer(2, 0x77))

    def test_tunnel_2_sets_itself_up_and_only_some_requests_are_answered(self):
        self.set_up_tunnel_2()
        sas = self.kernel.sas()
        self.assertEqual(len(sas), 2)
        self.assertTrue(sas[0].startswith("sa 2.3.4.5 spi=0x22221234 p50 reqid=1 "), sas[0])
        self.assertTrue(sas[1].startswith("sa 3.4.5.6 spi=0x12342222 p50 reqid=1 "), sas[1])
        self.assertIn("2=cbc(aes):128:" + "02" * 16 + " 1=hmac(sha1):160:" + "02" * 20, sas[0])
        self.assertTrue(self.agent.stdout().startswith("Enabling UT\n"))
        self.assertIn("\nipsec_sa 0x12342222\nWriting esp cipher key Writing esp mac key ",
                      self.agent.stdout())

        self.assertSilent(create_keys(0x31, 5, 0x99, cipher_info(0, 0x99, 1, 2)))
        self.assertSilent(peer_insert(0x32, 0x100, 0x77, 1))
        self.assertSilent(spi_insert(0x33, 1, 0x99, 1, 2, decrypt_action(0x99)))
        self.assertSilent(cflow_insert(0x34, 1, encrypt_action(0x98)))
        rp = self.rp_client
        self.assertEqual(rp.request(peer_delete(0x35, 1, 0x77)), answer(12, 0x35))
        self.assertEqual(rp.request(pal(14, be32(0x36) + be32(1) + be32(0x99))), answer(14, 0x36))
        self.assertEqual(rp.request(pal(17, be32(0x37) + be32(1) + be32(0) + be32(0) + be64(0x98))),
                         answer(17, 0x37))
        self.assertEqual(rp.request(intf_attach(0x38, 0, 2)), answer(5, 0x38))
        self.assertIn("tunn id 2 spi_handle [12342222]\n---^V^V^V flow hdl 0x22221234\n"
                      "tunn id 2 flow_handle [22221234]", self.agent.stdout())
        self.assertEqual(len(self.kernel.sas()), 3)  # the keys sent above, claimed by their SPI insert

    def test_dump_of_tunnels_in_every_state_while_requests_keep_arriving(self):
        self.set_up_tunnel_2()  # slot 1: device, policy, both SAs
        rp = self.rp_client
        self.assertEqual(len(rp.request(init_start(0x21, 0x200))), 18)  # slot 2: only opened
        self.assertEqual(len(rp.request(init_start(0x22, 0x300))), 18)
        self.assertEqual(rp.request(intf_attach(0x23, 3, 77)), answer(5, 0x23))  # slot 3: no scenario
        answers, done = [], threading.Event()

        def stream():
            while not done.is_set():
                answers.append(rp.request(init_completed(0x1000 + len(answers), 1)))

        def wait_answers(count):
            deadline = time.monotonic() + 5
            while len(answers) < count and time.monotonic() < deadline:
                time.sleep(0.01)

        sender = threading.Thread(target=stream)
        sender.start()
        try:
            for dumps in range(1, 4):  # each dump lands between requests of the stream
                wait_answers(len(answers) + 30)
                self.agent.signal(signal.SIGINT)
                self.assertLogged(self.agent, "Signalled! ", count=dumps)
            wait_answers(len(answers) + 30)
        finally:
            done.set()
            sender.join()
        self.assertGreaterEqual(len(answers), 120)
        self.assertEqual(answers, [answer(2, 0x1000 + n) for n in range(len(answers))])
        for line in ("SADBHANDLE [1] REQID [1] TUNNELID [2]", "SADBHANDLE [2] REQID [2] TUNNELID [-1]",
                     "SADBHANDLE [3] REQID [3] TUNNELID [77]", "***INBOUND SA:", "***OUTBOUND SA:"):
            self.assertLogged(self.agent, line, count=3)
        self.assertLogged(self.agent, ">>>KESTRIX OUTBOUND SAs END<<<", LOG_INFO, count=9)
