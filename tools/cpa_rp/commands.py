"""cpa-rp: the route processor's side of ipsec_cpa on the command line.

Builds PAL and CEAL requests from named arguments, sends them to the agent,
waits for the answer where the agent sends it (the latched RP address, UDP
23456) and prints it decoded. Also replays scripts of requests, watches
notifications and keepalives, and fetches the counter report.
See cpa-rp(1).
"""

import argparse
import ipaddress
import json
import os
import re
import select
import shlex
import socket
import struct
import sys
import time

from . import report, wire
from .link import LOOPBACK_RP, RpLink, bound_socket, send_keepalive
from .wire import (ACTIONS, CEAL_NAMES, CIPHERS, CRYPTO_NO_ERR, KEEPALIVE_PORT, MACS,
                   NOTIFY_RP, PAL_NAMES, PAL_PORT, STATUS_NAMES, command_name, status_text)

AGENT_NAME = "ipsec_cpa"
EXIT_OK, EXIT_STATUS, EXIT_USAGE, EXIT_TIMEOUT, EXIT_MALFORMED, EXIT_SYSTEM = range(6)
PROTOCOLS = {"any": 0, "icmp": 1, "tcp": 6, "udp": 17, "gre": 47, "esp": 50, "ah": 51}
ACL_OPCODES = {"install": wire.ACL_INSTALL, "remove": wire.ACL_REMOVE, "replace": wire.ACL_REPLACE}


class Failure(Exception):
    """One line for stderr and the exit status that goes with it."""

    def __init__(self, code, message):
        super().__init__(message)
        self.code = code


def bad_argument(message):
    return Failure(EXIT_USAGE, message)


# ---- arguments --------------------------------------------------------------

def number(text):
    """A non-negative integer, decimal or 0x-prefixed hexadecimal."""
    try:
        value = int(text, 0)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a number: {text!r}") from None
    if value < 0:
        raise argparse.ArgumentTypeError(f"negative: {text!r}")
    return value


def ipv4(text):
    try:
        return int(ipaddress.IPv4Address(text))
    except ValueError:
        raise argparse.ArgumentTypeError(f"not an IPv4 address: {text!r}") from None


def prefix(text):
    """"A.B.C.D/len" (or a bare address, /32) as (address, prefix length)."""
    try:
        net = ipaddress.IPv4Interface(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not an IPv4 prefix: {text!r}") from None
    return int(net.ip), net.network.prefixlen


def protocol(text):
    return PROTOCOLS[text] if text in PROTOCOLS else number(text)


def choice_number(table, what):
    def parse(text):
        if text in table:
            return table[text]
        raise argparse.ArgumentTypeError(f"unknown {what} {text!r} (one of {', '.join(table)})")
    return parse


def status_value(text):
    """A status by name (CRYPTO_ or CRYPTO_ERR_ may be left out) or by number."""
    name = text.upper()
    for candidate in (name, "CRYPTO_" + name, "CRYPTO_ERR_" + name):
        if candidate in STATUS_NAMES:
            return STATUS_NAMES.index(candidate)
    return number(text)


def ace_spec(text):
    """"LOCAL/len:REMOTE/len[:PROTO[:LPORT[:RPORT]]]" as its selector fields."""
    parts = text.split(":")
    if not 2 <= len(parts) <= 5:
        raise argparse.ArgumentTypeError(f"ACE {text!r}: LOCAL/len:REMOTE/len[:PROTO[:LPORT[:RPORT]]]")
    parts += ["any", "0", "0"][len(parts) - 2:]
    ports = [0 if p in ("", "any") else number(p) for p in parts[3:]]
    return prefix(parts[0]), prefix(parts[1]), protocol(parts[2]), ports


def action_spec(text):
    """"discard", "forward", "notify:HANDLE", "encrypt:SA[:FVRF]" or "decrypt:SA[:IVRF[:TUNNEL]]"."""
    name, *values = text.split(":")
    if name not in ACTIONS:
        raise argparse.ArgumentTypeError(f"action {text!r}: one of {', '.join(ACTIONS)}")
    limits = {"discard": 0, "forward": 0, "notify": 1, "encrypt": 2, "decrypt": 3}
    if len(values) > limits[name] or (limits[name] and not values):
        raise argparse.ArgumentTypeError(f"action {text!r}: {action_spec.__doc__}")
    return wire.action(name, *(number(v) for v in values))


def hex_bytes(text):
    try:
        return bytes.fromhex(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not hexadecimal bytes: {text!r}") from None


def flow_spec(text):
    """"FLOW_ID[:in|:out]" (inbound by default)."""
    flow, _, direction = text.partition(":")
    if direction not in ("", "in", "out"):
        raise argparse.ArgumentTypeError(f"flow {text!r}: FLOW_ID[:in|:out]")
    return number(flow), direction != "out"


# ---- requests ---------------------------------------------------------------
# Each builder makes the request's datagram from the parsed arguments.

def req_init_start(a):
    return wire.init_start(a.callback, a.create, a.hint)


def sadb_handles(encoder):
    return lambda a: encoder(a.callback, a.sadb)


def req_attr_update(a):
    return wire.attr_update(a.callback, a.sadb, a.attribute, a.value)


def req_attach(a):
    return wire.intf_attach(a.callback, a.sadb, a.tunnel_id, a.v6)


def req_detach(a):
    return wire.intf_attach(a.callback, 0, a.tunnel_id, a.v6)


def req_peer_insert(a):
    return wire.peer_insert(a.callback, a.create, a.peer, a.sadb, a.idle_timer, a.idle_handle, a.dpd,
                            a.dpd_handle, a.translation, a.inside_port, a.outside_port)


def req_peer_delete(a):
    return wire.peer_delete(a.callback, a.sadb, a.peer)


def acl_request(opcode):
    def build(a):
        code = opcode if opcode is not None else a.opcode
        records = b"" if code == wire.ACL_REMOVE else wire.policy_records(
            a.ace, a.inbound, a.outbound, a.inbound_deny, a.outbound_deny, a.ace_handle, a.ace_kind)
        return wire.acl_modify(a.callback, a.sadb, code, records, a.ivrf, a.static_seq, a.dyn_seq)
    return build


def req_spi_insert(a):
    return wire.spi_insert(a.callback, a.sadb, a.spi, a.dest, a.src, a.decrypt, a.protocol, a.fvrf,
                           a.static_seq, a.dyn_seq, a.ace_index)


def req_spi_delete(a):
    return wire.spi_delete(a.callback, a.sadb, a.flow_id)


def req_cflow_insert(a):
    return wire.cflow_insert(a.callback, a.sadb, a.encrypt, a.create, a.ivrf, a.static_seq, a.dyn_seq,
                             a.ace_index)


def req_cflow_modify(a):
    return wire.cflow_modify(a.callback, a.sadb, a.encrypt, a.create, a.flow_handle)


def req_cflow_delete(a):
    return wire.cflow_delete(a.callback, a.sadb, a.flow_handle, a.entry, a.create)


def req_keys(a):
    info = wire.cipher_info(a.outbound, a.spi, a.src, a.dst, a.cipher, 8 * len(a.key), a.mac, a.ah_mac,
                            a.ah_spi, a.replay_window, a.tunnel_id, a.mode == "tunnel", a.peer_handle,
                            a.soft_life, a.hard_life)
    return wire.create_keys(a.callback, a.index, a.sa, info, a.key, a.mac_key, a.ah_key)


def req_delete_flow(a):
    return wire.delete_flow(a.callback, a.flow_id, a.stats_handle)


def req_stats_flow(a):
    return wire.flow_stats(a.callback, a.flows, a.final)


def req_stats_ivrf(api):
    return lambda a: wire.ivrf_stats(api, a.callback, a.ivrf, a.info_handle)


def req_raw(a):
    return wire.request({"pal": wire.MSG_PAL, "ceal": wire.MSG_CEAL}[a.kind], a.api, a.body)


def decode(data):
    """The answer as a dict, or Failure(EXIT_MALFORMED)."""
    try:
        return wire.decode(data)
    except wire.Malformed as e:
        raise malformed(str(e)) from None


def malformed(message):
    return Failure(EXIT_MALFORMED, f"malformed answer: {message}")


# ---- output -----------------------------------------------------------------

# The RP's own handles: shown in hexadecimal, as they were given.
OPAQUE_FIELDS = {"callback_handle", "peer_handle", "notify_handle", "handle", "final_flg",
                 "sadb_ivrf_info_hdle", "engine_handle"}


def render(answer):
    """Text lines of a decoded answer: the command and status, then its fields."""
    head = answer["command"]
    if "status" in answer:
        head += ": " + status_text(answer["status"])
    lines = [head]
    for name, value in answer.items():
        if name in ("message", "api", "command", "status", "counters", "flows"):
            continue
        lines.append(f"  {name:<22} {value:#010x}" if name in OPAQUE_FIELDS else f"  {name:<22} {value}")
    if "counters" in answer:
        lines += counter_table(["counter", "value"], answer["counters"], [answer["counters"]])
    if answer.get("flows"):
        titles = [f"flow {f['flow_id']} ({'in' if f['is_inbound'] else 'out'})" for f in answer["flows"]]
        lines += counter_table(["counter"] + titles, answer["flows"][0]["counters"],
                               [f["counters"] for f in answer["flows"]])
    if answer["message"] == "CEAL" and answer["api"] == 1 and not answer.get("flows"):
        lines.append("  (no flow statistics in the answer)")
    return lines


def counter_table(titles, names, columns):
    width = max(len(n) for n in list(names) + [titles[0]])
    cells = [[str(c[name]) for c in columns] for name in names]
    col = max([len(t) for t in titles[1:]] + [len(v) for row in cells for v in row])
    rows = [f"  {titles[0]:<{width}}" + "".join(f"  {t:>{col}}" for t in titles[1:])]
    rows += [f"  {name:<{width}}" + "".join(f"  {v:>{col}}" for v in row) for name, row in zip(names, cells)]
    return rows


def emit(answer, as_json):
    if as_json and "status" in answer:
        answer = {**answer, "status_name": STATUS_NAMES[answer["status"]]
                  if answer["status"] < len(STATUS_NAMES) else None}
    print(json.dumps(answer) if as_json else "\n".join(render(answer)), flush=True)


# ---- talking to the agent ---------------------------------------------------

def rp_link(opts):
    address = rp_address(opts)
    try:
        return RpLink(opts.agent, address)
    except OSError as e:
        raise Failure(EXIT_SYSTEM, f"cannot bind {address}:{PAL_PORT}: {e.strerror}") from None


def rp_address(opts):
    """--rp, else the address the kernel sends from towards the agent; for an agent
    on this host's loopback 127.0.0.2, so that the agent's own port stays reachable."""
    if opts.rp:
        return opts.rp
    try:
        if ipaddress.IPv4Address(opts.agent).is_loopback:
            return LOOPBACK_RP
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.connect((opts.agent, PAL_PORT))
            return probe.getsockname()[0]
    except (ValueError, OSError) as e:
        raise bad_argument(f"--agent {opts.agent}: {e}") from None


def send(what, destination):
    """Runs `what`, turning a failed send into a system error."""
    try:
        what()
    except OSError as e:
        address, port = destination
        raise Failure(EXIT_SYSTEM, f"cannot send to {address}:{port}: {e.strerror}") from None


def exchange(opts, request):
    """Sends one request from the RP's port and waits for its answer there."""
    message_type, _, api = struct.unpack(">HHH", request[:6])
    with rp_link(opts) as link:
        send(lambda: link.send(request), (opts.agent, PAL_PORT))
        deadline = time.monotonic() + opts.timeout
        while True:
            data = link.receive(max(0, deadline - time.monotonic()))
            if data is None:
                raise Failure(EXIT_TIMEOUT, f"no answer to {command_name(message_type, api)} "
                                            f"from {opts.agent} within {opts.timeout:g} s")
            answer = decode(data)
            if answer["message"] == "PAL" and answer["api"] == NOTIFY_RP:
                continue  # a notification, not the answer
            if answer["message"] != ("PAL", "CEAL")[message_type] or answer["api"] != api:
                raise malformed(f"{answer['command']} received in answer to api type {api}")
            return answer


def run_request(args):
    """Sends one request and prints its answer; Failure unless it has the expected status."""
    answer = exchange(args, args.build(args))
    emit(answer, args.json)
    if "status" in answer and answer["status"] != args.expect:
        raise Failure(EXIT_STATUS, f"{answer['command']} answered {status_text(answer['status'])}, "
                                   f"expected {status_text(args.expect)}")
    return answer


# ---- script -----------------------------------------------------------------

SCRIPT_VARIABLES = {"sadb": "sadbhandle", "peer": "peer_handle", "flow": "flow_id"}


def run_script(opts, parser):
    """One request per line, "COMMAND ARGS [=> STATUS]"; stops at the first mismatch.
    $sadb, $peer and $flow stand for the last such handle answered."""
    try:
        with open(opts.file) as f:
            lines = f.read().splitlines()
    except OSError as e:
        raise bad_argument(f"{opts.file}: {e.strerror}") from None
    known = {}
    for number_, line in enumerate(lines, 1):
        words = shlex.split(line, comments=True)
        if not words:
            continue
        where = f"{opts.file}:{number_}"
        command, expected = split_expectation(words, where)
        command = [re.sub(r"\$(\w+)", lambda m: substitute(m, known, where), w) for w in command]
        args = parse_line(parser, opts, command, where)
        if expected is not None:
            args.expect = expected
        if not hasattr(args, "build"):
            raise bad_argument(f"{where}: only requests belong in a script")
        try:
            answer = run_request(args)
        except Failure as failure:
            raise Failure(failure.code, f"{where}: {failure}") from None
        known.update({var: answer[field] for var, field in SCRIPT_VARIABLES.items() if field in answer})
    return EXIT_OK


def split_expectation(words, where):
    if "=>" not in words:
        return words, None
    at = words.index("=>")
    if at != len(words) - 2:
        raise bad_argument(f"{where}: one status after '=>'")
    try:
        return words[:at], status_value(words[-1])
    except argparse.ArgumentTypeError as e:
        raise bad_argument(f"{where}: {e}") from None


def substitute(match, known, where):
    name = match.group(1)
    if name not in known:
        raise bad_argument(f"{where}: ${name} is not known yet")
    return str(known[name])


def parse_line(parser, opts, words, where):
    try:
        return parser.parse_args(words, argparse.Namespace(**vars(opts)))
    except Failure as failure:
        raise bad_argument(f"{where}: {failure}") from None


# ---- watch ------------------------------------------------------------------

def watch(opts):
    """Prints notifications and keepalives as they come; answers each keepalive
    (and sends one first) so that the agent sees a live RP."""
    rp = rp_address(opts)
    to_agent = (opts.agent, KEEPALIVE_PORT)
    with rp_link(opts) as link, bound_socket(rp, KEEPALIVE_PORT, opts.agent) as ka:
        send(lambda: send_keepalive(opts.agent, sock=ka), to_agent)
        seen = 0
        deadline = time.monotonic() + opts.duration if opts.duration else None
        while opts.count is None or seen < opts.count:
            left = None if deadline is None else deadline - time.monotonic()
            if left is not None and left <= 0:
                break
            for s in select.select([link.sock, ka], [], [], left)[0]:
                data = s.recv(65536)
                if s is ka:
                    send(lambda: send_keepalive(opts.agent, sock=ka), to_agent)
                seen += 1
                report_arrival(data, s is ka, opts.json)
    return EXIT_OK


def report_arrival(data, on_keepalive_port, as_json):
    try:
        answer = wire.decode_keepalive(data) if on_keepalive_port else decode(data)
    except (Failure, wire.Malformed) as failure:
        text = str(failure) if isinstance(failure, Failure) else f"malformed answer: {failure}"
        answer = {"message": "MALFORMED", "error": text, "bytes": data.hex()}
    answer["time"] = round(time.time(), 3)
    if as_json:
        print(json.dumps(answer), flush=True)
    else:
        stamp = time.strftime("%H:%M:%S", time.localtime(answer.pop("time")))
        text = render(answer) if answer["message"] in ("PAL", "CEAL") else [
            " ".join(f"{k}={v}" for k, v in answer.items())]
        print("\n".join([f"{stamp} {text[0]}"] + text[1:]), flush=True)


# ---- counters ---------------------------------------------------------------

def agent_pid(opts):
    if opts.pid:
        return opts.pid
    pids = []
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{entry}/comm") as f:
                if f.read().strip() == AGENT_NAME:
                    pids.append(int(entry))
        except OSError:
            continue  # gone meanwhile
    if not pids:
        raise Failure(EXIT_SYSTEM, f"no running {AGENT_NAME} found")
    if len(pids) > 1:
        listed = ", ".join(map(str, sorted(pids)))
        raise bad_argument(f"{len(pids)} {AGENT_NAME} processes ({listed}): use --pid")
    return pids[0]


def counters(opts):
    """SIGUSR1 to the agent, then the report once the file is newer than the signal."""
    pid = agent_pid(opts)
    wake = (lambda: send(lambda: send_keepalive(opts.agent, rp_address(opts)), (opts.agent, KEEPALIVE_PORT))
            if opts.wake else None)
    try:
        text = report.fetch(pid, opts.timeout, wake)
    except OSError as e:
        raise Failure(EXIT_SYSTEM, f"cannot signal {AGENT_NAME} ({pid}): {e.strerror}") from None
    if text is None:
        raise Failure(EXIT_TIMEOUT, f"no new {report.REPORT} within {opts.timeout:g} s (the agent writes it "
                                    "at its next keepalive tick, once the RP's keepalives started)")
    if opts.json:
        print(json.dumps({"pid": pid, **report.parse(text)}))
    else:
        sys.stdout.write(text)
    return EXIT_OK


# ---- command line -----------------------------------------------------------

class Parser(argparse.ArgumentParser):
    """Argument errors become a Failure: one line, the usage exit status."""

    def error(self, message):
        raise bad_argument(message)


def common_options(parser, suppress):
    """Options taken before or after the command: the command's copies leave the
    value alone unless given."""
    default = (lambda value: argparse.SUPPRESS) if suppress else (lambda value: value)
    parser.add_argument("--agent", default=default("127.0.0.1"), help="the agent's address (127.0.0.1)")
    parser.add_argument("--rp", default=default(None),
                        help="this RP's address: answers come to it, port 23456 "
                             "(default: 127.0.0.2 for a loopback agent, else the routed source)")
    parser.add_argument("--timeout", type=float, default=default(2.0), help="seconds to wait (2)")
    parser.add_argument("--json", action="store_true", default=default(False),
                        help="one JSON object per answer")


COMMON = Parser(add_help=False)
common_options(COMMON, suppress=True)


def command_parser(sub, name, help_text):
    return sub.add_parser(name, help=help_text, description=help_text, parents=[COMMON])


def request_parser(sub, name, build, help_text):
    p = command_parser(sub, name, help_text)
    p.set_defaults(build=build, expect=CRYPTO_NO_ERR)
    p.add_argument("--callback", type=number, default=1, help="the request's callback handle (1)")
    p.add_argument("--expect", type=status_value, default=CRYPTO_NO_ERR,
                   help="status that counts as success (CRYPTO_NO_ERR)")
    return p


def add_sadb(p, required=True):
    p.add_argument("--sadb", type=number, required=required, default=0, help="SADB handle of the tunnel")


def add_seqnos(p):
    p.add_argument("--static-seq", type=number, default=0)
    p.add_argument("--dyn-seq", type=number, default=0)


def add_tunnel_requests(sub):
    p = request_parser(sub, "init-start", req_init_start, "SADB_INIT_START: open a tunnel")
    p.add_argument("--create", type=number, required=True, help="create handle")
    p.add_argument("--hint", type=number, default=0)
    sadb = sub.add_parser("sadb", help="SADB_INIT_COMPLETED, SADB_DELETE, SADB_ATTR_UPDATE")
    ops = sadb.add_subparsers(dest="op", required=True, parser_class=Parser)
    for name, cmd, encoder in (("complete", 2, wire.init_completed), ("delete", 3, wire.sadb_delete)):
        add_sadb(request_parser(ops, name, sadb_handles(encoder), PAL_NAMES[cmd]))
    p = request_parser(ops, "update", req_attr_update, "SADB_ATTR_UPDATE")
    add_sadb(p)
    p.add_argument("--attribute", type=number, default=0)
    p.add_argument("--value", type=number, default=0)
    p = request_parser(sub, "attach", req_attach, "SADB_INTF_ATTACH: create svti<TUNNEL_ID>")
    add_sadb(p)
    p.add_argument("--tunnel-id", type=number, required=True)
    p.add_argument("--v6", action="store_const", const=1, default=0)
    p = request_parser(sub, "detach", req_detach, "SADB_INTF_ATTACH with SADB handle 0: detach")
    p.add_argument("--tunnel-id", type=number, required=True)
    p.add_argument("--v6", action="store_const", const=1, default=0)


def add_peer_requests(sub):
    peer = sub.add_parser("peer", help="PEER_INSERT, PEER_DELETE")
    ops = peer.add_subparsers(dest="op", required=True, parser_class=Parser)
    p = request_parser(ops, "insert", req_peer_insert, "PEER_INSERT")
    add_sadb(p)
    p.add_argument("--peer", type=number, required=True, help="peer handle")
    p.add_argument("--create", type=number, default=1, help="create handle (1)")
    p.add_argument("--idle-timer", type=number, help="idle timer setting (turns the idle timer on)")
    p.add_argument("--idle-handle", type=number, default=0)
    p.add_argument("--dpd", type=number, help="DPD threshold (turns DPD on)")
    p.add_argument("--dpd-handle", type=number, default=0)
    p.add_argument("--translation", action="store_true", help="NAT translation")
    p.add_argument("--inside-port", type=number, default=0)
    p.add_argument("--outside-port", type=number, default=0)
    p = request_parser(ops, "delete", req_peer_delete, "PEER_DELETE")
    add_sadb(p)
    p.add_argument("--peer", type=number, required=True)


def add_acl_requests(sub):
    acl = sub.add_parser("acl", help="ACL_MODIFY: install, remove, replace (or any opcode)")
    ops = acl.add_subparsers(dest="op", required=True, parser_class=Parser)
    for name, opcode in list(ACL_OPCODES.items()) + [("opcode", None)]:
        p = request_parser(ops, name, acl_request(opcode), f"ACL_MODIFY, opcode {opcode or 'OPCODE'}")
        add_sadb(p)
        add_seqnos(p)
        if opcode is None:
            p.add_argument("opcode", type=number)
        p.add_argument("--ace", type=ace_spec, action="append", default=[],
                       help="LOCAL/len:REMOTE/len[:PROTO[:LPORT[:RPORT]]], repeated")
        p.add_argument("--ace-handle", type=number, default=1, help="handle of the first ACE (1)")
        p.add_argument("--ace-kind", type=number, default=2, help="record kind of the ACEs (2)")
        p.add_argument("--ivrf", type=number, default=0)
        for flag, dest, default in (("--in", "inbound", "forward"), ("--out", "outbound", "forward"),
                                    ("--in-deny", "inbound_deny", "discard"),
                                    ("--out-deny", "outbound_deny", "discard")):
            p.add_argument(flag, dest=dest, type=action_spec, default=action_spec(default),
                           help=f"packet action ({default})")


def add_sa_requests(sub):
    p = request_parser(sub, "spi-insert", req_spi_insert, "SPI_INSERT: an inbound SA")
    add_sadb(p)
    add_seqnos(p)
    p.add_argument("--spi", type=number, required=True)
    p.add_argument("--protocol", type=protocol, default=50)
    p.add_argument("--fvrf", type=number, default=0)
    p.add_argument("--dest", type=prefix, required=True, help="A.B.C.D[/len]")
    p.add_argument("--src", type=prefix, required=True, help="A.B.C.D[/len]")
    p.add_argument("--ace-index", type=number, default=0)
    p.add_argument("--decrypt", type=action_spec, required=True, help="decrypt:SA[:IVRF[:TUNNEL]]")
    p = request_parser(sub, "spi-delete", req_spi_delete, "SPI_DELETE")
    add_sadb(p)
    p.add_argument("--flow-id", type=number, default=0)
    p = request_parser(sub, "cflow-insert", req_cflow_insert, "CFLOW_INSERT: an outbound SA")
    add_sadb(p)
    add_seqnos(p)
    p.add_argument("--create", type=number, default=0)
    p.add_argument("--ace-index", type=number, default=0)
    p.add_argument("--ivrf", type=number, default=0)
    p.add_argument("--encrypt", type=action_spec, required=True, help="encrypt:SA[:FVRF]")
    p = request_parser(sub, "cflow-modify", req_cflow_modify, "CFLOW_MODIFY: a replacement SA")
    add_sadb(p)
    p.add_argument("--create", type=number, default=0)
    p.add_argument("--flow-handle", type=number, default=0)
    p.add_argument("--encrypt", type=action_spec, required=True, help="encrypt:SA[:FVRF]")
    p = request_parser(sub, "cflow-delete", req_cflow_delete, "CFLOW_DELETE")
    add_sadb(p)
    p.add_argument("--flow-handle", type=number, default=0)
    p.add_argument("--entry", type=number, default=0)
    p.add_argument("--create", type=number, default=0)


def add_ceal_requests(sub):
    p = request_parser(sub, "keys", req_keys, "CREATE_KEY_BY_KEYS: the keys of one SA")
    p.add_argument("--index", type=number, required=True, help="CEAL flow id (ipsec_index)")
    p.add_argument("--sa", type=number, required=True, help="SA handle its SPI/flow insert names")
    p.add_argument("--outbound", action="store_true", help="an encrypting SA (default: decrypting)")
    p.add_argument("--spi", type=number, default=0, help="ESP SPI")
    p.add_argument("--cipher", type=choice_number(CIPHERS, "cipher"), default=0, help="/".join(CIPHERS))
    p.add_argument("--key", type=hex_bytes, default=b"", help="ESP cipher key, hex")
    p.add_argument("--mac", type=choice_number(MACS, "MAC"), default=0, help="/".join(MACS))
    p.add_argument("--mac-key", type=hex_bytes, default=b"", help="ESP MAC key, hex")
    p.add_argument("--ah-mac", type=choice_number(MACS, "MAC"), default=0, help="AH MAC (turns AH on)")
    p.add_argument("--ah-key", type=hex_bytes, default=b"")
    p.add_argument("--ah-spi", type=number, default=0)
    p.add_argument("--src", type=ipv4, default=0, help="tunnel source")
    p.add_argument("--dst", type=ipv4, default=0, help="tunnel destination")
    p.add_argument("--mode", choices=("transport", "tunnel"), default="transport")
    p.add_argument("--tunnel-id", type=number, default=0)
    p.add_argument("--replay-window", type=number, default=64, help="0xFFFFFFFF turns it off")
    p.add_argument("--soft-life", type=number, default=0, help="seconds")
    p.add_argument("--hard-life", type=number, default=0, help="seconds")
    p.add_argument("--peer-handle", type=number, default=0)
    p = request_parser(sub, "delete-flow", req_delete_flow, "DELETE_FLOW: the SAs of a CEAL flow")
    p.add_argument("--flow-id", type=number, required=True)
    p.add_argument("--stats-handle", type=number, default=0)
    stats = sub.add_parser("stats", help="FLOW_STATS, IVRF_SADB_STATS, IVRF_GLOBAL_STATS")
    ops = stats.add_subparsers(dest="op", required=True, parser_class=Parser)
    p = request_parser(ops, "flow", req_stats_flow, "FLOW_STATS of flows FLOW_ID[:in|:out]")
    p.add_argument("flows", type=flow_spec, nargs="+")
    p.add_argument("--final", type=number, default=0, help="final_flg, echoed")
    for name, api, handle in (("sadb", 2, "--info-handle"), ("global", 3, "--engine-handle")):
        p = request_parser(ops, name, req_stats_ivrf(api), CEAL_NAMES[api])
        p.add_argument("--ivrf", type=number, default=0)
        p.add_argument(handle, dest="info_handle", type=number, default=0)


def build_parser():
    parser = Parser(prog="cpa-rp", description="The RP's side of ipsec_cpa on the command line.")
    common_options(parser, suppress=False)
    sub = parser.add_subparsers(dest="command", required=True, parser_class=Parser)
    add_tunnel_requests(sub)
    add_peer_requests(sub)
    add_acl_requests(sub)
    add_sa_requests(sub)
    add_ceal_requests(sub)
    p = request_parser(sub, "raw", req_raw, "any PAL or CEAL request: API type and body bytes")
    p.add_argument("kind", choices=("pal", "ceal"))
    p.add_argument("api", type=number)
    p.add_argument("body", type=hex_bytes, nargs="?", default=b"", help="body from offset 6, hex")
    p = command_parser(sub, "script", "one request per line: COMMAND ARGS [=> STATUS]")
    p.add_argument("file")
    p = command_parser(sub, "watch", "print notifications and keepalives; answer keepalives")
    p.add_argument("--count", type=number, help="stop after this many messages")
    p.add_argument("--duration", type=float, help="stop after this many seconds")
    p = command_parser(sub, "counters", "SIGUSR1 to the agent, then print its fresh counter report")
    p.add_argument("--pid", type=number, help=f"the agent's pid (default: the one {AGENT_NAME})")
    p.add_argument("--wake", action="store_true",
                   help="send a keepalive first: the report waits for the keepalive timers")
    return parser


def main(argv):
    parser = build_parser()
    try:
        opts = parser.parse_args(argv)
        if opts.command == "script":
            return run_script(opts, parser)
        if opts.command == "watch":
            return watch(opts)
        if opts.command == "counters":
            return counters(opts)
        run_request(opts)
        return EXIT_OK
    except struct.error as e:  # a number too wide for its field
        print(f"cpa-rp: value out of range: {e}", file=sys.stderr)
        return EXIT_USAGE
    except Failure as failure:
        print(f"cpa-rp: {failure}", file=sys.stderr)
        return failure.code
    except KeyboardInterrupt:
        return EXIT_OK
