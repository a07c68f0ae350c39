// Fuzz target: any message rtmd accepts, through rtmMessageSwitch as the main loop calls it.
//
// The daemon keeps its state across inputs (brought up afresh every few hundred) and has real
// peers on real sockets: protocol clients of both families and a FIB agent of each family, all
// registered with real registration messages. The agents read what rtmd sends them and
// acknowledge it, so downloads, flushes and clears go on as they would.
//
// An input is a series of chunks: [sel u8][who u8][n u16 big-endian][n bytes].
//   sel < 0x80      the bytes are the message of catalogue row `sel` (modulo the rows rtmd
//                   accepts: the message types, then the NM sub-codes);
//   0x80..0xBF      the catalogue row is the one the bytes' own type (and NM sub-code) names;
//   0xC0..0xFE      the bytes are a datagram as it arrives, used as they stand;
//   0xFF            rtmd's follow-up work runs: the workers, the peers, the clock (`who` & 0x3F
//                   ticks, a hundred times that with 0x40); with 0x80 the peers stop acknowledging
//                   until the next such chunk without it, so queues back up and fail.
// For a catalogue message the harness writes what a real sender gets right and a mutation would
// almost never hit: the type, mlen, the source address of peer `who`, the client handle and
// family where the row keeps them, and the expected sequence. Bits of `who` leave some of them
// as the bytes say (see kKeep*), so the checks in front of the handlers are fuzzed too.
//
// The message sits at the start of an 8192-byte buffer as in the main loop. Under ASan the bytes
// past the received length are poisoned, so that a handler reading past its message is a
// finding (except for commands that build their answer in the buffer); RTM_FUZZ_STRICT=0
// leaves them readable, holding a filler as a stale buffer would.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "fuzz/fuzz_daemon.h"
#include "interfaces/rtm_ifm_notif.h"
#include "ipc/qor_ipc.h"
#include "rtm/rtm_clear_msgs.h"
#include "rtm/rtm_client_msgs.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_types.h"
#include "rtm/rtm_wire.h"
#include "swp/qor_swp.h"
#include "thread/qor_thread.h"
#include "timer/qor_timer.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RTM_FUZZ_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define RTM_FUZZ_ASAN 1
#endif
#ifdef RTM_FUZZ_ASAN
#include <sanitizer/asan_interface.h>
#endif

using rtm::ld32;
using rtm::st32;

namespace {

constexpr uint8_t kKeepClient = 0x08;  // leave the handle and the family as the bytes say
constexpr uint8_t kKeepSeq = 0x10;     // leave the sequence word as the bytes say
constexpr uint8_t kKeepLen = 0x20;     // leave mlen as the bytes say
constexpr unsigned kResetEvery = 256;
constexpr unsigned kWorkEvery = 16;  // inputs between two runs of the follow-up work anyway

struct Peer {
  int key = -1;
  uint32_t svce = 0;
  uint32_t ackSeq = 1;  // next sequence this peer takes from rtmd
  uint32_t card = 0, queueId = 0, rtmdCard = 0;  // the addresses its messages carry
};

// A registered client: the peer that speaks for it, its family and handle.
struct Client {
  unsigned peer;
  uint8_t af;
  uint32_t cid;
};

struct Rig {
  std::vector<Peer> peers;
  std::vector<Client> clients;
  std::vector<const RtmMsgInfo *> rows;  // the catalogue rows rtmd accepts
  uint8_t *buf = nullptr;                // the receive buffer
  std::vector<uint8_t> rx;               // a peer's receive buffer
  unsigned inputs = 0;
  bool strict = false;
  bool mute = false;     // the peers read but do not acknowledge
  bool verbose = false;  // RTM_FUZZ_VERBOSE=1: what each chunk was and what the peers got
};
Rig g;

void buildRows() {
  for (const RtmMsgInfo &r : rtm::detail::kMsgTable)
    if (r.kind != RTM_KIND_OUT) g.rows.push_back(&r);
  for (const RtmMsgInfo &r : rtm::detail::kNmTable) g.rows.push_back(&r);
}

// Writes the source fields of msg as peer p's, the target as rtmd's request queue.
void address(uint8_t *msg, const Peer &p) {
  st32(msg, IPC_OFF_SRC_SLOT, 0);
  st32(msg, IPC_OFF_SRC_CARD, p.card);
  st32(msg, IPC_OFF_SRC_SVCE, p.queueId);
  st32(msg, IPC_OFF_TGT_SLOT, 0);
  st32(msg, IPC_OFF_TGT_CARD, p.rtmdCard);
  st32(msg, IPC_OFF_TGT_SVCE, qor_getQueueId(RTM_SVCE, 0, QOR_IPC_QUEUE_REQ));
}

// The row the switch will take for what g.buf holds, or nullptr.
const RtmMsgInfo *rowOf(uint32_t len) {
  const uint32_t mtype = ld32(g.buf, IPC_OFF_MTYPE);
  if (mtype != MT_NM_CMD) return rtmMsgInfo(mtype);
  return len >= RTM_NM_OFF_SUBCODE + 4 ? rtmNmCmdInfo(ld32(g.buf, RTM_NM_OFF_SUBCODE)) : nullptr;
}

// Hands len bytes of g.buf to the switch as the main loop does.
void dispatch(uint32_t len) {
#ifdef RTM_FUZZ_ASAN
  // A command that answers from its handler builds the answer in the buffer, past what arrived:
  // only the others have the rest of the buffer poisoned.
  const RtmMsgInfo *row = rowOf(len);
  if (g.strict && !(row && row->reply == RTM_REPLY_IN_HANDLER))
    ASAN_POISON_MEMORY_REGION(g.buf + len, RTM_IPC_BUF_SIZE - len);
#endif
  rtmCurMsgLen = len;
  rtmMessageSwitch(g.buf);
#ifdef RTM_FUZZ_ASAN
  ASAN_UNPOISON_MEMORY_REGION(g.buf, RTM_IPC_BUF_SIZE);
#endif
}

// Lets rtmd read what the peers sent it (acknowledgements mostly), through the main loop's
// receive.
void pump() {
  for (int i = 0; i < 256 && rtmRecvFromAllQ(g.buf, 0) == 0; ++i) {
  }
}

// Every peer reads what reached it; what rtmd sent on a queue of its own is acknowledged in
// order, as a client or an agent does. Replies are dropped. True when anything arrived.
bool drainPeers() {
  bool any = false;
  for (Peer &p : g.peers) {
    for (int i = 0; i < 512; ++i) {
      int n = qorIpcRecv(Key_getReqQueue(p.key), g.rx.data(), RTM_IPC_BUF_SIZE, QOR_IPC_NOWAIT, 0, 0);
      if (n <= 0) break;
      any = true;
      if (size_t(n) < IPC_SWP_HDR_LEN) continue;
      const uint32_t mtype = ld32(g.rx.data(), IPC_OFF_MTYPE);
      if (g.verbose) fprintf(stderr, "  peer %u got %#x (%d bytes)\n", p.svce, mtype, n);
      const RtmMsgInfo *row = rtmMsgInfo(mtype);
      const bool sequenced = (row && row->kind == RTM_KIND_OUT) || mtype == MT_RTM_DNLD_CNTRL ||
                             mtype == MT_RTM_CLR_ROUTE || mtype == MT_RTM6_CLR_ROUTE ||
                             mtype == MT_RTM_FIB_ISSU_EVENT;
      if (sequenced && !g.mute) qorSwpCkSeqAndAck(g.rx.data(), &p.ackSeq, Key_getReqQueue(p.key));
    }
  }
  return any;
}

// rtmd's follow-up work: the workers run until they rest, the peers answer, rtmd reads the
// answers; a bounded number of rounds, since a peer that keeps acknowledging keeps it busy.
void followUp(unsigned ticks) {
  if (ticks) {
    qorClockAdvance(ticks);
    qorSwpRunTimers();  // what the loop does when the SWP pipe wakes it, without waiting for it
  }
  for (int round = 0; round < 16; ++round) {
    qorThreadRunUntilIdle(rtmThreads);
    const bool any = drainPeers();
    pump();
    if (!any) break;
  }
}

// The registrations the peers make, in the order of the clients `who` names (a registration of
// both families gives two clients).
struct Registration {
  uint32_t svce, mtype, proto;
  uint8_t af;
  uint32_t instance;
};
constexpr Registration kRegs[] = {
    {901, MT_RTM_REG_CLIENT, RTM_PROTO_OSPF, RTM_IPV4UNI_AFINDEX, 0},
    {902, MT_RTM_REG_CLIENT, RTM_PROTO_BGP, RTM_IPV6UNI_AFINDEX, 0},
    {903, MT_RTM_REG_CLIENT_BOTH, RTM_PROTO_ISIS, RTM_IPV4UNI_AFINDEX, 0},
    {904, MT_RTM_REG_CLIENT, RTM_PROTO_FIB, RTM_IPV4UNI_AFINDEX, 1},  // FIB agents of slots 1 and 2
    {905, MT_RTM_REG_CLIENT, RTM_PROTO_FIB, RTM_IPV6UNI_AFINDEX, 2},
};
constexpr size_t kClients = 6;

// Registers peer `i` through the switch, as a received registration message; the answer on the
// peer's socket names the handle (both handles for a registration of both families). False
// when no answer or a refusal came.
bool registerPeer(unsigned i) {
  const Registration &r = kRegs[i];
  memset(g.buf, 0, RTM_IPC_BUF_SIZE);
  st32(g.buf, IPC_OFF_MLEN, RTM_REG_MSG_LEN);
  st32(g.buf, IPC_OFF_MTYPE, r.mtype);
  address(g.buf, g.peers[i]);
  memcpy(g.buf + RTM_REG_OFF_NAME, "fuzz", 4);
  st32(g.buf, RTM_REG_OFF_PROTO, r.proto);
  st32(g.buf, RTM_REG_OFF_INSTANCE, r.instance);
  st32(g.buf, RTM_REG_OFF_SVCE, r.svce);
  g.buf[RTM_REG_OFF_AFINDEX] = r.af;
  dispatch(RTM_REG_MSG_LEN);
  const unsigned slot = i < 3 ? i : i + 1;
  for (;;) {
    int n = qorIpcRecv(Key_getReqQueue(g.peers[i].key), g.rx.data(), RTM_IPC_BUF_SIZE, QOR_IPC_NOWAIT, 0, 0);
    if (n <= 0) return false;
    if (size_t(n) < RTM_REG_MSG_LEN || ld32(g.rx.data(), IPC_OFF_MTYPE) != r.mtype) continue;
    if (ld32(g.rx.data(), IPC_OFF_MSTATUS) != RTM_REG_OK) return false;
    const uint32_t cid = ld32(g.rx.data(), RTM_REG_OFF_CID);
    if (r.mtype == MT_RTM_REG_CLIENT_BOTH) {
      g.clients[slot] = {i, RTM_IPV4UNI_AFINDEX, rtmRegBothCid4(cid)};
      g.clients[slot + 1] = {i, RTM_IPV6UNI_AFINDEX, rtmRegBothCid6(cid)};
    } else {
      g.clients[slot] = {i, r.af, cid};
    }
    return true;
  }
}

void closePeers() {
  g.mute = false;
  for (Peer &p : g.peers) qorIpcClose(p.key);
  g.peers.clear();
  g.clients.clear();
}

void bringUp() {
  for (uint8_t &s : rtmRcvdDnldCmpFrmIfm) s = 1;  // every slot's interfaces are known
  g.clients.assign(kClients, Client{0, 0, 0});
  for (unsigned i = 0; i < std::size(kRegs); ++i) {
    Peer p;
    p.key = qorIpcOpen(kRegs[i].svce, 0);
    p.svce = kRegs[i].svce;
    if (p.key < 0 || qorIpcQueueAddr(Key_getReqQueue(p.key), &p.card, &p.queueId) != 0) abort();
    int32_t err = 0;
    p.rtmdCard = static_cast<uint32_t>(qor_tmeGetPeerIpAddrByName(RTM_SVCE, 0, &err));
    g.peers.push_back(p);
    if (!registerPeer(i)) {
      fprintf(stderr, "fuzz: registration %u was not answered\n", i);
      abort();
    }
  }
  followUp(0);
}

// An input may have deregistered one of the clients or taken its handle over: it registers
// again, so that the messages of every client keep reaching their handlers.
void keepClients() {
  for (const Client &c : g.clients) {
    const rt_client *rtc = rtmClientGetByHandle(c.af, c.cid);
    if (rtc && rtc->rtc_proto == kRegs[c.peer].proto) continue;
    if (g.verbose) fprintf(stderr, "client %u/%u of peer %u registers again\n", c.af, c.cid, kRegs[c.peer].svce);
    const bool ok = registerPeer(c.peer);
    if (g.verbose && !ok) fprintf(stderr, "  refused\n");
    g.peers[c.peer].ackSeq = 1;  // a new client's queues number from 1
  }
}

// The expected sequence of a client's next message, or 0 when it has none to offer.
uint32_t expectedSeq(const rt_client *rtc) {
  if (!rtc || rtc->expSeqQListHdl) return 0;
  const uint32_t *exp = rtc->rtc_expSeqPtr ? rtc->rtc_expSeqPtr : rtc->rtc_expSeq;
  return exp[1] ? exp[1] : 1;
}

uint32_t *managerSeq(RtmSeqSource s) {
  switch (s) {
    case RTM_SEQ_ACL: return &expAclDownloadSeq;
    case RTM_SEQ_PREFIX_LIST: return &qHandle;
    case RTM_SEQ_BRM: return &rtmBrmSeqNum;
    case RTM_SEQ_ISSU: return &rtmIssuSeqNum;
    default: return nullptr;  // BFD keeps one per VRF inside the frame: left to the bytes
  }
}

// Plain messages whose handlers read a handle the catalogue does not describe.
void bodyClient(uint32_t code, const Client &c) {
  switch (code) {
    case MT_RTM_CLEAR_FIB:
      st32(g.buf, RTM_CLEAR_FIB_OFF_CID, c.cid);
      g.buf[RTM_CLEAR_FIB_OFF_AFINDEX] = c.af;
      break;
    case MT_RTM_DEREG_CLIENT:
      st32(g.buf, RTM_DEREG_OFF_CID, c.cid);
      g.buf[RTM_DEREG_OFF_AFINDEX] = c.af;
      break;
    case MT_RTM_DEREG_CLIENT_BOTH: {
      // The client of the other family on the same peer, when the peer has one.
      uint32_t both[2] = {0xFFFF, 0xFFFF};
      for (const Client &o : g.clients)
        if (o.peer == c.peer) both[o.af <= 1 ? 0 : 1] = o.cid;
      st32(g.buf, RTM_DEREG_OFF_CID, rtmRegBothCid(both[0], both[1]));
      break;
    }
    default: break;
  }
}

// Fills in what a real sender of the row's message would get right.
void dress(const RtmMsgInfo &row, bool nm, uint8_t who, uint32_t len) {
  const Client &c = g.clients[(who & 7) % g.clients.size()];
  address(g.buf, g.peers[c.peer]);
  st32(g.buf, IPC_OFF_MTYPE, nm ? MT_NM_CMD : row.code);
  if (nm) st32(g.buf, RTM_NM_OFF_SUBCODE, row.code);
  if (!(who & kKeepLen)) st32(g.buf, IPC_OFF_MLEN, len);
  if (!(who & kKeepClient) && row.cidSrc != RTM_CID_NONE) {
    uint32_t cid = c.cid;
    if (row.cidSrc == RTM_CID_SPLIT16) cid = c.af <= 1 ? cid << 16 : cid;
    st32(g.buf, row.cidOff, cid);
    switch (row.afSrc) {
      case RTM_AF_BYTE:
      case RTM_AF_BYTE_UNI: g.buf[row.afOff] = c.af; break;
      case RTM_AF_WORD:
      case RTM_AF_WORD_TNL: st32(g.buf, row.afOff, c.af); break;
      default: break;
    }
  }
  if (!(who & kKeepClient)) bodyClient(row.code, c);
  if (who & kKeepSeq) return;
  uint32_t seq = 0;
  if (row.kind == RTM_KIND_C) {
    uint32_t cid = 0, af = 0;
    if (rtmMsgClientAf(row, g.buf, RTM_IPC_BUF_SIZE, &cid, &af) == RTM_WIRE_OK && af < 256)
      seq = expectedSeq(rtmClientGetByHandle(uint8_t(af), cid));
  } else if (row.kind == RTM_KIND_M) {
    if (uint32_t *w = managerSeq(row.seq)) seq = *w ? *w : 1;
  } else if (row.code == MT_IFM_NOTIFY) {
    seq = rtmIfmSeqNum ? rtmIfmSeqNum : 1;
  }
  if (seq) st32(g.buf, SWP_OFF_SEQ, seq);
}

void oneChunk(uint8_t sel, uint8_t who, const uint8_t *body, uint32_t n) {
  if (sel == 0xFF) {
    g.mute = who & 0x80;
    followUp((who & 0x40 ? 100u : 1u) * (who & 0x3F));
    return;
  }
  memset(g.buf, 0xBE, RTM_IPC_BUF_SIZE);
  memcpy(g.buf, body, n);
  if (sel >= 0xC0) {
    // As the main loop takes a datagram off the request queue: a runt, or a header that claims
    // more than arrived, is dropped there.
    if (n < IPC_HDR_LEN || ld32(g.buf, IPC_OFF_MLEN) > n) return;
    dispatch(n);
    return;
  }
  const uint32_t len = std::max<uint32_t>(n, IPC_SWP_HDR_LEN);
  if (n < len) memset(g.buf + n, 0, len - n);
  const RtmMsgInfo *row = nullptr;
  bool nm = false;
  if (sel < 0x80) {
    row = g.rows[sel % g.rows.size()];
    nm = row->kind == RTM_KIND_N;
  } else {
    nm = ld32(g.buf, IPC_OFF_MTYPE) == MT_NM_CMD;
    row = rowOf(len);
    if (!row || row->kind == RTM_KIND_OUT) return;
  }
  dress(*row, nm, who, len);
  if (ld32(g.buf, IPC_OFF_MLEN) > len) return;  // the main loop drops it
  if (g.verbose) fprintf(stderr, "%s who %#x len %u\n", row->name, who, len);
  dispatch(len);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (!g.buf) {
    buildRows();
    g.buf = static_cast<uint8_t *>(malloc(RTM_IPC_BUF_SIZE));
    g.rx.resize(RTM_IPC_BUF_SIZE);
    const char *s = getenv("RTM_FUZZ_STRICT");
    g.strict = !(s && *s == '0');
    const char *v = getenv("RTM_FUZZ_VERBOSE");
    g.verbose = v && *v == '1';
  }
  if (rtmfuzz::daemonForInput(kResetEvery, closePeers))
    bringUp();
  else
    keepClients();
  size_t off = 0;
  for (int chunks = 0; chunks < 64 && size - off >= 4; ++chunks) {
    const uint8_t sel = data[off], who = data[off + 1];
    const uint32_t want = uint32_t(data[off + 2]) << 8 | data[off + 3];
    off += 4;
    const uint32_t n = uint32_t(std::min<size_t>({want, size - off, RTM_IPC_BUF_SIZE}));
    oneChunk(sel, who, data + off, n);
    off += n;
  }
  drainPeers();
  pump();
  if (++g.inputs % kWorkEvery == 0) followUp(1);
  return 0;
}
