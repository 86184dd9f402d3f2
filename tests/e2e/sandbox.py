"""Sandbox for end-to-end tests of the real ipsec_cpa binary (as root).

Importing this module moves the test process into a private mount namespace
(a tmpfs /dev with the few device nodes the agent needs, a fresh /dev/shm, an
overlay on /usr where /usr/admin/log exists). Every agent runs in a fresh
network namespace, its syslog read from /dev/log. All of it vanishes with the
process, whatever happens to the tests.
"""

import ctypes
import os
import pathlib
import re
import socket
import subprocess
import sys
import threading
import time
import unittest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(REPO, "tools"))
from cpa_rp.link import LOOPBACK_AGENT as AGENT_ADDR, LOOPBACK_RP as RP_ADDR, RpLink  # noqa: E402
from cpa_rp.wire import KEEPALIVE_PORT, PAL_PORT  # noqa: E402
# The test build of the agent: only it has the fake-kernel redirect.
BINARY = os.environ.get("CPA_BINARY", os.path.join(REPO, "build", "ipsec_cpa_test"))

CLONE_NEWNS = 0x00020000
CLONE_NEWNET = 0x40000000
MS_BIND, MS_REC, MS_PRIVATE = 0x1000, 0x4000, 0x40000

SCRATCH = "/dev/.cpa-scratch"

LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG = 3, 4, 6, 7

_libc = ctypes.CDLL(None, use_errno=True)


def _check(rc, what):
    if rc != 0:
        raise OSError(ctypes.get_errno(), f"{what}: {os.strerror(ctypes.get_errno())}")


def _mount(source, target, fstype, flags=0, data=None):
    _check(_libc.mount(source.encode() if source else None, target.encode(),
                       fstype.encode() if fstype else None, ctypes.c_ulong(flags),
                       data.encode() if data else None), f"mount {target}")


def _enter_mount_namespace():
    _check(_libc.unshare(CLONE_NEWNS), "unshare(CLONE_NEWNS)")
    _mount(None, "/", None, MS_REC | MS_PRIVATE)
    keep = os.open("/dev", os.O_RDONLY | os.O_DIRECTORY)  # the host's /dev, once covered
    _mount("tmpfs", "/dev", "tmpfs", 0, "mode=755")
    os.makedirs("/dev/net")
    for node in ("null", "zero", "full", "random", "urandom", "net/tun"):
        src = f"/proc/self/fd/{keep}/{node}"
        if os.path.exists(src):
            open(f"/dev/{node}", "a").close()
            _mount(src, f"/dev/{node}", None, MS_BIND)
    os.close(keep)
    os.symlink("/proc/self/fd", "/dev/fd")
    os.makedirs("/dev/shm")
    _mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777")
    for d in ("usr-upper", "usr-work"):
        os.makedirs(f"{SCRATCH}/{d}")
    _mount("overlay", "/usr", "overlay", 0,
           f"lowerdir=/usr,upperdir={SCRATCH}/usr-upper,workdir={SCRATCH}/usr-work")
    os.makedirs("/usr/admin/log")


def new_network_namespace():
    """Moves the test process into a new network namespace with loopback up."""
    _check(_libc.unshare(CLONE_NEWNET), "unshare(CLONE_NEWNET)")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


def mount_over(testcase, target, source=None):
    """Covers `target` until the test ends: a fresh tmpfs over a directory, or the file `source` bound
    over a file. What is missing is made in the private /usr overlay: the host's paths are never touched."""
    if source:
        open(target, "a").close()
        _mount(source, target, None, MS_BIND)
    else:
        os.makedirs(target, exist_ok=True)
        _mount("tmpfs", target, "tmpfs", 0, "mode=755")
    testcase.addCleanup(lambda: _check(_libc.umount2(target.encode(), 0), f"umount {target}"))


def wait_until(cond, done, timeout):
    """Waits on the condition `cond` until done() holds; False after `timeout` seconds."""
    with cond:
        return bool(cond.wait_for(done, timeout))


SANDBOXED = os.geteuid() == 0
if SANDBOXED:
    _enter_mount_namespace()


class SyslogCapture:
    """Binds /dev/log and records every line: (priority, text)."""

    LINE = re.compile(rb"^<(\d+)>(?:\w{3} [ \d]\d \d\d:\d\d:\d\d )?[^:\[]+(?:\[\d+\])?: (.*)$", re.S)

    def __init__(self, path="/dev/log"):
        if os.path.exists(path):
            os.unlink(path)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        self.sock.bind(path)
        self.records = []  # (priority, text)
        self.cond = threading.Condition()
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def _read(self):
        while raw := self.sock.recv(65536):  # empty once close() shuts the socket down
            if m := self.LINE.match(raw):
                with self.cond:
                    self.records.append((int(m.group(1)) & 7, m.group(2).decode(errors="replace")))
                    self.cond.notify_all()

    def lines(self):
        """(priority, text) of every line so far."""
        with self.cond:
            return list(self.records)

    def wait_for(self, text, timeout=5.0, priority=None, count=1):
        seen = lambda: sum(1 for p, t in self.records if t == text and priority in (None, p))
        return wait_until(self.cond, lambda: seen() >= count, timeout)

    def close(self):
        self.sock.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.sock.close()


class Agent:
    """The real ipsec_cpa in a fresh network namespace, with its syslog, started through `launcher` if any."""

    def __init__(self, *args, wait_ready=True, env=None, fresh_namespace=True, launcher=()):
        if fresh_namespace:
            new_network_namespace()
        self.syslog = SyslogCapture()
        self.stdout_path = f"{SCRATCH}/agent-{time.monotonic_ns()}.out"
        self.stderr_path = self.stdout_path + ".err"
        with open(self.stdout_path, "wb") as out, open(self.stderr_path, "wb") as err:
            self.proc = subprocess.Popen([*launcher, BINARY, *args], stdout=out, stderr=err,
                                         env={**os.environ, **(env or {})})
        if wait_ready and not self.wait_ports_bound():
            raise AssertionError(f"agent did not come up: {self.syslog.lines()}")

    def wait_ports_bound(self, timeout=10.0):
        """Waits until UDP sockets of this namespace are bound to both of the agent's ports."""
        wanted = {f"{p:04X}" for p in (PAL_PORT, KEEPALIVE_PORT)}
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline and self.alive():
            with open("/proc/net/udp") as f:
                bound = {line.split()[1].split(":")[1] for line in f.readlines()[1:]}
            if wanted <= bound:
                return True
            time.sleep(0.02)
        return False

    def log_lines(self):
        return self.syslog.lines()

    def texts(self):
        return [t for _, t in self.log_lines()]

    def stdout(self):
        return pathlib.Path(self.stdout_path).read_text(errors="replace")

    def stderr(self):
        return pathlib.Path(self.stderr_path).read_text(errors="replace")

    def signal(self, sig):
        self.proc.send_signal(sig)

    def alive(self):
        return self.proc.poll() is None

    def stop(self):
        """Kills the agent; returns a problem description or None."""
        problem = None if self.alive() else f"agent exited with {self.proc.returncode}"
        self.proc.kill()  # nothing, if it has exited
        self.proc.wait()
        self.syslog.close()
        if "Sanitizer" in (err := self.stderr()) or "runtime error" in err:
            problem = (problem or "") + "\nsanitizer report:\n" + err
        return problem


class AgentTestCase(unittest.TestCase):
    """Agents from start_agent() are stopped, and checked for crashes and sanitizer reports, with the test."""

    def setUp(self):
        if not SANDBOXED:
            self.skipTest("end-to-end tests need root")
        if not os.access(BINARY, os.X_OK):
            self.fail(f"no agent binary at {BINARY}")

    launcher = ()  # a command that starts the agents of this test case

    def start_agent(self, *args, expect_running=True, **options):
        """An agent (see Agent for the options) stopped with the test."""
        agent = Agent(*args, launcher=self.launcher, **options)
        self.addCleanup(self._stop, agent, expect_running)
        return agent

    def rp(self, addr=RP_ADDR):
        link = RpLink(AGENT_ADDR, addr)
        self.addCleanup(link.close)
        return link

    def _stop(self, agent, expect_running):
        problem = agent.stop()
        if problem and (expect_running or "sanitizer" in problem):
            self.fail(problem)

    def assertLogged(self, agent, text, priority=None, timeout=3.0, count=1):
        if not agent.syslog.wait_for(text, timeout, priority, count):
            self.fail(f"{text!r} (priority {priority}) not logged {count}x; got:\n" +
                      "\n".join(repr(l) for l in agent.log_lines()))
