"""The bytes between the RP and the agent: request encoders, and decoders of
the agent's answers, notifications and keepalives. Addresses are integers,
prefixes (address, length) pairs; every other field zero unless given."""

import struct

PAL_PORT = 23456
KEEPALIVE_PORT = 23458
MSG_PAL, MSG_CEAL, MSG_KEEP_ALIVE = 0, 1, 3
NOTIFY_RP = 21
CRYPTO_NO_ERR = 1

STATUS_NAMES = [
    "CRYPTO_ERR_INTERNAL", "CRYPTO_NO_ERR", "CRYPTO_ERR_UNSUPPORTED", "CRYPTO_ERR_RESOURCES",
    "CRYPTO_ERR_TIMEOUT", "CRYPTO_ERR_BUFFER_OVERFLOW", "CRYPTO_ERR_NO_SESSION", "CRYPTO_ERR_BUSY",
    "CRYPTO_ERR_INVALID", "CRYPTO_ERR_WEAK_KEY", "CRYPTO_ERR_BOGUS_SPI", "CRYPTO_ERR_REPLAY",
    "CRYPTO_ERR_AUTH_FAILED", "CRYPTO_ERR_VERIFY_FAILED", "CRYPTO_ERR_NO_SUCH_KEY",
    "CRYPTO_ERR_HARDWARE_ERROR", "CRYPTO_ERR_STANDBY", "CRYPTO_ERR_NAME_NOT_FOUND",
    "CRYPTO_ERR_TFC_PACKET", "CRYPTO_ERR_SEQ_NUMBER_WRAPPED", "CRYPTO_ERR_BAD_KEY_LENGTH"]
PAL_NAMES = ["KESTRIX_PAL_CMD_INVALID"] + ["KESTRIX_PAL_" + n for n in (
    "SADB_INIT_START SADB_INIT_COMPLETED SADB_DELETE SADB_ATTR_UPDATE SADB_INTF_ATTACH "
    "SADB_INTF_UPDATE SADB_INTF_DETACH ACL_INSERT ACL_MODIFY ACL_DELETE PEER_INSERT PEER_DELETE "
    "SPI_INSERT SPI_DELETE CFLOW_INSERT CFLOW_MODIFY CFLOW_DELETE IPSEC_SA_DELETE TBAR_CREATE "
    "TBAR_UPDATE NOTIFY_RP NOTIFY_SA_LIFE NOTIFY_SA_DEAD NOTIFY_IDLE_TIME NOTIFY_DPD_TIME").split()]
CEAL_NAMES = ["KESTRIX_CEAL_CE_" + n for n in
              "CREATE_KEY_BY_KEYS FLOW_STATS IVRF_SADB_STATS IVRF_GLOBAL_STATS DELETE_FLOW".split()]

CIPHERS = {"none": 0, "des": 1, "3des": 2, "aes": 3, "seal": 4, "gcm": 5, "gmac": 6}
MACS = {"none": 0, "md5": 1, "sha1": 2, "sha256": 3, "sha384": 4, "sha512": 5}
ACTIONS = {"discard": 0, "notify": 1, "forward": 2, "decrypt": 3, "encrypt": 4}
ACL_INSTALL, ACL_REMOVE, ACL_REPLACE = 2, 4, 5
IN_ACTION, OUT_ACTION, IN_DENY_ACTION, OUT_DENY_ACTION = 8, 9, 10, 11


def be16(v):
    return struct.pack(">H", v)


def be32(v):
    return struct.pack(">I", v)


def be64(v):
    return struct.pack(">Q", v)


def words(*values):
    return b"".join(be32(v) for v in values)


def status_text(value):
    name = STATUS_NAMES[value] if value < len(STATUS_NAMES) else "unknown status"
    return f"{name} ({value})"


def command_name(message_type, api):
    names = PAL_NAMES if message_type == MSG_PAL else CEAL_NAMES
    return names[api] if api < len(names) else f"api type {api}"


# ---- requests ---------------------------------------------------------------

def request(message_type, api, body=b"", length=None):
    """A request: header (its length counts the bytes after it), API type, body."""
    return be16(message_type) + be16(2 + len(body) if length is None else length) + be16(api) + body


def pal(cmd, body=b"", length=None):
    return request(MSG_PAL, cmd, body, length)


def ceal(api, body=b""):
    return request(MSG_CEAL, api, body)


def answer(message_type, api, body=b""):
    """An answer of the agent: unlike a request's, its length counts the header."""
    return be16(message_type) + be16(6 + len(body)) + be16(api) + body


KEEPALIVE = be16(MSG_KEEP_ALIVE) + bytes([0x18, 0x00]) + bytes(12) + b"IPSEC_DP" + bytes(4)


def init_start(callback, create, hint=0):
    return pal(1, words(callback, create, hint))


def init_completed(callback, sadb):
    return pal(2, words(callback, sadb))


def sadb_delete(callback, sadb):
    return pal(3, words(callback, sadb))


def attr_update(callback, sadb, attribute=0, value=0):
    return pal(4, words(callback, sadb, attribute, value))


def intf_attach(callback, sadb, tunnel_id, v6=0):
    """SADB handle 0 asks for a detach."""
    return pal(5, words(callback, sadb, tunnel_id, v6))


def peer_insert(callback, create, peer, sadb, idle_timer=None, idle_handle=0, dpd=None, dpd_handle=0,
                translation=False, inside_port=0, outside_port=0):
    """A timer given (idle_timer, dpd) turns it on."""
    return pal(11, words(callback, create, peer, sadb, int(idle_timer is not None), idle_timer or 0,
                         idle_handle, int(dpd is not None), dpd or 0, dpd_handle, int(translation)) +
               be16(inside_port) + be16(outside_port))


def peer_delete(callback, sadb, peer):
    return pal(12, words(callback, sadb, peer))


def addr18(address):
    """kestrix_addr: type 4, length 4, the IPv4 address, the unused IPv6 bytes."""
    return bytes([4, 4]) + be32(address) + bytes(12)


def port_list(port):
    return be32(0) + bytes([1 if port else 0]) + be16(port) + bytes(18)


def ace_record(handle, local, remote, protocol=0, ports=(0, 0), kind=2):
    """An ACE record: `local` and `remote` prefixes, `ports` (local, remote), 0 any."""
    (local_addr, local_len), (remote_addr, remote_len) = local, remote
    selector = (words(local_addr, local_len, remote_addr, remote_len) + be16(protocol) + bytes(2) +
                be32(0 if any(ports) else 1) + port_list(ports[0]) + port_list(ports[1]))
    body = be32(4) + be32(0) + be16(0) + be32(0) + be32(handle) + selector + bytes(26) + be32(0)
    return record(kind, body)


def action(name, *values):
    """An action body: "discard", "forward", "notify" HANDLE, "encrypt" SA [FVRF],
    "decrypt" SA [IVRF [TUNNEL]]."""
    values = list(values) + [0, 0, 0]
    data = {"discard": b"", "forward": b"", "notify": be32(values[0]),
            "encrypt": be32(values[0]) + be16(values[1]) + bytes(2) + be32(0),
            "decrypt": be32(values[0]) + be64(0) + be16(values[1]) + bytes(2) + be32(0) +
                       be32(values[2])}[name]
    return be32(ACTIONS[name]) + data + bytes(24 - len(data))


def record(kind, body):
    return be16(kind) + be16(len(body)) + body


def policy_records(aces, inbound=action("forward"), outbound=action("forward"),
                   inbound_deny=action("discard"), outbound_deny=action("discard"), first_handle=1, kind=2):
    """The records of an ACL install: `aces` (local, remote, protocol, ports), then the four actions."""
    return (b"".join(ace_record(first_handle + i, *ace, kind=kind) for i, ace in enumerate(aces)) +
            b"".join(record(k, a) for k, a in ((IN_ACTION, inbound), (OUT_ACTION, outbound),
                                               (IN_DENY_ACTION, inbound_deny), (OUT_DENY_ACTION, outbound_deny))))


def acl_modify(callback, sadb, opcode, records=b"", ivrf=0, static_seq=0, dyn_seq=0):
    descriptor = be32(opcode) + be64(0) * 3 + be16(ivrf) + be32(0)
    return pal(9, words(callback, sadb, static_seq, dyn_seq) + descriptor + records)


def spi_insert(callback, sadb, spi, dest, src, decrypt, protocol=50, fvrf=0, static_seq=0, dyn_seq=0,
               ace_index=0):
    """An inbound SA: `dest` and `src` prefixes, `decrypt` its action body."""
    return pal(13, words(callback, sadb, spi) + bytes([protocol]) + be16(fvrf) + addr18(dest[0]) +
               be32(dest[1]) + addr18(src[0]) + be32(src[1]) + words(static_seq, dyn_seq, ace_index) +
               record(IN_ACTION, decrypt))


def spi_delete(callback, sadb, flow_id):
    return pal(14, words(callback, sadb, flow_id))


def cflow_insert(callback, sadb, encrypt, create=0, ivrf=0, static_seq=0, dyn_seq=0, ace_index=0):
    """An outbound SA, `encrypt` its action body."""
    return pal(15, words(callback, create, sadb, static_seq, dyn_seq, ace_index) + be16(ivrf) +
               record(OUT_ACTION, encrypt))


def cflow_modify(callback, sadb, encrypt, create=0, flow_handle=0):
    return pal(16, words(callback, create, sadb) + be64(flow_handle) + record(OUT_ACTION, encrypt))


def cflow_delete(callback, sadb, flow_handle=0, entry=0, create=0):
    return pal(17, words(callback, sadb, entry, create) + be64(flow_handle))


def cipher_info(outbound, spi, src, dst, cipher=3, key_bits=128, mac=2, ah_mac=0, ah_spi=0,
                replay_window=64, tunnel_id=0, tunnel_mode=True, peer_handle=0, soft_life=0, hard_life=0):
    """The 263-byte cipher information block; a replay window of 0xFFFFFFFF turns it off."""
    esp_used = int(cipher != 0 or mac != 0)
    fields = [  # (offset, format, value)
        (0, ">I", int(outbound)), (4, ">I", esp_used), (8, ">I", cipher), (12, ">I", key_bits),
        (16, ">I", mac), (20, ">I", spi if esp_used else 0), (24, ">I", int(ah_mac != 0)),
        (28, ">I", ah_mac), (32, ">I", ah_spi), (42, ">I", replay_window), (86, ">I", tunnel_id),
        (90, ">I", int(tunnel_mode)), (110, ">I", int(replay_window != 0xFFFFFFFF)),
        (164, ">I", peer_handle), (168, ">Q", soft_life), (176, ">Q", hard_life)]
    info = bytearray(263)
    for offset, fmt, value in fields:
        struct.pack_into(fmt, info, offset, value)
    info[46:64] = addr18(src)
    info[64:82] = addr18(dst)
    return bytes(info)


def key_tlv(kind, key):
    return be16(kind) + be16(len(key)) + key if key else b""


def create_keys(callback, index, sa, info, cipher_key=b"", mac_key=b"", ah_key=b""):
    return ceal(0, words(callback, index, sa) + info + key_tlv(1, cipher_key) + key_tlv(2, mac_key) +
                key_tlv(3, ah_key))


def flow_stats(callback, flows, final=0):
    """`flows`: (flow id, inbound) pairs, numbered from 1 in their handles."""
    return ceal(1, words(callback, final, len(flows)) +
                b"".join(words(flow, 0, i + 1, int(inbound)) for i, (flow, inbound) in enumerate(flows)))


def ivrf_stats(api, callback, ivrf, info_handle):
    """IVRF_SADB_STATS (api 2) or IVRF_GLOBAL_STATS (3)."""
    return ceal(api, be32(callback) + be16(ivrf) + be32(info_handle))


def delete_flow(callback, flow_id, stats_handle=0):
    return ceal(4, words(callback, flow_id, stats_handle))


# ---- answers ----------------------------------------------------------------

class Malformed(ValueError):
    """An answer that does not have the shape of its command."""


# Offsets from the start of the datagram: name, offset, width.
PAL_HANDLE = {1: "sadbhandle", 11: "peer_handle", 13: "flow_id"}
PAL_STATUS_ONLY = {2, 3, 4, 5, 9, 12, 14, 16, 17}
NOTIFY_FIELDS = [("notify_handle", 6, 4), ("outbound", 10, 4), ("tunnel_id", 14, 4), ("pkt_len", 18, 4)]
SADB_STATS_FIELDS = [("handle", 6, 4), ("ivrf_index", 10, 2), ("sadb_ivrf_info_hdle", 12, 4),
                     ("ivrf_id", 16, 2), ("sadb_invalid_decap_sa", 20, 4),
                     ("sadb_invalid_encap_sa", 24, 4), ("last_update", 28, 8)]
GLOBAL_STATS_HEAD = [("handle", 6, 4), ("ivrf_index", 10, 2), ("engine_handle", 12, 4)]
GLOBAL_COUNTERS = [  # offsets within the 112-byte statistics at datagram offset 16
    ("global_in_bytes", 12, 8), ("global_invalid_decap_pak", 20, 4),
    ("global_inbound_sys_err", 24, 4), ("global_in_pkts", 32, 4), ("global_decap_fail", 36, 4),
    ("global_test_replay_fail", 40, 4), ("global_in_auth", 44, 4), ("global_in_auth_fail", 48, 4),
    ("global_decrypt_done", 52, 4), ("global_decrypt_fail", 56, 4), ("global_out_bytes", 68, 8),
    ("global_outbound_sys_err", 76, 4), ("global_out_pkts", 80, 4), ("global_encap_fail", 84, 4),
    ("global_out_auth", 88, 4), ("global_out_auth_fail", 92, 4), ("global_encrypt_done", 96, 4),
    ("global_encrypt_fail", 100, 4)]
FLOW_COUNTERS = [  # offsets within one flow's 440-byte statistics
    ("flow_in_bytes", 0, 8), ("flow_in_pkts", 32, 4), ("flow_decap_fail", 40, 4),
    ("flow_test_replay_fail", 48, 4), ("flow_in_auth", 56, 4), ("flow_in_auth_fail", 64, 4),
    ("flow_decrypt_done", 72, 4), ("flow_decrypt_fail", 80, 4), ("flow_invalid_decap_pak", 88, 4),
    ("flow_in_sys_err", 104, 4), ("flow_out_bytes", 192, 8), ("flow_out_pkts", 224, 4),
    ("flow_encap_fail", 232, 4), ("flow_out_auth", 240, 4), ("flow_out_auth_fail", 248, 4),
    ("flow_encrypt_done", 256, 4), ("flow_encrypt_fail", 264, 4), ("flow_out_sys_err", 272, 4),
    ("flow_set_replay_fail", 336, 4)]
FLOW_RECORD, FLOW_HANDLE_SIZE, FLOW_STATS_HEAD = 456, 16, 22
CEAL_SIZES = {0: 281, 2: 36, 3: 128, 4: 14}


def fields(data, table, base=0):
    return {name: int.from_bytes(data[base + off:base + off + width], "big") for name, off, width in table}


def expect_size(data, size, answer_):
    if len(data) != size:
        raise Malformed(f"{answer_['command']} of {len(data)} bytes, expected {size}")


def decode_pal(data):
    cmd = int.from_bytes(data[4:6], "big")
    decoded = {"message": "PAL", "api": cmd, "command": command_name(MSG_PAL, cmd)}
    if cmd == NOTIFY_RP:
        expect_size(data, 86, decoded)
        decoded.update(fields(data, NOTIFY_FIELDS), pkt_summary=data[22:86].hex())
    elif cmd in PAL_HANDLE:
        expect_size(data, 18, decoded)
        decoded.update(fields(data, [("callback_handle", 6, 4), (PAL_HANDLE[cmd], 10, 4), ("status", 14, 4)]))
    elif cmd == 15:
        expect_size(data, 22, decoded)
        decoded.update(fields(data, [("callback_handle", 6, 4), ("flow_handle", 10, 8), ("status", 18, 4)]))
    elif cmd in PAL_STATUS_ONLY:
        expect_size(data, 14, decoded)
        decoded.update(fields(data, [("callback_handle", 6, 4), ("status", 10, 4)]))
    else:
        expect_size(data, 6, decoded)
    return decoded


def decode_ceal(data):
    api = int.from_bytes(data[4:6], "big")
    if api >= len(CEAL_NAMES):
        raise Malformed(f"unknown CEAL api type {api}")
    decoded = {"message": "CEAL", "api": api, "command": CEAL_NAMES[api]}
    if api == 1:
        decode_flow_stats(data, decoded)
        return decoded
    expect_size(data, CEAL_SIZES[api], decoded)
    if api in (0, 4):
        decoded.update(fields(data, [("callback_handle", 6, 4), ("status", 10, 4)]))
    elif api == 2:
        decoded.update(fields(data, SADB_STATS_FIELDS))
    else:
        decoded.update(fields(data, GLOBAL_STATS_HEAD), counters=fields(data, GLOBAL_COUNTERS, 16))
    return decoded


def decode_flow_stats(data, decoded):
    if len(data) < FLOW_STATS_HEAD or (len(data) - FLOW_STATS_HEAD) % FLOW_RECORD:
        raise Malformed(f"{decoded['command']} of {len(data)} bytes is not 22 + 456 per flow")
    decoded.update(fields(data, [("handle", 6, 4), ("final_flg", 10, 4), ("num_flows", 14, 4),
                                 ("status", 18, 4)]))
    count = (len(data) - FLOW_STATS_HEAD) // FLOW_RECORD
    if decoded["status"] == CRYPTO_NO_ERR and count != decoded["num_flows"]:
        raise Malformed(f"{decoded['num_flows']} flows announced, {count} sent")
    flows = []
    for i in range(count):
        base = FLOW_STATS_HEAD + i * FLOW_RECORD
        flow = fields(data, [("flow_id", 0, 4), ("ce_public_sa", 4, 4), ("handle", 8, 4),
                             ("is_inbound", 12, 4)], base)
        flow["counters"] = fields(data, FLOW_COUNTERS, base + FLOW_HANDLE_SIZE)
        flows.append(flow)
    decoded["flows"] = flows


def decode_keepalive(data):
    if len(data) < 28:
        raise Malformed(f"keepalive of {len(data)} bytes, expected 28")
    ints = fields(data, [("keepalive_interval", 4, 2), ("keepalive_retries", 6, 2),
                         ("palIp", 8, 4), ("ikeIp", 12, 4)])
    return {"message": "KEEPALIVE", **ints, "hostId": data[16:28].rstrip(b"\0").decode(errors="replace")}


def decode(data):
    """An answer or notification of the agent as a dict; Malformed if it has not its shape."""
    if len(data) < 6:
        raise Malformed(f"{len(data)} bytes, too short for a header and a command")
    message_type, length, api = struct.unpack(">HHH", data[:6])
    if message_type not in (MSG_PAL, MSG_CEAL):
        raise Malformed(f"message type {message_type}")
    # A notification is framed like a request: its length leaves out the header.
    if length != len(data) - (4 if (message_type, api) == (MSG_PAL, NOTIFY_RP) else 0):
        raise Malformed(f"length field {length}, {len(data)} bytes received")
    return decode_pal(data) if message_type == MSG_PAL else decode_ceal(data)
