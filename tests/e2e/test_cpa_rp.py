"""cpa-rp, the RP's command line, against the real agent (attached to the fake
platform kernel): a tunnel's life, scripts, watch, the counter report, and the
exit statuses of its failures."""

import importlib.machinery
import importlib.util
import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

from fake_kernel import GROUP_POLICY, agent_on_fake_kernel
from sandbox import LOG_INFO, PAL_PORT, REPO, RP_ADDR, AgentTestCase, new_network_namespace

TOOL = os.path.join(REPO, "tools", "cpa-rp")
NO_ERR, NO_SESSION = "CRYPTO_NO_ERR (1)", "CRYPTO_ERR_NO_SESSION (6)"


def cpa_rp(*args, timeout=10):
    return subprocess.run([sys.executable, TOOL, *args], capture_output=True, text=True,
                          timeout=timeout)


class CpaRpTestCase(AgentTestCase):
    def setUp(self):
        super().setUp()
        self.kernel, self.agent = agent_on_fake_kernel(self)

    def ok(self, *args):
        """Runs a request that must succeed; its decoded answer."""
        run = cpa_rp("--json", *args)
        self.assertEqual((run.returncode, run.stderr), (0, ""), args)
        return json.loads(run.stdout)

    def script(self, text):
        with tempfile.NamedTemporaryFile("w", suffix=".rp", delete=False) as f:
            f.write(text)
        self.addCleanup(os.unlink, f.name)
        return f.name, cpa_rp("script", f.name)


class TunnelLife(CpaRpTestCase):
    def test_a_tunnel_from_open_to_delete_and_the_counters_it_leaves(self):
        run = cpa_rp("init-start", "--create", "0x500", "--callback", "0xCB01")
        self.assertEqual(run.returncode, 0)
        self.assertEqual(run.stdout, "KESTRIX_PAL_SADB_INIT_START: CRYPTO_NO_ERR (1)\n"
                                     "  callback_handle        0x0000cb01\n"
                                     "  sadbhandle             1\n")
        self.ok("sadb", "complete", "--sadb", "1")
        self.ok("attach", "--sadb", "1", "--tunnel-id", "7")
        peer = self.ok("peer", "insert", "--sadb", "1", "--peer", "0xABCD", "--dpd", "10")
        self.assertEqual(peer["peer_handle"], 0xABCD)
        self.ok("acl", "install", "--sadb", "1", "--ace", "10.1.0.0/16:10.2.0.0/16:tcp:1000:2000",
                "--out", "notify:0x77")
        self.assertEqual(self.kernel.policies()[0].split()[:6],
                         ["policy", "19", "dir1", "act0", "10.1.0.0/16:1000>10.2.0.0/16:2000", "p6"])
        self.ok("acl", "remove", "--sadb", "1")
        self.assertEqual(self.kernel.policies(), [])
        self.ok("detach", "--tunnel-id", "7")
        deleted = self.ok("sadb", "delete", "--sadb", "1")
        self.assertEqual((deleted["command"], deleted["status_name"]),
                         ("KESTRIX_PAL_SADB_DELETE", "CRYPTO_NO_ERR"))

        gone = cpa_rp("sadb", "complete", "--sadb", "1")
        self.assertEqual(gone.returncode, 1)
        self.assertEqual(gone.stderr, "cpa-rp: KESTRIX_PAL_SADB_INIT_COMPLETED answered "
                                      f"{NO_SESSION}, expected {NO_ERR}\n")
        self.assertEqual(cpa_rp("sadb", "complete", "--sadb", "1", "--expect", "NO_SESSION").returncode, 0)

        report = cpa_rp("counters", "--json", "--wake", "--timeout", "5", "--pid", str(self.agent.proc.pid))
        self.assertEqual(report.returncode, 0, report.stderr)
        rows = json.loads(report.stdout)["commands"]
        self.assertEqual((rows["KESTRIX_PAL_SADB_INIT_COMPLETED"], rows["KESTRIX_PAL_SADB_INTF_ATTACH-(Del)"]),
                         ([3, 1, 2], [1, 1, 0]))

    def test_keys_spi_and_flow_requests_reach_the_kernel_and_the_dump(self):
        self.ok("init-start", "--create", "0x500")
        self.ok("attach", "--sadb", "1", "--tunnel-id", "7")
        keys = ["--cipher", "aes", "--key", "aa" * 16, "--mac", "sha1", "--mac-key", "bb" * 20,
                "--soft-life", "3000", "--hard-life", "3600"]
        cases = [  # arguments, the answer's command, fields of the decoded answer
            (["keys", "--index", "7", "--sa", "0x41", "--spi", "0x1234", "--src", "10.0.0.2",
              "--dst", "10.0.0.1", *keys], "KESTRIX_CEAL_CE_CREATE_KEY_BY_KEYS", {"callback_handle": 1}),
            (["keys", "--index", "8", "--sa", "0x42", "--outbound", "--spi", "0x5678", "--src", "10.0.0.1",
              "--dst", "10.0.0.2", *keys], "KESTRIX_CEAL_CE_CREATE_KEY_BY_KEYS", {}),
            (["spi-insert", "--sadb", "1", "--spi", "0x1234", "--dest", "10.0.0.1/24",
              "--src", "10.0.0.2", "--decrypt", "decrypt:0x41:5:7"], "KESTRIX_PAL_SPI_INSERT", {"flow_id": 0x41}),
            (["cflow-insert", "--sadb", "1", "--ivrf", "6", "--encrypt", "encrypt:0x42:3"],
             "KESTRIX_PAL_CFLOW_INSERT", {"flow_handle": 0x42}),
        ]
        for args, command, values in cases:
            with self.subTest(command=command):
                answer = self.ok(*args)
                self.assertEqual((answer["command"], answer["status"]), (command, 1))
                self.assertEqual({k: answer[k] for k in values}, values)
        sa = (f"p50 reqid=1 m0 r0 life=3000/3600 svti{socket.if_nametoindex('svti7')} "
              f"2=cbc(aes):128:{'aa' * 16} 1=hmac(sha1):160:{'bb' * 20}")
        self.assertEqual(self.kernel.sas(), [f"sa 10.0.0.1 spi=0x1234 {sa}", f"sa 10.0.0.2 spi=0x5678 {sa}"])
        # What the kernel does not show of the SPI and flow inserts, the state dump does.
        self.agent.signal(signal.SIGINT)
        self.assertLogged(self.agent, ">>>KESTRIX OUTBOUND SAs END<<<", LOG_INFO)
        dump = "\n".join(self.agent.texts())
        for shown in ("src_mask [32] dest_mask [24]", "post_decrypt_ivrf [0x5]reinject [0] tunnel_id [7]",
                      "ivrf [6], ace_index [0]", "encrypt.sa [66], encrypt.post_encrypt_fvrf [3]",
                      "esp_cipher_key_length [128]"):
            self.assertTrue(shown in dump, shown)

        global_stats = self.ok("stats", "global", "--ivrf", "3", "--engine-handle", "0xE1")
        self.assertEqual((global_stats["ivrf_index"], global_stats["engine_handle"]), (3, 0xE1))
        self.assertEqual(global_stats["counters"]["global_in_bytes"], 0)
        flows = self.ok("stats", "flow", "7", "9:out", "--final", "5")  # without a segment: zero counters
        self.assertEqual((flows["final_flg"], [(f["flow_id"], f["is_inbound"]) for f in flows["flows"]]),
                         (5, [(7, 1), (9, 0)]))
        self.assertEqual(self.ok("delete-flow", "--flow-id", "8")["command"], "KESTRIX_CEAL_CE_DELETE_FLOW")
        self.assertEqual(len(self.kernel.sas()), 1)


class Scripts(CpaRpTestCase):
    def test_a_script_replays_requests_and_stops_at_the_first_wrong_status(self):
        path, run = self.script("# open, confirm, attach\n"
                                "init-start --create 0x500\n"
                                "sadb complete --sadb $sadb => NO_ERR\n"
                                "sadb complete --sadb 9 => CRYPTO_NO_ERR\n"
                                "init-start --create 0x600\n")
        self.assertEqual(run.returncode, 1)
        self.assertEqual(run.stderr, f"cpa-rp: {path}:4: KESTRIX_PAL_SADB_INIT_COMPLETED answered "
                                     f"{NO_SESSION}, expected {NO_ERR}\n")
        self.assertEqual(run.stdout.count("\n  callback_handle"), 3)
        # The line after the mismatch never ran: the next tunnel takes slot 2.
        self.assertEqual(self.ok("init-start", "--create", "0x700")["sadbhandle"], 2)
        path, run = self.script("init-start\n")  # a line that does not parse is a bad argument
        self.assertEqual(run.returncode, 2)
        self.assertTrue(run.stderr.startswith(f"cpa-rp: {path}:1: the following arguments are required"))


class Watch(CpaRpTestCase):
    def test_watch_answers_keepalives_and_prints_the_agents_notification(self):
        self.ok("init-start", "--create", "0x500")
        self.ok("attach", "--sadb", "1", "--tunnel-id", "7")
        self.ok("acl", "install", "--sadb", "1", "--ace", "10.1.0.0/16:10.2.0.0/16",
                "--out", "notify:0xABCD")
        watch = subprocess.Popen([sys.executable, TOOL, "watch", "--json", "--duration", "5"],
                                 stdout=subprocess.PIPE, text=True)
        for cleanup in (watch.stdout.close, watch.wait, watch.terminate):
            self.addCleanup(cleanup)
        first = json.loads(watch.stdout.readline())  # the agent's first keepalive
        self.assertEqual((first["message"], first["hostId"]), ("KEEPALIVE", "IPSEC_DP"))
        self.assertTrue(self.kernel.acquire(GROUP_POLICY, 1))
        seen = []
        while not any(m["message"] == "PAL" for m in seen):
            seen.append(json.loads(watch.stdout.readline()))
        notify = seen[-1]
        self.assertEqual((notify["command"], notify["notify_handle"], notify["tunnel_id"]),
                         ("KESTRIX_PAL_NOTIFY_RP", 0xABCD, 7))


def load_tool():
    loader = importlib.machinery.SourceFileLoader("cpa_rp", TOOL)
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("cpa_rp", loader))
    loader.exec_module(module)
    return module


class FlowStatistics(unittest.TestCase):
    """The agent answers zero flow counters without a fast-path segment, so
    their decoding is checked on a made-up answer."""

    tool = load_tool()

    def test_flow_statistics_are_read_per_flow(self):
        flow = bytearray(456)
        flow[0:4], flow[12:16] = (9).to_bytes(4, "big"), bytes(4)   # flow 9, outbound
        flow[16 + 192:16 + 200] = (1 << 40).to_bytes(8, "big")       # flow_out_bytes
        flow[16 + 224:16 + 228] = (77).to_bytes(4, "big")            # flow_out_pkts
        answer = bytes([0, 1]) + (22 + 456).to_bytes(2, "big") + bytes([0, 1]) + bytes(8) + \
            (1).to_bytes(4, "big") + (1).to_bytes(4, "big") + bytes(flow)
        decoded = self.tool.decode(answer)
        counters = decoded["flows"][0]["counters"]
        self.assertEqual((counters["flow_out_bytes"], counters["flow_out_pkts"], counters["flow_in_pkts"]),
                         (1 << 40, 77, 0))
        self.assertIn(["flow_out_pkts", "77"], [line.split() for line in self.tool.render(decoded)])
        with self.assertRaisesRegex(self.tool.Failure, "2 flows announced, 1 sent"):
            self.tool.decode(answer[:14] + (2).to_bytes(4, "big") + answer[18:])


class Failures(AgentTestCase):
    """A stand-in agent on 127.0.0.5 that answers what the test tells it."""

    def setUp(self):
        super().setUp()
        new_network_namespace()
        self.peer = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.peer.bind(("127.0.0.5", PAL_PORT))
        self.peer.settimeout(5)
        self.addCleanup(self.peer.close)

    def answered_with(self, answer):
        """cpa-rp's init-start while the stand-in sends `answer` (None: nothing)."""
        tool = subprocess.Popen([sys.executable, TOOL, "--agent", "127.0.0.5", "--rp", RP_ADDR,
                                 "--timeout", "0.5", "init-start", "--create", "1"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.peer.recv(2048)
        if answer is not None:
            self.peer.sendto(answer, (RP_ADDR, PAL_PORT))
        out, err = tool.communicate(timeout=10)
        return tool.returncode, err

    def test_each_failure_has_one_line_and_its_own_exit_status(self):
        cases = [
            (None, 3, "cpa-rp: no answer to KESTRIX_PAL_SADB_INIT_START from 127.0.0.5 within 0.5 s\n"),
            (bytes([0, 0, 0, 20, 0, 1]) + bytes(12), 4,
             "cpa-rp: malformed answer: length field 20, 18 bytes received\n"),
            (bytes([0, 0, 0, 14, 0, 1]) + bytes(8), 4,
             "cpa-rp: malformed answer: KESTRIX_PAL_SADB_INIT_START of 14 bytes, expected 18\n"),
            (bytes([0, 0, 0, 14, 0, 2]) + bytes(8), 4, "cpa-rp: malformed answer: "
             "KESTRIX_PAL_SADB_INIT_COMPLETED received in answer to api type 1\n"),
        ]
        for answer, code, message in cases:
            with self.subTest(answer=answer):
                self.assertEqual(self.answered_with(answer), (code, message))
        bad = cpa_rp("acl", "install", "--sadb", "1", "--ace", "10.1.0.0/33:10.2.0.0/16")
        self.assertEqual((bad.returncode, bad.stderr),
                         (2, "cpa-rp: argument --ace: not an IPv4 prefix: '10.1.0.0/33'\n"))


if __name__ == "__main__":
    unittest.main()
