#!/usr/bin/env python3
"""fuzz/seeds.py DIR: writes the starting corpus of each fuzz target to DIR/<target>/.

Valid messages of the kinds the targets parse, so that mutation starts from what a client
sends: route-update batches of both families (adds and deletes, several next hops, TLV blocks,
the flags that take other paths), registrations of several protocols, and for fuzz_dispatch a
message of every code that has a handler, as chunks of that target's input format."""
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


# Clients of fuzz_dispatch by the low bits of `who`: OSPF IPv4, BGP IPv6, IS-IS of both families
# (IPv4, IPv6), the FIB agents (IPv4, IPv6).
OSPF, BGP, ISIS4, ISIS6, FIB4, FIB6 = range(6)
BY_TYPE, RAW, WORK = 0x80, 0xC0, 0xFF


def chunk(sel, who, body=b""):
    return struct.pack(">BBH", sel, who, len(body)) + body


def msg(mtype, length, fields=()):
    """A message of `length` bytes with (offset, format, value) fields written in."""
    m = ipc_header(mtype, length) + bytearray(max(0, length - IPC_HDR))
    if length >= 128:  # a sequenced message: SWP queue and sequence (the harness sets the sequence)
        struct.pack_into(">II", m, 60, 1, 1)
    for off, fmt, val in fields:
        struct.pack_into(">" + fmt, m, off, val)
    return bytes(m)


def nm(sub, length=96, fields=()):
    return msg(0x1771, length, ((72, "I", sub),) + tuple(fields))


def dispatch_seeds():
    v4routes = update(0, 0, [(1, rtp(0, v4(10, i, 0, 0), 16, 4, 4)) for i in range(4)])
    v6routes = update(0, 2, [(1, rtp(2, v6(0x2001, 0xdb8, i, 0, 0, 0, 0, 0), 48, 7, 13,
                                     nhs=((v6(0xfe80, 0, 0, 0, 0, 0, 0, 1), 3, 0, 0),)))
                             for i in range(3)])
    v4dels = update(0, 0, [(2, rtp(0, v4(10, i, 0, 0), 16, 4, 4)) for i in range(2)])

    def dnld(action, vrf=0):
        return msg(0x3255, 144, ((132, "I", action), (136, "I", vrf)))

    flush_swp = lambda code, vrf=0: msg(code, 140, ((132, "I", vrf),))
    clear_routes = nm(0x3215, 128, ((80 + 12, "I", 1), (80 + 16, "B", 0), (80 + 44, "I", 0)))
    clear_prefix = nm(0x3215, 128, ((80 + 12, "I", 0), (80 + 16, "B", 0), (80 + 17, "I", 0x0a010000),
                                    (80 + 40, "B", 16), (80 + 44, "I", 0)))
    seeds = {
        "register": chunk(BY_TYPE, OSPF, registration(4)),
        "register_both": chunk(BY_TYPE, ISIS4, registration(8, mtype=0x3269)),
        "register_vrf": chunk(BY_TYPE, OSPF, registration(3, vrf=5, mtype=0x323F)),
        "register_arp": chunk(BY_TYPE, OSPF, msg(0x3202, 144, ((112, "I", 1), (132, "I", 901)))),
        "deregister": chunk(BY_TYPE, OSPF, msg(0x3203, 161)),
        "deregister_af": chunk(BY_TYPE, BGP, msg(0x3237, 65, ((64, "B", 2),))),
        "deregister_both": chunk(BY_TYPE, ISIS4, msg(0x326A, 64)),
        "qualifier": chunk(BY_TYPE, OSPF, msg(0x325C, 172, ((144, "I", 3), (168, "I", 5)))),
        "unqualifier": chunk(BY_TYPE, OSPF, msg(0x325D, 172, ((144, "I", 3), (168, "I", 5)))),
        "routes_v4": chunk(BY_TYPE, OSPF, v4routes) + chunk(WORK, 1),
        "routes_v6": chunk(BY_TYPE, BGP, v6routes) + chunk(WORK, 1),
        "routes_isis": chunk(BY_TYPE, ISIS4, v4routes) + chunk(BY_TYPE, ISIS4, v4dels),
        "dnld_start": chunk(BY_TYPE, FIB4, dnld(1)) + chunk(WORK, 0),
        "dnld_start_v6": chunk(BY_TYPE, FIB6, dnld(1)) + chunk(WORK, 0),
        "dnld_stop": chunk(BY_TYPE, FIB4, dnld(0)),
        "flush": chunk(BY_TYPE, OSPF, msg(0x322D, 64)),
        "flush_swp": chunk(BY_TYPE, OSPF, flush_swp(0x322E)),
        "flush_swp_v6": chunk(BY_TYPE, BGP, flush_swp(0x322F)),
        "flush_vrf": chunk(BY_TYPE, OSPF, flush_swp(0x3251, 5)),
        "flush_vrf_v6": chunk(BY_TYPE, BGP, flush_swp(0x3252, 0)),
        "flush_mul": chunk(BY_TYPE, OSPF, flush_swp(0x3233)),
        "flush_vrf_mul": chunk(BY_TYPE, OSPF, flush_swp(0x3253)),
        "flush_poller": chunk(BY_TYPE, OSPF, flush_swp(0x3230)),
        "flush_poller_v6": chunk(BY_TYPE, BGP, flush_swp(0x3232)),
        "clear_fib": chunk(BY_TYPE, FIB4, msg(0x3240, 161, ((124, "I", 0xFFFF),))) + chunk(WORK, 0),
        "clear_fib_v6": chunk(BY_TYPE, FIB6, msg(0x3240, 161, ((124, "I", 0),))),
        "clear_routes": chunk(BY_TYPE, OSPF, v4routes) + chunk(BY_TYPE, 0, clear_routes) + chunk(WORK, 0)
        + chunk(BY_TYPE, OSPF, msg(0x3215, 184, ((148, "I", 1), (156, "I", 1)))),
        "clear_prefix": chunk(BY_TYPE, 0, clear_prefix),
        "clear_answer_v6": chunk(BY_TYPE, BGP, msg(0x3222, 184, ((148, "I", 1), (152, "B", 2), (156, "I", 1)))),
        "filter_on": chunk(BY_TYPE, 0, nm(0x3209, 96, ((80, "I", 16), (84, "I", 0), (88, "I", 0)))),
        "filter_off_v6": chunk(BY_TYPE, 0, nm(0x3209, 96, ((80, "I", 17), (84, "I", 1), (88, "I", 2)))),
        "rednld_ipm1": chunk(BY_TYPE, 0, nm(0x320A, 96, ((80, "I", 1), (84, "I", 0)))),
        "route_count": chunk(BY_TYPE, 0, nm(0x327B, 92, ((80, "I", 0xFFFFFFFF), (84, "I", 0xFFFF), (88, "I", 0)))),
        "route_count_page": chunk(BY_TYPE, 0, nm(0x327B, 92, ((80, "I", 2), (84, "I", 0), (88, "I", 3)))),
        "dnld_clients": chunk(BY_TYPE, 0, nm(0x327D, 88, ((80, "I", 0), (84, "I", 0)))),
        "swp_ack": chunk(BY_TYPE, FIB4, msg(0x0192, 72, ((68, "I", 0x321E),))),
        "ifm_slot_done": chunk(BY_TYPE, 0, msg(0x2A9C, 148, ((128, "I", 1), (140, "H", 73), (142, "H", 8),
                                                          (144, "I", 1)))),
        "card_event": chunk(BY_TYPE, 0, msg(0x07D9, 72, ((64, "I", 0x44800E), (68, "I", 1)))),
        "card_down": chunk(BY_TYPE, 0, msg(0x07D9, 72, ((64, "I", 7), (68, "I", 1)))),
        "frame_own": b"".join(chunk(BY_TYPE, 0, msg(t, 68)) for t in (0x0AF4, 0x0AF5, 0x0AF6, 0x0C81, 0x0C82,
                                                                         0x2A32, 0x07D3, 0x07D7))
        + chunk(BY_TYPE, 0, msg(0x0008, 68, ((24, "I", 42),))),
        "raw_unknown": chunk(RAW, 0, msg(0x321E, 68)) + chunk(RAW, 0, b"\x00" * 20),
        "unknown_nm": chunk(BY_TYPE, 0, nm(0x3201)),
    }
    # An agent that stops acknowledging: its queue backs up, is retried and fails; then it asks again.
    mute = chunk(WORK, 0x80 | 0x40 | 0x3F)  # no acknowledgements, and a minute passes
    seeds["agent_stalls"] = (chunk(WORK, 0x80) + chunk(BY_TYPE, OSPF, v4routes) + b"".join(mute for _ in range(8))
                             + seeds["dnld_clients"] + chunk(WORK, 1) + seeds["dnld_start"] + seeds["dnld_clients"])
    # A stretch of a session: routes in, an agent downloads, a clear, flushes, views.
    seeds["session"] = (seeds["routes_v4"] + seeds["routes_v6"] + seeds["dnld_start"] + seeds["dnld_start_v6"]
                        + seeds["clear_routes"] + seeds["route_count"] + seeds["dnld_clients"]
                        + seeds["flush_swp"] + chunk(WORK, 5) + seeds["clear_fib"])
    return seeds


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "fuzz-seeds"
    for target, seeds in (("fuzz_route_update", route_update_seeds()), ("fuzz_registration", registration_seeds()),
                          ("fuzz_dispatch", dispatch_seeds())):
        d = os.path.join(out, target)
        os.makedirs(d, exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(d, name + ".bin"), "wb") as f:
                f.write(data)


if __name__ == "__main__":
    main()
