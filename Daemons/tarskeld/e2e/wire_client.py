#!/usr/bin/python3
"""A client of tarskeld that is not the client library: the socket protocol
spoken by hand. Sends one daemon.info and prints "<code> <message>" ("ok" when
served).

    wire_client.py SOCKET       connect to SOCKET
    wire_client.py --fd N       use the connected socket N (handed over)
"""
import json
import socket
import struct
import sys

if sys.argv[1] == "--fd":
    sock = socket.socket(fileno=int(sys.argv[2]))
else:
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    sock.connect(sys.argv[1])

body = json.dumps({"op": "daemon.info", "args": {}}).encode()
envelope = struct.pack(">QB", 7, 0x03) + body  # expects a reply, body present
sock.sendall(struct.pack(">I", len(envelope)) + envelope)


def read_exactly(n):
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            sys.exit("connection closed")
        data += chunk
    return data


length = struct.unpack(">I", read_exactly(4))[0]
response = json.loads(read_exactly(length)[9:])
if response.get("ok"):
    print("ok")
else:
    print(response["error"]["code"], response["error"]["message"])
