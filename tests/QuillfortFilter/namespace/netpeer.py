#!/usr/bin/env python3
"""Processes on the other side of the filter in its namespace tests: clients
that connect and send, a datagram counter, and a DNS server with canned
answers. Each prints one line saying what happened and exits 0 on success."""
import socket
import struct
import sys
import time


def connect(host, port, timeout):
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    with socket.socket(family, socket.SOCK_STREAM) as s:
        s.settimeout(float(timeout))
        try:
            s.connect((host, int(port)))
        except OSError as error:
            print(f"failed: {error}")
            return 1
    print("connected")
    return 0


def send_udp(host, port, count, payload=b"quillfort"):
    # Each datagram from a new socket: each is a new flow.
    for _ in range(int(count)):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.sendto(payload, (host, int(port)))
    print("sent")
    return 0


def count_udp(host, port, quiet_seconds, expected="0", report_each="yes"):
    """Counts datagrams until `expected` came (0: no limit) or none came for
    quiet_seconds; says "ready" first, "got" for each, and the total last."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        # A burst is let through in batches of verdicts; the buffer must hold
        # a whole batch while this counter is starved of CPU. Forced past the
        # machine's rmem_max where we may (root), asked for where we may not.
        try:
            s.setsockopt(socket.SOL_SOCKET, getattr(socket, "SO_RCVBUFFORCE", 33), 64 * 1024 * 1024)
        except PermissionError:
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 64 * 1024 * 1024)
        s.bind((host, int(port)))
        s.settimeout(float(quiet_seconds))
        print("ready", flush=True)
        received = 0
        try:
            while int(expected) == 0 or received < int(expected):
                s.recv(2048)
                received += 1
                if report_each == "yes":
                    print("got", flush=True)
        except socket.timeout:
            pass
    print(f"total {received}")
    return 0


def encode_name(name):
    return b"".join(bytes([len(label)]) + label.encode() for label in name.split(".") if label) + b"\0"


def dns_server(address, port, *answers):
    """answers: NAME=A:1.2.3.4, NAME=CNAME:target, or NAME=RAW:<hex of the whole reply after its id>."""
    table = {}
    for answer in answers:
        name, kind_value = answer.split("=", 1)
        table.setdefault(name.lower(), []).append(kind_value.split(":", 1))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind((address, int(port)))
        print("ready", flush=True)
        while True:
            query, client = s.recvfrom(4096)
            ident = query[:2]
            position, labels = 12, []
            while query[position]:
                length = query[position]
                labels.append(query[position + 1:position + 1 + length].decode())
                position += 1 + length
            question = query[12:position + 5]
            asked = ".".join(labels).lower()
            raw = [value for kind, value in table.get(asked, []) if kind == "RAW"]
            if raw:
                s.sendto(ident + bytes.fromhex(raw[0]), client)
                continue
            records, count, current = b"", 0, asked
            for _ in range(8):
                for kind, value in table.get(current, []):
                    if kind == "A":
                        records += encode_name(current) + struct.pack(">HHIH", 1, 1, 60, 4) + socket.inet_aton(value)
                        count += 1
                    elif kind == "CNAME":
                        target = encode_name(value)
                        records += encode_name(current) + struct.pack(">HHIH", 5, 1, 60, len(target)) + target
                        count += 1
                cnames = [v for k, v in table.get(current, []) if k == "CNAME"]
                if not cnames:
                    break
                current = cnames[0].lower()
            header = ident + struct.pack(">HHHHH", 0x8180, 1, count, 0, 0)
            s.sendto(header + question + records, client)


def resolve_connect(server, name, port, timeout):
    """Asks `server` (address:port) for NAME's address and connects to it."""
    address, server_port = server.rsplit(":", 1)
    query = struct.pack(">HHHHHH", 0x4242, 0x0100, 1, 0, 0, 0) + encode_name(name) + struct.pack(">HH", 1, 1)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(float(timeout))
        s.sendto(query, (address, int(server_port)))
        answer = s.recv(4096)
    target = socket.inet_ntoa(answer[-4:])
    print(f"resolved {target}", flush=True)
    return connect(target, port, timeout)


def query(server, name):
    """Asks `server` (address:port) about NAME and says how long the answer was."""
    address, server_port = server.rsplit(":", 1)
    message = struct.pack(">HHHHHH", 0x4343, 0x0100, 1, 0, 0, 0) + encode_name(name) + struct.pack(">HH", 1, 1)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(5)
        s.sendto(message, (address, int(server_port)))
        print(f"answer {len(s.recv(65535))} bytes")
    return 0


if __name__ == "__main__":
    commands = {"connect": connect, "send-udp": send_udp, "count-udp": count_udp, "dns-server": dns_server,
                "resolve-connect": resolve_connect, "query": query}
    sys.exit(commands[sys.argv[1]](*sys.argv[2:]))
