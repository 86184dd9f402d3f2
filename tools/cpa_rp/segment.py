#!/usr/bin/env python3
"""Writes a sparse fast-path segment ("fp-shared") of full size with chosen SA
entries and counters, so that the agent's statistics queries return real
numbers. Only the pages written take memory. An existing segment is kept and
written into.

  segment.py [--path /dev/shm/fp-shared]
          [--sa INDEX SPI DST PROTO]...             e.g. --sa 7 0x1234 10.0.0.2 50
          [--sa-counter INDEX CORE NAME VALUE]...   e.g. --sa-counter 7 0 in_sa_packets 5
          [--global-counter CORE NAME VALUE]...     e.g. --global-counter 3 out_bytes 4096

Counter names are the fast path's (fp_sa_stats_t, fp_ipsec_stats_t); global
counters go to row 0, the one the agent reads. Standard library only, so that
it runs as a file as well as from the package."""

import argparse
import os
import socket
import struct

SEGMENT_SIZE = 0x39BBDFC0
IPSEC = 0x40ED540
SAD_COUNT = IPSEC
SPI_HASH = IPSEC + 524292
SA_TABLE = IPSEC + 1572928
SA_ENTRY_SIZE = 33600
SA_STATS, SA_STATS_RECORD, SA_HLIST_NEXT = 704, 256, 33492
IPSEC_STATS, IPSEC_STATS_RECORD = IPSEC + 621864328, 184

SA_COUNTERS = dict(
    in_sa_bytes=0, in_sa_packets=8, in_sa_auth_done=16, in_sa_auth_errors=24, in_sa_decap_errors=32,
    in_sa_decrypt_done=40, in_sa_decrypt_errors=48, in_sa_replay_errors=56,
    in_sa_hw_submission_errors=72, in_sa_hw_processing_errors=80, out_sa_bytes=136,
    out_sa_packets=144, out_sa_auth_done=152, out_sa_auth_errors=160, out_sa_encap_errors=168,
    out_sa_encrypt_done=176, out_sa_encrypt_errors=184, out_sa_replay_errors=192,
    out_sa_hw_submission_errors=208, out_sa_hw_processing_errors=216)
GLOBAL_COUNTERS = dict(
    in_packets=0, in_bytes=8, in_auth_done=16, in_auth_errors=24, in_xcap_errors=32,
    in_xcrypt_done=40, in_xcrypt_errors=48, in_replay_errors=56, in_hw_submission_errors=72,
    in_hw_processing_errors=80, out_packets=88, out_bytes=96, out_auth_done=104,
    out_auth_errors=112, out_xcap_errors=120, out_xcrypt_done=128, out_xcrypt_errors=136,
    out_hw_submission_errors=160, out_hw_processing_errors=168)


class Segment:
    def __init__(self, path):
        self.f = open(path, "r+b" if os.path.exists(path) else "w+b")
        if os.fstat(self.f.fileno()).st_size < SEGMENT_SIZE:
            self.f.truncate(SEGMENT_SIZE)

    def read32(self, at):
        self.f.seek(at)
        return struct.unpack("=I", self.f.read(4))[0]

    def write(self, at, fmt, value):
        self.f.seek(at)
        self.f.write(struct.pack(fmt, value))

    def entry(self, index):
        return SA_TABLE + index * SA_ENTRY_SIZE

    def add_sa(self, index, spi, dst, proto):
        """Entry `index` live (state 1), appended to its SPI hash chain."""
        wire_spi = struct.unpack("=I", struct.pack(">I", spi))[0]  # network order, read natively
        e = self.entry(index)
        self.write(e, "=H", 1)
        self.write(e + 20, "=I", wire_spi)
        self.f.seek(e + 24)
        self.f.write(socket.inet_aton(dst))
        self.write(e + 33, "B", proto)
        head = SPI_HASH + ((wire_spi ^ (wire_spi >> 16)) & 0xFFFF) * 8
        last = self.read32(head + 4)
        self.write(self.entry(last) + SA_HLIST_NEXT if self.read32(head) else head, "=I", index)
        self.write(head + 4, "=I", index)
        self.write(SAD_COUNT, "=I", self.read32(SAD_COUNT) + 1)

    def sa_counter(self, index, core, name, value):
        self.write(self.entry(index) + SA_STATS + core * SA_STATS_RECORD + SA_COUNTERS[name], "=Q", value)

    def global_counter(self, core, name, value):
        self.write(IPSEC_STATS + core * IPSEC_STATS_RECORD + GLOBAL_COUNTERS[name], "=Q", value)


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--path", default="/dev/shm/fp-shared")
    p.add_argument("--sa", nargs=4, action="append", default=[], metavar=("INDEX", "SPI", "DST", "PROTO"))
    p.add_argument("--sa-counter", nargs=4, action="append", default=[],
                   metavar=("INDEX", "CORE", "NAME", "VALUE"))
    p.add_argument("--global-counter", nargs=3, action="append", default=[], metavar=("CORE", "NAME", "VALUE"))
    args = p.parse_args(argv)
    seg = Segment(args.path)
    for index, spi, dst, proto in args.sa:
        seg.add_sa(int(index, 0), int(spi, 0), dst, int(proto, 0))
    for index, core, name, value in args.sa_counter:
        seg.sa_counter(int(index, 0), int(core, 0), name, int(value, 0))
    for core, name, value in args.global_counter:
        seg.global_counter(int(core, 0), name, int(value, 0))
    seg.f.close()


if __name__ == "__main__":
    main()
