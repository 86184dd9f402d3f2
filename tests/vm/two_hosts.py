#!/usr/bin/env python3
"""Two IPsec hosts on a real kernel, checked from the outside (run as root in
the virtual machine of scripts/vm-run.sh, whose kernel has ESP and xfrm
interfaces).

    site-a ── host-a ══ ESP over veth ══ host-b ── site-b

Every box is a network namespace. The hosts carry one tunnel (svti7, if_id 7)
between the sites. Stage "by-hand" builds the tunnel with `ip` alone: the exact
kernel configuration the agent has to produce, which validates the checks.
Stage "agent" (--with-agent) starts one agent per host with `-k linux` and has
one RP per host drive it through the tunnel's life, then runs the same checks.

Usage: two_hosts.py [--with-agent] [--only-agent] [--demo]
Exit status 0 when every check passed.
"""

import argparse
import contextlib
import ctypes
import os
import re
import socket
import struct
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(REPO, "tests", "e2e"))
import rp_messages as rp  # noqa: E402  (the e2e RP helpers, no sandbox)

BINARY = os.environ.get("CPA_BINARY", os.path.join(REPO, "build", "ipsec_cpa"))
TUNNEL = 7
DEVICE = f"svti{TUNNEL}"
MARKER = b"plaintext-marker-7f3a"  # must never show on the wire between the hosts
CLONE_NEWNET = 0x40000000


class Host:
    def __init__(self, name, wan, site_net, spi_out, spi_in, enc_key, auth_key):
        self.ns, self.site_ns = f"cpa-{name}", f"cpa-site-{name}"
        self.name, self.wan = name, wan
        self.site_net = site_net              # "10.1.0" -> 10.1.0.0/24
        self.gateway = f"{site_net}.1"        # the host's address towards its site
        self.site_addr = f"{site_net}.2"
        self.spi_out, self.spi_in = spi_out, spi_in
        self.enc_key, self.auth_key = enc_key, auth_key  # of the SA this host sends on
        self.peer = None

    @property
    def subnet(self):
        return f"{self.site_net}.0/24"


A = Host("a", "192.0.2.1", "10.1.0", 0x1001, 0x1002, bytes(range(16)), bytes(range(32, 52)))
B = Host("b", "192.0.2.2", "10.2.0", 0x1002, 0x1001, bytes(range(64, 80)), bytes(range(96, 116)))
A.peer, B.peer = B, A
HOSTS = (A, B)


# ---------------------------------------------------------------- plumbing

def run(*args, ns=None, check=True):
    """Runs a command (in namespace `ns`); its stdout."""
    cmd = (["ip", "netns", "exec", ns] if ns else []) + list(args)
    # close_fds=False lets Python spawn without fork, which costs seconds under emulation.
    done = subprocess.run(cmd, capture_output=True, text=True, close_fds=False)
    if check and done.returncode != 0:
        raise RuntimeError(f"{' '.join(cmd)}: {done.stderr.strip()}")
    return done.stdout


def ip(ns, *args, check=True):
    return run("ip", "-n", ns, *args, check=check)


_libc = ctypes.CDLL(None, use_errno=True)


@contextlib.contextmanager
def netns(name):
    """Moves this thread into network namespace `name`; sockets made inside stay there."""
    own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    target = os.open(f"/run/netns/{name}", os.O_RDONLY)
    try:
        if _libc.setns(target, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), f"setns {name}")
        yield
    finally:
        _libc.setns(own, CLONE_NEWNET)
        os.close(own)
        os.close(target)


class Checks:
    def __init__(self):
        self.failed = []

    def __call__(self, name, ok, detail=""):
        print(f"{'ok  ' if ok else 'FAIL'} {name}" + ("" if ok or not detail else f"\n     {detail}"),
              flush=True)
        if not ok:
            self.failed.append(name)
        return ok


check = Checks()


def build_topology():
    for h in HOSTS:
        for ns in (h.ns, h.site_ns):
            run("ip", "netns", "add", ns)
            ip(ns, "link", "set", "lo", "up")
        ip(h.ns, "link", "add", "site", "type", "veth", "peer", "name", "uplink", "netns", h.site_ns)
        ip(h.ns, "addr", "add", f"{h.gateway}/24", "dev", "site")
        ip(h.ns, "link", "set", "site", "up")
        ip(h.site_ns, "addr", "add", f"{h.site_addr}/24", "dev", "uplink")
        ip(h.site_ns, "link", "set", "uplink", "up")
        ip(h.site_ns, "route", "add", "default", "via", h.gateway)
        with netns(h.ns), open("/proc/sys/net/ipv4/ip_forward", "w") as forwarding:
            forwarding.write("1")
    ip(A.ns, "link", "add", "wan", "type", "veth", "peer", "name", "wan", "netns", B.ns)
    for h in HOSTS:
        ip(h.ns, "addr", "add", f"{h.wan}/24", "dev", "wan")
        ip(h.ns, "link", "set", "wan", "up")


def remove_topology():
    for h in HOSTS:
        for ns in (h.ns, h.site_ns):
            run("ip", "netns", "del", ns, check=False)


# ---------------------------------------------------------------- what the kernel holds

def xfrm_blocks(ns, what, stats=False):
    """`ip xfrm state|policy` cut into one text block per entry."""
    text = ip(ns, *(["-s"] if stats else []), "xfrm", what)
    return [b for b in re.split(r"\n(?=src )", text.strip()) if b]


def state_of(block):
    field = lambda pattern: (re.search(pattern, block) or [None, None])[1]
    return {
        "src": field(r"^src (\S+)"), "dst": field(r"^src \S+ dst (\S+)"),
        "proto": field(r"proto (\w+)"), "spi": int(field(r"spi (0x[0-9a-f]+)"), 16),
        "reqid": int(field(r"reqid (\d+)")), "mode": field(r"mode (\w+)"),
        "if_id": int(field(r"if_id (0x[0-9a-f]+)") or "0", 16),
        "enc": field(r"\benc (\S+)"), "auth": field(r"\bauth(?:-trunc)? (\S+)"),
    }


def counters_of(block):
    """(bytes, packets, integrity failures) of an `ip -s xfrm state` block."""
    current = re.search(r"lifetime current:\s+(\d+)\(bytes\), (\d+)\(packets\)", block)
    failed = re.search(r"replay \d+ failed (\d+)", block)
    return int(current[1]), int(current[2]), int(failed[1])


def policy_of(block):
    field = lambda pattern: (re.search(pattern, block) or [None, None])[1]
    return {
        "src": field(r"^src (\S+)"), "dst": field(r"^src \S+ dst (\S+)"),
        "dir": field(r"dir (\w+)"),
        "tmpl": (field(r"tmpl src (\S+)"), field(r"tmpl src \S+ dst (\S+)")),
        "proto": field(r"proto (\w+)"), "mode": field(r"mode (\w+)"),
        "reqid": int(field(r"reqid (\d+)") or "0"),
        "if_id": int(field(r"if_id (0x[0-9a-f]+)") or "0", 16),
    }


def expected_states(h, reqid):
    sa = lambda src, dst, spi: {"src": src, "dst": dst, "proto": "esp", "spi": spi, "reqid": reqid,
                                "mode": "tunnel", "if_id": TUNNEL, "enc": "cbc(aes)",
                                "auth": "hmac(sha1)"}
    return [sa(h.wan, h.peer.wan, h.spi_out), sa(h.peer.wan, h.wan, h.spi_in)]


def expected_policies(h, reqid):
    pol = lambda d, src, dst, tmpl: {"src": src, "dst": dst, "dir": d, "tmpl": tmpl, "proto": "esp",
                                     "mode": "tunnel", "reqid": reqid, "if_id": TUNNEL}
    return [pol("out", h.subnet, h.peer.subnet, (h.wan, h.peer.wan)),
            pol("in", h.peer.subnet, h.subnet, (h.peer.wan, h.wan))]


def sorted_dicts(items):
    return sorted(items, key=lambda d: sorted((k, str(v)) for k, v in d.items()))


def check_kernel_tables(reqid, fwd_policies):
    for h in HOSTS:
        states = [state_of(b) for b in xfrm_blocks(h.ns, "state")]
        check(f"{h.name}: exactly the expected SAs (directions, SPIs, if_id, algorithms)",
              sorted_dicts(states) == sorted_dicts(expected_states(h, reqid)), states)
        policies = [policy_of(b) for b in xfrm_blocks(h.ns, "policy")]
        if not fwd_policies:
            policies = [p for p in policies if p["dir"] != "fwd"]
        want = expected_policies(h, reqid)
        if fwd_policies:
            want.append(dict(want[1], dir="fwd"))
        check(f"{h.name}: exactly the expected policies (directions, selectors, templates, if_id)",
              sorted_dicts(policies) == sorted_dicts(want), policies)
        link = ip(h.ns, "-d", "link", "show", DEVICE, check=False)
        check(f"{h.name}: {DEVICE} is an xfrm interface with if_id {TUNNEL}, up, MTU 9160",
              re.search(rf"xfrm if_id {hex(TUNNEL)}\b", link) is not None and ",UP" in link
              and "mtu 9160" in link, link)


def check_tunnel_gone():
    for h in HOSTS:
        check(f"{h.name}: no SA left", ip(h.ns, "xfrm", "state").strip() == "")
        check(f"{h.name}: no policy left", ip(h.ns, "xfrm", "policy").strip() == "")
        check(f"{h.name}: no {DEVICE} left", DEVICE not in ip(h.ns, "link"))


def sa_counters(h, spi):
    for block in xfrm_blocks(h.ns, "state", stats=True):
        if state_of(block)["spi"] == spi:
            return counters_of(block)
    return None


# ---------------------------------------------------------------- traffic

class Capture:
    """Every frame seen on host `h`'s interface towards the other host."""

    def __init__(self, h):
        with netns(h.ns):
            self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0003))
            self.sock.bind(("wan", 0))
        self.sock.setblocking(False)

    def frames(self):
        out = []
        with contextlib.suppress(BlockingIOError):
            while True:
                out.append(self.sock.recv(65536))
        self.sock.close()
        return out


def udp_exchange(src, dst, payload, timeout=2.0):
    """A datagram from src's site to dst's site and its echo; True when the echo came back."""
    with netns(dst.site_ns):
        server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        server.bind((dst.site_addr, 5001))
    with netns(src.site_ns):
        client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    with server, client:
        server.settimeout(timeout)
        client.settimeout(timeout)
        client.sendto(payload, (dst.site_addr, 5001))
        try:
            data, addr = server.recvfrom(65536)
            server.sendto(data, addr)
            return client.recv(65536) == payload
        except socket.timeout:
            return False


def tcp_exchange(src, dst, payload, timeout=5.0):
    with netns(dst.site_ns):
        server = socket.create_server((dst.site_addr, 5002))
    server.settimeout(timeout)

    def echo():
        with contextlib.suppress(OSError):
            conn, _ = server.accept()
            with conn:
                conn.settimeout(timeout)
                conn.sendall(conn.recv(65536))
    thread = threading.Thread(target=echo, daemon=True)
    thread.start()
    try:
        with netns(src.site_ns):
            client = socket.create_connection((dst.site_addr, 5002), timeout=timeout)
        with client:
            client.sendall(payload)
            return client.recv(65536) == payload
    except OSError:
        return False
    finally:
        thread.join(timeout)
        server.close()


def check_traffic_through_tunnel():
    """UDP and TCP both ways through svti7, ESP on the wire and nothing in the clear."""
    capture = Capture(A)
    before = {h.name: sa_counters(h, h.spi_out) for h in HOSTS}
    check("UDP site-a -> site-b and back", udp_exchange(A, B, MARKER + b" udp"))
    check("UDP site-b -> site-a and back", udp_exchange(B, A, MARKER + b" udp back"))
    check("TCP site-a -> site-b and back", tcp_exchange(A, B, MARKER + b" tcp"))
    frames = capture.frames()
    ipv4 = [f for f in frames if f[12:14] == b"\x08\x00"]
    esp = [f for f in ipv4 if f[23] == 50]
    check(f"the wire carries ESP ({len(esp)} of {len(ipv4)} IPv4 frames)", len(esp) >= 6)
    check("no IPv4 frame on the wire other than ESP", len(esp) == len(ipv4))
    check("the payload never shows on the wire", not any(MARKER in f for f in frames))
    for h in HOSTS:
        out_now, in_peer = sa_counters(h, h.spi_out), sa_counters(h.peer, h.spi_out)
        check(f"{h.name}: outbound SA counted the traffic",
              out_now[1] > before[h.name][1], f"{before[h.name]} -> {out_now}")
        check(f"{h.name}: what it sent is what the peer's inbound SA received",
              out_now[:2] == in_peer[:2], f"{out_now} vs {in_peer}")


class AcquireListener:
    """The kernel's acquire group on host `h`'s XFRM netlink."""

    XFRM_MSG_ACQUIRE, XFRMNLGRP_ACQUIRE = 0x17, 1

    def __init__(self, h):
        with netns(h.ns):
            self.sock = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 6)
            self.sock.bind((0, 1 << (self.XFRMNLGRP_ACQUIRE - 1)))

    def heard(self, timeout=3.0):
        self.sock.settimeout(timeout)
        with self.sock:
            try:
                return struct.unpack_from("=H", self.sock.recv(65536), 4)[0] == self.XFRM_MSG_ACQUIRE
            except socket.timeout:
                return False


# ---------------------------------------------------------------- stage: by hand

def ip_state(h, direction, spi, enc_key, auth_key, reqid):
    src, dst = (h.wan, h.peer.wan) if direction == "out" else (h.peer.wan, h.wan)
    return ["xfrm", "state", "add", "src", src, "dst", dst, "proto", "esp", "spi", hex(spi),
            "reqid", str(reqid), "mode", "tunnel", "if_id", str(TUNNEL), "replay-window", "32",
            "auth", "hmac(sha1)", "0x" + auth_key.hex(), "enc", "cbc(aes)", "0x" + enc_key.hex()]


def hand_made_stage(reqid=1):
    print("== stage by-hand: the tunnel built with ip alone", flush=True)
    for h in HOSTS:
        ip(h.ns, "link", "add", DEVICE, "type", "xfrm", "dev", "wan", "if_id", str(TUNNEL))
        ip(h.ns, "link", "set", DEVICE, "mtu", "9160", "up")
        ip(h.ns, "route", "add", h.peer.subnet, "dev", DEVICE)
        for direction, src, dst, tsrc, tdst in (("out", h.subnet, h.peer.subnet, h.wan, h.peer.wan),
                                                ("in", h.peer.subnet, h.subnet, h.peer.wan, h.wan),
                                                ("fwd", h.peer.subnet, h.subnet, h.peer.wan, h.wan)):
            ip(h.ns, "xfrm", "policy", "add", "src", src, "dst", dst, "dir", direction,
               "tmpl", "src", tsrc, "dst", tdst, "proto", "esp", "reqid", str(reqid),
               "mode", "tunnel", "if_id", str(TUNNEL))
    listener = AcquireListener(A)
    udp_exchange(A, B, MARKER, timeout=0.5)
    check("traffic before the SAs exist makes the kernel acquire", listener.heard())
    for h in HOSTS:
        ip(h.ns, *ip_state(h, "out", h.spi_out, h.enc_key, h.auth_key, reqid))
        ip(h.ns, *ip_state(h, "in", h.spi_in, h.peer.enc_key, h.peer.auth_key, reqid))
    check_kernel_tables(reqid, fwd_policies=True)
    check_traffic_through_tunnel()
    check_wrong_key(lambda: (ip(B.ns, "xfrm", "state", "del", "src", A.wan, "dst", B.wan, "proto", "esp",
                                "spi", hex(B.spi_in)),
                             ip(B.ns, *ip_state(B, "in", B.spi_in, A.enc_key, bytes(20), reqid))))
    for h in HOSTS:
        ip(h.ns, "xfrm", "state", "flush")
        ip(h.ns, "xfrm", "policy", "flush")
        ip(h.ns, "link", "del", DEVICE)
    check_tunnel_gone()


def check_wrong_key(install_wrong_inbound_key_on_b):
    install_wrong_inbound_key_on_b()
    before = sa_counters(B, B.spi_in)
    check("with a wrong key on one side the traffic fails", not udp_exchange(A, B, MARKER, timeout=1.0))
    after = sa_counters(B, B.spi_in)
    check("with a wrong key the receiver's integrity failures rise",
          after is not None and after[2] > before[2], f"{before} -> {after}")


# ---------------------------------------------------------------- main

def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--with-agent", action="store_true", help="also run the agent stage")
    parser.add_argument("--only-agent", action="store_true", help="run the agent stage alone")
    parser.add_argument("--demo", action="store_true", help="show the kernel's tables and counters")
    args = parser.parse_args()
    os.environ["CPA_DEMO"] = "1" if args.demo else ""
    started = time.monotonic()
    remove_topology()
    build_topology()
    try:
        if not args.only_agent:
            hand_made_stage()
        if args.with_agent or args.only_agent:
            import two_hosts_agent
            two_hosts_agent.agent_stage(sys.modules[__name__])
    finally:
        remove_topology()
    print(f"{'all checks passed' if not check.failed else f'{len(check.failed)} checks FAILED'}"
          f" in {time.monotonic() - started:.1f} s", flush=True)
    return 1 if check.failed else 0


if __name__ == "__main__":
    sys.exit(main())
