"""The RP's side of the UDP link on loopback, usable with or without the sandbox."""

import socket

from rp_messages import init_start

PAL_PORT = 23456
KEEPALIVE_PORT = 23458
AGENT_ADDR = "127.0.0.1"
RP_ADDR = "127.0.0.2"


class RpClient:
    """Plays the RP on loopback: requests go from RP_ADDR to the agent, and
    responses are read where the agent sends them, RP_ADDR port 23456."""

    def __init__(self, addr=RP_ADDR):
        self.inbox = self._bound(addr, PAL_PORT)
        self.sender = self._bound(addr, 0)

    @staticmethod
    def _bound(addr, port):
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        # The agent holds the wildcard address of the same port; a socket bound
        # to a specific address gets the datagrams sent to that address.
        s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        s.bind((addr, port))
        return s

    def send(self, datagram):
        self.sender.sendto(bytes(datagram), (AGENT_ADDR, PAL_PORT))

    def receive(self, timeout=2.0):
        """The next datagram that reached the RP, or None."""
        self.inbox.settimeout(timeout)
        try:
            data, _ = self.inbox.recvfrom(65536)
            return data
        except socket.timeout:
            return None

    def request(self, datagram, timeout=2.0):
        self.send(datagram)
        return self.receive(timeout)

    def open_tunnel(self, create):
        """Sends SADB_INIT_START; the SADB handle of the answer."""
        return int.from_bytes(self.request(init_start(1, create))[10:14], "big")

    def close(self):
        self.inbox.close()
        self.sender.close()
