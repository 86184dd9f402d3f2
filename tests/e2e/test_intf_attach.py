"""Interface attach and detach against the real kernel of the agent's network
namespace: the svti device, every response byte, the counters, the trace and
the descriptors the agent holds."""

import os
import re
import struct
import subprocess
import unittest

from counter_report import counter_rows
from rp_messages import init_start, intf_attach
from sandbox import AgentTestCase, LOG_DEBUG, LOG_ERR, LOG_INFO


def answer(callback, status):
    return bytes([0, 0, 0, 14, 0, 5]) + struct.pack(">II", callback, status)


def link(name):
    """`ip -d link show` of the device, or None when there is none."""
    r = subprocess.run(["ip", "-d", "link", "show", name], capture_output=True, text=True)
    return r.stdout if r.returncode == 0 else None


def ifindex(name):
    return int(link(name).split(":", 1)[0])


class IntfAttach(AgentTestCase):
    def open_tunnel(self, rp, create=0x100):
        return struct.unpack(">I", rp.request(init_start(1, create))[10:14])[0]

    def assertUpWithTunnelMtu(self, name):
        out = link(name)
        self.assertIsNotNone(out, f"{name} does not exist")
        self.assertRegex(out, r"^\d+: " + name + r": <[^>]*\bUP\b[^>]*> mtu 9160 ")

    def test_attach_creates_the_device_and_repeating_it_changes_nothing(self):
        agent = self.start_agent()
        rp = self.rp()
        sadb = self.open_tunnel(rp)
        self.assertEqual(rp.request(intf_attach(0xCA11BAC4, sadb, 7)), answer(0xCA11BAC4, 1))
        self.assertUpWithTunnelMtu("svti7")
        index = ifindex("svti7")
        self.assertLogged(agent, "Created SVTI interface svti7", LOG_INFO)
        self.assertLogged(agent, "KESTRIX_PAL_SADB_INTF_ATTACH ca11bac4 00000001", LOG_INFO)
        self.assertLogged(agent, " KESTRIX_PAL_SADB_INTF_ATTACH req status 1", LOG_DEBUG)
        self.assertTrue(any(re.fullmatch(r"KESTRIX_PAL_SADB_INTF_ATTACH ca11bac4 00000001 status 1 "
                                         r"Time \d+\.\d{5} seconds", text)
                            for _, text in agent.log_lines()))

        self.assertEqual(rp.request(intf_attach(0x2, sadb, 7)), answer(0x2, 1))
        self.assertLogged(agent, "Duplicate tunnel ID 7SADB handle [1] status sent- success")
        self.assertEqual(ifindex("svti7"), index)

    def test_stale_device_is_deleted_and_created_again(self):
        agent = self.start_agent()
        rp = self.rp()
        subprocess.run(["ip", "tuntap", "add", "dev", "svti7", "mode", "tun"], check=True)
        stale = ifindex("svti7")
        sadb = self.open_tunnel(rp)
        self.assertEqual(rp.request(intf_attach(0x10, sadb, 7)), answer(0x10, 1))
        self.assertUpWithTunnelMtu("svti7")
        self.assertNotEqual(ifindex("svti7"), stale)
        self.assertLogged(agent, "Created SVTI interface svti7", LOG_INFO)
        texts = agent.texts()
        expected = ["ioctl : svti7- File exists", "SVTI interface svti7, tunnelId 7 already exists",
                    "Deleting stale SVTI interface svti7", "---svti deleted [svti7]",
                    "ReCreating SVTI interface svti7", "Created SVTI interface svti7"]
        start = texts.index(expected[0])
        self.assertEqual(texts[start:start + len(expected)], expected)
        self.assertIn("ioctl: File exists", agent.stderr())

    def test_refused_attaches(self):
        agent = self.start_agent()
        rp = self.rp()
        sadb = self.open_tunnel(rp)
        self.assertEqual(rp.request(intf_attach(0x33, 99, 7)), answer(0x33, 6))
        self.assertEqual(rp.request(intf_attach(0, sadb, 7)), answer(0, 8))
        self.assertLogged(agent, " isadb attribute request null ", LOG_ERR)
        self.assertIsNone(link("svti7"))

    def test_detach_deletes_the_device_and_always_succeeds(self):
        agent = self.start_agent()
        rp = self.rp()
        sadb = self.open_tunnel(rp)
        rp.request(intf_attach(0x1, sadb, 7))
        self.assertEqual(rp.request(intf_attach(0x44, 0, 7)), answer(0x44, 1))
        self.assertIsNone(link("svti7"))
        self.assertEqual(rp.request(intf_attach(0x45, 0, 7)), answer(0x45, 1))
        self.assertLogged(agent, " Tunnel Id 7 might have been deleted", LOG_DEBUG)
        # Detached, the tunnel takes the id again.
        self.assertEqual(rp.request(intf_attach(0x46, sadb, 7)), answer(0x46, 1))
        self.assertUpWithTunnelMtu("svti7")

    def test_attach_and_detach_are_counted_apart(self):
        agent = self.start_agent()
        rp = self.rp()
        sadb = self.open_tunnel(rp)
        for request in (intf_attach(1, sadb, 7), intf_attach(2, sadb, 7), intf_attach(3, 99, 7),
                        intf_attach(0, sadb, 7), intf_attach(4, 0, 7), intf_attach(5, 0, 7)):
            self.assertIsNotNone(rp.request(request))
        rows = counter_rows(agent)
        self.assertEqual(rows["KESTRIX_PAL_SADB_INTF_ATTACH-(Add)"], (3, 2, 1))
        self.assertEqual(rows["KESTRIX_PAL_SADB_INTF_ATTACH-(Del)"], (2, 2, 0))

    def test_no_descriptor_outlives_its_request(self):
        agent = self.start_agent()
        rp = self.rp()
        sadb = self.open_tunnel(rp)
        fds = f"/proc/{agent.proc.pid}/fd"
        before = sorted(os.listdir(fds))
        for cycle in range(40):
            if cycle % 10 == 0:  # now and then a stale device too
                subprocess.run(["ip", "tuntap", "add", "dev", "svti9", "mode", "tun"], check=True)
            self.assertEqual(rp.request(intf_attach(cycle + 1, sadb, 9)), answer(cycle + 1, 1))
            self.assertEqual(rp.request(intf_attach(cycle + 1, 0, 9)), answer(cycle + 1, 1))
        self.assertEqual(sorted(os.listdir(fds)), before)
        self.assertIsNone(link("svti9"))


if __name__ == "__main__":
    unittest.main()
