#!/usr/bin/env python3
"""Runs the load drivers in sandboxes of their own: rp_load_driver against the
agent (started with -d 3), then sa_setup_driver against an agent attached to
the fake platform kernel and against its reference. Root only.
Usage: run_bench.py [seconds for the echo comparison] | --sa-only"""

import os
import re
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import sandbox  # noqa: E402  (enters the private mount namespace)
from fake_kernel import FakeKernel  # noqa: E402

BUILD = os.path.join(sandbox.REPO, "build")


def pin(pid):
    """Beside the driver and the echo servers, on CPU 1."""
    for thread in os.listdir(f"/proc/{pid}/task"):
        os.sched_setaffinity(int(thread), {1})


def run_with_agent(args, env=None):
    agent = sandbox.Agent("-d", "3", env=env)
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
        agent_out = run_with_agent([f"{BUILD}/sa_setup_driver", "agent"], env=kernel.env())
        with kernel.cond:
            mark = len(kernel.lines)
        kernel.command("request 16")
        sa_add = next(l[4:] for l in kernel.lines[mark:] if l.startswith("hex "))
        reference_out = subprocess.run([f"{BUILD}/sa_setup_driver", "reference", kernel.path, sa_add],
                                       check=True, capture_output=True, text=True).stdout
    finally:
        kernel.close()
    rate = lambda out: float(re.search(r"SA set-ups/s: (\d+)", out).group(1))
    print("Agent:\n" + agent_out + "Reference (echo + the same SA add to the fake kernel):\n" + reference_out)
    print(f"SA set-ups agent/reference: {rate(agent_out) / rate(reference_out):.2f}")


def main():
    if not sandbox.SANDBOXED:
        sys.exit("run_bench.py needs root")
    if "--sa-only" not in sys.argv:
        print(run_with_agent([f"{BUILD}/rp_load_driver", *sys.argv[1:]]), end="")
    sa_setup()


if __name__ == "__main__":
    main()
