#!/usr/bin/env python3
"""Plays the RP for one tunnel's whole life against build/ipsec_cpa_test, which
programs the fake platform kernel (build/fake_xfrm_kernel_server) and reads
its flows' counters from a fast-path segment this script writes."""

import os
import signal
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import sandbox  # noqa: E402  (enters a private mount namespace; puts the cpa_rp package on the path)
from fake_kernel import FakeKernel  # noqa: E402
from cpa_rp import segment  # noqa: E402
from cpa_rp.wire import (acl_modify, action, cflow_insert, cipher_info, create_keys, decode,  # noqa: E402
                         delete_flow, flow_stats, init_start, intf_attach, peer_insert, policy_records,
                         sadb_delete, spi_insert, status_text)

LOCAL, REMOTE = 0x0A000001, 0x0A000002
POLICY = policy_records([((0x0A010000, 16), (0x0A020000, 16), 6, (1000, 2000))], outbound=action("notify", 0xABCD))
ESP_KEYS = (bytes(range(1, 17)), bytes(range(0x40, 0x54)))
# The fast path's view of the two SAs: its entries by SPI, destination and
# protocol, with counters spread over cores 0 and 5 (the agent sums all 128).
SEGMENT_ARGS = ["--sa", "1", "0x1111", "10.0.0.1", "50", "--sa", "2", "0x2222", "10.0.0.2", "50",
                "--sa-counter", "1", "0", "in_sa_bytes", "1000", "--sa-counter", "1", "5", "in_sa_bytes", "500",
                "--sa-counter", "1", "0", "in_sa_packets", "3", "--sa-counter", "2", "0", "out_sa_bytes", "4200",
                "--sa-counter", "2", "5", "out_sa_packets", "7"]
SHOWN_COUNTERS = ("flow_in_bytes", "flow_in_pkts", "flow_out_bytes", "flow_out_pkts")


def summary(data):
    """One readable line of an answer: its command, handles and status."""
    if data is None:
        return "(no answer)"
    answer = decode(data)
    values = ", ".join(f"{k} {v:#x}" for k, v in answer.items()
                       if k not in ("message", "api", "command", "status", "flows"))
    return f"{answer['command']} ({len(data)} bytes): {values}, {status_text(answer['status'])}"


def flow_counters(data):
    """The in and out counters of each flow of a FLOW_STATS answer."""
    return [f"flow {flow['flow_id']:#x}: " + ", ".join(f"{name} {flow['counters'][name]}" for name in SHOWN_COUNTERS)
            for flow in decode(data)["flows"]]


def steps():
    keys = lambda index, sa, outbound, spi, src, dst: create_keys(
        0xC0DE, index, sa, cipher_info(outbound, spi, src, dst, replay_window=32, soft_life=3000, hard_life=3600),
        *ESP_KEYS)
    return [
        ("SADB_INIT_START     create handle 0x500 -> tunnel (SADB handle) 1", init_start(0xA1, 0x500)),
        ("SADB_INTF_ATTACH    tunnel 1 gets device svti7", intf_attach(0xA2, 1, 7)),
        ("PEER_INSERT         peer 0x77 on tunnel 1", peer_insert(0xA3, 0x100, 0x77, 1)),
        ("ACL_MODIFY install  10.1/16 <-> 10.2/16 tcp, notify handle 0xabcd", acl_modify(0xA4, 1, 2, POLICY)),
        ("CREATE_KEY_BY_KEYS  inbound SA 0x1001, flow 0x11, AES-128/HMAC-SHA1", keys(0x11, 0x1001, 0, 0x1111, REMOTE, LOCAL)),
        ("CREATE_KEY_BY_KEYS  outbound SA 0x2002, flow 0x22", keys(0x22, 0x2002, 1, 0x2222, LOCAL, REMOTE)),
        ("SPI_INSERT          SPI 0x1111 decrypts with SA 0x1001", spi_insert(0xA5, 1, 0x1111, (LOCAL, 24), (REMOTE, 24),
                                                                                 action("decrypt", 0x1001, 0, 7))),
        ("CFLOW_INSERT        encrypts with SA 0x2002", cflow_insert(0xA6, 1, action("encrypt", 0x2002))),
        ("FLOW_STATS          flows 0x11 (inbound) and 0x22 (outbound)", flow_stats(0xA7, [(0x11, True), (0x22, False)])),
        ("DELETE_FLOW         flow 0x22", delete_flow(0xAC, 0x22)),
        ("DELETE_FLOW         flow 0x11", delete_flow(0xA8, 0x11)),
        ("ACL_MODIFY remove   the newest policy", acl_modify(0xA9, 1, 4)),
        ("SADB_INTF_ATTACH    SADB handle 0: detach svti7", intf_attach(0xAA, 0, 7)),
        ("SADB_DELETE         tunnel 1", sadb_delete(0xAB, 1)),
    ]


def main():
    if not sandbox.SANDBOXED:
        sys.exit("the demo needs root (it uses network and mount namespaces)")
    segment.main(["--path", "/dev/shm/fp-shared", *SEGMENT_ARGS])
    kernel = FakeKernel()
    agent = sandbox.Agent("-d", "7", env=kernel.env())
    rp = sandbox.RpLink()
    try:
        print("RP requests and the agent's answers:\n")
        for number, (title, request) in enumerate(steps(), 1):
            answer = rp.request(request)
            print(f"{number:2}. {title}\n    -> {summary(answer)}")
            if request[5] == 1 and request[1] == 1:  # FLOW_STATS: the counters the fast path keeps
                for line in flow_counters(answer):
                    print(f"       {line}")
            if number == 8:
                print("\n    The fake platform kernel now holds:")
                for line in kernel.policies() + kernel.sas():
                    print(f"      {line}")
                agent.signal(signal.SIGINT)
                agent.syslog.wait_for(">>>KESTRIX OUTBOUND SAs END<<<")
                print()
    finally:
        rp.close()
        problem = agent.stop()
        kernel.close()
    print("\nKernel messages the agent sent (16 new SA, 17 delete SA, 19 new policy, 20 delete policy):\n")
    for line in kernel.lines:
        if line.startswith("request "):
            print(f"  {line}")
    print("\nThe state dump (SIGINT) after the crypto flow:\n")
    lines = [text.rstrip() for _, text in agent.log_lines()]
    start = next((i for i, t in enumerate(lines) if "CPA_INTERFACE_DUMP" in t), len(lines))
    end = next((i for i, t in enumerate(lines) if "OUTBOUND SAs END" in t), len(lines))
    for text in lines[start:end + 1]:
        print(f"  {text}")
    if problem:
        sys.exit(problem)


if __name__ == "__main__":
    main()
