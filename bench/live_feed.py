#!/usr/bin/env python3
"""A route feed for the live path's benchmark: one BGP session to a speaker on a loopback
address, l2vpn-evpn only, over which it advertises MACS MAC/IP routes spread over VLANS VLANs
(route target 65000:<vlan>, MPLS encapsulation, its own address as next hop), then holds the
session with keepalives until it is stopped. It stands in for a fabric's edges, so that the
speaker under measurement (gobgpd) receives 100k routes in seconds; it is not the speaker.

  live_feed.py LOCAL_ADDR PEER_ADDR PORT MACS VLANS
"""
import socket
import struct
import sys
import time

AFI_L2VPN, SAFI_EVPN, AS = 25, 70, 65000


def message(kind, body):
    return b"\xff" * 16 + struct.pack(">HB", 19 + len(body), kind) + body


def read_message(s):
    head = b""
    while len(head) < 19:
        chunk = s.recv(19 - len(head))
        if not chunk:
            raise SystemExit("live_feed: the speaker closed the session")
        head += chunk
    length, kind = struct.unpack(">HB", head[16:19])
    body = b""
    while len(body) < length - 19:
        body += s.recv(length - 19 - len(body))
    return kind, body


def mac_nlri(me, vlan, i, label):
    rd = struct.pack(">H4sH", 1, socket.inet_aton(me), vlan)
    mac = bytes([2, 0]) + struct.pack(">I", i)
    # gobgp reads an EVPN label as the field's 24-bit number.
    value = rd + bytes(10) + struct.pack(">IB", 0, 48) + mac + b"\x00" + label.to_bytes(3, "big")
    return struct.pack(">BB", 2, len(value)) + value


def update(me, vlan, nlris):
    communities = struct.pack(">HHI", 0x0002, AS, vlan) + struct.pack(">HIH", 0x030C, 0, 10)
    reach = struct.pack(">HBB", AFI_L2VPN, SAFI_EVPN, 4) + socket.inet_aton(me) + b"\x00" + b"".join(nlris)
    attrs = (struct.pack(">BBBB", 0x40, 1, 1, 2)                    # origin: incomplete
             + struct.pack(">BBB", 0x40, 2, 0)                      # an empty AS path (iBGP)
             + struct.pack(">BBBI", 0x40, 5, 4, 100)                # local preference
             + struct.pack(">BBB", 0xC0, 16, len(communities)) + communities
             + struct.pack(">BBH", 0x90, 14, len(reach)) + reach)
    return message(2, struct.pack(">HH", 0, len(attrs)) + attrs)


def main():
    me, peer, port, macs, vlans = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4]), int(sys.argv[5])
    s = socket.socket()
    s.bind((me, 0))
    for _ in range(100):
        try:
            s.connect((peer, port))
            break
        except OSError:
            time.sleep(0.2)
    capability = struct.pack(">BBHBB", 1, 4, AFI_L2VPN, 0, SAFI_EVPN)
    params = struct.pack(">BB", 2, len(capability)) + capability
    s.sendall(message(1, struct.pack(">BHH4sB", 4, AS, 90, socket.inet_aton(me), len(params)) + params))
    kind, _ = read_message(s)
    if kind != 1:
        raise SystemExit("live_feed: no OPEN from the speaker")
    s.sendall(message(4, b""))
    by_vlan = {}
    for i in range(macs):
        vlan = 1 + i % vlans
        by_vlan.setdefault(vlan, []).append(mac_nlri(me, vlan, i, 30000 + i % 1000))
    start = time.time()
    for vlan, nlris in by_vlan.items():
        for at in range(0, len(nlris), 90):  # a message holds at most 4096 bytes
            s.sendall(update(me, vlan, nlris[at:at + 90]))
    print(f"live_feed: {macs} routes sent in {time.time() - start:.2f} s", flush=True)
    s.settimeout(30)
    while True:
        try:
            read_message(s)
        except socket.timeout:
            pass
        s.sendall(message(4, b""))


if __name__ == "__main__":
    main()
