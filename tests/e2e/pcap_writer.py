"""Writes UDP datagrams to a pcap file as Ethernet + IPv4 + UDP frames, so that
captures can be made without capture privileges."""

import socket
import struct

LINKTYPE_ETHERNET = 1
_ETH_HEADER = bytes.fromhex("020000000002" "020000000001" "0800")


def _ip_checksum(header):
    total = sum(struct.unpack(f">{len(header) // 2}H", header))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def udp_frame(payload, src, dst):
    """`src` and `dst` are (IPv4 address, port); the UDP checksum is left 0 (none)."""
    udp = struct.pack(">HHHH", src[1], dst[1], 8 + len(payload), 0) + payload
    ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 0, 0x4000, 64, socket.IPPROTO_UDP, 0,
                     socket.inet_aton(src[0]), socket.inet_aton(dst[0]))
    ip = ip[:10] + struct.pack(">H", _ip_checksum(ip)) + ip[12:]
    return _ETH_HEADER + ip + udp


def write_pcap(path, datagrams):
    """`datagrams`: (payload, src, dst) triples, one frame each, a second apart."""
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, LINKTYPE_ETHERNET))
        for second, (payload, src, dst) in enumerate(datagrams):
            frame = udp_frame(payload, src, dst)
            out.write(struct.pack("<IIII", second, 0, len(frame), len(frame)) + frame)
