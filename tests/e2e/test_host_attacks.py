"""What the agent leaves to the processes it starts, and the privileges it
needs: no descriptor survives into a child, and a tunnel's whole road runs
with exactly the capabilities the service unit grants."""

import os
import pathlib
import re

from sandbox import REPO, AgentTestCase
import test_rp_road

O_CLOEXEC = 0o2000000
UNIT = os.path.join(REPO, "packaging", "ipsec_cpa.service.in")


def unit_capabilities():
    """The unit's bounding set as setpriv's list: "-all,+net_admin,+net_raw"."""
    with open(UNIT) as f:
        caps = re.search(r"^CapabilityBoundingSet=(.*)$", f.read(), re.M).group(1).split()
    return ",".join(["-all"] + [f"+{c.removeprefix('CAP_').lower()}" for c in caps])


class Descriptors(AgentTestCase):
    def test_every_descriptor_is_closed_on_exec(self):
        proc = pathlib.Path(f"/proc/{self.start_agent().proc.pid}")
        flags = {fd: int(re.search(r"^flags:\s*(\d+)", (proc / "fdinfo" / fd).read_text(), re.M)[1], 8)
                 for fd in os.listdir(proc / "fdinfo") if int(fd) > 2}
        self.assertEqual([os.readlink(proc / "fd" / fd) for fd, f in flags.items() if not f & O_CLOEXEC], [])


class RoadWithTheUnitsCapabilities(test_rp_road.RoadThroughCpaRp):
    caps = unit_capabilities()
    # As the unit starts it: root without root's implicit capabilities (SecureBits=noroot-locked).
    launcher = ("setpriv", f"--inh-caps={caps}", f"--ambient-caps={caps}", f"--bounding-set={caps}",
                "--securebits=+noroot,+noroot_locked", "--")

    def test_the_unit_grants_net_admin_and_net_raw_only(self):
        self.assertEqual(self.caps, "-all,+net_admin,+net_raw")
        status = pathlib.Path(f"/proc/{self.agent.proc.pid}/status").read_text()
        self.assertRegex(status, r"CapEff:\s*0*3000\nCapBnd:\s*0*3000\n")  # bits 12 and 13 only
