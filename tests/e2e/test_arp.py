"""ARP on ethgrp0, one end of a veth pair made after the agent started: real
frames from the other end, the shipped stand-ins installed at the platform's
command paths (covered inside the sandbox only), /sbin/arp recorded."""

import pathlib
import socket
import struct
import subprocess
import time

from sandbox import REPO, SCRATCH, AgentTestCase, mount_over, new_network_namespace

MAC = bytes.fromhex("02005e0a0bfe")


def send_arp(op, sender_ip, target_ip, via="arp-peer"):
    frame = (b"\xff" * 6 + MAC + struct.pack(">HHHBBH", 0x0806, 1, 0x0800, 6, 4, op) + MAC +
             socket.inet_aton(sender_ip) + bytes(6) + socket.inet_aton(target_ip))
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as s:
        s.bind((via, 0))
        s.send(frame)


def ip(*args):
    return subprocess.run(["ip", *args], capture_output=True, text=True, check=True).stdout


def eventually_addressed(address):
    """Whether ethgrp0 gets `address` within 3 s: the agent's commands run off its loop."""
    deadline = time.monotonic() + 3
    while address not in ip("-4", "-o", "address", "show", "dev", "ethgrp0"):
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


class Arp(AgentTestCase):

    def test_late_ethgrp0_is_bound_unprompted_and_readdressed(self):
        record = pathlib.Path(f"{SCRATCH}/arp-{time.monotonic_ns()}")
        record.write_text(f'#!/bin/sh\necho "$0 $*|$ARP_IF|$ARP_SRC_MAC|$ARP_SRC_IP|$ARP_DST_IP" >> {record}.log\n')
        record.chmod(0o755)
        mount_over(self, "/sbin/arp", str(record))
        mount_over(self, "/usr/local/fpbin")
        mount_over(self, "/usr/local/fastpath")
        subprocess.run(["bash", f"{REPO}/scripts/install-platform-standins.sh"], check=True)
        new_network_namespace()
        agent = self.start_agent(fresh_namespace=False)
        self.assertLogged(agent, "Error getting Interface index ! reason No such device\n")
        # Before ethgrp0 exists no frame on any other interface reaches the agent.
        ip("link", "add", "other", "type", "veth", "peer", "name", "other-peer")
        for dev in ("other", "other-peer"):
            ip("link", "set", dev, "up")
        send_arp(2, "10.1.1.1", "10.1.1.1", via="other-peer")
        send_arp(1, "10.2.7.7", "127.0.0.1", via="other-peer")
        time.sleep(0.3)

        # ethgrp0 is bound when it appears, before any frame is heard.
        ip("link", "add", "ethgrp0", "type", "veth", "peer", "name", "arp-peer")
        self.assertLogged(agent, "ARP BIND is OK")
        self.assertFalse([t for t in agent.texts() if t.startswith("got something on ARP sd")])
        ip("address", "add", "10.2.0.5/16", "dev", "ethgrp0")
        ip("link", "set", "ethgrp0", "up")
        ip("link", "set", "arp-peer", "up")
        send_arp(1, "10.2.7.7", "10.2.0.9")
        self.assertLogged(agent, "ARP processing done:\n")
        self.assertTrue(eventually_addressed(" 10.2.0.9/16 "))
        with open("/proc/net/packet") as f:
            arp_ifaces = [int(l.split()[4]) for l in f.readlines()[1:] if l.split()[3] == "0806"]
        self.assertEqual(arp_ifaces, [socket.if_nametoindex("ethgrp0")])

        send_arp(2, "10.1.1.1", "10.1.1.1")
        self.assertLogged(agent, "INFO: 10.1.1.2 is the new ethgrp0 address\n")
        self.assertTrue(eventually_addressed(" 10.1.1.2/24 "))
        mac = "02:00:5e:0a:0b:fe"
        self.assertEqual(pathlib.Path(f"{record}.log").read_text().splitlines(),
                         [f"/sbin/arp -s 10.1.1.1 {mac}|ethgrp0|{mac}|10.1.1.1|10.2.0.9"])
