"""Interface attach and detach on the real kernel of the agent's network
namespace: the svti device, the answers and the descriptors the agent holds
(refusals, the stale device's log lines and the counting are unit tables)."""

import os
import subprocess

from sandbox import AgentTestCase, LOG_DEBUG
from cpa_rp.wire import MSG_PAL, answer, be32, init_start, intf_attach


def link(name):
    """`ip -d link show` of the device, or None when there is none."""
    r = subprocess.run(["ip", "-d", "link", "show", name], capture_output=True, text=True)
    return r.stdout if r.returncode == 0 else None


def ifindex(name):
    return int(link(name).split(":", 1)[0])


def add_stale_device(name):
    subprocess.run(["ip", "tuntap", "add", "dev", name, "mode", "tun"], check=True)


class IntfAttach(AgentTestCase):
    """Each test has an agent and an RP that has opened one tunnel (self.sadb)."""

    def setUp(self):
        super().setUp()
        self.agent = self.start_agent()
        self.client = self.rp()
        self.sadb = int.from_bytes(self.client.request(init_start(1, 0x100))[10:14], "big")

    def assertAnsweredOk(self, callback, sadb, tunnel_id=7):
        """Attaches (`sadb`) or detaches (0) tunnel `tunnel_id`; the answer must be success."""
        self.assertEqual(self.client.request(intf_attach(callback, sadb, tunnel_id)),
                         answer(MSG_PAL, 5, be32(callback) + be32(1)))

    def assertUpWithTunnelMtu(self, name="svti7"):
        self.assertRegex(link(name) or "", r"^\d+: " + name + r": <[^>]*\bUP\b[^>]*> mtu 9160 ")

    def test_attach_makes_the_device_once_and_detach_deletes_it_always_succeeding(self):
        self.assertAnsweredOk(0x1, self.sadb)
        self.assertUpWithTunnelMtu()
        index = ifindex("svti7")
        self.assertAnsweredOk(0x2, self.sadb)
        self.assertLogged(self.agent, "Duplicate tunnel ID 7SADB handle [1] status sent- success")
        self.assertEqual(ifindex("svti7"), index)
        self.assertAnsweredOk(0x44, 0)
        self.assertIsNone(link("svti7"))
        self.assertAnsweredOk(0x45, 0)
        self.assertLogged(self.agent, " Tunnel Id 7 might have been deleted", LOG_DEBUG)
        self.assertAnsweredOk(0x46, self.sadb)  # detached, the tunnel takes the id again
        self.assertUpWithTunnelMtu()

    def test_stale_devices_are_replaced_and_no_descriptor_outlives_its_request(self):
        fds = f"/proc/{self.agent.proc.pid}/fd"
        before = sorted(os.listdir(fds))
        for cycle in range(40):
            if cycle % 10 == 0:  # now and then a stale device too
                add_stale_device("svti9")
            self.assertAnsweredOk(cycle + 1, self.sadb, 9)
            self.assertUpWithTunnelMtu("svti9")
            self.assertAnsweredOk(cycle + 1, 0, 9)
        self.assertEqual(sorted(os.listdir(fds)), before)
        self.assertIsNone(link("svti9"))
        self.assertIn("ioctl: File exists", self.agent.stderr())
