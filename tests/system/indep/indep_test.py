#!/usr/bin/env python3
"""rtmd against a client that shares none of its code.

Starts rtm-ifm and rtmd in a fresh run directory, then drives them with rtm_wire: a protocol
client (OSPF, and BGP in both families) adds and withdraws routes, a FIB agent of both
families takes the download, and what the agent holds must be what the routes elect. The
sequenced transport, a malformed update and the route counters are checked on the way.

Usage: indep_test.py --bin-dir BUILD_DIR
"""

import argparse
import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', '..', 'client', 'python'))
import rtm_wire as w  # noqa: E402
from rtm_wire import NextHop, Route, OP_ADD, OP_DEL, AF_IPV4, AF_IPV6  # noqa: E402

BGP, OSPF, FIB, FIB6 = 7, 4, 27, 28
# Upper bound on any one wait: only there to turn a hang into a failure with a diagnosis.
PATIENCE = 20.0

failures = []


def check(cond, what):
    if not cond:
        failures.append(what)
        print("FAIL: " + what, flush=True)
    return cond


# ---------------------------------------------------------------------------------------------
# The route set: varied next hops, weights, TLV, both families, overlapping protocols

def v4_bgp(i, metric_bump=0):
    # rtmd keeps one weight per (ifindex, address), the last weighted route's: weighted routes
    # here (every fifth) never share a next hop, so each route's weights are its own.
    nnh = 1 + i % 4
    weighted = i % 5 == 0 and nnh > 1
    nhs = tuple(NextHop("192.0.2.%d" % (1 + (i + k) % 200), ifindex=(0 if k % 2 == 0 else 5 + k),
                        weight=(k + 1 if weighted else 0)) for k in range(nnh))
    return Route("10.77.%d.0/24" % i, BGP, nhs, pref=20, subtype=13, metric=100 + i + metric_bump,
                 tag=i, flags=w.RFLAG_WEIGHTED if weighted else 0,
                 tlv=bytes([0xAA, i & 0xFF]) if i % 7 == 0 else b"")


def v4_ospf(i):
    # The first twenty sit under BGP's 10.77.0-19 with a worse preference.
    pfx = "10.77.%d.0/24" % i if i < 20 else "10.78.%d.0/24" % i
    return Route(pfx, OSPF, (NextHop("198.51.100.%d" % (1 + i % 50)),), pref=110, subtype=4,
                 metric=10 + i)


def v6_bgp(i):
    nnh = 1 + i % 3
    nhs = tuple(NextHop("2001:db8:ff::%x" % (1 + (i + k) % 100), ifindex=(k * 3)) for k in range(nnh))
    plen = 64 if i % 2 == 0 else 56
    return Route("2001:db8:77:%x::/%d" % (i * 256, plen), BGP, nhs, pref=20, subtype=13, metric=7 * i)


V4_BGP = 200
V6_BGP = 100
V4_OSPF = 60


def in_test_ranges(prefix):
    return prefix.startswith(("10.77.", "10.78.", "10.79.", "2001:db8:77:"))


class Model:
    """The RIB as the test sees it: per (vrf, prefix), the routes of each protocol; the one of
    lowest preference is active (the set never ties)."""

    def __init__(self):
        self.routes = {}

    def apply(self, op, r):
        key = (r.vrf, str(r.net))
        slot = self.routes.setdefault(key, {})
        if op == OP_ADD:
            slot[r.proto] = r
        else:
            slot.pop(r.proto, None)

    def fib(self, af):
        out = {}
        for key, slot in self.routes.items():
            if not slot:
                continue
            best = min(slot.values(), key=lambda r: r.pref)
            if best.af != af:
                continue
            weighted = 1 if best.flags & w.RFLAG_WEIGHTED else 0
            nhs = tuple(w.FibNextHop(str(w.ipaddress.ip_address(n.addr)), n.ifindex, n.vrf,
                                     n.weight if weighted else 0) for n in best.nexthops)
            out[key] = w.FibEntry(best.proto, best.metric, weighted, nhs, best.tlv if af == AF_IPV4 else b"")
        return out


# ---------------------------------------------------------------------------------------------
# Processes

class System:
    def __init__(self, bin_dir):
        self.dir = tempfile.mkdtemp(prefix="rtm-indep.", dir="/tmp")
        self.run = os.path.join(self.dir, "run")
        self.log = os.path.join(self.dir, "rtmd.log")
        self.ifm = subprocess.Popen([os.path.join(bin_dir, "tools/rtm-ifm/rtm-ifm"), "--run-dir", self.run,
                                     "--slots", "0", "--quiet"])
        self.rtmd = subprocess.Popen([os.path.join(bin_dir, "src/frame/rtmd"), "--run-dir", self.run,
                                      "--log-file", self.log])
        end = time.monotonic() + PATIENCE
        while "RTM Task is Ready" not in self.log_text():
            if self.rtmd.poll() is not None or time.monotonic() > end:
                raise RuntimeError("rtmd did not come up:\n" + self.log_text())
            time.sleep(0.05)

    def log_text(self):
        try:
            with open(self.log, errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def stop(self):
        status = None
        if self.rtmd.poll() is None:
            self.rtmd.send_signal(signal.SIGTERM)
            try:
                status = self.rtmd.wait(PATIENCE)
            except subprocess.TimeoutExpired:
                self.rtmd.kill()
                self.rtmd.wait()
        if self.ifm.poll() is None:
            self.ifm.terminate()
            self.ifm.wait()
        return status


# ---------------------------------------------------------------------------------------------
# Steps

def push(ep, sender, cid, af, ops, model=None):
    for m in w.batch_updates(cid, af, ops):
        sender.enqueue(m)
        # Keep the window moving while we queue: the sender holds at most `size` messages.
        ep.pump(0)
    ep.drain(sender, PATIENCE)
    if model is not None:
        for op, r in ops:
            model.apply(op, r)


def active_of(ep, af, cid):
    status, _, _, rows = w.route_count(ep, af)
    check(status == 0, "route count af %d answered status %d" % (af, status))
    act = sum(r[3] for r in rows if r[0] == cid and r[1] == af)
    inact = sum(r[4] for r in rows if r[0] == cid and r[1] == af)
    return act, inact


def golden_vectors():
    """Our encoders and decoders against the byte dumps of the wire contract."""
    r = Route("10.1.0.0/16", BGP, (NextHop("192.0.2.1", 5, weight=1), NextHop("192.0.2.2", 0, weight=3)),
              pref=20, subtype=13, metric=100, tag=0x01020304, flags=w.RFLAG_WEIGHTED, tlv=b"\xaa\xbb")
    upd = w.encode_update(3, AF_IPV4, [w.encode_element(OP_ADD, r)])
    want = bytes.fromhex(
        "00000003 00000001 00000000 00000001 00140000 00000000 00000007 00000000 0000000d 00000064"
        "01020304 00000000 00020000 00800000 00020010 00000000 00000000 0a010000"
        "c0000201 00000005 00000000 00000000 00000001 c0000202 00000000 00000000 00000000 00000003 aabb")
    check(len(upd) == 254 and bytes(upd[140:]) == want, "route-update encoding differs from the documented bytes")

    fib = bytes.fromhex(
        "0000000000000000000000f60000321e" "00000000000000010000000000000000"
        "00001234000000007f000001004c0001" "000000007f00000101900011004c0011"
        "00000005" + "00" * 60 +
        "00000000000000010000000100002000" "00000000000000010000000000000000"
        "0a01000000000007000000641002000201000000c00002010000000500000000"
        "00000001c00002020000000600000000" "00000003aabb00000002000000000000"
        "00000a02000000000000000000001800" "000000000000")
    try:
        af, cmds = w.decode_fib_routes(fib)
        ok = (af == AF_IPV4 and len(cmds) == 2 and cmds[0].prefix == "10.1.0.0/16" and cmds[0].weighted == 1
              and [(n.addr, n.ifindex, n.weight) for n in cmds[0].nexthops] == [("192.0.2.1", 5, 1), ("192.0.2.2", 6, 3)]
              and cmds[0].tlv == b"\xaa\xbb" and cmds[1].op == OP_DEL and cmds[1].prefix == "10.2.0.0/24")
    except ValueError as e:
        ok = False
        print("  decode: %s" % e)
    check(ok, "the documented download example does not decode as documented")

    # A well-formed message stays well formed only while every rule holds: break each once.
    def broken(off, val, fmt=">I"):
        b = bytearray(fib)
        struct.pack_into(fmt, b, off, val)
        return b
    cases = [
        ("delete count off by one", broken(136, 2)),
        ("family byte against the type", broken(144, 2, ">B")),
        ("operation 3", broken(148, 3)),
        ("prefix length 33", broken(148 + 24, 33, ">B")),
        ("next hops past mlen", broken(148 + 25, 9, ">B")),
        ("mlen past the datagram", broken(8, len(fib) + 1)),
        ("commands short of mlen", bytes(broken(8, len(fib) + 4)) + b"\0\0\0\0"),
    ]
    for name, msg in cases:
        try:
            w.decode_fib_routes(bytes(msg))
            check(False, "malformed download message accepted: " + name)
        except ValueError:
            pass


def register_agent(ep, proto, af):
    """A FIB agent is refused until the interface manager has reported its slot: try again."""
    end = time.monotonic() + PATIENCE
    while True:
        status, cid = w.register(ep, "indep-fib%d" % af, proto, 0, af)
        if status == 0 or time.monotonic() > end:
            return status, cid
        ep.pump(0.1)


def wait_table(agent, model, what):
    def diff():
        out = []
        for af in (AF_IPV4, AF_IPV6):
            want = model.fib(af)
            have = {k: v for k, v in agent.table[af].items() if in_test_ranges(k[1])}
            for k in sorted(set(want) | set(have)):
                if want.get(k) != have.get(k):
                    out.append("%s: want %s, have %s" % (k, want.get(k), have.get(k)))
        return out
    try:
        agent.ep.wait_until(lambda: not diff(), PATIENCE, what)
        return True
    except TimeoutError:
        d = diff()
        check(False, "%s: the agent's table differs in %d prefixes, e.g. %s" % (what, len(d), d[:3]))
        return False


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin-dir", required=True)
    ap.add_argument("--keep", action="store_true", help="keep the run directory")
    args = ap.parse_args()

    golden_vectors()
    sysm = System(os.path.abspath(args.bin_dir))
    proto_ep = agent_ep = None
    try:
        proto_ep = w.Endpoint(sysm.run, 200, 0)
        agent_ep = w.Endpoint(sysm.run, 400, 0)
        agent = w.FibAgent(agent_ep)
        model = Model()

        # Registration: each form, a repeat and a refusal.
        st, ospf_cid = w.register(proto_ep, "indep-ospf", OSPF, 1, AF_IPV4)
        check(st == 0, "OSPF registration answered %d" % st)
        st, both = w.register(proto_ep, "indep-bgp", BGP, 1, AF_IPV4, mtype=w.MT_RTM_REG_CLIENT_BOTH)
        check(st == 0, "BGP registration in both families answered %d" % st)
        bgp4, bgp6 = both >> 16, both & 0xFFFF
        for name, proto, inst, want_status, want_cid in [
            ("repeat of OSPF keeps its handle", OSPF, 1, 0, ospf_cid),
            ("protocol 31 is refused", 31, 1, 1, None),
        ]:
            st, cid = w.register(proto_ep, "indep-x", proto, inst, AF_IPV4)
            check(st == want_status and (want_cid is None or cid == want_cid),
                  "%s: status %d cid %d" % (name, st, cid))

        # One sequenced queue per family's client record.
        q_ospf = proto_ep.new_sender()
        q_bgp4 = proto_ep.new_sender()
        q_bgp6 = proto_ep.new_sender()
        push(proto_ep, q_bgp4, bgp4, AF_IPV4, [(OP_ADD, v4_bgp(i)) for i in range(V4_BGP)], model)
        push(proto_ep, q_bgp6, bgp6, AF_IPV6, [(OP_ADD, v6_bgp(i)) for i in range(V6_BGP)], model)
        push(proto_ep, q_ospf, ospf_cid, AF_IPV4, [(OP_ADD, v4_ospf(i)) for i in range(V4_OSPF)], model)

        for name, q, word in [("BGP IPv4", q_bgp4, 0), ("BGP IPv6", q_bgp6, 2), ("OSPF", q_ospf, 0)]:
            bad = [a for a in q.acks if a.kind != 0 or a.word != word or a.trans != q.trans_of.get(a.seq)]
            check(not bad and q.retransmits == 0,
                  "%s acks: %d unexpected (e.g. %s), %d retransmission rounds" % (name, len(bad), bad[:1], q.retransmits))

        # rtmd's own counters: BGP wins every prefix it shares with OSPF.
        for name, af, cid, want in [
            ("BGP IPv4", AF_IPV4, bgp4, (V4_BGP, 0)),
            ("BGP IPv6", AF_IPV6, bgp6, (V6_BGP, 0)),
            ("OSPF", AF_IPV4, ospf_cid, (V4_OSPF - 20, 20)),
        ]:
            got = active_of(proto_ep, af, cid)
            check(got == want, "%s active/inactive %s, want %s" % (name, got, want))

        # The agent, one client record per family, both on our one endpoint.
        st4, fib4 = register_agent(agent_ep, FIB, AF_IPV4)
        st6, fib6 = register_agent(agent_ep, FIB6, AF_IPV6)
        check(st4 == 0 and st6 == 0, "FIB agent registration answered %d/%d" % (st4, st6))
        a4, a6 = agent_ep.new_sender(), agent_ep.new_sender()
        a4.enqueue(w.encode_dnld_cntrl(fib4, w.RTM_CNTRL_START_DNLD, 0, AF_IPV4))
        a6.enqueue(w.encode_dnld_cntrl(fib6, w.RTM_CNTRL_START_DNLD, 0, AF_IPV6))
        agent_ep.drain(a4, PATIENCE)
        agent_ep.drain(a6, PATIENCE)
        try:
            agent_ep.wait_until(lambda: {(0, AF_IPV4), (0, AF_IPV6)} <= set(agent.markers), PATIENCE,
                                "the fresh-download markers")
        except TimeoutError:
            check(False, "no fresh-download marker for VRF 0 in both families: %s" % agent.markers)
        wait_table(agent, model, "download")

        # The sequenced transport, as rtmd receives it: a repeat and a gap are acknowledged at
        # once with the last sequence applied, and neither is applied.
        stray = Route("10.79.1.0/24", BGP, (NextHop("192.0.2.9"),), metric=1)
        body = w.batch_updates(bgp4, AF_IPV4, [(OP_ADD, stray)])[0]
        for name, seq_of, kind in [("repeat", lambda n: n - 1, w.ACK_REPEAT),
                                   ("gap", lambda n: n + 1, w.ACK_GAP)]:
            before = len(q_bgp4.acks)
            q_bgp4.send_unheld(body, seq_of(q_bgp4.next_seq))
            try:
                proto_ep.wait_until(lambda: len(q_bgp4.acks) > before, PATIENCE, "the %s ack" % name)
                a = q_bgp4.acks[before]
                check(a.kind == kind and a.seq == q_bgp4.next_seq - 1,
                      "%s: ack kind %d sequence %d, want kind %d sequence %d" % (name, a.kind, a.seq, kind,
                                                                                q_bgp4.next_seq - 1))
            except TimeoutError:
                check(False, "%s: no ack" % name)
        check(active_of(proto_ep, AF_IPV4, bgp4) == (V4_BGP, 0), "a repeated or early message was applied")

        # Replacements and withdrawals, with the agent watching: BGP gives up 10.77.0-19 to OSPF,
        # withdraws 100-149, re-adds 150-159 with other metrics; IPv6 loses half.
        ops4 = ([(OP_DEL, v4_bgp(i)) for i in range(20)] + [(OP_DEL, v4_bgp(i)) for i in range(100, 150)]
                + [(OP_ADD, v4_bgp(i, metric_bump=1000)) for i in range(150, 160)])
        push(proto_ep, q_bgp4, bgp4, AF_IPV4, ops4, model)
        push(proto_ep, q_bgp6, bgp6, AF_IPV6, [(OP_DEL, v6_bgp(i)) for i in range(0, V6_BGP, 2)], model)
        wait_table(agent, model, "withdrawals and replacements")
        check(active_of(proto_ep, AF_IPV4, ospf_cid) == (V4_OSPF, 0), "OSPF did not take over BGP's withdrawn prefixes")

        # Malformed updates: each is acknowledged in sequence, refused whole (its first, good
        # element included) and rtmd goes on.
        good = w.encode_element(OP_ADD, stray)
        one_nh = w.encode_element(OP_ADD, Route("10.79.2.0/24", BGP, (NextHop("192.0.2.9"),)))
        too_many_nh = bytearray(one_nh)
        struct.pack_into(">H", too_many_nh, 4 + 32, 3)
        long_tlv = bytearray(one_nh)
        struct.pack_into(">H", long_tlv, 4 + 40, 64)
        malformed = [
            ("count one past the elements", w.encode_update(bgp4, AF_IPV4, [good], count=2)),
            ("next hops past the message", w.encode_update(bgp4, AF_IPV4, [good, bytes(too_many_nh)])),
            ("TLV past the message", w.encode_update(bgp4, AF_IPV4, [good, bytes(long_tlv)])),
        ]
        refusals = sysm.log_text().count("0x148034")
        for name, msg in malformed:
            before = len(q_bgp4.acks)
            q_bgp4.enqueue(msg)
            proto_ep.drain(q_bgp4, PATIENCE)
            a = q_bgp4.acks[before] if len(q_bgp4.acks) > before else None
            check(a is not None and a.kind == 0, "%s: not acknowledged in sequence (%s)" % (name, a))
            check(active_of(proto_ep, AF_IPV4, bgp4) == (V4_BGP - 70, 0), "%s: something of it was applied" % name)
            check(sysm.rtmd.poll() is None, "%s: rtmd ended" % name)
        # The counter answer above came after the refusal, so its log line is written by now.
        check(sysm.log_text().count("0x148034") - refusals == len(malformed),
              "malformed updates logged %d times, want %d" % (sysm.log_text().count("0x148034") - refusals,
                                                              len(malformed)))
        # A good update after them still works, and the agent never saw the refused prefixes.
        sentinel = Route("10.79.3.0/24", BGP, (NextHop("192.0.2.10", 9),), metric=3)
        push(proto_ep, q_bgp4, bgp4, AF_IPV4, [(OP_ADD, sentinel)], model)
        wait_table(agent, model, "after the malformed updates")

        # Leaving takes every route of the client with it.
        check(w.deregister(proto_ep, bgp6, AF_IPV6) == 0, "BGP IPv6 deregistration refused")
        for key in [k for k in model.routes if k[1].startswith("2001:db8:77:")]:
            model.routes[key].pop(BGP, None)
        wait_table(agent, model, "deregistration of BGP IPv6")

        check(not agent.malformed, "rtmd sent malformed download messages: %s" % agent.malformed[:3])
        check(agent_ep.receiver.gaps == 0 and proto_ep.receiver.gaps == 0,
              "rtmd's queues skipped sequences (%d, %d)" % (agent_ep.receiver.gaps, proto_ep.receiver.gaps))
        check("ASSERT" not in sysm.log_text(), "rtmd logged a failed internal check")
        print("agent: %d IPv4 and %d IPv6 routes, %d next-hop records, other types %s" % (
            len(agent.table[AF_IPV4]), len(agent.table[AF_IPV6]), agent.nexthops,
            {hex(k): v for k, v in agent.other_types.items()}))
    except Exception as e:  # a failure of the harness is a failure of the test, with its context
        check(False, "%s: %s" % (type(e).__name__, e))
    finally:
        for ep in (proto_ep, agent_ep):
            if ep is not None:
                ep.close()
        status = sysm.stop()
        check(status == 0, "rtmd exited with %s after SIGTERM" % status)
        if failures:
            print("---- rtmd log (tail)\n" + "\n".join(sysm.log_text().splitlines()[-30:]))
        if args.keep or failures:
            print("run directory kept: " + sysm.dir)
        else:
            shutil.rmtree(sysm.dir, ignore_errors=True)
    print("%d failures" % len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
