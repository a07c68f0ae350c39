#!/usr/bin/env python3
"""fuzz/seeds.py DIR: writes the starting corpus of each fuzz target to DIR/<target>/.

Valid messages of the kinds the targets parse, so that mutation starts from what a client
sends: route-update batches of both families (adds and deletes, several next hops, TLV blocks,
the flags that take other paths) and registrations of several protocols."""
import os
import struct
import sys

IPC_HDR = 60


def ipc_header(mtype, length):
    h = bytearray(IPC_HDR)
    struct.pack_into(">II", h, 8, length, mtype)
    return h


def rtp(af, prefix, plen, proto, subtype=0, pref=110, nhs=((b"\xc0\xa8\x01\x01", 5, 0, 0),), tlv=b"",
        flags=0, vrf=0):
    v6 = af >= 2
    alen = 16 if v6 else 4
    nh_size = 28 if v6 else 20
    fixed = 80 if v6 else 56
    r = bytearray(fixed + nh_size * len(nhs))
    struct.pack_into(">HHIIIIiI", r, 0, pref, 0, vrf, proto, 0, subtype, 7, 0)
    struct.pack_into(">HHIHBB", r, 32, len(nhs), 0, flags, len(tlv), af, plen)
    r[44:44 + alen] = nhs[0][0]  # gateway
    struct.pack_into(">I", r, 44 + alen, vrf)  # source VRF
    r[48 + alen:48 + 2 * alen] = prefix
    for i, (addr, ifindex, nhvrf, weight) in enumerate(nhs):
        o = fixed + i * nh_size
        r[o:o + alen] = addr
        if v6:
            struct.pack_into(">III", r, o + 16, ifindex, nhvrf, weight)
        else:
            struct.pack_into(">IIII", r, o + 4, ifindex, nhvrf, 0, weight)
    return bytes(r) + tlv


def update(cid, af, elems):
    body = b"".join(struct.pack(">I", cmd) + rec for cmd, rec in elems)
    m = ipc_header(0x3204, 152 + len(body)) + bytearray(92)
    struct.pack_into(">III", m, 60, 1, 1, 0)  # SWP queue and sequence
    struct.pack_into(">IIBB", m, 140, cid, len(elems), 0, af)
    return bytes(m) + body


def v4(a, b, c, d):
    return bytes([a, b, c, d])


def v6(*words):
    return b"".join(struct.pack(">H", w) for w in words)


def route_update_seeds():
    nh2 = ((v4(192, 168, 1, 1), 5, 0, 3), (v4(192, 168, 1, 2), 6, 0, 1))
    six = v6(0x2001, 0xdb8, 1, 0, 0, 0, 0, 0)
    nh6 = ((v6(0xfe80, 0, 0, 0, 0, 0, 0, 1), 3, 0, 0),)
    return {
        "ospf_adds": update(0, 0, [(1, rtp(0, v4(10, i, 0, 0), 16, 4, 4)) for i in range(4)]),
        "bgp_add_del": update(1, 0, [(1, rtp(0, v4(10, 9, 0, 0), 16, 7, 13, 20, nh2, b"tlv-bytes", 0x800000)),
                                     (2, rtp(0, v4(10, 9, 0, 0), 16, 7, 13, 20, nh2))]),
        "static_host_self": update(2, 0, [(1, rtp(0, v4(10, 2, 2, 2), 32, 3, 0, 1,
                                                   ((v4(10, 2, 2, 2), 0, 0, 0), (v4(192, 168, 1, 1), 5, 0, 0))))]),
        "connected_flag": update(3, 0, [(1, rtp(0, v4(10, 11, 0, 0), 16, 1, 0, 0, ((v4(0, 0, 0, 0), 9, 0, 0),),
                                                flags=0x4000))]),
        "unnumbered": update(4, 0, [(1, rtp(0, v4(10, 8, 8, 8), 32, 10, 0, 0, ((v4(0, 0, 0, 0), 11, 0, 0),))),
                                    (2, rtp(0, v4(10, 8, 8, 8), 32, 10, 0, 0, ((v4(0, 0, 0, 0), 11, 0, 0),)))]),
        "leaked_all_vrfs": update(6, 0, [(1, rtp(0, v4(10, 12, 0, 0), 16, 8, 0, 120, flags=0x1000000, vrf=0))]),
        "ipv6_adds": update(0, 2, [(1, rtp(2, six, 48, 4, 4, nhs=nh6, tlv=b"\x01\x02")),
                                   (2, rtp(2, six, 48, 4, 4, nhs=nh6, tlv=b"\x01\x02"))]),
    }


def registration(proto, af=0, instance=0, vrf=0, mtype=0x3201, name=b"fuzz"):
    m = ipc_header(mtype, 168) + bytearray(108)
    struct.pack_into(">III", m, 36, 0, 0, 901)  # source slot, card, service
    m[64:64 + len(name)] = name
    struct.pack_into(">I", m, 108, proto)
    struct.pack_into(">I", m, 116, instance)
    struct.pack_into(">IIIII", m, 124, vrf, 0, 901, 0, 0)
    struct.pack_into(">B", m, 160, af)
    return bytes(m)


def registration_seeds():
    return {
        "ospf": registration(4),
        "bgp_ipv6": registration(7, af=2, instance=1),
        "fib_agent": registration(27),
        "static_vrf": registration(3, vrf=5, mtype=0x323F),
        "both_families": registration(8, mtype=0x3269),
    }


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "fuzz-seeds"
    for target, seeds in (("fuzz_route_update", route_update_seeds()), ("fuzz_registration", registration_seeds())):
        d = os.path.join(out, target)
        os.makedirs(d, exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(d, name + ".bin"), "wb") as f:
                f.write(data)


if __name__ == "__main__":
    main()
