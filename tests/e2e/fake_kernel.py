"""The fake platform kernel served to the real agent (tests/tools/
fake_xfrm_kernel_server)."""

import os
import subprocess
import threading
import time

from sandbox import BINARY, SCRATCH, wait_until

SERVER = os.environ.get("CPA_FAKE_KERNEL_SERVER",
                        os.path.join(os.path.dirname(BINARY), "fake_xfrm_kernel_server"))

GROUP_POLICY = 8


class FakeKernel:
    """One fake kernel server; the agent reaches it through env()."""

    def __init__(self):
        self.path = f"{SCRATCH}/xfrm-{time.monotonic_ns()}.sock"
        self.proc = subprocess.Popen([SERVER, self.path], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, text=True, bufsize=1)
        self.lines, self.sent = [], 0
        self.cond = threading.Condition()
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()
        if not self.wait_line("ready"):
            raise AssertionError("fake kernel server did not start")

    def _read(self):
        for line in self.proc.stdout:
            with self.cond:
                self.lines.append(line.rstrip("\n"))
                self.cond.notify_all()

    def env(self):
        return {"CPA_FAKE_XFRM_KERNEL": self.path}

    def wait_line(self, text, timeout=5.0):
        return wait_until(self.cond, lambda: text in self.lines, timeout)

    def command(self, line):
        """Runs one server command; True when the server took it."""
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()
        self.sent += 1
        answers = lambda: [l for l in self.lines if l in ("ok", "bad command")]
        if not wait_until(self.cond, lambda: len(answers()) >= self.sent, 5.0):
            raise AssertionError(f"fake kernel did not answer {line!r}")
        return answers()[self.sent - 1] == "ok"

    def _table(self, command, prefix):
        with self.cond:
            mark = len(self.lines)
        if not self.command(command):
            raise AssertionError(f"{command} command refused")
        with self.cond:
            return [l for l in self.lines[mark:] if l.startswith(prefix)]

    def policies(self):  # one line per policy, one per SA below (see the server)
        return self._table("policies", "policy ")

    def sas(self):
        return self._table("sas", "sa ")

    def acquire(self, groups, reqid):
        """Multicasts an acquire for the tunnel of request id `reqid` to `groups`."""
        return self.command(f"acquire {groups} {reqid}")

    def close(self):
        self.proc.stdin.close()
        self.proc.wait(timeout=5)
        self.thread.join()
        self.proc.stdout.close()


def agent_on_fake_kernel(test, *args):
    """A fake kernel and an agent (`args`) attached to it, both stopped with the test."""
    kernel = FakeKernel()
    test.addCleanup(kernel.close)
    agent = test.start_agent(*args, env=kernel.env())
    test.assertTrue(kernel.wait_line("bound groups=0x0 pid=0"))
    test.assertTrue(kernel.wait_line("bound groups=0x8 pid=0"))
    return kernel, agent

