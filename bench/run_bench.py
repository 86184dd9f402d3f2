#!/usr/bin/env python3
"""Runs the load driver against the agent (started with -d 3) in a sandbox of
its own. Root only. Usage: run_bench.py [seconds for the echo comparison]"""

import os
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import sandbox  # noqa: E402  (enters the private mount namespace)

DRIVER = os.path.join(sandbox.REPO, "build", "rp_load_driver")


def main():
    if not sandbox.SANDBOXED:
        sys.exit("run_bench.py needs root")
    agent = sandbox.Agent("-d", "3")
    for thread in os.listdir(f"/proc/{agent.proc.pid}/task"):  # beside the driver and the echo servers
        os.sched_setaffinity(int(thread), {1})
    try:
        subprocess.run([DRIVER, *sys.argv[1:]], check=True)
    finally:
        problem = agent.stop()
        if problem:
            sys.exit(problem)


if __name__ == "__main__":
    main()
