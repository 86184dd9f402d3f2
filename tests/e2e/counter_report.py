"""Reads the agent's counter report: a keepalive starts the agent's keepalive
timers, SIGUSR1 asks for the report, the next timer tick writes it."""

import os
import re
import signal
import socket
import time

from rp_messages import keepalive
from sandbox import AGENT_ADDR, KEEPALIVE_PORT, RP_ADDR

REPORT = "/usr/admin/log/.cpa_ctrs"
ROW = re.compile(r"^ (\S+) \t+ +(\d+) \t+ +(\d+) \t+ +(\d+)$", re.M)


def counter_rows(agent, timeout=5.0):
    """{row name: (requests, ok, errors)} of the command rows of a fresh report,
    which is removed once read."""
    if os.path.exists(REPORT):
        os.unlink(REPORT)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind((RP_ADDR, 0))
        s.sendto(keepalive(), (AGENT_ADDR, KEEPALIVE_PORT))
    agent.signal(signal.SIGUSR1)
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if os.path.exists(REPORT):
            with open(REPORT) as f:
                text = f.read()
            if "ARP Proc err" in text:
                os.unlink(REPORT)  # later readers wait for a report of their own
                return {m.group(1): tuple(int(v) for v in m.group(2, 3, 4)) for m in ROW.finditer(text)}
        time.sleep(0.05)
    raise AssertionError("no counter report written")
