"""Keys reach the kernel and nothing else: a tunnel's road with distinctive
keys (one request configuring an ESP MAC but carrying no MAC key), then
everything the agent wrote is searched for every key: its syslog lines (the
state dump among them), the counter report and its other files, its stdout
and stderr."""

import hashlib
import os
import pathlib
import signal
import subprocess
import sys
import tempfile

from fake_kernel import agent_on_fake_kernel
from sandbox import AgentTestCase
from test_rp_road import CLOSE, OPEN, TOOL

KEY = {name: hashlib.sha256(name.encode()).digest()[:size] for name, size in (
    ("in-cipher", 16), ("in-mac", 20), ("out-cipher", 16), ("out-mac", 20), ("lone-cipher", 16))}
# The road of test_rp_road with these keys, and keys that configure an ESP MAC but carry no MAC key.
ROAD = OPEN.replace("aa" * 16, KEY["in-cipher"].hex()).replace("bb" * 20, KEY["in-mac"].hex()) \
    .replace("cc" * 16, KEY["out-cipher"].hex()).replace("dd" * 20, KEY["out-mac"].hex()) + \
    f"keys --index 0x33 --sa 0x3003 --spi 0x3333 --src 10.0.0.2 --dst 10.0.0.1 --cipher aes " \
    f"--key {KEY['lone-cipher'].hex()} --mac sha1 --callback 0xCB0A\n" + CLOSE


def traces(key):
    """How a key would show: raw, as hex, and each 4 bytes as a native word in hex."""
    windows = (key[i:i + 4] for i in range(len(key) - 3))
    return [key, key.hex().encode(), key.hex().upper().encode(),
            *(b"%08x" % int.from_bytes(w, sys.byteorder) for w in windows)]


class KeysStayInTheAgent(AgentTestCase):
    def test_no_key_in_anything_the_agent_wrote(self):
        kernel, agent = agent_on_fake_kernel(self, "-d", "7")
        with tempfile.NamedTemporaryFile("w", suffix=".rp", delete=False) as f:
            f.write(ROAD)
        self.addCleanup(os.unlink, f.name)
        run = subprocess.run([sys.executable, TOOL, "script", f.name], capture_output=True, text=True, timeout=30)
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        self.assertEqual(len(kernel.sas()), 0)  # the road ran to its end
        self.assertLogged(agent, "request dump left out 20 key bytes")
        report = subprocess.run([sys.executable, TOOL, "counters", "--wake", "--timeout", "5", "--pid",
                                 str(agent.proc.pid)], capture_output=True, timeout=20)
        self.assertEqual(report.returncode, 0)
        agent.signal(signal.SIGINT)
        self.assertLogged(agent, "Signalled! ")

        written = {"syslog": "\n".join(agent.texts()).encode(), "stdout": agent.stdout().encode(),
                   "stderr": agent.stderr().encode()}
        written.update((str(p), p.read_bytes()) for p in pathlib.Path("/usr/admin/log").rglob("*") if p.is_file())
        leaks = [(name, where) for name, key in KEY.items() for where, text in written.items()
                 if any(t in text for t in traces(key))]
        self.assertEqual(leaks, [])
