#!/usr/bin/env python3
"""Plays the RP for one tunnel's SADB life against build/ipsec_cpa."""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import sandbox  # noqa: E402  (enters a private mount namespace)
from rp_messages import attr_update, init_completed, init_start, sadb_delete  # noqa: E402

PRIORITY = {3: "err", 4: "warning", 6: "info", 7: "debug"}


def hexdump(data):
    return " ".join(f"{b:02x}" for b in data) if data is not None else "(no answer)"


def main():
    if not sandbox.SANDBOXED:
        sys.exit("the demo needs root (it uses network and mount namespaces)")
    agent = sandbox.Agent()
    rp = sandbox.RpClient()
    steps = [
        ("SADB_INIT_START     callback 0xa1, create handle 0x500", init_start(0xA1, 0x500)),
        ("SADB_INIT_COMPLETED callback 0xa2, SADB handle 1", init_completed(0xA2, 1)),
        ("SADB_ATTR_UPDATE    callback 0xa3, attribute 5, value 7",
         attr_update(0xA3, 1, b"\0\0\0\5", b"\0\0\0\7")),
        ("SADB_INIT_START     callback 0xa4, same create handle (duplicate)", init_start(0xA4, 0x500)),
        ("SADB_DELETE         callback 0xa5, SADB handle 1", sadb_delete(0xA5, 1)),
        ("SADB_INIT_COMPLETED callback 0xa6, SADB handle 1 (gone)", init_completed(0xA6, 1)),
    ]
    try:
        print("RP requests and the agent's answers (status 1 = success, 6 = no such tunnel):\n")
        for title, request in steps:
            print(f"> {title}\n  sent     {hexdump(request)}\n  answered {hexdump(rp.request(request))}\n")
    finally:
        rp.close()
        problem = agent.stop()
    print("The agent's syslog lines (facility local0):\n")
    for priority, text in agent.log_lines():
        print(f"  [{PRIORITY.get(priority, priority)}] {text.rstrip()}")
    if problem:
        sys.exit(problem)


if __name__ == "__main__":
    main()
