"""The development filtering resolver: a small DNS server on loopback that plays the
service's resolver for the agent and the provider.

- "-.-" (type A) is answered with the address the query came from: how the agent learns its
  external address.
- The identity the provider attaches to queries for the default resolvers is read from the
  EDNS(0) options 65073 (location tag) and 65074 (device's user identifier), both UTF-8 text.
  A query whose identity belongs to a device of the account (its policy's cfg.runtime.user,
  and the tag of one of its policy's locations) is filtered: names of the block list, and the
  names below them, get the block page's address. Unknown or absent identities are not
  filtered.
- Fixed test answers (--dns-answer NAME=ADDRESS) are given to anyone.
- Nothing is forwarded to the internet: every other name gets NXDOMAIN.

Only UDP. A query that cannot be read gets FORMERR when its header can, else nothing.
"""

import ipaddress
import socket
import socketserver
import struct
import threading

OPTION_LOCATION_TAG = 65073
OPTION_UUID = 65074
TYPE_A = 1
TYPE_OPT = 41
TYPE_ANY = 255
CLASS_IN = 1
RCODE_FORMERR = 1
RCODE_NXDOMAIN = 3
RCODE_NOTIMP = 4
EXTERNAL_IP_NAME = "-.-"
DEFAULT_BLOCK_LIST = ("blocked.example.com",)
DEFAULT_BLOCK_PAGE = "192.0.2.80"


class QueryError(ValueError):
    pass


def _name(packet, offset):
    """Reads a name without compression (queries carry none); returns (name, next offset)."""
    labels = []
    while True:
        if offset >= len(packet):
            raise QueryError("name runs past the end")
        length = packet[offset]
        offset += 1
        if length == 0:
            break
        if length > 63 or offset + length > len(packet):
            raise QueryError("bad label")
        labels.append(packet[offset:offset + length].decode("ascii", "strict"))
        offset += length
    return ".".join(labels), offset


def parse_query(packet):
    """The query's id, flags, name, type, class and EDNS options ({code: bytes} or None)."""
    if len(packet) < 12:
        raise QueryError("shorter than a header")
    ident, flags, qdcount, ancount, nscount, arcount = struct.unpack("!6H", packet[:12])
    if flags & 0x8000 or qdcount != 1:
        raise QueryError("not one question")
    try:
        name, offset = _name(packet, 12)
    except UnicodeDecodeError:
        raise QueryError("name is not ASCII") from None
    if offset + 4 > len(packet):
        raise QueryError("question runs past the end")
    qtype, qclass = struct.unpack("!HH", packet[offset:offset + 4])
    offset += 4
    options = None
    if ancount or nscount:
        raise QueryError("a query with answers")
    for _ in range(arcount):
        _, offset = _name(packet, offset)
        if offset + 10 > len(packet):
            raise QueryError("record runs past the end")
        rtype, _, _, rdlength = struct.unpack("!HHIH", packet[offset:offset + 10])
        offset += 10
        data = packet[offset:offset + rdlength]
        if len(data) != rdlength:
            raise QueryError("record data runs past the end")
        offset += rdlength
        if rtype == TYPE_OPT:
            options = {}
            at = 0
            while at + 4 <= len(data):
                code, length = struct.unpack("!HH", data[at:at + 4])
                options[code] = data[at + 4:at + 4 + length]
                at += 4 + length
    return ident, flags, name, qtype, qclass, options


def _encode_name(name):
    out = b""
    for label in filter(None, name.split(".")):
        out += bytes([len(label)]) + label.encode("ascii")
    return out + b"\0"


def build_reply(ident, flags, name, qtype, qclass, rcode, addresses, edns):
    header = struct.pack("!6H", ident, 0x8000 | (flags & 0x0100) | 0x0080 | rcode,
                         1, len(addresses), 0, 1 if edns else 0)
    question = _encode_name(name) + struct.pack("!HH", qtype, qclass)
    answers = b""
    for address in addresses:
        answers += b"\xc0\x0c" + struct.pack("!HHIH", TYPE_A, CLASS_IN, 0, 4)
        answers += ipaddress.IPv4Address(address).packed
    opt = b"\0" + struct.pack("!HHIH", TYPE_OPT, 1232, 0, 0) if edns else b""
    return header + question + answers + opt


def _below(name, domain):
    return name == domain or name.endswith("." + domain)


class Filter:
    """What to answer; shared by the listener's threads."""

    def __init__(self, account, block_list=DEFAULT_BLOCK_LIST, block_page=DEFAULT_BLOCK_PAGE,
                 answers=None):
        self.account = account
        self.block_list = [name.lower().rstrip(".") for name in block_list]
        self.block_page = block_page
        self.answers = {name.lower().rstrip("."): addr for name, addr in (answers or {}).items()}
        self._lock = threading.Lock()
        self._queries = []

    def queries(self):
        with self._lock:
            return list(self._queries)

    def clear(self):
        with self._lock:
            count = len(self._queries)
            self._queries.clear()
            return count

    def _filtered(self, tag, user):
        if tag is None or user is None:
            return False
        return self.account.has_identity(user, tag)

    def answer(self, packet, client):
        """The reply to one query (None to drop it) and the record of it."""
        try:
            ident, flags, name, qtype, qclass, options = parse_query(packet)
        except QueryError as problem:
            if len(packet) < 12:
                return None
            ident, flags = struct.unpack("!HH", packet[:4])
            header = struct.pack("!6H", ident, 0x8000 | (flags & 0x0100) | RCODE_FORMERR, 0, 0, 0, 0)
            self._record({"client": client, "error": str(problem), "rcode": "FORMERR"})
            return header
        lowered = name.lower().rstrip(".")
        has_edns = options is not None
        options = options if has_edns else {}
        tag = options.get(OPTION_LOCATION_TAG)
        user = options.get(OPTION_UUID)
        tag = tag.decode("utf-8", "replace") if tag is not None else None
        user = user.decode("utf-8", "replace") if user is not None else None
        wants_a = qclass == CLASS_IN and qtype in (TYPE_A, TYPE_ANY)
        rcode, addresses, verdict = 0, [], "answered"
        if lowered == EXTERNAL_IP_NAME:
            mapped = ipaddress.ip_address(client)
            if isinstance(mapped, ipaddress.IPv6Address) and mapped.ipv4_mapped:
                mapped = mapped.ipv4_mapped
            if wants_a and isinstance(mapped, ipaddress.IPv4Address):
                addresses = [str(mapped)]
            verdict = "external address"
        elif any(_below(lowered, blocked) for blocked in self.block_list) and self._filtered(tag, user):
            addresses = [self.block_page] if wants_a else []
            verdict = "blocked"
        elif lowered in self.answers:
            addresses = [self.answers[lowered]] if wants_a else []
        else:
            rcode, verdict = RCODE_NXDOMAIN, "NXDOMAIN"
        self._record({"client": client, "name": name, "type": qtype, "location_tag": tag,
                      "uuid": user, "verdict": verdict, "addresses": addresses})
        return build_reply(ident, flags, name, qtype, qclass, rcode, addresses,
                           edns=has_edns)

    def _record(self, entry):
        with self._lock:
            self._queries.append(entry)


class _Handler(socketserver.BaseRequestHandler):
    def handle(self):
        packet, sock = self.request
        reply = self.server.filter.answer(packet, self.client_address[0])
        if reply is not None:
            sock.sendto(reply, self.client_address)


class FilteringResolver(socketserver.ThreadingMixIn, socketserver.UDPServer):
    daemon_threads = True

    def __init__(self, address, port, dns_filter):
        self.filter = dns_filter
        if ":" in address:
            self.address_family = socket.AF_INET6
        super().__init__((address, port), _Handler)
