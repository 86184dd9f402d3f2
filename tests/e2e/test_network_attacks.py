"""What a sender on the network or another local user can do to the agent:
with -R only the RP's address latches, is parsed and answered, and becomes the
keepalive peer; every other sender's datagram is dropped and counted. No
other user can bind the agent's ports beside it."""

import errno
import os
import socket

from sandbox import AGENT_ADDR, LOG_WARNING, RP_ADDR, AgentTestCase
from test_keepalive import KeepalivePeer
from cpa_rp import report
from cpa_rp.link import send_keepalive
from cpa_rp.wire import KEEPALIVE_PORT, PAL_PORT, decode, init_completed, init_start, sadb_delete

FOREIGN = "127.0.0.3"


def bind_as_nobody(port):
    """The errno of another user's bind of 127.0.0.1:`port` (reusing what it can), 0 if it succeeds."""
    if (pid := os.fork()) == 0:
        try:
            os.setuid(65534)
            s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            for option in (socket.SO_REUSEADDR, socket.SO_REUSEPORT):
                s.setsockopt(socket.SOL_SOCKET, option, 1)
            s.bind(("127.0.0.1", port))
            os._exit(0)
        except OSError as e:
            os._exit(e.errno)
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])


class ForeignSender(AgentTestCase):
    def test_only_the_allowed_rp_drives_the_agent_and_foreign_datagrams_are_counted(self):
        agent = self.start_agent("-R", "127.0.0.0/31", "-R", RP_ADDR)
        foreign, rp = self.rp(FOREIGN), self.rp()
        foreign.send(b"")  # would latch the RP
        self.assertIsNone(foreign.request(init_start(1, 0x100), 0.3))
        self.assertEqual(len(rp.request(init_start(2, 0x200))), 18)
        foreign.send(sadb_delete(3, 1))
        self.assertEqual(decode(rp.request(init_completed(4, 1)))["status"], 1)  # the tunnel is still there
        send_keepalive(AGENT_ADDR, FOREIGN)  # would become the keepalive peer
        peer = KeepalivePeer(self)
        peer.send()
        self.assertIsNotNone(peer.receive(2.5)[0])
        text = report.fetch(agent.proc.pid, 5.0, peer.send)
        self.assertEqual(report.parse(text)["values"]["Non-RP drops"], 4)
        self.assertLogged(agent, f"Dropped a datagram from {FOREIGN}, not an allowed RP address (1 dropped)",
                          LOG_WARNING)
        self.assertNotIn("No RP allow-list (-R): any sender can drive the agent", agent.texts())


class LocalUser(AgentTestCase):
    def test_no_other_user_can_bind_the_agents_ports(self):
        agent = self.start_agent()  # without an allow list, which it warns of
        self.assertLogged(agent, "No RP allow-list (-R): any sender can drive the agent", LOG_WARNING)
        for port in (PAL_PORT, KEEPALIVE_PORT):
            self.assertEqual(bind_as_nobody(port), errno.EADDRINUSE, port)
