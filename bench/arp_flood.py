#!/usr/bin/env python3
"""RP round trips under an ARP flood: the agent (-d 6) in a network namespace of
its own with a veth named ethgrp0 (10.2.0.5/16); SADB_INIT_START round trips
from 127.0.0.2, first idle, then while the other end of the veth sends 1,000
ARP requests a second, each from another subnet for another address (the
costliest kind: both address commands). Root only.

Usage: arp_flood.py [seconds per phase (5)]"""

import os
import socket
import struct
import subprocess
import sys
import multiprocessing
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import sandbox  # noqa: E402  (enters the private mount namespace; puts the cpa_rp package on the path)
from cpa_rp.link import RpLink  # noqa: E402
from cpa_rp.wire import init_start  # noqa: E402

MAC = bytes.fromhex("02005e0a0bfe")
FRAMES_PER_SECOND = 1000


def ip(*args):
    subprocess.run(["ip", *args], check=True)


def arp_request(n):
    sender = bytes([10, 9, (n >> 8) & 0xff, n & 0xff])
    target = bytes([10, 8, (n >> 8) & 0xff, n & 0xff])
    return (b"\xff" * 6 + MAC + struct.pack(">HHHBBH", 0x0806, 1, 0x0800, 6, 4, 1) + MAC + sender + bytes(6) +
            target)


def flood(stop, sent):
    """1,000 frames a second, in bursts of 10 every 10 ms; a process of its own, so
    that it takes no time from the round trips' interpreter."""
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as s:
        s.bind(("arp-peer", 0))
        start = time.monotonic()
        while not stop.is_set():
            due = int((time.monotonic() - start) * FRAMES_PER_SECOND)
            while sent.value < due:
                s.send(arp_request(sent.value % 65000))
                sent.value += 1
            time.sleep(0.01)


def round_trips(seconds):
    """The round-trip times (s) of the SADB_INIT_STARTs answered within `seconds`."""
    times = []
    with RpLink() as rp:
        deadline = time.monotonic() + seconds
        n = 0
        while time.monotonic() < deadline:
            n += 1
            t0 = time.perf_counter()
            if rp.request(init_start(n, 0x100000 + n % 4000)) is None:
                sys.exit(f"no answer to request {n}")
            times.append(time.perf_counter() - t0)
    return sorted(times)


def summary(times):
    return (f"{len(times)} round trips, mean {sum(times) / len(times) * 1e6:.0f} us, "
            f"median {times[len(times) // 2] * 1e6:.0f} us, p99 {times[len(times) * 99 // 100] * 1e6:.0f} us")


def main():
    if not sandbox.SANDBOXED:
        sys.exit("arp_flood.py needs root")
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 5.0
    agent = sandbox.Agent("-d", "6")
    try:
        ip("link", "add", "ethgrp0", "type", "veth", "peer", "name", "arp-peer")
        ip("address", "add", "10.2.0.5/16", "dev", "ethgrp0")
        for dev in ("ethgrp0", "arp-peer"):
            ip("link", "set", dev, "up")
        time.sleep(0.2)
        idle = round_trips(seconds)
        stop, sent = multiprocessing.Event(), multiprocessing.Value("l", 0)
        flooder = multiprocessing.Process(target=flood, args=(stop, sent))
        flooder.start()
        time.sleep(0.5)
        flooded = round_trips(seconds)
        stop.set()
        flooder.join()
    finally:
        problem = agent.stop()
    if problem:
        sys.exit(problem)
    mean = lambda t: sum(t) / len(t)
    print(f"Idle:  {summary(idle)}\nFlood: {summary(flooded)} ({sent.value} ARP frames sent)")
    print(f"RP round trip under the ARP flood / idle: mean {mean(flooded) / mean(idle):.2f}, "
          f"median {flooded[len(flooded) // 2] / idle[len(idle) // 2]:.2f}")


if __name__ == "__main__":
    main()
