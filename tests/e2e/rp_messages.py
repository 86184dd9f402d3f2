"""Request datagrams the RP sends, built field by field from their offsets."""

import struct

MSG_PAL, MSG_CEAL, MSG_KEEP_ALIVE = 0, 1, 3


def be16(v):
    return struct.pack(">H", v)


def be32(v):
    return struct.pack(">I", v)


def be64(v):
    return struct.pack(">Q", v)


def pal(cmd, body=b"", length=None):
    """A PAL request: header (length = bytes after it), command, body."""
    if length is None:
        length = 2 + len(body)
    return be16(MSG_PAL) + be16(length) + be16(cmd) + body


def ceal(api_type, body=b""):
    return be16(MSG_CEAL) + be16(2 + len(body)) + be16(api_type) + body


def init_start(callback, create, hint=0):
    return pal(1, be32(callback) + be32(create) + be32(hint))


def init_completed(callback, sadb):
    return pal(2, be32(callback) + be32(sadb))


def sadb_delete(callback, sadb):
    return pal(3, be32(callback) + be32(sadb))


def attr_update(callback, sadb, attribute_bytes, value_bytes):
    return pal(4, be32(callback) + be32(sadb) + attribute_bytes + value_bytes)


def keepalive():
    return be16(MSG_KEEP_ALIVE) + bytes([0x18, 0x00]) + bytes(16) + b"IPSEC_DP" + bytes(4)


def intf_attach(callback, sadb, tunnel_id, is_v6=0):
    """SADB handle 0 asks for a detach."""
    return pal(5, be32(callback) + be32(sadb) + be32(tunnel_id) + be32(is_v6))


def peer_insert(callback, create, peer, sadb, params=(0,) * 7, ports=(0, 0)):
    """`params`: do_idle_timer, idle_timer_setting, idle_timer_handle, do_dpd,
    dpd_threshold, dpd_handle, do_translation; then the inside and outside
    remote ports."""
    return pal(11, be32(callback) + be32(create) + be32(peer) + be32(sadb) +
               b"".join(be32(v) for v in params) + be16(ports[0]) + be16(ports[1]))


def peer_delete(callback, sadb, peer):
    return pal(12, be32(callback) + be32(sadb) + be32(peer))


def ace_record(handle, local, local_mask, remote, remote_mask, protocol=17, ports=(0, 0),
               ace_type=0, ip_type=4, kind=1):
    """An ACE record (126 bytes): addresses as integers, `ports` (local, remote)."""
    def port_list(port):
        return be32(0) + bytes([1]) + be16(port) + bytes(18)
    body = (be32(ip_type) + be32(ace_type) + be16(0) + be32(0) + be32(handle) +
            be32(local) + be32(local_mask) + be32(remote) + be32(remote_mask) +
            be16(protocol) + bytes(2) + be32(0) + port_list(ports[0]) + port_list(ports[1]) +
            bytes(26) + be32(0))
    return be16(kind) + be16(122) + body


def action_record(kind, action, data=b""):
    """An action record (32 bytes): kind 8-11, the action code, its first data bytes."""
    return be16(kind) + be16(28) + be32(action) + data + bytes(24 - len(data))


def notify_actions(notify_handle):
    """The four actions of a policy whose outbound action notifies the RP."""
    return (action_record(8, 0) + action_record(9, 1, be32(notify_handle)) +
            action_record(10, 2) + action_record(11, 0))


def acl_modify(callback, sadb, opcode, records=b"", seqnos=(0x21, 0x22)):
    return pal(9, be32(callback) + be32(sadb) + be32(seqnos[0]) + be32(seqnos[1]) + be32(opcode) +
               be64(5) + be64(6) + be64(7) + be16(8) + be32(9) + records)


def key_tlv(kind, key):
    return be16(kind) + be16(len(key)) + key


def create_key_by_keys(callback, flow_id, sa_handle, outbound, spi, source, dest, enc_key, mac_key,
                       tunnel_mode=True):
    """An ESP SA's keys: AES-CBC with HMAC-SHA1, addresses as integers."""
    cipher = bytearray(263)
    struct.pack_into(">6I", cipher, 0, int(outbound), 1, 3, len(enc_key) * 8, 2, spi)
    struct.pack_into(">I", cipher, 42, 64)                     # anti-replay window
    struct.pack_into(">BBI", cipher, 46, 4, 4, source)
    struct.pack_into(">BBI", cipher, 64, 4, 4, dest)
    struct.pack_into(">I", cipher, 90, int(tunnel_mode))
    return ceal(0, be32(callback) + be32(flow_id) + be32(sa_handle) + bytes(cipher) +
                key_tlv(1, enc_key) + key_tlv(2, mac_key))


def spi_insert(callback, sadb, spi, dest, source, sa_handle, protocol=50):
    """An inbound SA: its SPI and addresses, and the decrypt action naming its keys."""
    def address(value):
        return bytes([4, 4]) + be32(value) + bytes(12) + be32(32)
    return pal(13, be32(callback) + be32(sadb) + be32(spi) + bytes([protocol]) + be16(0) +
               address(dest) + address(source) + be32(0) * 3 + action_record(8, 3, be32(sa_handle)))


def cflow_insert(callback, create, sadb, sa_handle):
    """An outbound SA: the encrypt action naming its keys."""
    return pal(15, be32(callback) + be32(create) + be32(sadb) + be32(0) * 3 + be16(0) +
               action_record(9, 4, be32(sa_handle)))


def flow_stats(callback, flows):
    """`flows`: (flow id, is_inbound) pairs."""
    return ceal(1, be32(callback) + be32(1) + be32(len(flows)) +
                b"".join(be32(flow) + be32(0) + be32(0) + be32(int(inbound)) for flow, inbound in flows))


def delete_flow(handle, flow_id):
    return ceal(4, be32(handle) + be32(flow_id) + be32(0))
