"""The agent's counter report: SIGUSR1 asks for it, the agent writes it at its
next keepalive tick (its keepalive timers run once the RP's keepalives
started)."""

import os
import re
import signal
import time

REPORT = "/usr/admin/log/.cpa_ctrs"
ROW = re.compile(r"^ (\S.*?) \t+ +(\d+) \t+ +(\d+) \t+ +(\d+)$", re.M)
VALUE = re.compile(r"^ (\S.*?) \t+ +(\d+) $", re.M)
END = re.compile(r"Non-RP drops \t+ +\d+ \n\n\Z")
COARSE_CLOCK_SLACK_NS = 20_000_000  # file times come from a clock a tick behind time.time()


def mtime():
    try:
        return os.stat(REPORT).st_mtime_ns
    except FileNotFoundError:
        return None


def fresh(before, asked_ns):
    """The report's text once it was rewritten after the request and is complete, else None."""
    written = mtime()
    if written is None or written == before or written < asked_ns - COARSE_CLOCK_SLACK_NS:
        return None
    try:
        with open(REPORT) as f:
            text = f.read()
    except FileNotFoundError:
        return None
    return text if END.search(text) else None


def fetch(pid, timeout, wake=None):
    """SIGUSR1 to `pid`, then the report once the file is newer than the signal;
    None after `timeout` seconds. `wake`, if given, is called first (to send a
    keepalive). OSError if the signal cannot be sent."""
    before, asked_ns = mtime(), time.time_ns()
    if wake:
        wake()
    os.kill(pid, signal.SIGUSR1)
    deadline = time.monotonic() + timeout
    while (text := fresh(before, asked_ns)) is None:
        if time.monotonic() >= deadline:
            return None
        time.sleep(0.02)
    return text


def parse(text):
    """{"commands": {row: [requests, ok, errors]}, "values": {row: value}}."""
    return {"commands": {m.group(1): [int(v) for v in m.group(2, 3, 4)] for m in ROW.finditer(text)},
            "values": {m.group(1): int(m.group(2)) for m in VALUE.finditer(text)}}
