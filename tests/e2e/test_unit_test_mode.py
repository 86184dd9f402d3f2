"""The real agent in unit-test mode against the fake platform kernel: the
state dump (SIGINT) of tunnels in every state while requests keep arriving."""

import signal
import threading
import time

from fake_kernel import FakeKernelTestCase
from cpa_rp.wire import (MSG_PAL, acl_modify, action, answer as answer_of, be32, init_completed, init_start,
                         intf_attach, policy_records)


def answer(cmd, callback):
    return answer_of(MSG_PAL, cmd, be32(callback) + be32(1))


class UnitTestMode(FakeKernelTestCase):
    agent_args = ("-d", "7", "-u")

    def setUp(self):
        super().setUp()  # tunnel 2 in slot 1 sets itself up: keys, SPI, flow, peer
        rp = self.rp_client
        self.assertEqual(rp.request(intf_attach(0x11, 1, 2)), answer(5, 0x11))
        records = policy_records([((0x02030400, 24), (0x03040500, 24), 17)], outbound=action("notify", 0xABCD))
        self.assertEqual(rp.request(acl_modify(0x12, 1, 2, records)), answer(9, 0x12))
        self.assertEqual(len(self.kernel.sas()), 2)

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
