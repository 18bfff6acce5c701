#!/usr/bin/env python3
"""A small authoritative DNS responder for the end-to-end world: it plays a corporate resolver
or the network's own resolver. Every A question gets the address of the longest listed suffix,
else the default address, else NXDOMAIN. It logs each question, with the EDNS option codes it
carried, one line per query to the log file, so a test can tell who was asked and with what.

    dnsresponder.py --listen 127.0.0.20:53 --zone corp.example.com=10.20.0.7 --log FILE
"""

import argparse
import socket
import struct
import sys


def parse_name(data, offset):
    labels = []
    while True:
        length = data[offset]
        if length == 0:
            return ".".join(labels), offset + 1
        if length & 0xC0:
            raise ValueError("compressed names are not expected in a question")
        labels.append(data[offset + 1:offset + 1 + length].decode("ascii", "replace"))
        offset += 1 + length


def option_codes(data, offset, arcount):
    codes = []
    for _ in range(arcount):
        _, offset = parse_name(data, offset)
        rtype, _, _, rdlength = struct.unpack("!HHIH", data[offset:offset + 10])
        offset += 10
        if rtype == 41:
            end = offset + rdlength
            while offset + 4 <= end:
                code, length = struct.unpack("!HH", data[offset:offset + 4])
                value = data[offset + 4:offset + 4 + length]
                # The identity options carry text; others are shown by code only.
                codes.append(f"{code}={value.decode('utf-8', 'replace')}" if code >= 65000 else str(code))
                offset += 4 + length
            offset = end
        else:
            offset += rdlength
    return codes


def answer(query, zone, default):
    ident, flags, qdcount, _, _, arcount = struct.unpack("!HHHHHH", query[:12])
    name, offset = parse_name(query, 12)
    qtype, qclass = struct.unpack("!HH", query[offset:offset + 4])
    question = query[12:offset + 4]
    codes = option_codes(query, offset + 4, arcount)
    lowered = name.lower().rstrip(".")
    address = None
    best = -1
    for suffix, value in zone.items():
        if (lowered == suffix or lowered.endswith("." + suffix)) and len(suffix) > best:
            address, best = value, len(suffix)
    if address is None:
        address = default
    rcode = 0 if address is not None else 3
    answers = b""
    ancount = 0
    if address is not None and qtype == 1 and qclass == 1:
        answers = b"\xc0\x0c" + struct.pack("!HHIH", 1, 1, 60, 4) + socket.inet_aton(address)
        ancount = 1
    header = struct.pack("!HHHHHH", ident, 0x8400 | (flags & 0x0100) | rcode, qdcount, ancount, 0, 0)
    return header + question + answers, name, codes


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--listen", required=True, help="ADDR:PORT")
    parser.add_argument("--zone", action="append", default=[], help="SUFFIX=IPV4, repeatable")
    parser.add_argument("--default", help="address for every other name; NXDOMAIN without it")
    parser.add_argument("--log", help="append one line per query: NAME OPTION-CODES")
    args = parser.parse_args()
    host, _, port = args.listen.rpartition(":")
    zone = {}
    for entry in args.zone:
        suffix, _, value = entry.partition("=")
        zone[suffix.lower().rstrip(".")] = value
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind((host, int(port)))
    print(f"LISTENING {host}:{sock.getsockname()[1]}", flush=True)
    while True:
        query, peer = sock.recvfrom(4096)
        try:
            reply, name, codes = answer(query, zone, args.default)
        except (ValueError, IndexError, struct.error):
            continue
        sock.sendto(reply, peer)
        if args.log:
            with open(args.log, "a", encoding="utf-8") as log:
                log.write(f"{name} {' '.join(codes)}\n")


if __name__ == "__main__":
    sys.exit(main())
