"""The RP's UDP end: requests go from the RP's address to the agent, and
answers and notifications are read where the agent sends them, the RP's
address at port 23456."""

import select
import socket

from .wire import KEEPALIVE, KEEPALIVE_PORT, PAL_PORT

LOOPBACK_AGENT, LOOPBACK_RP = "127.0.0.1", "127.0.0.2"


def bound_socket(address, port, agent=None):
    """A UDP socket at `address`:`port`; given the `agent`'s address, it hears
    only the agent's socket of the same port."""
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    # On the agent's host the agent holds the wildcard address of the same
    # ports and shares them with its own user only. Sockets sharing a port are
    # served in turn unless connected: the newest connected one hears the agent.
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
    try:
        s.bind((address, port))
        if agent:
            s.connect((agent, port))
    except OSError:
        s.close()
        raise
    return s


class RpLink:
    def __init__(self, agent=LOOPBACK_AGENT, rp=LOOPBACK_RP):
        self.agent = agent
        self.sock = bound_socket(rp, PAL_PORT, agent)

    def send(self, datagram):
        self.sock.sendto(bytes(datagram), (self.agent, PAL_PORT))

    def receive(self, timeout=2.0):
        """The next datagram that reached the RP, or None after `timeout` seconds."""
        if not select.select([self.sock], [], [], timeout)[0]:
            return None
        return self.sock.recv(65536)

    def request(self, datagram, timeout=2.0):
        self.send(datagram)
        return self.receive(timeout)

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def send_keepalive(agent=LOOPBACK_AGENT, rp=LOOPBACK_RP, sock=None):
    """One keepalive from the RP (from `sock`, else from any port of `rp`)."""
    if sock is not None:
        sock.sendto(KEEPALIVE, (agent, KEEPALIVE_PORT))
        return
    with bound_socket(rp, 0) as s:
        s.sendto(KEEPALIVE, (agent, KEEPALIVE_PORT))
