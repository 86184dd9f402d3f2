#!/usr/bin/env python3
"""Sends the agent (started with -d 3, in a sandbox of its own) key requests that
no SA ever claims, then prints its resident memory and how the requests were
answered. Root only.

Usage: key_memory.py [requests, default 100000]"""

import os
import struct
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import sandbox  # noqa: E402  (enters the private mount namespace; puts the cpa_rp package on the path)
from cpa_rp.link import RpLink  # noqa: E402
from cpa_rp.wire import cipher_info, create_keys, status_text  # noqa: E402


def rss_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 100000
    agent = sandbox.Agent("-d", "3")
    statuses = {}
    try:
        before = rss_kib(agent.proc.pid)
        with RpLink() as rp:
            for n in range(count):
                info = cipher_info(n % 2, 0x10000 + n, 0x0A000001, 0x0A000002)
                answer = rp.request(create_keys(n, n, 0x50000 + n, info, bytes([n % 256]) * 16, bytes(20)))
                status = struct.unpack_from(">I", answer, 10)[0] if answer else None
                statuses[status] = statuses.get(status, 0) + 1
        after = rss_kib(agent.proc.pid)
    finally:
        problem = agent.stop()
    answers = ", ".join(f"{status_text(s) if s is not None else 'no answer'}: {n}" for s, n in sorted(
        statuses.items(), key=lambda item: -1 if item[0] is None else item[0]))
    print(f"{count} unclaimed key requests: RSS {before / 1024:.1f} MiB before, {after / 1024:.1f} MiB after "
          f"({answers})")
    if problem:
        print(problem)
    return 1 if problem or after >= 32 * 1024 else 0


if __name__ == "__main__":
    sys.exit(main())
