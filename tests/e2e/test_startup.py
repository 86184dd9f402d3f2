"""Start-up: options, the start-up log, exit statuses, the NETLINK_XFRM sockets
in the agent's own network namespace, the fast-path segment; the RP address
the first request latches."""

import os
import pathlib
import re
import socket
import time

from sandbox import SCRATCH, AgentTestCase, new_network_namespace, LOG_DEBUG, LOG_ERR, LOG_INFO
from cpa_rp.wire import init_start

SEGMENT = "/dev/shm/fp-shared"
SEGMENT_SIZE = 0x39BBDFC0


def xfrm_sockets():
    """(port id, group mask) of the NETLINK_XFRM sockets of this namespace but the kernel's."""
    with open("/proc/net/netlink") as f:  # protocol 6 is NETLINK_XFRM; port id 0 the kernel's
        rows = [line.split() for line in f.readlines()[1:]]
    return [(int(r[2]) & 0xffffffff, int(r[3], 16)) for r in rows if r[1] == "6" and r[2] != "0"]


class Options(AgentTestCase):
    def test_usage_exits_zero_before_any_socket(self):
        for opts in (("-h",), ("-?",), ("-x",), ("-k", "bsd")):
            agent = self.start_agent("-u", *opts, expect_running=False, wait_ready=False)
            self.assertEqual(agent.proc.wait(5), 0)
            self.assertEqual(agent.stdout(),
                             f"Enabling UT\n\nUsage: {agent.proc.args[0]} -d <DEBUG LVL>\nDEBUG LVL: 0-7\n")
            self.assertNotIn("socket() is OK", agent.texts())

    def test_values_and_what_is_printed(self):
        for args, printed, window in (
                (("-r", "48", "-d", "9"), "The replay window size values can either be 32 or 64. "
                                          "Setting it to default\n\nDEBUG must be between 0-7\n", 32),
                (("-r", "64", "-d", "-1"), "\nDEBUG must be between 0-7\n", 64),
                (("-d", "x"), "", 0)):
            agent = self.start_agent(*args)
            self.assertEqual(agent.stdout(), printed)
            self.assertLogged(agent, f"Replay window size is {window}\n", LOG_DEBUG)

    def test_debug_level_filters_syslog(self):
        agent = self.start_agent("-d", "3")
        rp = self.rp()
        self.assertIsNotNone(rp.request(init_start(1, 0)))
        self.assertLogged(agent, "Null callback handle or create handle", LOG_ERR)
        self.assertEqual({p for p, _ in agent.log_lines()}, {LOG_ERR})


class StartupSequence(AgentTestCase):
    def test_log_lines_in_order_and_the_netlink_sockets(self):
        """The request socket has the process id, the monitor the policy group."""
        agent = self.start_agent()
        # One line of each step, in the order of the steps.
        expected = [
            (LOG_INFO, "THIS IS THE START POINT"),
            (LOG_DEBUG, f"Coming up fresh with PID: {agent.proc.pid}"),
            (LOG_DEBUG, "Replay window size is 0\n"),
            (LOG_INFO, "Kernel flavour: platform"),
            (LOG_INFO, "socket() is OK"),
            (LOG_INFO, "ARP socket() is OK"),
            (LOG_DEBUG, "nl_grps 0x8"),
            (LOG_INFO, "UDP server - bind() is OK"),
            (LOG_INFO, "UDP server - Listening..."),
            (LOG_ERR, "ERROR: Failed to open shared memory\n"),
            (LOG_DEBUG, "pthread_create returns 0\n"),
        ]
        self.assertLogged(agent, "pthread_create returns 0\n")  # logged once the keepalive thread may run
        lines = agent.log_lines()
        self.assertLessEqual(set(expected), set(lines))
        positions = [lines.index(line) for line in expected]
        self.assertEqual(positions, sorted(positions))
        sockets = xfrm_sockets()
        self.assertIn((agent.proc.pid, 0), sockets)
        self.assertEqual(sorted(groups for _, groups in sockets), [0, 8])

    def test_linux_flavour_in_unit_test_mode(self):
        """The monitor joins the acquire group too; unit-test mode clears the kernel and the test tunnel."""
        bindir = pathlib.Path(f"{SCRATCH}/bin-{time.monotonic_ns()}")
        bindir.mkdir()
        (bindir / "ip").write_text(f'#!/bin/sh\necho "ip $*" >> {bindir}/log\n')  # records, does nothing
        (bindir / "ip").chmod(0o755)
        (log := bindir / "log").touch()
        agent = self.start_agent("-u", "-k", "linux", env={"PATH": f"{bindir}:{os.environ['PATH']}"})
        self.assertEqual(agent.stdout(), "Enabling UT\n")
        self.assertLogged(agent, "Kernel flavour: linux", LOG_INFO)
        self.assertEqual(sorted(groups for _, groups in xfrm_sockets()), [0, 9])
        deadline = time.monotonic() + 3
        while log.read_text().count("\n") < 3 and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertEqual(log.read_text().splitlines(), ["ip xfrm policy flush", "ip xfrm state flush",
                                                         "ip tunnel del svti2"])

    def test_a_taken_port_ends_the_start_up(self):
        for port, line in ((23456, "bind() error reason: Address already in use"),
                           (23458, "Socket Initialization failed")):
            new_network_namespace()
            holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            holder.bind(("0.0.0.0", port))
            self.addCleanup(holder.close)
            agent = self.start_agent(expect_running=False, wait_ready=False, fresh_namespace=False)
            self.assertEqual(agent.proc.wait(5), 1)
            self.assertLogged(agent, line, LOG_ERR)


class RpAddress(AgentTestCase):
    def test_first_sender_fixes_where_all_responses_go(self):
        self.start_agent()
        first = self.rp("127.0.0.5")
        other = self.rp("127.0.0.6")
        self.assertEqual(len(first.request(init_start(1, 0x100))), 18)
        other.send(init_start(2, 0x200))
        self.assertEqual(len(first.receive()), 18)
        self.assertIsNone(other.receive(timeout=0.3))


class FastPathSegment(AgentTestCase):
    def test_segment_is_mapped_when_present_and_big_enough(self):
        self.addCleanup(os.unlink, SEGMENT)
        for size, logged in ((SEGMENT_SIZE - 1, r"ERROR: Failed to open shared memory\n"),
                             (SEGMENT_SIZE, r"SUCCESS: Fastpath shared memory mapped successfully with "
                                            r"size = 0x39bbdfc0 addr = 0x[0-9a-f]+\n")):
            with open(SEGMENT, "wb") as f:
                f.truncate(size)
            agent = self.start_agent()
            self.assertLogged(agent, "pthread_create returns 0\n")  # after the segment's line
            self.assertTrue(any(re.fullmatch(logged, text) for text in agent.texts()), agent.texts())
