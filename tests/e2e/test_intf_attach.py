"""Interface attach and detach against the real kernel of the agent's network
namespace: the svti device, every response byte, the counters, the trace and
the descriptors the agent holds (refusals and counting are unit tables)."""

import os
import re
import struct
import subprocess
import unittest

from sandbox import AgentTestCase, LOG_DEBUG, LOG_INFO
from cpa_rp.wire import init_start, intf_attach


def answer(callback, status):
    return bytes([0, 0, 0, 14, 0, 5]) + struct.pack(">II", callback, status)


def link(name):
    """`ip -d link show` of the device, or None when there is none."""
    r = subprocess.run(["ip", "-d", "link", "show", name], capture_output=True, text=True)
    return r.stdout if r.returncode == 0 else None


def ifindex(name):
    return int(link(name).split(":", 1)[0])


class IntfAttach(AgentTestCase):
    """Each test has an agent and an RP that has opened one tunnel (self.sadb)."""

    def setUp(self):
        super().setUp()
        self.agent = self.start_agent()
        self.client = self.rp()
        self.sadb = int.from_bytes(self.client.request(init_start(1, 0x100))[10:14], "big")

    def attach(self, callback, sadb, tunnel_id=7):
        return self.client.request(intf_attach(callback, sadb, tunnel_id))

    def assertUpWithTunnelMtu(self, name):
        out = link(name)
        self.assertIsNotNone(out, f"{name} does not exist")
        self.assertRegex(out, r"^\d+: " + name + r": <[^>]*\bUP\b[^>]*> mtu 9160 ")

    def test_attach_creates_the_device_and_repeating_it_changes_nothing(self):
        agent, sadb = self.agent, self.sadb
        self.assertEqual(self.attach(0xCA11BAC4, sadb), answer(0xCA11BAC4, 1))
        self.assertUpWithTunnelMtu("svti7")
        index = ifindex("svti7")
        self.assertLogged(agent, "KESTRIX_PAL_SADB_INTF_ATTACH ca11bac4 00000001", LOG_INFO)
        self.assertTrue(any(re.fullmatch(r"KESTRIX_PAL_SADB_INTF_ATTACH ca11bac4 00000001 status 1 "
                                         r"Time \d+\.\d{5} seconds", text)
                            for _, text in agent.log_lines()))

        self.assertEqual(self.attach(0x2, sadb), answer(0x2, 1))
        self.assertLogged(agent, "Duplicate tunnel ID 7SADB handle [1] status sent- success")
        self.assertEqual(ifindex("svti7"), index)

    def test_stale_device_is_deleted_and_created_again(self):
        agent, sadb = self.agent, self.sadb
        subprocess.run(["ip", "tuntap", "add", "dev", "svti7", "mode", "tun"], check=True)
        stale = ifindex("svti7")
        self.assertEqual(self.attach(0x10, sadb), answer(0x10, 1))
        self.assertUpWithTunnelMtu("svti7")
        self.assertNotEqual(ifindex("svti7"), stale)
        texts = agent.texts()
        expected = ["ioctl : svti7- File exists", "SVTI interface svti7, tunnelId 7 already exists",
                    "Deleting stale SVTI interface svti7", "---svti deleted [svti7]",
                    "ReCreating SVTI interface svti7", "Created SVTI interface svti7"]
        start = texts.index(expected[0])
        self.assertEqual(texts[start:start + len(expected)], expected)
        self.assertIn("ioctl: File exists", agent.stderr())

    def test_detach_deletes_the_device_and_always_succeeds(self):
        agent, sadb = self.agent, self.sadb
        self.attach(0x1, sadb)
        self.assertEqual(self.attach(0x44, 0), answer(0x44, 1))
        self.assertIsNone(link("svti7"))
        self.assertEqual(self.attach(0x45, 0), answer(0x45, 1))
        self.assertLogged(agent, " Tunnel Id 7 might have been deleted", LOG_DEBUG)
        # Detached, the tunnel takes the id again.
        self.assertEqual(self.attach(0x46, sadb), answer(0x46, 1))
        self.assertUpWithTunnelMtu("svti7")

    def test_no_descriptor_outlives_its_request(self):
        agent, sadb = self.agent, self.sadb
        fds = f"/proc/{agent.proc.pid}/fd"
        before = sorted(os.listdir(fds))
        for cycle in range(40):
            if cycle % 10 == 0:  # now and then a stale device too
                subprocess.run(["ip", "tuntap", "add", "dev", "svti9", "mode", "tun"], check=True)
            self.assertEqual(self.attach(cycle + 1, sadb, 9), answer(cycle + 1, 1))
            self.assertEqual(self.attach(cycle + 1, 0, 9), answer(cycle + 1, 1))
        self.assertEqual(sorted(os.listdir(fds)), before)
        self.assertIsNone(link("svti9"))


if __name__ == "__main__":
    unittest.main()
