"""The Wireshark dissector (tools/ipsec_cpa.lua) on a capture of every message
type, read back with tshark field by field."""

import json
import os
import shutil
import socket
import struct
import subprocess
import tempfile
import unittest

import sandbox  # noqa: F401  (the cpa_rp package on the path)
from cpa_rp.wire import (KEEPALIVE, MSG_CEAL, MSG_PAL, acl_modify, action, answer as response, be16, be32, be64,
                         ceal, cflow_insert, cflow_modify, cipher_info, create_keys, flow_stats, init_completed,
                         init_start, ivrf_stats, pal, peer_delete, peer_insert, policy_records, record, spi_insert,
                         words)

DISSECTOR = os.path.join(os.path.dirname(__file__), "..", "..", "tools", "ipsec_cpa.lua")
# Who sends on which ports: the RP from any port, the agent to the RP's 23456.
RP = (("10.0.0.2", 40000), ("10.0.0.1", 23456))
AGENT = (("10.0.0.1", 23456), ("10.0.0.2", 23456))
KEEPALIVES = (("10.0.0.1", 23458), ("10.0.0.2", 23458))
CB = be32(0xCA11BAC4)
KEY = bytes(range(0xA0, 0xB0))


def write_pcap(path, datagrams):
    """Each (payload, (source, port), (destination, port)) as a raw IPv4 + UDP frame, a second apart (the
    checksums are left 0: none)."""
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))  # LINKTYPE_RAW
        for second, (payload, (src, sport), (dst, dport)) in enumerate(datagrams):
            frame = struct.pack(">BBHHHBBH4s4sHHHH", 0x45, 0, 28 + len(payload), 0, 0x4000, 64, socket.IPPROTO_UDP,
                                0, socket.inet_aton(src), socket.inet_aton(dst), sport, dport, 8 + len(payload),
                                0) + payload
            out.write(struct.pack("<IIII", second, 0, len(frame), len(frame)) + frame)


DECRYPT = be32(3) + be32(0x51) + be64(0x102) + be16(9) + bytes(2) + be32(1) + be32(42)
ENCRYPT = be32(4) + be32(0x52) + be16(3) + bytes(2) + be32(1) + bytes(12)
ACL = policy_records([((0x0A010000, 16), (0x0A020000, 24), 6, (1000, 2000))], inbound=action("discard"),
                     outbound=action("notify", 0xBEEF), inbound_deny=action("forward"), first_handle=0x77, kind=1)
# The last field: support_dummy_packet.
CIPHER = cipher_info(0, 0x1234, 0x0A000008, 0x0A000009, soft_life=3000, hard_life=3600)[:259] + be32(1)
FLOW = be32(9) + be32(0x11) + be32(0x22) + be32(1)
FLOW_STATS = be64(5000) + bytes(24) + be32(40) + bytes(156) + be64(7) + bytes(236) + be32(6)  # 440 bytes
GLOBAL_STATS = bytes(12) + be64(9000) + bytes(80) + be32(4) + bytes(8)  # 112 bytes

# (who sends, datagram, expected fields without the ipsec_cpa. prefix; several values joined by ",")
CASES = [
    (RP, init_start(0xCA11BAC4, 0x500, 2),
     "kind=request pal.cmd=1 callback_handle=0xca11bac4 create_handle=0x00000500 hint=2"),
    (RP, init_completed(1, 7), "pal.cmd=2 sadbhandle=7"),
    (RP, peer_insert(1, 0x10, 0x20, 7, idle_timer=30, idle_handle=0x33, dpd=5, dpd_handle=0x66, translation=True,
                     inside_port=4500, outside_port=500),
     "peer_handle=0x00000020 peer.idle_timer_setting=30 peer.dpd_threshold=5 peer.outside_remote_port=500"),
    (RP, peer_delete(1, 7, 0x20), "pal.cmd=12 peer_handle=0x00000020"),
    (RP, acl_modify(1, 7, 2, ACL),
     "acl.num_old_ace_entries=0 record.kind=1,8,9,10,11 ace.handle=0x00000077 ace.remote_addr=10.2.0.0 "
     "ace.remote_mask=24 port.value=1000,2000 action.action=0,1,2,0 action.notify_rp_handle=0x0000beef"),
    (RP, spi_insert(0xCA11BAC4, 7, 0x1234, (0x0A000009, 24), (0x0A000008, 24), DECRYPT, static_seq=0x31,
                    dyn_seq=0x32, ace_index=0x33),
     "spi.spi=0x00001234 spi.src_addr.ipv4=10.0.0.8 ace_index=51 action.post_decrypt_check=0x0000000000000102 "
     "action.tunnel_id=42"),
    (RP, cflow_insert(1, 7, ENCRYPT), "action.sa=0x00000052 action.post_encrypt_fvrf=3 action.dummy_generate=1"),
    (RP, cflow_modify(0xCA11BAC4, 7, ENCRYPT, create=0x10, flow_handle=0x52), "flow_handle=82"),
    (RP, pal(7, CB), "kind=request pal.cmd=7 data=ca11bac4"),
    (AGENT, response(MSG_PAL, 1, CB + be32(1) + be32(1)), "kind=response sadbhandle=1 status=1"),
    (AGENT, response(MSG_PAL, 12, CB + be32(8)), "kind=response pal.cmd=12 status=8"),
    (AGENT, response(MSG_PAL, 15, CB + be64(0x52) + be32(1)), "flow_handle=82 status=1"),
    (AGENT, response(MSG_PAL, 7, b""), "kind=response pal.cmd=7"),
    (AGENT, be16(MSG_PAL) + be16(82) + be16(21) + be32(0xBEEF) + be32(1) + be32(42) + be32(42) + bytes(64),
     "kind=notification notify.notify_handle=0x0000beef notify.outbound=1 notify.tunnel_id=42 notify.pkt_len=42"),
    (RP, create_keys(0xCA11BAC4, 17, 0x51, CIPHER, KEY, bytes(20)),
     "ipsec_sa=0x00000051 cipher.esp_cipher_key_length=128 cipher.dest.ipv4=10.0.0.9 "
     "cipher.support_dummy_packet=1 key.type=1,2 key.len=16,20 key.data=********,********"),
    (AGENT, response(MSG_CEAL, 0, CB + be32(1) + bytes(267)), "kind=response ceal.api=0 status=1"),
    (RP, flow_stats(1, [(9, True)]), "num_flows=1 flow.flow_id=9 flow.is_inbound=1"),
    (AGENT, response(MSG_CEAL, 1, CB + be32(0) + be32(1) + be32(1) + FLOW + FLOW_STATS),
     "flow.handle=0x00000022 flow_stats.flow_in_pkts=40 flow_stats.flow_out_bytes=7 flow_stats.gdoi_group_hdle=6"),
    (AGENT, response(MSG_CEAL, 2, CB + be16(3) + be32(0x44) + bytes(8) + be32(5) + bytes(8)),
     "kind=response sadb_stats.sadb_invalid_encap_sa=5 sadb_stats.last_update=0"),
    (RP, ivrf_stats(3, 0xCA11BAC4, 3, 0x55), "kind=request engine_handle=0x00000055"),
    (AGENT, response(MSG_CEAL, 3, CB + be16(3) + be32(0x55) + GLOBAL_STATS),
     "kind=response global_stats.global_in_bytes=9000 global_stats.global_encrypt_fail=4"),
    (KEEPALIVES, KEEPALIVE, "kind=keepalive length_le=24 keepalive.hostId=IPSEC_DP"),
    # Malformed: cut short inside a fixed field, a record (by the datagram's end or by
    # message_length), a key; an unknown record kind.
    (RP, pal(1, CB + b"\x00\x05", length=14), "truncated=1 length_mismatch=1 callback_handle=0xca11bac4"),
    (RP, acl_modify(1, 7, 2, ACL)[:-10], "truncated=1 length_mismatch=1 action.action=0,1,2"),
    (RP, pal(9, acl_modify(1, 7, 2, ACL)[6:], length=len(ACL) + 52 - 10),
     "truncated=1 length_mismatch=1 action.action=0,1,2"),
    (RP, acl_modify(1, 7, 2, record(12, action("discard"))), "bad_record=1"),
    (RP, ceal(0, words(0xCA11BAC4, 17, 0x51) + CIPHER + be16(1) + be16(40) + KEY[:8]),
     "truncated=1 cipher.support_dummy_packet=1 key.len=40"),
    (RP, b"\x00", "truncated=1"),
]
CASES = [(data, ports, dict(field.split("=", 1) for field in fields.split())) for ports, data, fields in CASES]
EXPERT_FIELDS = ("truncated", "bad_record", "length_mismatch")


@unittest.skipIf(shutil.which("tshark") is None, "tshark is not installed (scripts/install-deps.sh test installs it)")
class Dissector(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        capture = tempfile.NamedTemporaryFile(suffix=".pcap")
        cls.addClassCleanup(capture.close)
        cls.capture = capture.name
        write_pcap(cls.capture, [(data, *ports) for data, ports, _ in CASES])

    def tshark(self, *args):
        run = subprocess.run(["tshark", "-r", self.capture, "-X", f"lua_script:{DISSECTOR}", *args],
                             capture_output=True, text=True, check=True)
        self.assertNotIn("Lua", run.stderr)
        self.assertNotIn("Lua Error", run.stdout)
        return run.stdout

    def test_every_message_decodes_field_by_field(self):
        wanted = sorted({name for _, _, fields in CASES for name in fields} | set(EXPERT_FIELDS))
        out = json.loads(self.tshark("-T", "json", *[arg for n in wanted for arg in ("-e", "ipsec_cpa." + n)]))
        self.assertEqual(len(out), len(CASES))
        for number, ((data, _, expected), packet) in enumerate(zip(CASES, out), 1):
            layers = {k[len("ipsec_cpa."):]: ",".join(v) for k, v in packet["_source"]["layers"].items()}
            for name in {*EXPERT_FIELDS, *expected}:
                self.assertEqual(layers.get(name), expected.get(name), f"frame {number} {name}: {data.hex()}")

    def test_keys_are_never_shown(self):
        verbose = self.tshark("-V", "-O", "ipsec_cpa")
        self.assertIn("data: ********", verbose)
        self.assertNotIn(KEY[:4].hex(), verbose)
        self.assertNotIn(KEY[:4].hex(":"), verbose)
