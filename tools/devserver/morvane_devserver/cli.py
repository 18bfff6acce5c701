"""Command line, start and orderly stop of the development device server."""

import argparse
import ipaddress
import json
import os
import shutil
import signal
import ssl
import sys
import tempfile
import threading

from . import faults as faultlib
from .account import Account
from .policy import PolicyError, validate
from .recorder import Recorder
from .resolver import DEFAULT_BLOCK_LIST, DEFAULT_BLOCK_PAGE, FilteringResolver, Filter
from .server import HOST, ControlServer, DeviceServer, State, log, make_certificate

DEMO_INSTALL_KEY = "demo-install-key"

DESCRIPTION = """\
A development device server for the MorvaneCloud agent: the two JSON-RPC 2.0 exchanges,
"account_add_device" on /api/register and "device_configure" on /api/device, over HTTPS on
127.0.0.1 with a self-signed certificate, for one in-memory account. A second, plain-HTTP
port on 127.0.0.1 (the control interface) lets tests read what was received and make the
device port fail on purpose.
"""

EPILOG = f"""\
once listening, the first line on standard output is
  LISTENING 127.0.0.1 <port> <control port> <certificate path>
and everything else goes to standard error.

account:
  An install key enrols any number of devices; each enrolment issues a new device key.
  Without --install-key the account has the single key "{DEMO_INSTALL_KEY}".
  An unknown install key or device key is refused with the JSON-RPC error "Unauthorized"
  (code {faultlib.UNAUTHORIZED_CODE}). A device that asks for a location by name gets that
  location first in its list.

policy:
  A policy is the "result" of a device_configure answer: "filters", "cfg" (with
  "persistent" and "runtime": "locations", "user", "tarn", "reconfigure") and optionally
  "actions". --policy (or POST /policy without "device") sets the template that each new
  device gets a copy of; where the template leaves out cfg.persistent.key or
  cfg.runtime.user, a per-device value is made. A policy is checked as the agent decodes
  it; a bad one is refused with the key named.

faults (--fault, or POST /faults on the control port):
  error        a JSON-RPC error; code (default -32603), message (default "Internal error")
  unauthorized the JSON-RPC error "Unauthorized"; code (default {faultlib.UNAUTHORIZED_CODE})
  empty        a reply with no body; status (default 200)
  undecodable  a body that does not decode; body (default an HTML page), status (default 200)
  status500    status 500 with the body a good reply would have had
  stall        holds the connection, answering nothing, for seconds (required), then
               answers as usual; the wait ends early, with no answer, when the server stops
  drop         closes the connection without a reply
  Each takes method (account_add_device or device_configure; both when left out) and count
  (the next N matching requests; until cleared when left out). The first pending fault
  that matches a request is played, so faults queue in the order they were added.
  Only status500 and stall change the account (they enrol or configure as usual).
  Command-line form: MODE[,NAME=VALUE...], e.g. stall,seconds=90,method=device_configure,
  or a JSON object.

control interface (plain HTTP, JSON bodies, 127.0.0.1:<control port>):
  GET  /status                    ports, URL and certificate path
  GET  /requests[?since=SEQ]      the recorded requests, oldest first
  POST /requests/clear            forget them (sequence numbers go on)
  GET  /faults                    pending faults with their remaining counts
  POST /faults                    add a fault object, or a list of them
  POST /faults/clear              remove all pending faults
  GET  /account                   install keys, devices with their policies, template
  POST /keys, POST /keys/remove   {{"install_keys": [...], "device_keys": [...]}}
  POST /policy                    {{"policy": {{...}}, "device": KEY}}; without "device",
                                  the template for devices enrolled later
  A refused control request gets a 4xx status and {{"error": TEXT}}.

records (GET /requests and --record-file, one JSON object per line):
  seq, time, method, path, headers (as received; repeated ones joined with ", "),
  body (UTF-8 text), json (the parsed body or null), rpc_method, fault (the mode played
  or null). Every request to the device port is recorded, whatever its path.
"""


def _parser():
    parser = argparse.ArgumentParser(
        prog="devserver",
        description=DESCRIPTION,
        epilog=EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--port", type=int, default=8443,
                        help="device port (default 8443, the agent's default; 0 for a free one)")
    parser.add_argument("--control-port", type=int, default=0,
                        help="control port (default 0, a free one)")
    parser.add_argument("--port-file", metavar="FILE",
                        help='write "<port> <control port>" to FILE once listening')
    parser.add_argument("--work-dir", metavar="DIR",
                        help="where the certificate is made, kept at exit "
                             "(default: a temporary folder, removed at exit)")
    parser.add_argument("--cert", metavar="PEM", help="use this certificate instead of making one")
    parser.add_argument("--key", metavar="PEM", help="the private key of --cert")
    parser.add_argument("--install-key", action="append", default=[], metavar="KEY",
                        help=f'an install key of the account (repeatable; default "{DEMO_INSTALL_KEY}")')
    parser.add_argument("--device-key", action="append", default=[], metavar="KEY",
                        help="a device key the account already knows (repeatable)")
    parser.add_argument("--policy", metavar="FILE", help="JSON file with the policy template")
    parser.add_argument("--fault", action="append", default=[], metavar="SPEC",
                        help="a fault pending from the start (repeatable; see below)")
    parser.add_argument("--record-file", metavar="FILE",
                        help="also append every request to FILE as a JSON line")
    parser.add_argument("--dns-port", type=int, default=0,
                        help="port of the filtering resolver (default 0, a free one; 53 where "
                             "the resolver library must reach it, e.g. in a network namespace)")
    parser.add_argument("--dns-address", default=HOST, metavar="ADDR",
                        help=f"address of the filtering resolver (default {HOST})")
    parser.add_argument("--no-dns", action="store_true", help="do not start the filtering resolver")
    parser.add_argument("--dns-block", action="append", default=None, metavar="NAME",
                        help="a name the resolver blocks, with the names below it, for devices "
                             f"of the account (repeatable; default {DEFAULT_BLOCK_LIST[0]})")
    parser.add_argument("--dns-block-page", default=DEFAULT_BLOCK_PAGE, metavar="ADDR",
                        help=f"the block page's IPv4 address (default {DEFAULT_BLOCK_PAGE})")
    parser.add_argument("--dns-answer", action="append", default=[], metavar="NAME=ADDR",
                        help="a fixed A answer for anyone (repeatable); other names get NXDOMAIN")
    parser.add_argument("--watch-stdin", action="store_true",
                        help="stop when standard input reaches its end, so that a parent "
                             "which dies, however it dies, takes the server with it")
    return parser


def _refuse(text):
    """Bad input at start: the reason, and the status argparse gives a bad option."""
    log(text)
    sys.exit(2)


def _load_policy(path):
    try:
        with open(path, encoding="utf-8") as file:
            policy = json.load(file)
    except OSError as problem:
        _refuse(f"cannot read the policy file: {problem}")
    except ValueError as problem:
        _refuse(f"the policy file {path} is not JSON: {problem}")
    try:
        validate(policy)
    except PolicyError as problem:
        _refuse(f"the policy file {path} is refused: {problem}")
    return policy


def _write_port_file(path, port, control_port):
    # Renamed into place, so that a reader polling for the file never sees half of it.
    temporary = f"{path}.{os.getpid()}.tmp"
    with open(temporary, "w", encoding="utf-8") as file:
        file.write(f"{port} {control_port}\n")
    os.replace(temporary, path)


def main(argv=None):
    parser = _parser()
    args = parser.parse_args(argv)
    if (args.cert is None) != (args.key is None):
        parser.error("--cert and --key go together")
    for name in ("port", "control_port"):
        if not 0 <= getattr(args, name) <= 65535:
            parser.error(f"--{name.replace('_', '-')} must be from 0 to 65535")
    try:
        pending = [faultlib.parse_option(text) for text in args.fault]
    except faultlib.FaultError as problem:
        parser.error(f"--fault: {problem}")
    template = _load_policy(args.policy) if args.policy else None
    if not 0 <= args.dns_port <= 65535:
        parser.error("--dns-port must be from 0 to 65535")
    answers = {}
    for text in args.dns_answer:
        name, _, address = text.partition("=")
        if not name or not _is_ipv4(address):
            parser.error(f"--dns-answer: expected NAME=IPv4 address, got {text!r}")
        answers[name] = address
    if not _is_ipv4(args.dns_block_page):
        parser.error("--dns-block-page must be an IPv4 address")

    account = Account(args.install_key or [DEMO_INSTALL_KEY], args.device_key, template)
    try:
        recorder = Recorder(args.record_file)
    except OSError as problem:
        _refuse(f"cannot open the record file: {problem}")
    state = State(account, faultlib.FaultBook(pending), recorder)

    temporary = None
    servers = []
    try:
        if args.cert:
            cert, key = args.cert, args.key
        else:
            if args.work_dir:
                os.makedirs(args.work_dir, exist_ok=True)
                folder = args.work_dir
            else:
                folder = temporary = tempfile.mkdtemp(prefix="morvane-devserver-")
            cert, key = make_certificate(folder)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(cert, key)
        state.certificate = os.path.abspath(cert)

        device = _listen("device", args.port, lambda: DeviceServer(args.port, context, state))
        control = _listen("control", args.control_port, lambda: ControlServer(args.control_port, state))
        state.port = device.server_address[1]
        state.control_port = control.server_address[1]
        listeners = [device, control]
        if not args.no_dns:
            state.dns = Filter(account, args.dns_block or DEFAULT_BLOCK_LIST,
                               args.dns_block_page, answers)
            resolver = _listen("resolver", args.dns_port,
                               lambda: FilteringResolver(args.dns_address, args.dns_port, state.dns))
            state.dns_address = args.dns_address
            state.dns_port = resolver.server_address[1]
            listeners.append(resolver)
        for server in listeners:
            # shutdown() waits for serve_forever, so only servers that run are listed
            threading.Thread(target=server.serve_forever, args=(0.1,), daemon=True).start()
            servers.append(server)

        if args.port_file:
            _write_port_file(args.port_file, state.port, state.control_port)
        print(f"LISTENING {HOST} {state.port} {state.control_port} {state.certificate}", flush=True)
        log(f"device server on https://{HOST}:{state.port} (certificate {state.certificate})")
        log(f"control interface on http://{HOST}:{state.control_port}")
        if state.dns:
            log(f"filtering resolver on {state.dns_address} port {state.dns_port} (UDP)")
        log(f"install keys: {', '.join(account.snapshot()['install_keys'])}")

        for signum in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            signal.signal(signum, lambda *_: state.stopping.set())
        if args.watch_stdin:
            threading.Thread(target=_watch_stdin, args=(state.stopping,), daemon=True).start()
        while not state.stopping.wait(0.5):
            pass
        log("stopping")
        return 0
    except (OSError, RuntimeError, ssl.SSLError) as problem:
        log(str(problem))
        return 1
    finally:
        state.stopping.set()
        for server in servers:
            server.shutdown()
            server.server_close()
        recorder.close()
        if temporary:
            shutil.rmtree(temporary, ignore_errors=True)


def _is_ipv4(text):
    try:
        ipaddress.IPv4Address(text)
        return True
    except ValueError:
        return False


def _listen(role, port, make):
    try:
        return make()
    except OSError as problem:
        text = f"cannot listen on {HOST}:{port} for the {role} port: {problem.strerror}"
        raise RuntimeError(text) from None


def _watch_stdin(stopping):
    # The file descriptor, not sys.stdin: a daemon thread blocked inside a buffered reader
    # holds its lock, and the interpreter aborts when it meets that lock on its way out.
    try:
        while os.read(sys.stdin.fileno(), 4096):
            pass
    except OSError:
        pass
    stopping.set()
