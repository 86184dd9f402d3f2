"""Request datagrams the RP sends, built field by field from their offsets."""

import struct

MSG_PAL, MSG_CEAL, MSG_IKE, MSG_KEEP_ALIVE = 0, 1, 2, 3


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


def split_response(data):
    """(message_type, message_length, command, body) of a PAL response."""
    mtype, length, cmd = struct.unpack(">HHH", data[:6])
    return mtype, length, cmd, data[6:]


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
