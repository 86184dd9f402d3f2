"""The keepalive exchange with the RP on port 23458, liveness checks, and the
signals: the counter report on SIGUSR1, the state dump on SIGINT."""

import signal
import socket
import threading
import time

from sandbox import AgentTestCase, AGENT_ADDR, KEEPALIVE_PORT, RP_ADDR, LOG_ERR, LOG_INFO, LOG_WARNING
from cpa_rp import report
from cpa_rp.link import bound_socket, send_keepalive
from cpa_rp.wire import KEEPALIVE, MSG_PAL, answer, be16, be32, init_completed, init_start


class KeepalivePeer:
    """The RP's keepalive socket, at RP_ADDR port 23458."""

    def __init__(self, test):
        self.sock = bound_socket(RP_ADDR, KEEPALIVE_PORT, AGENT_ADDR)
        test.addCleanup(self.sock.close)

    def send(self, datagram=KEEPALIVE, sock=None):
        (sock or self.sock).sendto(datagram, (AGENT_ADDR, KEEPALIVE_PORT))

    def receive(self, timeout):
        self.sock.settimeout(timeout)
        try:
            return self.sock.recv(2048), time.monotonic()
        except socket.timeout:
            return None, time.monotonic()


class Keepalives(AgentTestCase):
    def test_keepalives_go_every_second_to_the_rp_port_once_it_sent_one(self):
        agent = self.start_agent()
        peer = KeepalivePeer(self)
        self.rp().request(init_start(1, 2))  # neither a request nor a datagram of another type starts them
        peer.send(be16(0) + be16(0))
        self.assertEqual(peer.receive(1.5)[0], None)
        self.assertLogged(agent, "Unknown msgtype for Keepalive thread, msg_type 0", LOG_ERR)
        other_port = bound_socket(RP_ADDR, 0)
        self.addCleanup(other_port.close)
        started = time.monotonic()
        peer.send(sock=other_port)  # from another port: replies still go to 23458
        first, t1 = peer.receive(2.5)
        second, t2 = peer.receive(2.5)
        self.assertEqual((first, second), (KEEPALIVE, KEEPALIVE))
        self.assertAlmostEqual(t1 - started, 1.0, delta=0.3)
        self.assertAlmostEqual(t2 - t1, 1.0, delta=0.3)
        self.assertLogged(agent, "First keepalive msg received", LOG_INFO)

    def test_a_check_without_keepalive_or_request_is_a_miss(self):
        agent = self.start_agent()
        peer = KeepalivePeer(self)
        rp = self.rp()
        started = time.monotonic()
        peer.send()  # checks follow at +3 s (keepalive seen), +6 s, +9 s
        time.sleep(4.0)
        rp.request(init_start(1, 2))  # a request before the +6 s check is a sign of life

        def aborts():
            return [t for p, t in agent.log_lines()
                    if p == LOG_WARNING and t.startswith("Max Keepalive Retry Reached.")]
        time.sleep(started + 8.5 - time.monotonic())
        self.assertEqual(aborts(), [])
        while time.monotonic() - started < 9.8 and not aborts():
            time.sleep(0.05)
        self.assertEqual(len(aborts()), 1)
        self.assertRegex(aborts()[0], r"^Max Keepalive Retry Reached. sent \d+ recv 1 abort 1\n$")
        self.assertTrue(agent.alive())


class Signals(AgentTestCase):
    def test_sigusr1_writes_one_report_at_the_next_tick(self):
        agent = self.start_agent()
        rp = self.rp()
        rp.request(init_start(1, 2))
        rp.request(init_start(1, 0))
        agent.signal(signal.SIGUSR1)  # before any tick, so the fetch's own signal is the second
        text = report.fetch(agent.proc.pid, 5.0, lambda: send_keepalive(AGENT_ADDR, RP_ADDR))
        self.assertEqual(report.parse(text)["commands"]["KESTRIX_PAL_SADB_INIT_START"], [2, 1, 1])
        written = report.mtime()
        time.sleep(1.2)
        self.assertEqual(report.mtime(), written)  # one report for both signals

    def test_sigint_dumps_the_tunnels_between_requests_that_keep_arriving(self):
        agent = self.start_agent()
        rp = self.rp()
        rp.request(init_start(1, 0x100))
        answers, done = [], threading.Event()
        self.addCleanup(done.set)

        def stream():
            while not done.is_set():
                answers.append(rp.request(init_completed(0x1000 + len(answers), 1)))
        sender = threading.Thread(target=stream, daemon=True)
        sender.start()
        for dumps in range(1, 4):  # each one lands between requests of the stream
            time.sleep(0.1)
            agent.signal(signal.SIGINT)
            self.assertLogged(agent, "Signalled! ", count=dumps)
        done.set()
        sender.join()
        self.assertEqual(answers, [answer(MSG_PAL, 2, be32(0x1000 + n) + be32(1)) for n in range(len(answers))])
        self.assertLogged(agent, "SADBHANDLE [1] REQID [1] TUNNELID [-1]", count=3)
