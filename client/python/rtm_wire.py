"""A client of rtmd written from the wire contract alone, in plain Python.

It speaks the datagram transport (60-byte header, queue ids, send-and-wait), both halves of
SWP (a windowed go-back-N sender and the in-order receiver with cumulative acks), the
registration of protocols and FIB agents, route updates and the FIB download messages.
Nothing here shares code with the C++ client library: it was written from docs/ipc.md alone,
so that another team, in another language, can talk to rtmd from the documents; the system
test tests/system/indep drives rtmd with it. Usable as it stands for scripts and agents:
`sys.path.insert(0, "<repo>/client/python"); import rtm_wire`.
"""

import errno
import ipaddress
import os
import select
import socket
import struct
import time
from dataclasses import dataclass, field

# Addressing
RTMD_SVCE, RTMD_INST = 76, 0
CARD = 0x7F000001
KIND_REQ, KIND_TMR, KIND_RSP = 1, 2, 3
HDR_LEN = 60
SWP_HDR_LEN = 68
MAX_MSG = 8192

# Message codes
MT_SWP_ACK = 0x0192
MT_NM_CMD = 0x1771
MT_RTM_REG_CLIENT = 0x3201
MT_RTM_REG_CLIENT_VRF = 0x323F
MT_RTM_REG_CLIENT_BOTH = 0x3269
MT_RTM_DEREG_CLIENT = 0x3203
MT_RTM_UPD_ROUTE = 0x3204
MT_RTM_FIB_ROUTE = 0x321E
MT_RTM6_FIB_ROUTE = 0x3221
MT_RTM_FIB_NH = 0x322A
MT_RTM_DNLD_CNTRL = 0x3255
NM_GET_ROUTE_COUNT = 0x327B

RTM_CNTRL_STOP_DNLD, RTM_CNTRL_START_DNLD, RTM_CNTRL_DNLD_BEGINS = 0, 1, 2
OP_ADD, OP_DEL = 1, 2
AF_IPV4, AF_IPV6 = 0, 2

ACK_IN_ORDER, ACK_REPEAT, ACK_GAP = 0, 1, 2
RFLAG_WEIGHTED = 0x800000


def queue_id(svce, inst, kind=KIND_REQ):
    return (svce << 16) | (inst << 4) | kind


def split_queue_id(qid):
    return qid >> 16, (qid >> 4) & 0xFFF, qid & 0xF


def queue_path(run_dir, qid):
    svce, inst, kind = split_queue_id(qid)
    suffix = {KIND_REQ: "", KIND_TMR: ".tmr", KIND_RSP: ".rsp"}.get(kind)
    if suffix is None:
        raise ValueError("queue id 0x%08x names no queue" % qid)
    return os.path.join(run_dir, "ipc", "%d.%d%s" % (svce, inst, suffix))


def af_width(af):
    return 4 if af in (0, 1) else 16


# ---------------------------------------------------------------------------------------------
# The header

@dataclass
class Header:
    mlen: int
    mtype: int
    instance: int
    mstatus: int
    sync: int
    trans: int
    src_slot: int
    src_card: int
    src_svce: int
    dst_slot: int
    dst_card: int
    dst_svce: int


_HDR = struct.Struct(">8xIIIII4xIIIIIII")
assert _HDR.size == HDR_LEN


def put_header(buf, mtype, src_qid, dst_qid, trans=0, mstatus=0, instance=0, sync=0):
    """Writes the 60-byte header over the front of bytearray buf; mlen is len(buf)."""
    if len(buf) < HDR_LEN:
        raise ValueError("a message is at least %d bytes" % HDR_LEN)
    _HDR.pack_into(buf, 0, len(buf), mtype, instance, mstatus, sync, trans,
                   0, CARD, src_qid, 0, CARD, dst_qid)


def get_header(msg):
    if len(msg) < HDR_LEN:
        raise ValueError("short message: %d bytes" % len(msg))
    return Header(*_HDR.unpack_from(msg, 0))


def u32(msg, off):
    return struct.unpack_from(">I", msg, off)[0]


# ---------------------------------------------------------------------------------------------
# SWP

@dataclass
class Ack:
    handle: int
    seq: int
    word: int
    kind: int
    trans: int


def decode_ack(msg):
    """An ack is 76 bytes, or 68 without its kind word (then in order); shorter is refused."""
    if len(msg) < SWP_HDR_LEN:
        raise ValueError("ack of %d bytes" % len(msg))
    h = get_header(msg)
    word = u32(msg, 68) if len(msg) >= 72 else 0
    kind = u32(msg, 72) if len(msg) >= 76 else ACK_IN_ORDER
    return Ack(u32(msg, 60), u32(msg, 64), word, kind, h.trans)


def build_ack(data_msg, own_qid, acked_seq, kind):
    h = get_header(data_msg)
    ack = bytearray(76)
    put_header(ack, MT_SWP_ACK, own_qid, h.src_svce, trans=h.trans)
    struct.pack_into(">IIII", ack, 60, u32(data_msg, 60), acked_seq, h.mtype, kind)
    return bytes(ack)


class SwpSender:
    """One sequenced queue towards one receiver: window, cumulative acks, go-back-N."""

    def __init__(self, endpoint, handle, dst_qid, window=10, size=255, rto=1.0, max_rounds=6):
        self.ep, self.handle, self.dst = endpoint, handle, dst_qid
        self.window, self.size, self.rto, self.max_rounds = window, size, rto, max_rounds
        self.next_seq = 1
        self.held = []          # [seq, bytes, sent] oldest first
        self.rounds = 0         # retransmission rounds without progress
        self.deadline = None
        self.failed = False
        self.acks = []          # every ack taken, for callers that check the contract
        self.retransmits = 0
        self.gap_round_for = None
        self.trans_of = {}      # sequence -> transaction code, which every ack must echo

    def enqueue(self, msg):
        """msg is a whole message (header and SWP header room); returns its sequence."""
        if self.failed:
            raise RuntimeError("queue 0x%08x has failed" % self.handle)
        if len(self.held) >= self.size:
            raise RuntimeError("queue 0x%08x is full" % self.handle)
        if not SWP_HDR_LEN <= len(msg) <= MAX_MSG:
            raise ValueError("SWP data is 68..8192 bytes, not %d" % len(msg))
        buf = bytearray(msg)
        struct.pack_into(">II", buf, 60, self.handle, self.next_seq)
        # The source must be our request queue: that is where the acks go.
        struct.pack_into(">III", buf, 36, 0, CARD, self.ep.req_qid)
        struct.pack_into(">III", buf, 48, 0, CARD, self.dst)
        struct.pack_into(">I", buf, 8, len(buf))
        trans = self.ep.next_trans()
        struct.pack_into(">I", buf, 32, trans)
        self.trans_of[self.next_seq] = trans
        self.held.append([self.next_seq, bytes(buf), False])
        self.next_seq += 1
        self.kick()
        return self.next_seq - 1

    def send_unheld(self, msg, seq):
        """Sends msg with an arbitrary sequence and does not hold it: how a lost or repeated
        message looks to the receiver."""
        buf = bytearray(msg)
        struct.pack_into(">II", buf, 60, self.handle, seq)
        struct.pack_into(">III", buf, 36, 0, CARD, self.ep.req_qid)
        struct.pack_into(">III", buf, 48, 0, CARD, self.dst)
        struct.pack_into(">II", buf, 8, len(buf), get_header(buf).mtype)
        self.ep.try_send(self.dst, bytes(buf), wait=True)

    def idle(self):
        return not self.held

    def kick(self):
        """Sends what the window allows; a full receiver leaves the rest for later."""
        for i, item in enumerate(self.held):
            if i >= self.window:
                break
            if not item[2]:
                if not self.ep.try_send(self.dst, item[1]):
                    break
                item[2] = True
                if self.deadline is None:
                    self.deadline = time.monotonic() + self.rto
        return

    def on_ack(self, ack):
        self.acks.append(ack)
        if not self.held:
            return
        oldest = self.held[0][0]
        if ack.seq >= self.next_seq:
            return  # above anything sent: refused
        if ack.seq >= oldest:
            self.held = [h for h in self.held if h[0] > ack.seq]
            self.rounds = 0
            self.gap_round_for = None
            self.deadline = time.monotonic() + self.rto if any(h[2] for h in self.held) else None
        elif ack.kind == ACK_GAP and ack.seq == oldest - 1 and self.gap_round_for != oldest:
            self.gap_round_for = oldest
            self._resend_all()
        self.kick()

    def _resend_all(self):
        self.retransmits += 1
        for item in self.held:
            item[2] = False
        self.kick()

    def on_timer(self, now):
        if self.failed or self.deadline is None or now < self.deadline:
            return
        self.rounds += 1
        if self.rounds > self.max_rounds:
            self.failed = True
            self.deadline = None
            return
        self._resend_all()
        self.deadline = now + min(self.rto * (2 ** self.rounds), 4 * self.rto)


class SwpReceiver:
    """In-order receiver: one expected sequence per sender queue handle, acks for every message."""

    def __init__(self, endpoint):
        self.ep = endpoint
        self.expected = {}      # queue handle -> expected sequence
        self.repeats = 0
        self.gaps = 0

    def check(self, msg):
        """Returns True if msg is the next of its queue (and is to be applied); always acks."""
        if len(msg) < SWP_HDR_LEN:
            return False
        handle, seq = u32(msg, 60), u32(msg, 64)
        exp = self.expected.get(handle, 1)
        if seq == exp:
            self.expected[handle] = exp + 1
            self.ep.try_send(get_header(msg).src_svce, build_ack(msg, self.ep.req_qid, seq, ACK_IN_ORDER),
                             wait=True)
            return True
        if seq < exp:
            self.repeats += 1
            kind = ACK_REPEAT
        else:
            self.gaps += 1
            kind = ACK_GAP
        self.ep.try_send(get_header(msg).src_svce, build_ack(msg, self.ep.req_qid, exp - 1, kind), wait=True)
        return False


# ---------------------------------------------------------------------------------------------
# The endpoint

class Endpoint:
    """(svce, inst) in a run directory: a bound request socket and a response socket."""

    _handles = 0

    def __init__(self, run_dir, svce, inst=0):
        self.run_dir, self.svce, self.inst = run_dir, svce, inst
        self.req_qid = queue_id(svce, inst, KIND_REQ)
        self.rsp_qid = queue_id(svce, inst, KIND_RSP)
        self.req = self._bind(self.req_qid)
        self.rsp = self._bind(self.rsp_qid)
        self.out = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.out.setblocking(False)
        self.senders = {}       # handle -> SwpSender
        self.receiver = SwpReceiver(self)
        self.on_data = None     # callback(msg) for each in-order message from a peer's queue
        self.plain = []         # messages that are neither acks nor SWP data
        self.trans = 0x100

    def _bind(self, qid):
        path = queue_path(self.run_dir, qid)
        s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        try:
            os.unlink(path)
        except FileNotFoundError:
            pass
        s.bind(path)
        os.chmod(path, 0o600)
        s.setblocking(False)
        return s

    def close(self):
        for s in (self.req, self.rsp, self.out):
            s.close()
        for qid in (self.req_qid, self.rsp_qid):
            try:
                os.unlink(queue_path(self.run_dir, qid))
            except FileNotFoundError:
                pass

    def next_trans(self):
        self.trans += 1
        return self.trans

    def try_send(self, dst_qid, msg, wait=False):
        """Sends one datagram; a full destination is a temporary state, not an error."""
        path = queue_path(self.run_dir, dst_qid)
        end = time.monotonic() + 0.2
        while True:
            try:
                self.out.sendto(msg, path)
                return True
            except BlockingIOError:
                if not wait or time.monotonic() > end:
                    return False
                time.sleep(0.001)
            except OSError as e:
                if e.errno in (errno.EAGAIN, errno.ENOBUFS) and wait and time.monotonic() <= end:
                    time.sleep(0.001)
                    continue
                raise

    def send_plain(self, mtype, body, dst_qid=queue_id(RTMD_SVCE, RTMD_INST), trans=None):
        """body is the whole message; the header is written here."""
        buf = bytearray(body)
        put_header(buf, mtype, self.req_qid, dst_qid, trans=self.next_trans() if trans is None else trans)
        if not self.try_send(dst_qid, bytes(buf), wait=True):
            raise OSError(errno.EAGAIN, "destination full")

    def send_wait(self, mtype, body, dst_qid=queue_id(RTMD_SVCE, RTMD_INST), retries=5, wait=0.5):
        """Send-and-wait: the answer comes to our response queue with our transaction code."""
        buf = bytearray(body)
        trans = self.next_trans()
        put_header(buf, mtype, self.rsp_qid, dst_qid, trans=trans)
        for _ in range(retries + 1):
            self.try_send(dst_qid, bytes(buf), wait=True)
            end = time.monotonic() + wait
            while True:
                left = end - time.monotonic()
                if left <= 0:
                    break
                # Keep the request queue moving meanwhile: acks and data do not wait for us.
                r, _, _ = select.select([self.rsp, self.req], [], [], left)
                if self.req in r:
                    self.pump(0)
                if self.rsp in r:
                    reply = self.rsp.recv(65536)
                    if len(reply) >= HDR_LEN and get_header(reply).trans == trans:
                        return reply
        raise TimeoutError("no answer to 0x%04x" % mtype)

    def new_sender(self, dst_qid=queue_id(RTMD_SVCE, RTMD_INST), **kw):
        Endpoint._handles += 1
        handle = ((os.getpid() & 0x7FFF) << 16) | Endpoint._handles
        s = SwpSender(self, handle, dst_qid, **kw)
        self.senders[handle] = s
        return s

    def pump(self, timeout):
        """Takes every waiting datagram (waiting up to timeout for the first), runs SWP timers."""
        got = 0
        r, _, _ = select.select([self.req], [], [], max(0.0, timeout))
        while r:
            try:
                msg = self.req.recv(65536)
            except BlockingIOError:
                break
            got += 1
            self._dispatch(msg)
        now = time.monotonic()
        for s in self.senders.values():
            s.on_timer(now)
            s.kick()
        return got

    def _dispatch(self, msg):
        if len(msg) < HDR_LEN:
            return
        h = get_header(msg)
        if h.mlen != len(msg):
            return
        if h.mtype == MT_SWP_ACK:
            try:
                ack = decode_ack(msg)
            except ValueError:
                return
            s = self.senders.get(ack.handle)
            if s is not None:
                s.on_ack(ack)
            return
        # rtmd's traffic to a client is all sequenced (redistribution, next hops, download);
        # anything shorter than an SWP header is a plain message.
        if len(msg) < SWP_HDR_LEN:
            self.plain.append(msg)
            return
        if self.receiver.check(msg) and self.on_data is not None:
            self.on_data(msg)

    def wait_until(self, cond, limit, what):
        """Pumps until cond() holds; limit only bounds a hang, it is no expectation of speed."""
        end = time.monotonic() + limit
        while not cond():
            if time.monotonic() > end:
                raise TimeoutError("gave up waiting for " + what)
            self.pump(0.05)

    def drain(self, sender, limit=20.0):
        self.wait_until(lambda: sender.idle() or sender.failed, limit, "acks of queue 0x%08x" % sender.handle)
        if sender.failed:
            raise RuntimeError("queue 0x%08x failed" % sender.handle)


# ---------------------------------------------------------------------------------------------
# Registration

def encode_registration(name, proto, instance, svce, ipc_inst, af, filt=0, vrf=0, flags=0,
                        multi_q=0, n_qs=0):
    buf = bytearray(168)
    nm = name.encode()[:40]
    buf[64:64 + len(nm)] = nm
    struct.pack_into(">I", buf, 108, proto)
    struct.pack_into(">I", buf, 116, instance)
    struct.pack_into(">IIIIIII", buf, 124, vrf, flags, svce, CARD, ipc_inst, 0, filt)
    buf[160] = af
    struct.pack_into(">HI", buf, 162, multi_q, n_qs)
    return buf


def register(ep, name, proto, instance, af, mtype=MT_RTM_REG_CLIENT, **kw):
    """Returns (mstatus, reg_cid) of rtmd's answer."""
    reply = ep.send_wait(mtype, encode_registration(name, proto, instance, ep.svce, ep.inst, af, **kw))
    if len(reply) < 64:
        raise ValueError("registration answer of %d bytes" % len(reply))
    return get_header(reply).mstatus, u32(reply, 60)


def deregister(ep, cid, af):
    buf = bytearray(168)
    struct.pack_into(">I", buf, 60, cid)
    buf[160] = af
    reply = ep.send_wait(MT_RTM_DEREG_CLIENT, buf)
    return get_header(reply).mstatus


# ---------------------------------------------------------------------------------------------
# Route updates

@dataclass(frozen=True)
class NextHop:
    addr: str
    ifindex: int = 0
    vrf: int = 0
    weight: int = 0


@dataclass(frozen=True)
class Route:
    prefix: str                 # "10.1.0.0/16" or "2001:db8::/48"
    proto: int
    nexthops: tuple
    pref: int = 20
    subtype: int = 0
    metric: int = 0
    tag: int = 0
    vrf: int = 0
    flags: int = 0
    tlv: bytes = b""
    src_vrf: int = 0

    @property
    def net(self):
        return ipaddress.ip_network(self.prefix, strict=False)

    @property
    def af(self):
        return AF_IPV4 if self.net.version == 4 else AF_IPV6


def element_size(af, nnh, tlvlen):
    return (60 + 20 * nnh if af in (0, 1) else 84 + 28 * nnh) + tlvlen


def encode_element(op, r):
    af, w = r.af, af_width(r.af)
    rec = bytearray(element_size(af, len(r.nexthops), len(r.tlv)))
    struct.pack_into(">I", rec, 0, op)
    o = 4
    struct.pack_into(">HHII", rec, o, r.pref, 0, r.vrf, r.proto)
    struct.pack_into(">IiI", rec, o + 16, r.subtype, r.metric, r.tag)
    struct.pack_into(">H", rec, o + 32, len(r.nexthops))
    struct.pack_into(">IHBB", rec, o + 36, r.flags, len(r.tlv), af, r.net.prefixlen)
    # gateway stays zero
    struct.pack_into(">I", rec, o + 44 + w, r.src_vrf)
    rec[o + 48 + w:o + 48 + 2 * w] = r.net.network_address.packed
    p = o + 48 + 2 * w
    for nh in r.nexthops:
        rec[p:p + w] = ipaddress.ip_address(nh.addr).packed
        if w == 4:
            struct.pack_into(">III", rec, p + 4, nh.ifindex, nh.vrf, 0)
            struct.pack_into(">I", rec, p + 16, nh.weight)
            p += 20
        else:
            struct.pack_into(">III", rec, p + 16, nh.ifindex, nh.vrf, nh.weight)
            p += 28
    rec[p:p + len(r.tlv)] = r.tlv
    return bytes(rec)


def encode_update(cid, af, elements, count=None):
    """A route-update message (header room included) around already encoded elements."""
    body = b"".join(elements)
    buf = bytearray(152 + len(body))
    struct.pack_into(">II", buf, 140, cid, len(elements) if count is None else count)
    buf[149] = af
    buf[152:] = body
    put_header(buf, MT_RTM_UPD_ROUTE, 0, 0)
    return buf


def batch_updates(cid, af, ops):
    """Packs [(op, Route)] into as few messages of at most 8192 bytes as they fit."""
    msgs, cur, size = [], [], 152
    for op, r in ops:
        e = encode_element(op, r)
        if size + len(e) > MAX_MSG and cur:
            msgs.append(encode_update(cid, af, cur))
            cur, size = [], 152
        cur.append(e)
        size += len(e)
    if cur:
        msgs.append(encode_update(cid, af, cur))
    return msgs


# ---------------------------------------------------------------------------------------------
# FIB download

@dataclass(frozen=True)
class FibNextHop:
    addr: str
    ifindex: int
    vrf: int
    weight: int


@dataclass(frozen=True)
class FibCommand:
    op: int
    vrf: int
    prefix: str
    proto: int
    metric: int
    marker: int
    weighted: int
    nexthops: tuple
    tlv: bytes


def encode_dnld_cntrl(cid, action, vrf, af):
    buf = bytearray(144)
    struct.pack_into(">III", buf, 128, (cid << 16) if af in (0, 1) else cid, action, vrf)
    buf[140] = af
    put_header(buf, MT_RTM_DNLD_CNTRL, 0, 0)
    return buf


def decode_dnld_cntrl(msg):
    if len(msg) < 144:
        raise ValueError("download control of %d bytes" % len(msg))
    return {"handle": u32(msg, 128), "action": u32(msg, 132), "vrf": u32(msg, 136), "af": msg[140]}


def decode_fib_nh(msg):
    """Returns [(op, vrf, address bytes, ifindex)] of a next-hop message."""
    mlen = len(msg)
    if mlen < 132:
        raise ValueError("next-hop message of %d bytes" % mlen)
    n = u32(msg, 128)
    if 132 + 24 * n != mlen:
        raise ValueError("next-hop count %d does not fill %d bytes" % (n, mlen))
    out = []
    for i in range(n):
        o = 132 + 24 * i
        out.append((u32(msg, o), u32(msg, o + 4), bytes(msg[o + 8:o + 12]), u32(msg, o + 12)))
    return out


def _net(af, addr, plen):
    return str(ipaddress.ip_network((ipaddress.ip_address(bytes(addr)), plen)))


def decode_fib_routes(msg):
    """Checks a whole route message before anything is taken from it; ValueError if malformed."""
    if len(msg) < 148:
        raise ValueError("route message of %d bytes" % len(msg))
    h = get_header(msg)
    if not 148 <= h.mlen <= len(msg):
        raise ValueError("mlen %d outside 148..%d" % (h.mlen, len(msg)))
    af = msg[144]
    if (h.mtype, af) not in ((MT_RTM_FIB_ROUTE, AF_IPV4), (MT_RTM6_FIB_ROUTE, AF_IPV6)):
        raise ValueError("type 0x%04x with family %d" % (h.mtype, af))
    v4 = af == AF_IPV4
    cmd_len, nh_len, w, maxlen = (32, 16, 4, 32) if v4 else (44, 28, 16, 128)
    adds, dels = u32(msg, 132), u32(msg, 136)
    out, p, end = [], 148, h.mlen
    n_add = n_del = 0
    while p < end:
        if p + cmd_len > end:
            raise ValueError("command at %d passes mlen" % p)
        op = u32(msg, p)
        if v4:
            marker, vrf = u32(msg, p + 4), u32(msg, p + 8)
            pfx = msg[p + 12:p + 16]
            proto, metric = u32(msg, p + 16), u32(msg, p + 20)
            plen, nnh = msg[p + 24], msg[p + 25]
            tlvlen = struct.unpack_from(">H", msg, p + 26)[0]
            weighted = msg[p + 28]
        else:
            vrf = u32(msg, p + 4)
            pfx = msg[p + 8:p + 24]
            plen = msg[p + 24]
            proto, metric, marker = u32(msg, p + 28), u32(msg, p + 32), u32(msg, p + 36)
            nnh, weighted, tlvlen = msg[p + 40], msg[p + 41], 0
        if op not in (OP_ADD, OP_DEL):
            raise ValueError("operation %d at %d" % (op, p))
        if plen > maxlen:
            raise ValueError("prefix length %d" % plen)
        q = p + cmd_len
        nhs = []
        tlv = b""
        if op == OP_ADD:
            n_add += 1
            if nnh == 0:
                raise ValueError("add without a next hop at %d" % p)
            if q + nnh * nh_len + tlvlen > end:
                raise ValueError("next hops of the command at %d pass mlen" % p)
            for _ in range(nnh):
                addr = str(ipaddress.ip_address(bytes(msg[q:q + w])))
                ifx, nvrf, weight = struct.unpack_from(">III", msg, q + w)
                nhs.append(FibNextHop(addr, ifx, nvrf, weight))
                q += nh_len
            tlv = bytes(msg[q:q + tlvlen])
            q += tlvlen
        else:
            n_del += 1
        out.append(FibCommand(op, vrf, _net(af, pfx, plen), proto, metric, marker, weighted,
                              tuple(nhs), tlv))
        p = q
    if p != end:
        raise ValueError("commands end at %d, mlen %d" % (p, end))
    if (n_add, n_del) != (adds, dels):
        raise ValueError("counts %d/%d, commands %d/%d" % (adds, dels, n_add, n_del))
    return af, out


@dataclass
class FibEntry:
    proto: int
    metric: int
    weighted: int
    nexthops: tuple
    tlv: bytes


class FibAgent:
    """What a FIB agent keeps: (vrf, prefix) -> entry, per family, fed from its download queues."""

    def __init__(self, endpoint):
        self.ep = endpoint
        self.table = {AF_IPV4: {}, AF_IPV6: {}}
        self.markers = []       # (vrf, af) of every fresh-download marker
        self.nexthops = 0
        self.other_types = {}
        self.malformed = []
        self.deletes_unknown = 0
        endpoint.on_data = self.take

    def take(self, msg):
        mtype = get_header(msg).mtype
        if mtype in (MT_RTM_FIB_ROUTE, MT_RTM6_FIB_ROUTE):
            try:
                af, cmds = decode_fib_routes(msg)
            except ValueError as e:
                self.malformed.append(str(e))
                return
            tbl = self.table[af]
            for c in cmds:
                key = (c.vrf, c.prefix)
                if c.op == OP_ADD:
                    tbl[key] = FibEntry(c.proto, c.metric, c.weighted, c.nexthops, c.tlv)
                elif tbl.pop(key, None) is None:
                    self.deletes_unknown += 1
        elif mtype == MT_RTM_DNLD_CNTRL:
            d = decode_dnld_cntrl(msg)
            if d["action"] == RTM_CNTRL_DNLD_BEGINS:
                af = AF_IPV4 if d["af"] in (0, 1) else AF_IPV6
                self.markers.append((d["vrf"], af))
                for a in (AF_IPV4, AF_IPV6) if d["vrf"] == 0xFFFF else (af,):
                    t = self.table[a]
                    for key in [k for k in t if d["vrf"] in (0xFFFF, k[0])]:
                        del t[key]
        elif mtype == MT_RTM_FIB_NH:
            try:
                self.nexthops += len(decode_fib_nh(msg))
            except ValueError as e:
                self.malformed.append(str(e))
        else:
            self.other_types[mtype] = self.other_types.get(mtype, 0) + 1


# ---------------------------------------------------------------------------------------------
# Route count (monitoring)

def route_count(ep, af, vrf=0):
    """Returns (status, total active, total inactive, rows) where rows are (cid, af, vrf, active, inactive)."""
    rows, cursor = [], 0
    while True:
        buf = bytearray(92)
        struct.pack_into(">I", buf, 72, NM_GET_ROUTE_COUNT)
        struct.pack_into(">III", buf, 80, af, vrf, cursor)
        ans = ep.send_wait(MT_NM_CMD, buf)
        status = u32(ans, 64)
        if status != 0:
            return status, 0, 0, []
        n, nxt = u32(ans, 92), u32(ans, 96)
        active, inactive = struct.unpack_from(">QQ", ans, 104)
        for i in range(n):
            o = 144 + 64 * i
            rows.append((u32(ans, o), ans[o + 4], u32(ans, o + 16), u32(ans, o + 20), u32(ans, o + 24)))
        if nxt == 0:
            return 0, active, inactive, rows
        cursor = nxt
