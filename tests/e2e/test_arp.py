"""ARP on ethgrp0, one end of a veth pair in the agent's network namespace:
real frames sent from the other end, the platform's commands recorded at
their paths (covered inside the sandbox only), and with the shipped stand-in
script the address ethgrp0 really ends up with."""

import os
import socket
import struct
import subprocess
import time
import unittest

from sandbox import REPO, SCRATCH, AgentTestCase, add_veth, mount_over, new_network_namespace

PEER = "arp-peer"
MAC = bytes.fromhex("02005e0a0bfe")
FLUSH = "/usr/local/fpbin/ip address flush dev ethgrp0"
SETIP = "/usr/local/fastpath/etc/scripts/setip_arp.sh "


def send_arp(op, sender_ip, target_ip, dev=PEER):
    """One broadcast ARP frame from `dev`."""
    frame = (b"\xff" * 6 + MAC + struct.pack(">HHHBBH", 0x0806, 1, 0x0800, 6, 4, op) + MAC +
             socket.inet_aton(sender_ip) + bytes(6) + socket.inet_aton(target_ip))
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as s:
        s.bind((dev, 0))
        s.send(frame)


def ethgrp0_address():
    out = subprocess.run(["ip", "-4", "-o", "address", "show", "dev", "ethgrp0"],
                         capture_output=True, text=True, check=True).stdout.split()
    return out[3] if len(out) > 3 else None


class Arp(AgentTestCase):

    def setUp(self):
        super().setUp()
        new_network_namespace()
        self.record = f"{SCRATCH}/arp-{time.monotonic_ns()}.log"
        recorder = self.record + ".sh"
        with open(recorder, "w") as f:
            f.write(f'#!/bin/sh\necho "$0 $*|$ARP_IF|$ARP_SRC_MAC|$ARP_SRC_IP|$ARP_DST_IP" >> {self.record}\n')
        os.chmod(recorder, 0o755)
        open(self.record, "w").close()
        mount_over(self, "/sbin/arp", recorder)
        mount_over(self, "/usr/local/fpbin")
        mount_over(self, "/usr/local/fastpath")
        self.recorder = recorder

    def with_ethgrp0(self, address="10.2.0.5/16"):
        add_veth("ethgrp0", PEER)
        subprocess.run(["ip", "address", "add", address, "dev", "ethgrp0"], check=True)
        return self.start_agent(fresh_namespace=False)

    def recorded(self):
        with open(self.record) as f:
            return f.read().splitlines()

    def test_commands_and_their_environment(self):
        for path in ("/usr/local/fpbin/ip", "/usr/local/fastpath/etc/scripts/setip_arp.sh"):
            os.makedirs(os.path.dirname(path), exist_ok=True)
            subprocess.run(["cp", self.recorder, path], check=True)
        agent = self.with_ethgrp0()
        send_arp(1, "10.9.0.1", "10.9.0.2")
        self.assertLogged(agent, "ARP processing done:\n")
        send_arp(2, "10.1.1.1", "10.1.1.1")
        self.assertLogged(agent, "INFO: 10.1.1.2 is the new ethgrp0 address\n")
        mac = "02:00:5e:0a:0b:fe"
        self.assertEqual(self.recorded(), [
            f"{FLUSH}|ethgrp0|||",
            f"{SETIP}|ethgrp0|{mac}|10.9.0.1|10.9.0.2",
            f"/sbin/arp -s 10.1.1.1 {mac}|ethgrp0|{mac}|10.1.1.1|10.9.0.2",
            f"{FLUSH}|ethgrp0|{mac}|10.1.1.1|10.9.0.2",
            f"{SETIP}|ethgrp0|{mac}|10.1.1.1|10.1.1.2",
        ])

    def test_shipped_stand_ins_readdress_ethgrp0(self):
        subprocess.run(["bash", f"{REPO}/scripts/install-platform-standins.sh"], check=True)
        agent = self.with_ethgrp0()
        send_arp(1, "10.2.7.7", "10.2.0.9")
        self.assertLogged(agent, "ARP processing done:\n")
        self.assertEqual(ethgrp0_address(), "10.2.0.9/16")
        send_arp(2, "10.1.1.1", "10.1.1.1")
        self.assertLogged(agent, "INFO: 10.1.1.2 is the new ethgrp0 address\n")
        self.assertEqual(ethgrp0_address(), "10.1.1.2/24")

    def test_ethgrp0_made_after_start_up_gets_bound(self):
        agent = self.start_agent(fresh_namespace=False)
        self.assertLogged(agent, "Error getting Interface index ! reason No such device\n")
        add_veth("ethgrp0", PEER)
        send_arp(1, "10.9.0.1", "10.9.0.2")
        self.assertLogged(agent, "ARP BIND is OK")
        ifindex = socket.if_nametoindex("ethgrp0")
        with open("/proc/net/packet") as f:
            arp_sockets = [line.split() for line in f.readlines()[1:] if line.split()[3] == "0806"]
        self.assertEqual([int(fields[4]) for fields in arp_sockets], [ifindex])


if __name__ == "__main__":
    unittest.main()
