"""Tests of the development device server, run as a real process over real HTTPS."""

import http.client
import json
import os
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPT = os.path.join(HERE, "devserver")
sys.path.insert(0, HERE)

from morvane_devserver import faults as faultlib  # noqa: E402
from morvane_devserver.policy import default_policy  # noqa: E402

INSTALL_KEY = "ik-test"


def enrolment(key=INSTALL_KEY, name="alice@laptop.local", ident=417):
    return {"jsonrpc": "2.0", "id": ident, "method": "account_add_device",
            "params": {"key": key, "name": name, "type": "Tarn", "version": "2.0.3"}}


def configuration(device_key, location=None):
    where = {"randomize": True} if location is None else {"name": location, "randomize": False}
    return {"jsonrpc": "2.0", "method": "device_configure",
            "params": {"device": {"key": device_key, "version": "2.0.3"}, "location": where,
                       "user": {"email": "alice@example.com", "name": "Alice"},
                       "extra": {"nics": [], "os": {"type": "Linux", "version": "6.1"}}}}


class Server:
    """One devserver process with its own folder; stopped by closing its standard input."""

    def __init__(self, *args, work_dir=True):
        self.dir = tempfile.TemporaryDirectory(prefix="devserver-test-")
        self.log_path = os.path.join(self.dir.name, "stderr.log")
        command = [sys.executable, SCRIPT, "--port", "0", "--watch-stdin", *args]
        if work_dir:
            command += ["--work-dir", self.dir.name]
        with open(self.log_path, "wb") as log:
            self.process = subprocess.Popen(
                command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log)
        line = self.process.stdout.readline().decode()
        if not line.startswith("LISTENING "):
            self.process.wait(10)
            raise AssertionError(f"devserver did not start: {self.log()}")
        _, _, port, control, self.cert = line.rstrip("\n").split(" ", 4)
        self.port, self.control_port = int(port), int(control)
        self.context = ssl.create_default_context(cafile=self.cert)

    def log(self):
        with open(self.log_path, encoding="utf-8") as file:
            return file.read()

    def stop(self):
        self.process.stdin.close()
        self.process.wait(10)
        self.process.stdout.close()
        self.dir.cleanup()

    def post(self, path, body, timeout=10, host="127.0.0.1", **kwargs):
        connection = http.client.HTTPSConnection(host, self.port, context=self.context, timeout=timeout)
        try:
            data = body if isinstance(body, bytes) else json.dumps(body).encode()
            headers = {"Content-Type": "application/json-rpc", "Accept": "application/json; charset=utf-8"}
            connection.request("POST", path, data, headers, **kwargs)
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            connection.close()

    def call(self, path, message, **kwargs):
        status, body = self.post(path, message, **kwargs)
        return status, json.loads(body)

    def enrol(self, **kwargs):
        return self.call("/api/register", enrolment(**kwargs))[1]["result"]["device"]

    def control(self, verb, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.control_port, timeout=10)
        try:
            connection.request(verb, path, None if body is None else json.dumps(body))
            response = connection.getresponse()
            return response.status, json.loads(response.read())
        finally:
            connection.close()


class ServerTestCase(unittest.TestCase):
    args = ("--install-key", INSTALL_KEY)

    def setUp(self):
        self.server = Server(*self.args)
        self.addCleanup(self.server.stop)


class ExchangeTests(ServerTestCase):
    def test_enrolment_then_configuration(self):
        status, reply = self.server.call("/api/register", enrolment(ident=417))
        self.assertEqual(status, 200)
        self.assertEqual(reply["jsonrpc"], "2.0")
        self.assertEqual(reply["id"], 417)
        self.assertEqual(reply["result"]["name"], "alice@laptop.local")
        self.assertEqual(reply["result"]["type"], "Tarn")
        first = reply["result"]["device"]
        second = self.server.enrol(name="bob")
        self.assertNotEqual(first, second)

        status, reply = self.server.call("/api/device", configuration(first))
        self.assertEqual(status, 200)
        self.assertNotIn("id", reply)  # the request had none
        self.assertNotIn("error", reply)
        result = reply["result"]
        self.assertEqual(result["filters"], default_policy()["filters"])
        self.assertNotIn("actions", result)
        runtime = result["cfg"]["runtime"]
        self.assertEqual([loc["name"] for loc in runtime["locations"]], ["Head office", "Roaming"])
        self.assertTrue(runtime["user"])
        self.assertIn("log_level", runtime["tarn"])
        # Each device has its own user and persistent key, stable across configurations.
        other = self.server.call("/api/device", configuration(second))[1]["result"]
        self.assertNotEqual(other["cfg"]["runtime"]["user"], runtime["user"])
        self.assertNotEqual(other["cfg"]["persistent"]["key"], result["cfg"]["persistent"]["key"])
        self.assertEqual(self.server.call("/api/device", configuration(first))[1]["result"], result)

    def test_unknown_and_revoked_keys_are_unauthorized(self):
        unauthorized = {"code": faultlib.UNAUTHORIZED_CODE, "message": "Unauthorized"}
        reply = self.server.call("/api/register", enrolment(key="demo-install-key", ident=9))[1]
        self.assertEqual(reply, {"jsonrpc": "2.0", "id": 9, "error": unauthorized})
        reply = self.server.call("/api/device", configuration("no-such-device"))[1]
        self.assertEqual(reply, {"jsonrpc": "2.0", "error": unauthorized})
        device = self.server.enrol()
        self.server.control("POST", "/keys/remove", {"device_keys": [device], "install_keys": [INSTALL_KEY]})
        self.assertEqual(self.server.call("/api/device", configuration(device))[1]["error"], unauthorized)
        self.assertEqual(self.server.call("/api/register", enrolment())[1]["error"], unauthorized)

    def test_malformed_requests_get_json_rpc_errors(self):
        cases = [
            ("/api/device", b"{not json", -32700, None),
            ("/api/device", {"method": "device_configure", "params": {}}, -32600, None),
            ("/api/register", configuration("x"), -32601, "device_configure"),
            ("/api/register", {**enrolment(), "params": {"name": "n"}}, -32602,
             "params.key: must be a string"),
            ("/api/device", {**configuration("x"), "params": {"device": 5}}, -32602,
             "params.device: must be an object"),
        ]
        for path, body, code, data in cases:
            with self.subTest(code=code, data=data):
                status, reply = self.server.call(path, body)
                self.assertEqual(status, 200)
                self.assertEqual(reply["error"]["code"], code)
                self.assertEqual(reply["error"].get("data"), data)
        self.assertEqual(self.server.post("/api/other", enrolment())[0], 404)
        connection = http.client.HTTPSConnection("127.0.0.1", self.server.port, context=self.server.context)
        connection.request("GET", "/api/device")
        self.assertEqual(connection.getresponse().status, 405)
        connection.close()
        self.assertEqual(len(self.server.control("GET", "/requests")[1]), len(cases) + 2)

    def test_chunked_body_and_kept_alive_connection(self):
        connection = http.client.HTTPSConnection("127.0.0.1", self.server.port, context=self.server.context)
        self.addCleanup(connection.close)
        chunks = iter([json.dumps(enrolment()).encode()])
        connection.request("POST", "/api/register", chunks, encode_chunked=True)
        device = json.loads(connection.getresponse().read())["result"]["device"]
        connection.request("POST", "/api/device", json.dumps(configuration(device)))
        self.assertIn("result", json.loads(connection.getresponse().read()))

    def test_a_location_asked_for_by_name_comes_first(self):
        device = self.server.enrol()
        for asked, first in [("Roaming", "Roaming"), (None, "Head office"), ("Elsewhere", "Head office")]:
            with self.subTest(asked=asked):
                result = self.server.call("/api/device", configuration(device, asked))[1]["result"]
                locations = result["cfg"]["runtime"]["locations"]
                self.assertEqual(locations[0]["name"], first)
                self.assertEqual(len(locations), 2)

    def test_certificate_is_self_signed_for_loopback(self):
        plain = ssl.create_default_context()  # the system's authorities only
        connection = http.client.HTTPSConnection("127.0.0.1", self.server.port, context=plain, timeout=10)
        with self.assertRaises(ssl.SSLCertVerificationError):
            connection.request("POST", "/api/register", json.dumps(enrolment()))
        connection.close()
        self.assertEqual(self.server.call("/api/register", enrolment(), host="localhost")[0], 200)


class FaultTests(ServerTestCase):
    def add(self, *faults):
        status, reply = self.server.control("POST", "/faults", list(faults))
        self.assertEqual(status, 200, reply)

    def test_each_mode_answers_as_named(self):
        self.add({"mode": "error", "code": -32050, "message": "Account suspended", "count": 1},
                 {"mode": "unauthorized", "count": 1},
                 {"mode": "empty", "count": 1},
                 {"mode": "undecodable", "count": 1},
                 {"mode": "undecodable", "body": '{"jsonrpc": 2}', "status": 502, "count": 1},
                 {"mode": "status500", "count": 1})
        reply = self.server.call("/api/register", enrolment(ident=5))[1]
        suspended = {"code": -32050, "message": "Account suspended"}
        self.assertEqual(reply, {"jsonrpc": "2.0", "id": 5, "error": suspended})
        reply = self.server.call("/api/register", enrolment(ident=6))[1]
        self.assertEqual(reply["error"], {"code": faultlib.UNAUTHORIZED_CODE, "message": "Unauthorized"})
        self.assertEqual(self.server.post("/api/register", enrolment()), (200, b""))
        status, body = self.server.post("/api/register", enrolment())
        self.assertEqual(status, 200)
        self.assertRaises(ValueError, json.loads, body)
        self.assertEqual(self.server.post("/api/register", enrolment()), (502, b'{"jsonrpc": 2}'))
        status, reply = self.server.call("/api/register", enrolment())
        self.assertEqual(status, 500)
        device = reply["result"]["device"]  # a 500 still enrols, with a good body
        self.assertIn("result", self.server.call("/api/device", configuration(device))[1])
        # None of the faults but the last enrolled anything.
        self.assertEqual(len(self.server.control("GET", "/account")[1]["devices"]), 1)
        records = self.server.control("GET", "/requests")[1]
        self.assertEqual([r["fault"] for r in records],
                         ["error", "unauthorized", "empty", "undecodable", "undecodable", "status500", None])

    def test_drop_and_stall(self):
        self.add({"mode": "drop", "count": 1},
                 {"mode": "stall", "seconds": 600, "count": 1},
                 {"mode": "stall", "seconds": 0.2, "count": 1})
        with self.assertRaises(http.client.RemoteDisconnected):
            self.server.post("/api/register", enrolment())
        with self.assertRaises(socket.timeout):
            self.server.post("/api/register", enrolment(), timeout=0.5)
        # A short stall ends with the answer the request would have had.
        self.assertIn("result", self.server.call("/api/register", enrolment())[1])

    def test_faults_keep_to_their_method_count_and_order(self):
        device = self.server.enrol()
        self.add({"mode": "unauthorized", "method": "device_configure", "count": 2},
                 {"mode": "empty", "method": "device_configure", "count": 1})
        self.assertIn("result", self.server.call("/api/register", enrolment())[1])
        self.assertEqual(self.server.control("GET", "/faults")[1][0]["count"], 2)
        for _ in range(2):
            self.assertIn("error", self.server.call("/api/device", configuration(device))[1])
        self.assertEqual(self.server.post("/api/device", configuration(device)), (200, b""))
        self.assertIn("result", self.server.call("/api/device", configuration(device))[1])
        # Without a count a fault lasts until it is cleared.
        self.add({"mode": "status500"})
        for _ in range(3):
            self.assertEqual(self.server.call("/api/device", configuration(device))[0], 500)
        self.assertEqual(self.server.control("POST", "/faults/clear")[1], {"cleared": 1})
        self.assertEqual(self.server.call("/api/device", configuration(device))[0], 200)

    def test_bad_faults_are_refused_whole(self):
        bad = [{"mode": "explode"}, {"mode": "stall"}, {"mode": "empty", "seconds": 3},
               {"mode": "error", "count": 0}, {"mode": "error", "method": "device"},
               {"mode": "error", "code": "7"}]
        for fault in bad:
            with self.subTest(fault=fault):
                status, reply = self.server.control("POST", "/faults", [{"mode": "drop"}, fault])
                self.assertEqual(status, 400)
                self.assertTrue(reply["error"])
        self.assertEqual(self.server.control("GET", "/faults")[1], [])


class StartOptionTests(unittest.TestCase):
    def start(self, *args):
        server = Server(*args)
        self.addCleanup(server.stop)
        return server

    def test_keys_faults_and_policy_from_the_command_line(self):
        with tempfile.TemporaryDirectory() as folder:
            policy = default_policy()
            policy["actions"] = {"upgrade": {"url": "https://example.net/a.deb", "version": "2.1.0"}}
            policy["cfg"]["runtime"]["user"] = "usr-fixed"
            path = os.path.join(folder, "policy.json")
            with open(path, "w") as file:
                json.dump(policy, file)
            server = self.start("--install-key", "k1", "--install-key", "k2", "--device-key", "dk-seeded",
                                "--policy", path, "--fault", "unauthorized,method=device_configure,count=1",
                                "--fault", '{"mode": "error", "code": -5, "message": "Gone, for now"}')
        self.assertEqual(server.call("/api/register", enrolment(key="k2"))[1]["error"],
                         {"code": -5, "message": "Gone, for now"})
        reply = server.call("/api/device", configuration("dk-seeded"))[1]
        self.assertEqual(reply["error"]["message"], "Unauthorized")
        self.assertEqual(server.control("POST", "/faults/clear")[1], {"cleared": 1})
        self.assertIn("result", server.call("/api/register", enrolment(key="k1"))[1])
        result = server.call("/api/device", configuration("dk-seeded"))[1]["result"]
        self.assertEqual(result["actions"], policy["actions"])
        self.assertEqual(result["cfg"]["runtime"]["user"], "usr-fixed")
        self.assertTrue(result["cfg"]["persistent"]["key"])

    def test_bad_start_options_are_clear_errors(self):
        with tempfile.TemporaryDirectory() as folder:
            broken = {
                "no locations": ({"cfg": {"runtime": {"user": "u"}}},
                                 "policy.cfg.runtime.locations: required"),
                "bad level": ({"cfg": {"runtime": {"locations": [], "tarn": {"log_level": "verbose"}}}},
                              "policy.cfg.runtime.tarn.log_level: must be one of"),
                "digits": ({"cfg": {"runtime": {"locations": [], "reconfigure": "5"}}},
                           "policy.cfg.runtime.reconfigure: must be an integer"),
                "typo": ({"filter": []}, "policy.filter: unknown key"),
            }
            for name, (policy, message) in broken.items():
                with self.subTest(name):
                    path = os.path.join(folder, "policy.json")
                    with open(path, "w") as file:
                        json.dump(policy, file)
                    done = subprocess.run([sys.executable, SCRIPT, "--port", "0", "--policy", path],
                                          capture_output=True, text=True, timeout=30)
                    self.assertEqual(done.returncode, 2)
                    self.assertIn(message, done.stderr)
                    self.assertEqual(done.stdout, "")
        busy = socket.socket()
        busy.bind(("127.0.0.1", 0))
        busy.listen()
        self.addCleanup(busy.close)
        done = subprocess.run([sys.executable, SCRIPT, "--port", str(busy.getsockname()[1])],
                              capture_output=True, text=True, timeout=30)
        self.assertEqual(done.returncode, 1)
        self.assertIn("cannot listen", done.stderr)
        done = subprocess.run([sys.executable, SCRIPT, "--fault", "stall"], capture_output=True, text=True)
        self.assertEqual(done.returncode, 2)
        self.assertIn("seconds: the stall mode needs it", done.stderr)

    def test_help_names_every_mode(self):
        done = subprocess.run([sys.executable, SCRIPT, "--help"], capture_output=True, text=True, timeout=30)
        self.assertEqual(done.returncode, 0)
        for mode in faultlib.MODES:
            self.assertIn(f"\n  {mode} ", done.stdout)


class PolicyAndRecordTests(ServerTestCase):
    def test_policies_per_device_and_for_later_devices(self):
        before = self.server.enrol()
        own = {"filters": [{"domain": "only.example"}]}
        self.assertEqual(self.server.control("POST", "/policy", {"device": before, "policy": own})[0], 200)
        self.assertEqual(self.server.call("/api/device", configuration(before))[1]["result"], own)
        template = {"cfg": {"runtime": {"locations": [{"name": "Lab", "tag": "t-lab"}]}}}
        self.assertEqual(self.server.control("POST", "/policy", {"policy": template})[0], 200)
        later = self.server.call("/api/device", configuration(self.server.enrol()))[1]["result"]
        self.assertEqual(later["cfg"]["runtime"]["locations"], [{"name": "Lab", "tag": "t-lab"}])
        self.assertIn("user", later["cfg"]["runtime"])
        self.assertEqual(self.server.call("/api/device", configuration(before))[1]["result"], own)
        status, reply = self.server.control("POST", "/policy", {"policy": {"filters": [{"rule": 10}]}})
        self.assertEqual((status, reply["error"]), (400, "policy.filters[0].rule: must be a string"))
        self.assertEqual(self.server.control("POST", "/policy", {"device": "gone", "policy": own})[0], 404)

    def test_records_through_control_and_file(self):
        self.server.stop()
        record_file = os.path.join(tempfile.mkdtemp(), "records.jsonl")
        self.addCleanup(os.remove, record_file)
        self.server = Server("--install-key", INSTALL_KEY, "--record-file", record_file)
        self.addCleanup(self.server.stop)
        self.server.control("POST", "/faults", {"mode": "empty", "method": "device_configure", "count": 1})
        device = self.server.enrol()
        self.server.post("/api/device", configuration(device, "Roaming"))
        records = self.server.control("GET", "/requests")[1]
        self.assertEqual([r["seq"] for r in records], [1, 2])
        first, second = records
        self.assertEqual(first["path"], "/api/register")
        self.assertEqual(first["rpc_method"], "account_add_device")
        self.assertEqual(first["headers"]["Content-Type"], "application/json-rpc")
        self.assertEqual(first["headers"]["Accept"], "application/json; charset=utf-8")
        self.assertEqual(json.loads(first["body"]), first["json"])
        self.assertEqual(first["json"], enrolment())
        self.assertEqual(second["fault"], "empty")
        self.assertEqual(second["json"]["params"]["location"]["name"], "Roaming")
        self.assertEqual(self.server.control("GET", "/requests?since=1")[1], [second])
        self.assertEqual(self.server.control("POST", "/requests/clear")[1], {"cleared": 2})
        self.server.enrol()
        self.assertEqual([r["seq"] for r in self.server.control("GET", "/requests")[1]], [3])
        with open(record_file, encoding="utf-8") as file:
            lines = [json.loads(line) for line in file]
        self.assertEqual(lines[:2], records)
        self.assertEqual(len(lines), 3)


class LifecycleTests(unittest.TestCase):
    def test_end_of_stdin_stops_it_and_removes_its_certificate(self):
        server = Server(work_dir=False)
        folder = os.path.dirname(server.cert)
        self.assertTrue(os.path.exists(server.cert))
        server.process.stdin.close()
        self.assertEqual(server.process.wait(10), 0)
        self.assertFalse(os.path.exists(folder))
        server.stop()

    def test_termination_lets_go_of_a_stalled_request(self):
        server = Server("--fault", "stall,seconds=600")
        self.addCleanup(server.stop)
        client = socket.create_connection(("127.0.0.1", server.port))
        tls = server.context.wrap_socket(client, server_hostname="127.0.0.1")
        self.addCleanup(tls.close)
        tls.sendall(b"POST /api/device HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\n\r\n{}")
        while not server.control("GET", "/requests")[1]:
            pass  # until the stalled request has been read
        server.process.send_signal(signal.SIGTERM)
        self.assertEqual(server.process.wait(10), 0)
        self.assertEqual(tls.recv(100), b"")  # closed, never answered


if __name__ == "__main__":
    unittest.main()
