#!/usr/bin/env python3
"""Two IPsec hosts on a real kernel, checked from the outside (as root in the
virtual machine of scripts/vm-run.sh, whose kernel has ESP and xfrm interfaces).

    site-a ── host-a ══ ESP over veth ══ host-b ── site-b

Every box is a network namespace. Each host runs one agent with `-k linux -r 64`,
driven by its own RP through the life of one tunnel (svti7, if_id 7) between
the sites; the kernel tables, the traffic and the wire are checked on the way.

Usage: two_hosts.py [--demo]; exit status 0 when every check passed.
"""

import contextlib
import ctypes
import os
import re
import socket
import subprocess
import sys
import threading
import time

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(REPO, "tools"))
from cpa_rp import wire as rp  # noqa: E402
from cpa_rp.link import RpLink  # noqa: E402

BINARY = os.environ.get("CPA_BINARY", os.path.join(REPO, "build", "ipsec_cpa"))
TUNNEL = 7
DEVICE = f"svti{TUNNEL}"
MARKER = b"plaintext-marker-7f3a"  # must never show on the wire between the hosts
CLONE_NEWNET = 0x40000000
DEMO = sys.argv[1:] == ["--demo"]  # shows the kernel's SAs and counters too


class Host:
    """`site_net` "10.1.0" is the site 10.1.0.0/24: the host is .1 in it, the site's box .2."""

    def __init__(self, name, wan, site_net, spi_out, spi_in, enc_key, auth_key):
        self.name, self.ns, self.site_ns, self.wan = name, f"cpa-{name}", f"cpa-site-{name}", wan
        self.subnet, self.gateway, self.site_addr = f"{site_net}.0/24", f"{site_net}.1", f"{site_net}.2"
        self.spi_out, self.spi_in = spi_out, spi_in
        self.enc_key, self.auth_key = enc_key, auth_key  # of the SA this host sends on
        self.peer = None


A = Host("a", "192.0.2.1", "10.1.0", 0x1001, 0x1002, bytes(range(16)), bytes(range(32, 52)))
B = Host("b", "192.0.2.2", "10.2.0", 0x1002, 0x1001, bytes(range(64, 80)), bytes(range(96, 116)))
A.peer, B.peer = B, A
HOSTS = (A, B)


def ip(ns, *args, check=True, stdin=None):
    """`ip` in namespace `ns` (None: this one); its stdout. Each one costs about
    half a second under emulation, hence ip_batch."""
    cmd = ["ip", *(["-n", ns] if ns else []), *args]
    # close_fds=False lets Python spawn without fork, which costs seconds more.
    done = subprocess.run(cmd, capture_output=True, text=True, close_fds=False, input=stdin)
    if check and done.returncode != 0:
        raise RuntimeError(f"{' '.join(cmd)}: {done.stderr.strip()}")
    return done.stdout


def ip_batch(ns, *commands, check=True):
    return ip(ns, *([] if check else ["-force"]), "-batch", "-", stdin="\n".join(commands) + "\n", check=check)


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


failed = []  # the names of the checks that failed


def check(name, ok, detail=""):
    print(f"{'ok  ' if ok else 'FAIL'} {name}" + ("" if ok or not detail else f"\n     {detail}"), flush=True)
    if not ok:
        failed.append(name)
    return ok


def build_topology():
    ip_batch(None, *(f"netns add {ns}" for h in HOSTS for ns in (h.ns, h.site_ns)))
    ip_batch(A.ns, f"link add wan type veth peer name wan netns {B.ns}")
    for h in HOSTS:
        ip_batch(h.ns, "link set lo up", f"link add site type veth peer name uplink netns {h.site_ns}",
                 f"addr add {h.gateway}/24 dev site", "link set site up",
                 f"addr add {h.wan}/24 dev wan", "link set wan up")
        ip_batch(h.site_ns, "link set lo up", f"addr add {h.site_addr}/24 dev uplink",
                 "link set uplink up", f"route add default via {h.gateway}")
        with netns(h.ns), open("/proc/sys/net/ipv4/ip_forward", "w") as forwarding:
            forwarding.write("1")


def remove_topology():
    ip_batch(None, *(f"netns del {ns}" for h in HOSTS for ns in (h.ns, h.site_ns)), check=False)


def xfrm_blocks(ns, what, stats=False):
    """`ip xfrm state|policy` cut into one text block per entry. States of SPI 0
    are left out: the kernel's placeholders for an acquire, which it drops
    by itself after 30 s and which nobody else can delete by SPI."""
    text = ip(ns, *(["-s"] if stats else []), "xfrm", what)
    blocks = [b for b in re.split(r"\n(?=src )", text.strip()) if b]
    return [b for b in blocks if what != "state" or not re.search(r"\bspi 0x0+\b", b)]


ENTRY_FIELDS = dict(src=r"^src (\S+)", dst=r"^src \S+ dst (\S+)", proto=r"proto (\w+)",
                    mode=r"mode (\w+)", reqid=r"reqid (\d+)", if_id=r"if_id (0x[0-9a-f]+)")
STATE_FIELDS = dict(ENTRY_FIELDS, spi=r"spi (0x[0-9a-f]+)", enc=r"\benc (\S+)", auth=r"\bauth(?:-trunc)? (\S+)",
                    window=r"\breplay_window (\d+)")
POLICY_FIELDS = dict(ENTRY_FIELDS, dir=r"dir (\w+)", tmpl_src=r"tmpl src (\S+)",
                     tmpl_dst=r"tmpl src \S+ dst (\S+)")


def entry_of(block, patterns):
    """The first group of each pattern found in `block` (None if absent), numbers as ints."""
    f = {name: (re.search(pattern, block, re.M) or [None, None])[1] for name, pattern in patterns.items()}
    return {k: int(v, 0) if v and k in ("spi", "reqid", "if_id") else v for k, v in f.items()}


def sa_counters(h):
    """{spi: (bytes, packets, integrity failures)} of host `h`'s SAs."""
    counters = {}
    for block in xfrm_blocks(h.ns, "state", stats=True):
        current = re.search(r"lifetime current:\s+(\d+)\(bytes\), (\d+)\(packets\)", block)
        failed = re.search(r"replay \d+ failed (\d+)", block)
        counters[entry_of(block, STATE_FIELDS)["spi"]] = (int(current[1]), int(current[2]), int(failed[1]))
    return counters


def expected_states(h, reqid):
    sa = lambda src, dst, spi: dict(src=src, dst=dst, proto="esp", spi=spi, reqid=reqid, mode="tunnel",
                                    if_id=TUNNEL, enc="cbc(aes)", auth="hmac(sha1)", window="64")
    return [sa(h.wan, h.peer.wan, h.spi_out), sa(h.peer.wan, h.wan, h.spi_in)]


def expected_policies(h, reqid):
    """Out and in, and fwd: without it the kernel drops decrypted traffic that it forwards to the site."""
    pol = lambda d, src, dst, tsrc, tdst: dict(src=src, dst=dst, dir=d, tmpl_src=tsrc, tmpl_dst=tdst, proto="esp",
                                               mode="tunnel", reqid=reqid, if_id=TUNNEL)
    return [pol("out", h.subnet, h.peer.subnet, h.wan, h.peer.wan),
            pol("in", h.peer.subnet, h.subnet, h.peer.wan, h.wan),
            pol("fwd", h.peer.subnet, h.subnet, h.peer.wan, h.wan)]


def sorted_dicts(items):
    return sorted(items, key=lambda d: sorted((k, str(v)) for k, v in d.items()))


def check_kernel_tables(agents):
    for agent in agents:
        h, reqid = agent.h, agent.sadb
        states = [entry_of(b, STATE_FIELDS) for b in xfrm_blocks(h.ns, "state")]
        check(f"{h.name}: exactly the expected SAs (directions, SPIs, if_id, algorithms, replay window 64)",
              sorted_dicts(states) == sorted_dicts(expected_states(h, reqid)), states)
        policies = [entry_of(b, POLICY_FIELDS) for b in xfrm_blocks(h.ns, "policy")]
        check(f"{h.name}: exactly the expected policies (directions, selectors, templates, if_id)",
              sorted_dicts(policies) == sorted_dicts(expected_policies(h, reqid)), policies)
        link = ip(h.ns, "-d", "link", "show", DEVICE, check=False)
        check(f"{h.name}: {DEVICE} is an xfrm interface with if_id {TUNNEL}, up, MTU 9160",
              re.search(rf"xfrm if_id {hex(TUNNEL)}\b", link) is not None and ",UP" in link
              and "mtu 9160" in link, link)


def check_tunnel_gone():
    for h in HOSTS:
        left = xfrm_blocks(h.ns, "state") + xfrm_blocks(h.ns, "policy")
        check(f"{h.name}: no SA and no policy left", not left, left)
        check(f"{h.name}: no {DEVICE} left", DEVICE not in ip(h.ns, "link"))


def show_tables(title):
    """For the demonstration: what the kernel of each host holds."""
    if DEMO:
        for h in HOSTS:
            print(f"--- {title}: host {h.name}, ip xfrm policy\n{ip(h.ns, 'xfrm', 'policy')}"
                  f"--- {title}: host {h.name}, ip -s xfrm state\n{ip(h.ns, '-s', 'xfrm', 'state')}",
                  flush=True)


def capture(h):
    """A socket that keeps every frame seen on host `h`'s interface towards the other host."""
    with netns(h.ns):
        sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0003))
    sock.bind(("wan", 0))
    sock.setblocking(False)
    return sock


def captured(sock):
    frames = []
    with sock, contextlib.suppress(BlockingIOError):
        while True:
            frames.append(sock.recv(65536))
    return frames


def exchange(src, dst, payload, tcp=False, timeout=2.0):
    """`payload` from src's site to dst's site over UDP or TCP, echoed; True when the echo came back.
    The kernel completes TCP's handshake, so one thread plays both ends."""
    kind = socket.SOCK_STREAM if tcp else socket.SOCK_DGRAM
    with netns(dst.site_ns):
        server = socket.socket(socket.AF_INET, kind)
    with netns(src.site_ns):
        client = socket.socket(socket.AF_INET, kind)
    with server, client:
        server.bind((dst.site_addr, 5001))
        server.settimeout(timeout)
        client.settimeout(timeout)
        try:
            if tcp:
                server.listen()
                client.connect((dst.site_addr, 5001))
                client.sendall(payload)
                conn, _ = server.accept()
                with conn:
                    conn.settimeout(timeout)
                    conn.sendall(conn.recv(65536))
            else:
                client.sendto(payload, (dst.site_addr, 5001))
                data, addr = server.recvfrom(65536)
                server.sendto(data, addr)
            return client.recv(65536) == payload
        except OSError:  # timeouts too
            return False


def check_traffic_through_tunnel():
    """UDP and TCP both ways through svti7, ESP on the wire and nothing in the clear.
    Returns the SA counters of both hosts afterwards."""
    wire = capture(A)
    before = {h.name: sa_counters(h) for h in HOSTS}
    check("UDP site-a -> site-b and back", exchange(A, B, MARKER + b" udp"))
    check("UDP site-b -> site-a and back", exchange(B, A, MARKER + b" udp back"))
    check("TCP site-a -> site-b and back", exchange(A, B, MARKER + b" tcp", tcp=True, timeout=5.0))
    frames = captured(wire)
    ipv4 = [f for f in frames if f[12:14] == b"\x08\x00"]
    esp = [f for f in ipv4 if f[23] == 50]
    check(f"the wire carries ESP ({len(esp)} of {len(ipv4)} IPv4 frames)", len(esp) >= 6)
    check("no IPv4 frame on the wire other than ESP", len(esp) == len(ipv4))
    check("the payload never shows on the wire", not any(MARKER in f for f in frames))
    after = {h.name: sa_counters(h) for h in HOSTS}
    for h in HOSTS:
        sent, received = after[h.name].get(h.spi_out), after[h.peer.name].get(h.spi_out)
        check(f"{h.name}: outbound SA counted the traffic",
              sent is not None and sent[1] > before[h.name][h.spi_out][1], f"{before[h.name]} -> {sent}")
        check(f"{h.name}: what it sent is what the peer's inbound SA received",
              sent is not None and received is not None and sent[:2] == received[:2],
              f"{sent} vs {received}")
    show_tables("after the traffic")
    return after


NOTIFY_HANDLE = 0x4E01


def decoded(answer):
    """An answer or notification of an agent as the RP decodes it; {} when none came, its fault if malformed."""
    try:
        return rp.decode(answer) if answer is not None else {}
    except rp.Malformed as malformed:
        return {"malformed": str(malformed), "bytes": answer.hex()}


def agent_log():
    """The agents' syslog lines as they come (the guest has no syslog daemon of its own)."""
    with contextlib.suppress(FileNotFoundError):
        os.unlink("/dev/log")
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sock.bind("/dev/log")
    lines = []

    def read():
        with contextlib.suppress(OSError):
            while True:
                lines.append(sock.recv(65536).decode(errors="replace").rstrip())
    threading.Thread(target=read, daemon=True).start()
    return lines


class HostAgent:
    """One agent in `-k linux` on host `h`, and the RP that drives it."""

    def __init__(self, h, index):
        self.h, self.index = h, index
        self.callback, self.create = 0xCB00 + index, 0xC0 + index
        self.out_flow, self.in_flow = 10 * index + 1, 10 * index + 2
        self.out_sa, self.in_sa = 0x5A00 + 10 * index + 1, 0x5A00 + 10 * index + 2
        self.sadb = 0
        self.process = subprocess.Popen(["ip", "netns", "exec", h.ns, BINARY, "-k", "linux", "-r", "64"],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, close_fds=False)
        with netns(h.ns):
            self.rp = RpLink()
            self.wait_bound()

    @staticmethod
    def wait_bound(timeout=20.0):
        """Until this namespace has a socket on the PAL port (0x5BA0 = 23456)."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            with open("/proc/thread-self/net/udp") as udp:
                if sum(":5BA0 " in line for line in udp) >= 2:  # the agent's and the RP's
                    return
            time.sleep(0.2)
        raise RuntimeError("the agent did not bind its port (does it know -k linux?)")

    def ask(self, what, request):
        """The answer, decoded; it must be CRYPTO_NO_ERR."""
        # The first SA of an algorithm has the kernel run modprobe for it several
        # times, which takes seconds under emulation on busy cores.
        self.rp.send(request)
        while (answer := decoded(self.rp.receive(timeout=30.0))).get("api") == rp.NOTIFY_RP:
            pass  # an unsolicited, late acquire
        check(f"{self.h.name}: {what} answered CRYPTO_NO_ERR", answer.get("status") == rp.CRYPTO_NO_ERR, answer)
        return answer

    def open_tunnel(self):
        self.sadb = self.ask("INIT_START", rp.init_start(self.callback, self.create)).get("sadbhandle", 0)
        peer = self.h.peer
        self.ask("INTF_ATTACH", rp.intf_attach(self.callback, self.sadb, TUNNEL))
        self.ask("PEER_INSERT", rp.peer_insert(self.callback, self.create, 0x9E00 + self.index, self.sadb))
        records = rp.policy_records([((addr(self.h.subnet), 24), (addr(peer.subnet), 24))],
                                    inbound=rp.action("discard"), outbound=rp.action("notify", NOTIFY_HANDLE),
                                    inbound_deny=rp.action("forward"), first_handle=0xACE0 + self.index, kind=1)
        self.ask("ACL install", rp.acl_modify(self.callback, self.sadb, 2, records))

    def add_key(self, outbound, mac_key=None):
        """The keys of the SA this host sends on (outbound) or receives on."""
        sender = self.h if outbound else self.h.peer
        flow, sa = (self.out_flow, self.out_sa) if outbound else (self.in_flow, self.in_sa)
        info = rp.cipher_info(outbound, sender.spi_out, addr(sender.wan), addr(sender.peer.wan),
                              key_bits=len(sender.enc_key) * 8)
        self.ask(f"CREATE_KEY_BY_KEYS ({'outbound' if outbound else 'inbound'})",
                 rp.create_keys(self.callback, flow, sa, info, sender.enc_key, mac_key or sender.auth_key))

    def insert_spi(self, what="SPI_INSERT"):
        self.ask(what, rp.spi_insert(self.callback, self.sadb, self.h.spi_in, (addr(self.h.wan), 32),
                                     (addr(self.h.peer.wan), 32), rp.action("decrypt", self.in_sa)))

    def add_sas(self):
        self.add_key(outbound=True)
        self.add_key(outbound=False)
        self.insert_spi()
        self.ask("CFLOW_INSERT", rp.cflow_insert(self.callback, self.sadb, rp.action("encrypt", self.out_sa),
                                                 create=self.create))

    def replace_inbound_key(self, mac_key):
        self.ask("DELETE_FLOW (inbound)", rp.delete_flow(self.callback, self.in_flow))
        self.in_flow += 100
        self.add_key(outbound=False, mac_key=mac_key)
        self.insert_spi("SPI_INSERT (wrong key)")

    def flow_stats(self):
        """(out bytes, out packets, in bytes, in packets) as FLOW_STATS reports them."""
        flows = [(self.out_flow, False), (self.in_flow, True)]
        answer = self.ask("FLOW_STATS", rp.flow_stats(self.callback, flows))
        if len(answer.get("flows", ())) != 2:
            return None
        out, into = (flow["counters"] for flow in answer["flows"])
        return out["flow_out_bytes"], out["flow_out_pkts"], into["flow_in_bytes"], into["flow_in_pkts"]

    def close_tunnel(self):
        self.ask("DELETE_FLOW (outbound)", rp.delete_flow(self.callback, self.out_flow))
        self.ask("DELETE_FLOW (inbound)", rp.delete_flow(self.callback, self.in_flow))
        self.ask("ACL remove", rp.acl_modify(self.callback, self.sadb, 4))
        self.ask("INTF_ATTACH (detach)", rp.intf_attach(self.callback, 0, TUNNEL))
        self.ask("SADB_DELETE", rp.sadb_delete(self.callback, self.sadb))

    def stop(self):
        self.rp.close()
        self.process.terminate()
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.process.wait(5)
        self.process.kill()


def addr(text):
    """An address or a prefix's network as the integer the requests carry."""
    return int.from_bytes(socket.inet_aton(text.split("/")[0]), "big")


def scenario():
    print(f"== {BINARY} -k linux -r 64 on each host, driven by its RP", flush=True)
    log = agent_log()
    agents = []
    try:
        for i, h in enumerate(HOSTS):
            agents.append(HostAgent(h, i + 1))
        for agent in agents:
            agent.open_tunnel()
            ip(agent.h.ns, "route", "add", agent.h.peer.subnet, "dev", DEVICE, check=False)
        exchange(A, B, MARKER, timeout=0.5)
        notify = decoded(agents[0].rp.receive(timeout=3.0))
        check("traffic before the SAs exist brings the RP the acquire notify",
              (notify.get("api"), notify.get("notify_handle")) == (rp.NOTIFY_RP, NOTIFY_HANDLE), notify)
        for agent in agents:
            agent.add_sas()
        check_kernel_tables(agents)
        counters = check_traffic_through_tunnel()
        for agent in agents:
            h, kernel = agent.h, counters[agent.h.name]
            want = (*kernel.get(h.spi_out, (0, 0))[:2], *kernel.get(h.spi_in, (0, 0))[:2])
            reported = agent.flow_stats()
            check(f"{h.name}: FLOW_STATS reports the bytes and packets the kernel counted",
                  reported == want, f"FLOW_STATS {reported}, kernel {want}")
        agents[1].replace_inbound_key(bytes(20))
        before = sa_counters(B).get(B.spi_in, (0, 0, 0))
        check("with a wrong key on one side the traffic fails", not exchange(A, B, MARKER, timeout=1.0))
        after = sa_counters(B).get(B.spi_in)
        check("with a wrong key the receiver's integrity failures rise",
              after is not None and after[2] > before[2], f"{before} -> {after}")
        for agent in agents:
            agent.close_tunnel()
        check_tunnel_gone()
    except RuntimeError as error:
        check("the scenario ran to its end", False, error)
    finally:
        for agent in agents:
            agent.stop()
        if failed:
            tail = int(os.environ.get("CPA_VM_LOG_LINES", "60"))
            print("--- the agents' last syslog lines", *log[-tail:], sep="\n")


def main():
    started = time.monotonic()
    remove_topology()
    build_topology()
    try:
        scenario()
    finally:
        remove_topology()
    print(f"{'all checks passed' if not failed else f'{len(failed)} checks FAILED'}"
          f" in {time.monotonic() - started:.1f} s", flush=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
