"""The two listeners: the device port (HTTPS, what the agent talks to) and the control port
(plain HTTP on loopback, what tests and people use to steer the device port)."""

import http.server
import json
import os
import socketserver
import ssl
import subprocess
import sys
import threading
import urllib.parse

from . import rpc
from .faults import FaultError, make_fault
from .policy import PolicyError

HOST = "127.0.0.1"
# How long a connection may sit idle, or a TLS handshake take, before its thread gives
# up; a stall fault is not bounded by it, since it writes nothing and reads nothing.
IO_TIMEOUT = 120
MAX_BODY = 16 * 1024 * 1024


def log(text):
    # One unbuffered write per line: lines of concurrent requests never mix, and a daemon
    # thread logging while the interpreter exits holds no lock of sys.stderr.
    os.write(sys.stderr.fileno(), f"devserver: {text}\n".encode())


class State:
    def __init__(self, account, faults, recorder):
        self.account = account
        self.faults = faults
        self.recorder = recorder
        # Set when the server stops, so that stalled requests let go of their threads.
        self.stopping = threading.Event()
        self.port = None
        self.control_port = None
        self.certificate = None
        # The filtering resolver's rules and its record of queries; none when it is off.
        self.dns = None
        self.dns_address = None
        self.dns_port = None


def make_certificate(folder):
    """A fresh self-signed certificate for 127.0.0.1 and localhost. The agent must refuse it
    unless told to accept any certificate, which is the point of having one of our own."""
    cert = os.path.join(folder, "cert.pem")
    key = os.path.join(folder, "key.pem")
    command = [
        "openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
        "-nodes", "-days", "30", "-subj", "/O=MorvaneCloud development/CN=127.0.0.1",
        "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost",
        "-keyout", key, "-out", cert,
    ]
    try:
        done = subprocess.run(command, capture_output=True, text=True, timeout=60)
    except FileNotFoundError:
        raise RuntimeError("the openssl command is not installed (Debian package openssl)") from None
    except subprocess.TimeoutExpired:
        raise RuntimeError("openssl took more than a minute to make a certificate") from None
    if done.returncode != 0:
        raise RuntimeError(f"openssl could not make a certificate: {done.stderr.strip()}")
    return cert, key


class _BadRequest(Exception):
    def __init__(self, status, text):
        super().__init__(text)
        self.status = status


class DeviceHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "MorvaneDevServer/1.0"
    timeout = IO_TIMEOUT

    def log_message(self, format, *args):
        log("device " + (format % args))

    def do_POST(self):
        state = self.server.state
        try:
            body = self._read_body()
        except _BadRequest as problem:
            state.recorder.add(self.command, self.path, self._headers(), b"", None)
            self._send(problem.status, str(problem).encode(), "text/plain; charset=utf-8")
            self.close_connection = True
            return
        method = rpc.method_for_path(self.path)
        fault = state.faults.take(method)
        state.recorder.add(self.command, self.path, self._headers(), body, fault and fault["mode"])
        if method is None:
            self._send(404, b"Not Found\n", "text/plain; charset=utf-8")
        elif fault is None:
            self._send_json(200, rpc.answer(method, body, state.account))
        else:
            log(f"playing the {fault['mode']} fault on {method}")
            self._play(fault, method, body)

    def _other(self):
        # Only POST is an exchange; anything else is recorded and turned away.
        self.server.state.recorder.add(self.command, self.path, self._headers(), b"", None)
        if rpc.method_for_path(self.path) is None:
            self._send(404, b"Not Found\n", "text/plain; charset=utf-8")
        else:
            self._send(405, b"Method Not Allowed\n", "text/plain; charset=utf-8", {"Allow": "POST"})

    do_GET = do_PUT = do_DELETE = do_PATCH = do_HEAD = _other

    def _play(self, fault, method, body):
        state = self.server.state
        mode = fault["mode"]
        try:
            request = json.loads(body.decode("utf-8"))
        except (UnicodeDecodeError, ValueError):
            request = None
        if mode == "error":
            self._send_json(200, rpc.reply(request, error=rpc.error(fault["code"], fault["message"])))
        elif mode == "unauthorized":
            self._send_json(200, rpc.reply(request, error=rpc.unauthorized(fault["code"])))
        elif mode == "empty":
            self._send(fault["status"], b"", "application/json")
        elif mode == "undecodable":
            kind = "application/json" if fault["body"].lstrip().startswith(("{", "[")) else "text/html"
            self._send(fault["status"], fault["body"].encode(), kind + "; charset=utf-8")
        elif mode == "status500":
            self._send_json(500, rpc.answer(method, body, state.account))
        elif mode == "stall":
            if state.stopping.wait(fault["seconds"]):
                self.close_connection = True
            else:
                self._send_json(200, rpc.answer(method, body, state.account))
        elif mode == "drop":
            self.close_connection = True

    def _headers(self):
        headers = {}
        for name, value in self.headers.items():
            headers[name] = f"{headers[name]}, {value}" if name in headers else value
        return headers

    def _read_body(self):
        if "chunked" in self.headers.get("Transfer-Encoding", "").lower():
            return self._read_chunks()
        length = self.headers.get("Content-Length", "0")
        if not length.strip().isdigit():
            raise _BadRequest(400, "Bad Content-Length\n")
        length = int(length)
        if length > MAX_BODY:
            raise _BadRequest(413, "Body too large\n")
        body = self.rfile.read(length)
        if len(body) != length:
            raise _BadRequest(400, "Body shorter than its Content-Length\n")
        return body

    def _read_chunks(self):
        body = b""
        while True:
            line = self.rfile.readline(1024).split(b";", 1)[0].strip()
            try:
                size = int(line, 16)
            except ValueError:
                raise _BadRequest(400, "Bad chunk size\n") from None
            if size == 0:
                while self.rfile.readline(1024).strip():
                    pass  # trailers
                return body
            if len(body) + size > MAX_BODY:
                raise _BadRequest(413, "Body too large\n")
            body += self.rfile.read(size)
            self.rfile.readline(1024)

    def _send_json(self, status, message):
        self._send(status, json.dumps(message).encode(), "application/json; charset=utf-8")

    def _send(self, status, body, content_type, extra=None):
        try:
            self.send_response(status)
            self.send_header("Content-Type", content_type)
            self.send_header("Content-Length", str(len(body)))
            for name, value in (extra or {}).items():
                self.send_header(name, value)
            self.end_headers()
            if self.command != "HEAD":
                self.wfile.write(body)
        except OSError:
            # The agent may have given up already, after its own time-out.
            self.close_connection = True


class DeviceServer(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True

    def __init__(self, port, ssl_context, state):
        self.ssl_context = ssl_context
        self.state = state
        super().__init__((HOST, port), DeviceHandler)

    def finish_request(self, request, client_address):
        # The handshake runs here, on the connection's own thread, so that a client that
        # connects and says nothing holds up only itself.
        request.settimeout(IO_TIMEOUT)
        try:
            connection = self.ssl_context.wrap_socket(request, server_side=True)
        except (ssl.SSLError, OSError) as problem:
            # Expected whenever a client checks certificates and refuses ours.
            log(f"TLS handshake with port {client_address[1]} failed: {problem}")
            return
        try:
            self.RequestHandlerClass(connection, client_address, self)
        except (ssl.SSLError, OSError):
            pass
        finally:
            connection.close()


class ControlHandler(http.server.BaseHTTPRequestHandler):
    """Plain HTTP/1.0 with JSON bodies: one request per connection keeps clients trivial."""

    server_version = "MorvaneDevServerControl/1.0"
    timeout = IO_TIMEOUT

    def log_message(self, format, *args):
        log("control " + (format % args))

    def do_GET(self):
        self._route("GET")

    def do_POST(self):
        self._route("POST")

    def _route(self, verb):
        state = self.server.state
        url = urllib.parse.urlsplit(self.path)
        query = urllib.parse.parse_qs(url.query)
        route = (verb, url.path.rstrip("/") or "/")
        try:
            body = self._json_body() if verb == "POST" else None
            if route == ("GET", "/status"):
                self._reply(200, {
                    "host": HOST,
                    "port": state.port,
                    "control_port": state.control_port,
                    "url": f"https://{HOST}:{state.port}",
                    "certificate": state.certificate,
                    "dns_address": state.dns_address,
                    "dns_port": state.dns_port,
                })
            elif route == ("GET", "/dns/queries"):
                self._reply(200, state.dns.queries() if state.dns else [])
            elif route == ("POST", "/dns/queries/clear"):
                self._reply(200, {"cleared": state.dns.clear() if state.dns else 0})
            elif route == ("GET", "/requests"):
                since = query.get("since", ["0"])[0]
                if not since.isdigit():
                    raise _BadRequest(400, "since: must be a sequence number")
                self._reply(200, state.recorder.since(int(since)))
            elif route == ("POST", "/requests/clear"):
                self._reply(200, {"cleared": state.recorder.clear()})
            elif route == ("GET", "/faults"):
                self._reply(200, state.faults.pending())
            elif route == ("POST", "/faults"):
                descriptions = body if isinstance(body, list) else [body]
                made = [make_fault(description) for description in descriptions]
                for fault in made:
                    state.faults.add(fault)
                self._reply(200, state.faults.pending())
            elif route == ("POST", "/faults/clear"):
                self._reply(200, {"cleared": state.faults.clear()})
            elif route == ("GET", "/account"):
                self._reply(200, state.account.snapshot())
            elif route in (("POST", "/keys"), ("POST", "/keys/remove")):
                install, device = self._keys(body)
                if route[1] == "/keys":
                    state.account.add_keys(install, device)
                else:
                    state.account.remove_keys(install, device)
                snapshot = state.account.snapshot()
                self._reply(200, {
                    "install_keys": snapshot["install_keys"],
                    "device_keys": list(snapshot["devices"]),
                })
            elif route == ("POST", "/policy"):
                self._set_policy(body)
            else:
                raise _BadRequest(404, f"no {verb} {url.path} here; see devserver --help")
        except _BadRequest as problem:
            self._reply(problem.status, {"error": str(problem)})
        except (FaultError, PolicyError) as problem:
            self._reply(400, {"error": str(problem)})

    def _set_policy(self, body):
        if not isinstance(body, dict) or "policy" not in body:
            raise _BadRequest(400, 'expected {"policy": {...}} with an optional "device" key')
        device = body.get("device")
        if device is not None and not isinstance(device, str):
            raise _BadRequest(400, "device: must be a device key")
        if not self.server.state.account.set_policy(body["policy"], device):
            raise _BadRequest(404, f"device: no device has the key {device}")
        self._reply(200, {"device": device, "policy": body["policy"]})

    @staticmethod
    def _keys(body):
        if not isinstance(body, dict):
            raise _BadRequest(400, 'expected {"install_keys": [...], "device_keys": [...]}')
        lists = []
        for name in ("install_keys", "device_keys"):
            keys = body.get(name, [])
            if not isinstance(keys, list) or not all(isinstance(k, str) and k for k in keys):
                raise _BadRequest(400, f"{name}: must be a list of non-empty strings")
            lists.append(keys)
        unknown = set(body) - {"install_keys", "device_keys"}
        if unknown:
            raise _BadRequest(400, f"{sorted(unknown)[0]}: unknown key")
        return lists

    def _json_body(self):
        length = self.headers.get("Content-Length", "0")
        if not length.isdigit() or int(length) > MAX_BODY:
            raise _BadRequest(400, "Content-Length: missing or too large")
        text = self.rfile.read(int(length))
        if not text.strip():
            return None
        try:
            return json.loads(text)
        except ValueError as problem:
            raise _BadRequest(400, f"body is not JSON: {problem}") from None

    def _reply(self, status, message):
        body = (json.dumps(message, indent=1) + "\n").encode()
        self.send_response(status)
        self.send_header("Content-Type", "application/json; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)


class ControlServer(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True

    def __init__(self, port, state):
        self.state = state
        super().__init__((HOST, port), ControlHandler)
