"""One tunnel's road through cpa-rp, the RP's command line, against the real
agent on the fake platform kernel and a fast-path segment written by the same
package: scripts of requests with every answer compared whole, the kernel's
SAs and policies, an acquire that `watch` prints as the agent's notification,
the flow statistics, a status mismatch and the counter report."""

import json
import os
import socket
import subprocess
import sys

from fake_kernel import GROUP_POLICY, agent_on_fake_kernel
from sandbox import REPO, AgentTestCase
from cpa_rp import segment
from cpa_rp.wire import CEAL_NAMES, FLOW_COUNTERS, PAL_NAMES, STATUS_NAMES

TOOL = os.path.join(REPO, "tools", "cpa-rp")
SEGMENT = "/dev/shm/fp-shared"
KEYS = "--mode tunnel --cipher aes --key {0} --mac sha1 --mac-key {1} --soft-life 3000 --hard-life 3600"
OPEN = f"""# open, attach, peer, policy, keys of both directions, the SAs
init-start --create 0x500 --callback 0xCB01
sadb complete --sadb $sadb --callback 0xCB02
attach --sadb $sadb --tunnel-id 7 --callback 0xCB03
peer insert --sadb $sadb --peer 0xABCD --dpd 10 --callback 0xCB04
acl install --sadb $sadb --ace 10.1.0.0/16:10.2.0.0/16:tcp:1000:2000 --out notify:0x77 --callback 0xCB05
keys --index 0x11 --sa 0x1001 --spi 0x1111 --src 10.0.0.2 --dst 10.0.0.1 {KEYS.format('aa' * 16, 'bb' * 20)} \
 --callback 0xCB06
keys --index 0x22 --sa 0x2002 --outbound --spi 0x2222 --src 10.0.0.1 --dst 10.0.0.2 \
 {KEYS.format('cc' * 16, 'dd' * 20)} --callback 0xCB07
spi-insert --sadb $sadb --spi 0x1111 --dest 10.0.0.1/24 --src 10.0.0.2 --decrypt decrypt:0x1001:5:7 --callback 0xCB08
cflow-insert --sadb $sadb --ivrf 6 --encrypt encrypt:0x2002:3 --callback 0xCB09
"""
CLOSE = """delete-flow --flow-id 0x22 --callback 0xD1
delete-flow --flow-id 0x11 --callback 0xD2
acl remove --sadb 1 --callback 0xD3
detach --tunnel-id 7 --callback 0xD4
sadb delete --sadb 1 --callback 0xD5
sadb complete --sadb 1 --callback 0xD6 => NO_SESSION
"""


def cpa_rp(*args, input=None):
    return subprocess.run([sys.executable, TOOL, *args], input=input, capture_output=True, text=True, timeout=20)


def answer(message, api, callback, status=1, **values):
    names = PAL_NAMES if message == "PAL" else CEAL_NAMES
    return {"message": message, "api": api, "command": names[api], "callback_handle": callback, **values,
            "status": status, "status_name": STATUS_NAMES[status]}


def counters(table, **values):
    return {name: values.get(name, 0) for name, _, _ in table}


class RoadThroughCpaRp(AgentTestCase):
    def setUp(self):
        super().setUp()
        self.addCleanup(os.unlink, SEGMENT)
        segment.main(f"--path {SEGMENT} --sa 1 0x1111 10.0.0.1 50 --sa 2 0x2222 10.0.0.2 50 --sa-counter 1 0 "
                     "in_sa_bytes 1000 --sa-counter 1 5 in_sa_bytes 500 --sa-counter 1 0 in_sa_packets 3 "
                     "--sa-counter 2 127 out_sa_packets 7".split())
        self.kernel, self.agent = agent_on_fake_kernel(self, "-d", "7", "-r", "64")

    def script(self, text):
        """The answers of a script run with --json, which must succeed."""
        run = cpa_rp("--json", "script", "/dev/fd/0", input=text)
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        return [json.loads(line) for line in run.stdout.splitlines()]

    def request(self, *args):
        run = cpa_rp("--json", *args)
        self.assertEqual((run.returncode, run.stderr), (0, ""), args)
        return json.loads(run.stdout)

    def notification(self):
        """The first notification `watch` prints once the kernel multicasts an acquire."""
        watch = subprocess.Popen([sys.executable, TOOL, "watch", "--json", "--duration", "5"],
                                 stdout=subprocess.PIPE, text=True)
        for cleanup in (watch.stdout.close, watch.wait, watch.terminate):
            self.addCleanup(cleanup)
        first = json.loads(watch.stdout.readline())  # the agent's answer to watch's keepalive
        self.assertEqual((first["message"], first["hostId"]), ("KEEPALIVE", "IPSEC_DP"))
        self.assertTrue(self.kernel.acquire(GROUP_POLICY, 1))
        while (seen := json.loads(watch.stdout.readline()))["message"] != "PAL":
            pass
        del seen["time"]
        return seen

    def test_a_tunnel_from_open_to_close(self):
        self.assertEqual(self.script(OPEN), [
            answer("PAL", 1, 0xCB01, sadbhandle=1), answer("PAL", 2, 0xCB02), answer("PAL", 5, 0xCB03),
            answer("PAL", 11, 0xCB04, peer_handle=0xABCD), answer("PAL", 9, 0xCB05),
            answer("CEAL", 0, 0xCB06), answer("CEAL", 0, 0xCB07), answer("PAL", 13, 0xCB08, flow_id=0x1001),
            answer("PAL", 15, 0xCB09, flow_handle=0x2002)])
        svti = socket.if_nametoindex("svti7")
        sa = f"p50 reqid=1 m1 r64 life=3000/3600 svti{svti} 2=cbc(aes):128:{{}} 1=hmac(sha1):160:{{}}"
        self.assertEqual(self.kernel.sas(), ["sa 10.0.0.1 spi=0x1111 " + sa.format("aa" * 16, "bb" * 20),
                                             "sa 10.0.0.2 spi=0x2222 " + sa.format("cc" * 16, "dd" * 20)])
        self.assertEqual([p.split()[:6] for p in self.kernel.policies()],
                         [["policy", "19", "dir1", "act0", "10.1.0.0/16:1000>10.2.0.0/16:2000", "p6"],
                          ["policy", "19", "dir0", "act0", "10.2.0.0/16:2000>10.1.0.0/16:1000", "p6"]])
        self.assertEqual(self.notification(), {
            "message": "PAL", "api": 21, "command": "KESTRIX_PAL_NOTIFY_RP", "notify_handle": 0x77, "outbound": 1,
            "tunnel_id": 7, "pkt_len": 7, "pkt_summary": "00" * 64})

        flows = self.request("stats", "flow", "0x11", "0x22:out", "--final", "5", "--callback", "0xF1")
        self.assertEqual((flows["handle"], flows["final_flg"], [flow["counters"] for flow in flows["flows"]]), (
            0xF1, 5, [counters(FLOW_COUNTERS, flow_in_bytes=1500, flow_in_pkts=3),
                      counters(FLOW_COUNTERS, flow_out_pkts=7)]))

        self.assertEqual(self.script(CLOSE), [
            answer("CEAL", 4, 0xD1), answer("CEAL", 4, 0xD2), answer("PAL", 9, 0xD3), answer("PAL", 5, 0xD4),
            answer("PAL", 3, 0xD5), answer("PAL", 2, 0xD6, status=6)])
        self.assertEqual((self.kernel.sas(), self.kernel.policies()), ([], []))

        gone = cpa_rp("sadb", "complete", "--sadb", "1")
        self.assertEqual((gone.returncode, gone.stdout, gone.stderr), (
            1, "KESTRIX_PAL_SADB_INIT_COMPLETED: CRYPTO_ERR_NO_SESSION (6)\n  callback_handle        0x00000001\n",
            "cpa-rp: KESTRIX_PAL_SADB_INIT_COMPLETED answered CRYPTO_ERR_NO_SESSION (6), "
            "expected CRYPTO_NO_ERR (1)\n"))
        rows = self.request("counters", "--wake", "--timeout", "5", "--pid", str(self.agent.proc.pid))["commands"]
        self.assertEqual([rows["KESTRIX_PAL_SADB_INIT_COMPLETED"], rows["KESTRIX_CEAL_CE_DELETE_FLOW"]],
                         [[3, 1, 2], [2, 2, 0]])
