"""Tests of the development filtering resolver, over real UDP to a devserver process."""

import socket
import struct
import subprocess
import sys
import unittest

from test_devserver import SCRIPT, Server

from morvane_devserver import resolver


def query(name, qtype=1, options=None, ident=4242):
    packet = struct.pack("!6H", ident, 0x0100, 1, 0, 0, 0 if options is None else 1)
    packet += resolver._encode_name(name) + struct.pack("!HH", qtype, 1)
    if options is not None:
        data = b"".join(struct.pack("!HH", code, len(value)) + value for code, value in options.items())
        packet += b"\0" + struct.pack("!HHIH", 41, 1232, 0, len(data)) + data
    return packet


def parse_reply(reply):
    """(id, rcode, [A addresses], has OPT)."""
    ident, flags, qd, an, ns, ar = struct.unpack("!6H", reply[:12])
    _, offset = resolver._name(reply, 12)
    offset += 4
    addresses = []
    for _ in range(an):
        assert reply[offset:offset + 2] == b"\xc0\x0c"
        rtype, _, _, length = struct.unpack("!HHIH", reply[offset + 2:offset + 12])
        data = reply[offset + 12:offset + 12 + length]
        if rtype == 1:
            addresses.append(socket.inet_ntoa(data))
        offset += 12 + length
    return ident, flags & 0xF, addresses, ar == 1


class ResolverTests(unittest.TestCase):
    def setUp(self):
        self.server = Server("--device-key", "dk-1", "--dns-answer", "fixed.test=198.51.100.9",
                             "--dns-block", "ads.example", "--dns-block-page", "192.0.2.99")
        self.addCleanup(self.server.stop)
        status = self.server.control("GET", "/status")[1]
        self.address, self.port = status["dns_address"], status["dns_port"]
        runtime = self.server.control("GET", "/account")[1]["devices"]["dk-1"]["policy"]["cfg"]["runtime"]
        self.user, self.tag = runtime["user"], runtime["locations"][1]["tag"]

    def ask(self, packet):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            sock.settimeout(10)
            sock.sendto(packet, (self.address, self.port))
            return sock.recv(4096)

    def identity(self, user=None, tag=None):
        return {65073: (tag or self.tag).encode(), 65074: (user or self.user).encode()}

    def test_external_address_is_the_querying_address(self):
        ident, rcode, addresses, _ = parse_reply(self.ask(query("-.-")))
        self.assertEqual((ident, rcode, addresses), (4242, 0, ["127.0.0.1"]))
        # Other types of the name have no answer, and no error either.
        self.assertEqual(parse_reply(self.ask(query("-.-", qtype=28)))[1:3], (0, []))

    def test_block_list_only_for_devices_of_the_account(self):
        for name in ("ads.example", "tracker.ads.example", "ADS.example."):
            with self.subTest(name):
                _, rcode, addresses, edns = parse_reply(self.ask(query(name, options=self.identity())))
                self.assertEqual((rcode, addresses, edns), (0, ["192.0.2.99"], True))
        # No identity, an unknown user, a tag of no location of that user: not filtered.
        for options in (None, {}, self.identity(user="usr-nobody"), self.identity(tag="loc-none")):
            with self.subTest(options=options):
                _, rcode, addresses, edns = parse_reply(self.ask(query("ads.example", options=options)))
                self.assertEqual((rcode, addresses, edns), (3, [], options is not None))
        # Names that merely end alike are not below the blocked one.
        self.assertEqual(parse_reply(self.ask(query("badads.example", options=self.identity())))[1], 3)

    def test_nothing_is_forwarded(self):
        self.assertEqual(parse_reply(self.ask(query("fixed.test")))[1:3], (0, ["198.51.100.9"]))
        self.assertEqual(parse_reply(self.ask(query("debian.org")))[1:3], (3, []))
        recorded = self.server.control("GET", "/dns/queries")[1]
        self.assertEqual([entry["verdict"] for entry in recorded], ["answered", "NXDOMAIN"])
        self.assertEqual(self.server.control("POST", "/dns/queries/clear")[1], {"cleared": 2})

    def test_malformed_queries_get_formerr_or_nothing(self):
        truncated = query("fixed.test")[:-3]
        ident, rcode, _, _ = struct.unpack("!HH", self.ask(truncated)[:4]) + (None, None)
        self.assertEqual((ident, rcode & 0xF), (4242, 1))
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            sock.settimeout(0.5)
            sock.sendto(b"\x01\x02", (self.address, self.port))
            with self.assertRaises(socket.timeout):
                sock.recv(512)
        # The server goes on answering.
        self.assertEqual(parse_reply(self.ask(query("-.-")))[2], ["127.0.0.1"])


class ResolverOptionTests(unittest.TestCase):
    def test_bad_options_are_refused_and_no_dns_turns_it_off(self):
        for args in (["--dns-answer", "nothing"], ["--dns-answer", "a.test=::1"],
                     ["--dns-block-page", "host"], ["--dns-port", "70000"]):
            with self.subTest(args=args):
                done = subprocess.run([sys.executable, SCRIPT, "--port", "0", *args],
                                      capture_output=True, text=True, timeout=30)
                self.assertEqual(done.returncode, 2)
                self.assertIn("--dns-", done.stderr)
        server = Server("--no-dns")
        self.addCleanup(server.stop)
        self.assertIsNone(server.control("GET", "/status")[1]["dns_port"])


if __name__ == "__main__":
    unittest.main()
