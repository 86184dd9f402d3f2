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


def response(msg_type, cmd, *fields):
    """An answer of the agent: unlike a request's, its length counts the header."""
    body = b"".join(fields)
    return be16(msg_type) + be16(6 + len(body)) + be16(cmd) + body


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


def cipher_info(outbound, spi, source, dest, esp=(3, 128, 2), window=32, lifetimes=(3000, 3600)):
    """A 263-byte cipher info of a tunnel-mode ESP SA: `esp` is (cipher, key
    bits, mac); addresses as integers; soft and hard time lifetimes in seconds."""
    info = bytearray(263)
    struct.pack_into(">IIIIII", info, 0, outbound, 1, *esp, spi)
    struct.pack_into(">I", info, 42, window)
    struct.pack_into(">BBI", info, 46, 4, 4, source)
    struct.pack_into(">BBI", info, 64, 4, 4, dest)
    struct.pack_into(">I", info, 90, 1)
    struct.pack_into(">QQ", info, 168, *lifetimes)
    return bytes(info)


def key_tlv(key_type, key):
    return be16(key_type) + be16(len(key)) + key


def create_keys(handle, ipsec_index, ipsec_sa, info, keys=b""):
    return ceal(0, be32(handle) + be32(ipsec_index) + be32(ipsec_sa) + info + keys)


def flow_stats(callback, flows):
    """`flows`: (flow id, is_inbound) pairs."""
    return ceal(1, be32(callback) + be32(1) + be32(len(flows)) +
                b"".join(be32(flow) + be32(0) + be32(0) + be32(int(inbound)) for flow, inbound in flows))


def delete_flow(handle, flow_id):
    return ceal(4, be32(handle) + be32(flow_id) + be32(0))


def decrypt_action(sa, tunnel_id=0):
    return action_record(8, 3, be32(sa) + be64(0) + be16(0) + be16(0) + be32(0) + be32(tunnel_id))


def encrypt_action(sa):
    return action_record(9, 4, be32(sa))


def spi_insert(callback, sadb, spi, dest, source, records, masks=(24, 24)):
    """Addresses as integers; the fixed part is 71 bytes, the records follow."""
    def addr(a):
        return bytes([4, 4]) + be32(a) + bytes(12)
    return pal(13, be32(callback) + be32(sadb) + be32(spi) + bytes([50]) + be16(0) +
               addr(dest) + be32(masks[0]) + addr(source) + be32(masks[1]) +
               be32(0x31) + be32(0x32) + be32(0x33) + records)


def cflow_insert(callback, sadb, records, create=0x44):
    return pal(15, be32(callback) + be32(create) + be32(sadb) + be32(0x41) + be32(0x42) +
               be32(0x43) + be16(0) + records)
