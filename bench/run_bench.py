#!/usr/bin/env python3
"""Runs the load drivers in sandboxes of their own: rp_load_driver against the
agent (started with -d 3), and again with the RP allow-list -R 127.0.0.0/8, then sa_setup_driver against an agent attached to
the fake platform kernel and against its reference. Root only. The drivers
send requests this script encodes with the cpa_rp package.

Usage: run_bench.py [seconds for the echo comparison] | --sa-only"""

import argparse
import os
import re
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import sandbox  # noqa: E402  (enters the private mount namespace; puts the cpa_rp package on the path)
from fake_kernel import FakeKernel  # noqa: E402
from cpa_rp.wire import (action, be16, cipher_info, create_keys, init_completed, init_start,  # noqa: E402
                         sadb_delete, spi_insert)

BUILD = os.path.join(sandbox.REPO, "build")
TUNNELS = range(1, 4096)
LOCAL, REMOTE = 0x0A000001, 0x0A000002


def requests_file(name, datagrams):
    """The drivers' requests: each a 2-byte length, then its bytes."""
    path = f"{sandbox.SCRATCH}/{name}"
    with open(path, "wb") as f:
        f.write(b"".join(be16(len(d)) + d for d in datagrams))
    return path


def sa_requests(name, first_spi):
    """For tunnel t: the inbound keys of SA t (AES-128, HMAC-SHA1) and the SPI insert that claims them."""
    return requests_file(name, [d for t in TUNNELS for d in (
        create_keys(t, t, t, cipher_info(0, first_spi + t, REMOTE, LOCAL, replay_window=32), bytes([t % 256]) * 16,
                    bytes([t % 256]) * 20),
        spi_insert(t, t, first_spi + t, (LOCAL, 24), (REMOTE, 24), action("decrypt", t)))])


def pin(pid):
    """Beside the driver and the echo servers, on CPU 1."""
    for thread in os.listdir(f"/proc/{pid}/task"):
        os.sched_setaffinity(int(thread), {1})


def run_with_agent(args, env=None, agent_args=()):
    agent = sandbox.Agent("-d", "3", *agent_args, env=env)
    pin(agent.proc.pid)
    try:
        return subprocess.run(args, check=True, capture_output=True, text=True).stdout
    finally:
        problem = agent.stop()
        if problem:
            sys.exit(problem)


def sa_setup():
    kernel = FakeKernel()
    pin(kernel.proc.pid)
    try:
        opens = requests_file("sa-opens", [init_start(t, 0x200000 + t) for t in TUNNELS])
        agent_out = run_with_agent([f"{BUILD}/sa_setup_driver", "agent", opens, sa_requests("sa-agent", 0x10000)],
                                   env=kernel.env())
        with kernel.cond:
            mark = len(kernel.lines)
        kernel.command("request 16")
        sa_add = next(l[4:] for l in kernel.lines[mark:] if l.startswith("hex "))
        reference_out = subprocess.run([f"{BUILD}/sa_setup_driver", "reference", sa_requests("sa-reference", 0x20000),
                                        kernel.path, sa_add],
                                       check=True, capture_output=True, text=True).stdout
    finally:
        kernel.close()
    rate = lambda out: float(re.search(r"SA set-ups/s: (\d+)", out).group(1))
    print("Agent:\n" + agent_out + "Reference (echo + the same SA add to the fake kernel):\n" + reference_out)
    print(f"SA set-ups agent/reference: {rate(agent_out) / rate(reference_out):.2f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("seconds", nargs="?", help="seconds for the echo comparison (6)")
    parser.add_argument("--sa-only", action="store_true", help="only the SA set-up comparison")
    args = parser.parse_args()
    if not sandbox.SANDBOXED:
        sys.exit("run_bench.py needs root")
    if not args.sa_only:
        requests = requests_file("rp-load", [init_start(1, 0x424242), init_completed(7, 1), sadb_delete(7, 1)] +
                                 [init_start(n, 0x100000 + n) for n in TUNNELS])
        driver = [f"{BUILD}/rp_load_driver", requests, *([args.seconds] if args.seconds else [])]
        plain = run_with_agent(driver)
        filtered = run_with_agent(driver, agent_args=("-R", "127.0.0.0/8"))
        print(plain + "With -R 127.0.0.0/8:\n" + filtered, end="")
        # Each run's agent rate relative to the echo server measured interleaved
        # with it, so that the load of the machine between the runs cancels.
        relative = lambda out: float(re.search(r"agent/echo (\d+\.\d+)", out).group(1))
        print(f"SADB_INIT_COMPLETED round trips (agent/echo) with -R / without: "
              f"{relative(filtered) / relative(plain):.2f}")
    sa_setup()


if __name__ == "__main__":
    main()
