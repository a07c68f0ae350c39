// rtm_client_lib: what a routing protocol process needs to talk to rtmd.
//
// Two layers, usable apart:
//
//  1. Encoders and decoders of the messages a protocol client sends and receives: the
//     registration forms (MT_RTM_REG_CLIENT 0x3201/0x3220/0x323F, MT_RTM_REG_CLIENT_BOTH,
//     MT_RTM_REG_NONRT_CLIENT), deregistration (MT_RTM_DEREG_CLIENT, MT_RTM_DEREG_AF_CLIENT,
//     MT_RTM_DEREG_CLIENT_BOTH), route updates (MT_RTM_UPD_ROUTE) and the route-count query.
//     They write and read big-endian bytes at fixed offsets, never a host struct, check every
//     length, and have no state: a program that brings its own transport can use them alone.
//
//  2. rtmclient::ProtoClient, a protocol client over the platform's IPC and SWP libraries:
//     it opens an endpoint, registers (send-and-wait for the reply), packs routes into
//     8192-byte update messages and sends them on one SWP queue per family, waits when the
//     window is full, answers what rtmd sends back, and withdraws routes.
//
// A minimal program:
//
//     rtmclient::ProtoClient::Options o;
//     o.svce = 307; o.inst = 1;                   // our endpoint, <run-dir>/ipc/307.1
//     o.proto = RTM_PROTO_BGP; o.instance = 1; o.name = "bgp-1";
//     rtmclient::ProtoClient c(o);
//     if (c.open() || c.registerFamily(RTM_IPV4UNI_AFINDEX)) die(c.lastError());
//     rtmclient::NextHop nh{}; rtmclient::parseAddr(RTM_IPV4UNI_AFINDEX, "192.0.2.1", nh.addr);
//     rtmclient::Route r{}; r.afIndex = 0; r.prefixLen = 24; ...; r.nh = &nh; r.nnh = 1;
//     c.add(r);                                    // buffered; sent when a message is full
//     c.flush(); c.waitIdle(10000);                // everything sent and acknowledged
//
// The run directory is chosen with qorIpcSetRunDir() before open() (see docs/ipc.md).
// Nothing here throws; every call reports a result code, and ProtoClient keeps a readable
// text of its last failure. ProtoClient is not thread-safe: use it from one thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "rtm/rtm_client_msgs.h"
#include "rtm/rtm_dnld_clients.h"
#include "rtm/rtm_msgs.h"
#include "rtm/rtm_route_count.h"
#include "rtm/rtm_types.h"
#include "rtm/rtm_wire.h"

namespace rtmclient {

// ---- Registration -------------------------------------------------------------------------
//
// The registration record (all forms share it). rtmd answers with the same bytes, mstatus at
// offset 20 (0 success, 1 failure) and the client handle at offset 60.

// The layouts are the daemon's own (rtm/rtm_client_msgs.h); these are their short names here.
constexpr size_t REG_MSG_LEN = RTM_REG_MSG_LEN;
constexpr size_t REG_OFF_CID = RTM_REG_OFF_CID;
constexpr size_t REG_OFF_NAME = RTM_REG_OFF_NAME;  // 40 bytes, not terminated when full
constexpr size_t REG_NAME_LEN = RTM_REG_NAME_LEN;
constexpr size_t REG_OFF_PROTO = RTM_REG_OFF_PROTO;
constexpr size_t REG_OFF_INSTANCE = RTM_REG_OFF_INSTANCE;
constexpr size_t REG_OFF_VRFID = RTM_REG_OFF_VRFID;
constexpr size_t REG_OFF_FLAGS = RTM_REG_OFF_FLAGS;
constexpr size_t REG_OFF_SVCE = RTM_REG_OFF_SVCE;
constexpr size_t REG_OFF_CARD = RTM_REG_OFF_CARD;
constexpr size_t REG_OFF_IPCINST = RTM_REG_OFF_IPCINST;
constexpr size_t REG_OFF_SPARE = RTM_REG_OFF_SPARE;
constexpr size_t REG_OFF_FILTER = RTM_REG_OFF_FILTER;
constexpr size_t REG_OFF_AFINDEX = RTM_REG_OFF_AFINDEX;  // u8
constexpr size_t REG_OFF_MULTIQ = RTM_REG_OFF_MULTIQ;    // u16
constexpr size_t REG_OFF_NOOFQS = RTM_REG_OFF_NOOFQS;

// MT_RTM_DEREG_AF_CLIENT keeps its family in the byte at 64.
constexpr size_t DEREG_AF_OFF_AFINDEX = RTM_DEREG_AF_OFF_AFINDEX;

// MT_RTM_REG_NONRT_CLIENT (ARP and NDP managers).
constexpr size_t NONRT_OFF_WHICH = RTM_NONRT_OFF_SELECT;  // 1 ARP, 2 NDP
constexpr size_t NONRT_OFF_TASK = RTM_NONRT_OFF_TASK;
constexpr size_t NONRT_OFF_WORD = RTM_NONRT_OFF_WORD;
constexpr size_t NONRT_OFF_SVCE = RTM_NONRT_OFF_SVCE;
constexpr size_t NONRT_OFF_INST = RTM_NONRT_OFF_INST;
constexpr uint32_t NONRT_ARP = RTM_NONRT_ARP;
constexpr uint32_t NONRT_NDP = RTM_NONRT_NDP;

struct RegRequest {
  // 0x3201, 0x3220 (the same), 0x323F (vrfId taken as given; the others put protocols below 25
  // in VRF 0 and the rest in ALL_VRF_ID) or 0x3269 (both families at once).
  uint32_t mtype = MT_RTM_REG_CLIENT;
  std::string name;  // at most 40 bytes are sent
  uint32_t proto = 0;
  uint32_t instance = 0;
  uint32_t vrfId = 0;
  uint32_t flags = 0;
  uint32_t svce = 0;     // our IPC service: rtmd sends redistribution to (svce, ipcInst)
  uint32_t card = 0;
  uint32_t ipcInst = 0;  // our IPC instance
  uint32_t spare = 0;
  uint32_t filter = 0;
  uint8_t afIndex = RTM_IPV4UNI_AFINDEX;
  uint16_t multiQ = 0;  // 1: rtmd keeps one expected sequence per sender queue handle
  uint32_t noOfQs = 0;  // how many such queues (at most MAX_VRF)
};

// Writes the request into buf. Returns the message length (REG_MSG_LEN), or 0 when cap is too
// small, the type is not a registration, or noOfQs exceeds MAX_VRF.
size_t encodeRegister(const RegRequest &req, uint8_t *buf, size_t cap);
// Reads a registration (as rtmd receives it). RTM_WIRE_OK or RTM_WIRE_ESHORT.
int decodeRegister(const uint8_t *buf, size_t len, RegRequest *out);

struct RegReply {
  uint32_t status = 1;  // mstatus: 0 registered (or already registered), else refused
  uint32_t cid = 0;     // the handle; for 0x3269 the IPv4 handle << 16 | the IPv6 handle
  uint32_t cidV4() const { return cid >> 16; }
  uint32_t cidV6() const { return cid & 0xFFFF; }
};
// Reads rtmd's answer to any registration or deregistration. RTM_WIRE_OK or RTM_WIRE_ESHORT.
int decodeRegReply(const uint8_t *buf, size_t len, RegReply *out);

// MT_RTM_DEREG_CLIENT: the handle at 60, the family byte at 160.
size_t encodeDeregister(uint32_t cid, uint8_t afIndex, uint8_t *buf, size_t cap);
// MT_RTM_DEREG_AF_CLIENT: the handle at 60, the family byte at 64.
size_t encodeDeregisterAf(uint32_t cid, uint8_t afIndex, uint8_t *buf, size_t cap);
// MT_RTM_DEREG_CLIENT_BOTH: both handles in the word at 60, as 0x3269 gave them.
size_t encodeDeregisterBoth(uint32_t cidV4, uint32_t cidV6, uint8_t *buf, size_t cap);
// MT_RTM_REG_NONRT_CLIENT, for the ARP (NONRT_ARP) and NDP (NONRT_NDP) managers.
size_t encodeRegisterNonRt(uint32_t which, uint32_t task, uint32_t svce, uint32_t inst, uint32_t word,
                           uint8_t *buf, size_t cap);

// ---- Route updates ------------------------------------------------------------------------
//
// MT_RTM_UPD_ROUTE: a header (handle at 140, element count at 144, family byte at 149) and
// packed elements, each a sub-command word (1 add, 2 delete) and an rt_parms cut after its
// next hops, then its TLV bytes. rtm/rtm_types.h has the layout.

struct NextHop {
  uint8_t addr[16] = {};  // 4 bytes used for IPv4
  uint32_t ifindex = 0;   // 0: rtmd resolves the address
  uint32_t vrfId = 0;
  uint32_t weight = 0;    // used with RTP_FLAG_WECMP
};

struct Route {
  uint8_t afIndex = RTM_IPV4UNI_AFINDEX;  // must be the message's family
  uint8_t prefixLen = 0;
  uint8_t prefix[16] = {};
  uint8_t gateway[16] = {};
  uint16_t pref = 0;  // 0 is accepted from connected, static, POS and VRRP only
  uint16_t subpref = 0;
  uint32_t vrfId = 0;
  uint32_t proto = 0;  // must be the client's protocol
  uint32_t subtype = 0;
  int32_t metric = 0;
  uint32_t tag = 0;
  uint32_t flags = 0;  // RTP_FLAG_*
  uint32_t srcVrf = 0;
  const NextHop *nh = nullptr;  // nnh of them, 1..64 for an add
  uint16_t nnh = 0;
  const uint8_t *tlv = nullptr;  // opaque to rtmd
  uint16_t tlvlen = 0;
};

// Bytes one element of this route takes.
inline size_t routeElemSize(const Route &r) { return rtmRouteElemSize(r.afIndex, r.nnh, r.tlvlen); }
// Largest number of elements of this shape that fit in one message.
inline size_t routesPerMessage(uint8_t afIndex, unsigned nnh, unsigned tlvlen = 0) {
  return (RTM_IPC_BUF_SIZE - RTM_UPD_OFF_ELEMS) / rtmRouteElemSize(afIndex, nnh, tlvlen);
}

// Starts an update message of the family for client `cid` in buf (cap bytes, normally
// RTM_IPC_BUF_SIZE): header zeroed, no elements. RTM_WIRE_OK, ENOSPACE or EAF.
int routeMsgInit(uint8_t *buf, size_t cap, uint32_t cid, uint8_t afIndex);
// Appends one element (RTM_UPD_ADD or RTM_UPD_DEL). RTM_WIRE_OK; RTM_WIRE_ENOSPACE when it
// does not fit (the message is unchanged: send it and start another); RTM_WIRE_EAF when the
// route's family differs from the message's; RTM_WIRE_ENOFIELD for more than 64 next hops.
int routeMsgAdd(uint8_t *buf, size_t cap, uint32_t subCmd, const Route &r);
// Elements so far, and the message length (the header's mlen).
uint32_t routeMsgCount(const uint8_t *buf);
uint32_t routeMsgLen(const uint8_t *buf);

// Reads one element found by rtmRouteIterNext. Next hops go to nhOut (nhCap of them; the
// route's nh points there) and r->tlv points into the message. RTM_WIRE_OK, or
// RTM_WIRE_ENOSPACE when the element has more next hops than nhCap.
int routeDecode(const rtm_route_celem &el, uint8_t afIndex, Route *r, NextHop *nhOut, size_t nhCap);

// ---- Route count --------------------------------------------------------------------------

// The query (MT_NM_CMD, sub-code MT_RTM_GET_ROUTE_COUNT): afIndex 0, 2 or RTM_RC_ALL_AF;
// vrfId or ALL_VRF_ID; cursor 0 for the first page. Returns RTM_RC_REQ_LEN, or 0 if cap is
// too small.
size_t encodeRouteCountRequest(uint32_t afIndex, uint32_t vrfId, uint32_t cursor, uint8_t *buf, size_t cap);

struct RouteCountRow {
  uint32_t cid = 0;
  uint8_t afIndex = 0;
  uint8_t flags = 0;  // RTM_RC_ROW_BLOCKED
  uint32_t proto = 0, instance = 0, vrfId = 0;
  uint32_t active = 0, inactive = 0, activeBgp = 0, inactiveBgp = 0;
  uint32_t subtype[RTM_RC_SUBTYPE_COUNTERS] = {};
};
struct RouteCountReply {
  uint32_t status = RTM_RC_EBADREQ;
  uint32_t next = 0, total = 0;
  uint64_t active = 0, inactive = 0, activeBgp = 0, inactiveBgp = 0, prefixes = 0;
  std::vector<RouteCountRow> rows;  // this page's
};
// Reads one reply page; rows are appended to out->rows. RTM_WIRE_OK, or RTM_WIRE_ESHORT when
// the reply is shorter than its row count says (nothing is appended then).
int decodeRouteCountReply(const uint8_t *buf, size_t len, RouteCountReply *out);

// Asks rtmd over the key's response queue, page after page, and gathers every row.
// 0, or -1 with errno (the send-and-wait's) or EPROTO for a malformed or refused answer.
int queryRouteCount(int key, uint32_t afIndex, uint32_t vrfId, RouteCountReply *out, int attemptMs = 2000,
                    int retries = 2);

// ---- Text helpers -------------------------------------------------------------------------

// Protocol id of a name ("bgp", "ospf", "isis", "rip", ...; case-insensitive) or of a number;
// 0 when unknown.
uint32_t protoFromName(const std::string &name);
// The preference a protocol's routes usually carry (BGP 20, OSPF 110, IS-IS 115, RIP 120, ...).
uint16_t defaultPreference(uint32_t proto);
// The usual subtype of a protocol's routes (BGP external, OSPF intra-area, IS-IS level 2).
uint32_t defaultSubtype(uint32_t proto);
// Parses an address of the family into addr (4 or 16 bytes). False on a bad text.
bool parseAddr(uint8_t afIndex, const std::string &text, uint8_t *addr);
// "a.b.c.d" or IPv6 text of 4 or 16 bytes.
std::string addrToString(uint8_t afIndex, const uint8_t *addr);

// ---- FIB download: what a FIB agent receives -------------------------------------------------
//
// rtmd sends a download client (protocols 27 FIB, 28 FIB6, and the IPM and LDP agents) its
// routes in MT_RTM_FIB_ROUTE (0x321E, IPv4) and MT_RTM6_FIB_ROUTE (0x3221, IPv6) messages on
// its download SWP queue: a 148-byte header, then commands, each followed by its next hops
// (and, in IPv4 adds, a TLV block). The two families lay their commands out differently; the
// decoders below read both through one table of offsets. Next hops travel ahead of the routes
// in MT_RTM_FIB_NH (0x322A), and MT_RTM_DNLD_CNTRL (0x3255) goes both ways: the agent asks
// for a download (or stops it), rtmd marks where a fresh one begins. docs/ipc.md has the
// tables.

constexpr size_t FIBUPD_HDR_LEN = 148;
constexpr size_t FIBUPD_OFF_TICK = 32;
constexpr size_t FIBUPD_OFF_ADDS = 132;
constexpr size_t FIBUPD_OFF_DELS = 136;
constexpr size_t FIBUPD_OFF_CAPACITY = 140;
constexpr size_t FIBUPD_OFF_AFINDEX = 144;  // u8
constexpr uint32_t FIB_OP_ADD = 1;
constexpr uint32_t FIB_OP_DEL = 2;
constexpr uint32_t FIB_MARKER_VRRP = 0xFFFFFFFFu;  // the head was marked by VRRP
constexpr size_t FIBCMD4_LEN = 32, FIBNH4_LEN = 16;
constexpr size_t FIBCMD6_LEN = 44, FIBNH6_LEN = 28;

// MT_RTM_DNLD_CNTRL: 144 bytes, the SWP header at 60, then the client handle at 128 (IPv4:
// handle << 16; IPv6: the handle in the low 16 bits), the action at 132, the VRF at 136 and the
// family byte at 140. rtmd answers a start with a copy whose action is RTM_CNTRL_DNLD_BEGINS,
// queued on the download queue ahead of the walk it starts.
constexpr size_t DNLD_CNTRL_OFF_CID = 128;
constexpr size_t DNLD_CNTRL_OFF_ACTION = 132;
constexpr size_t DNLD_CNTRL_OFF_VRFID = 136;
constexpr size_t DNLD_CNTRL_OFF_AFINDEX = 140;  // u8
constexpr uint32_t DNLD_CNTRL_MSG_LEN = 144;

// Results of the download decoders beyond the RTM_WIRE_* ones: what a well-formed message
// never holds. A message that gives any of these is dropped whole.
constexpr int FIB_WIRE_ELEN = -20;    // mlen shorter than the header, or longer than what arrived
constexpr int FIB_WIRE_ETYPE = -21;   // not a message of this decoder
constexpr int FIB_WIRE_EOP = -22;     // a command other than add or delete
constexpr int FIB_WIRE_EPLEN = -23;   // a prefix length beyond the family's width
constexpr int FIB_WIRE_ECOUNT = -24;  // the header's counts disagree with the commands
constexpr int FIB_WIRE_ENONH = -25;   // an add without next hops
const char *fibWireErrStr(int err);

struct FibNextHop {
  uint8_t addr[16] = {};  // 4 bytes used for IPv4
  uint32_t ifindex = 0;
  uint32_t vrfId = 0;  // differs from the route's for a leaked route
  uint32_t weight = 0;  // weighted routes only
};

// One command as found in a message; nh and tlv point into the message.
struct FibCmd {
  uint32_t op = 0;  // FIB_OP_ADD or FIB_OP_DEL
  uint32_t vrfId = 0;
  uint8_t prefixLen = 0;
  uint8_t prefix[16] = {};
  uint32_t proto = 0;   // of the active route; 0 in a delete of a prefix that has none
  uint32_t metric = 0;
  uint32_t marker = 0;  // FIB_MARKER_VRRP or 0
  bool weighted = false;
  uint8_t nnhField = 0;        // the count as sent: a delete may show one though none follow
  uint16_t nnh = 0;            // next-hop records that follow: nnhField for an add, 0 for a delete
  const uint8_t *nh = nullptr;  // the first of them
  uint16_t tlvlen = 0;          // IPv4 adds only
  const uint8_t *tlv = nullptr;
};

struct FibRouteMsg {
  uint8_t afIndex = 0;
  uint32_t adds = 0, dels = 0;  // as the header counts them
  uint32_t capacity = 0, tick = 0;
  std::vector<FibCmd> cmds;  // kept between calls so that a loop of decodes does not allocate
};

// Reads a whole route message (either family) and checks it before anything is taken: the
// type and family agree, mlen lies between the header and len, every command and its next
// hops and TLV lie inside mlen, the commands fill it exactly, each is an add or a delete with a
// prefix length the family can hold, every add has next hops, and the header's counts are the
// commands'. RTM_WIRE_OK and out filled, or an error and out->cmds empty.
int decodeFibRoutes(const uint8_t *msg, size_t len, FibRouteMsg *out);
// The i-th next hop of a decoded command (i < cmd.nnh).
FibNextHop fibCmdNextHop(uint8_t afIndex, const FibCmd &cmd, unsigned i);

struct FibNhRecord {
  uint32_t op = 0;  // RTM_NH_OP_ADD or RTM_NH_OP_DEL
  uint32_t vrfId = 0;
  uint8_t addr[16] = {};  // IPv4 in the first 4; see decodeFibNextHops for IPv6
  uint32_t ifindex = 0;
};
// MT_RTM_FIB_NH: the count at 128 and 24-byte records from 132; mlen must be 132 + 24 x count
// and no more than len, and every record an add or a delete. An IPv6 agent (ipv6 true) is only
// ever sent the replay of the database at its registration, whose records carry a 16-byte
// address from byte 8 with the ifindex written over its bytes 4..7: addr then holds those 16
// bytes as they are. RTM_WIRE_OK and out filled, or an error and out empty.
int decodeFibNextHops(const uint8_t *msg, size_t len, bool ipv6, std::vector<FibNhRecord> *out);

struct DnldCntrl {
  uint32_t cid = 0;  // the word at 128 as it stands
  uint32_t action = 0;
  uint32_t vrfId = 0;
  uint8_t afIndex = 0;
};
// The request of an agent: a 144-byte message for the agent's SWP queue to rtmd (the queue
// writes the IPC and SWP headers). Returns DNLD_CNTRL_MSG_LEN, or 0 when cap is too small.
size_t encodeDnldCntrl(uint32_t cid, uint8_t afIndex, uint32_t action, uint32_t vrfId, uint8_t *buf, size_t cap);
// Reads either direction. RTM_WIRE_OK, FIB_WIRE_ETYPE or FIB_WIRE_ELEN.
int decodeDnldCntrl(const uint8_t *msg, size_t len, DnldCntrl *out);

// ---- The protocol client ------------------------------------------------------------------

class ProtoClient {
 public:
  struct Options {
    uint32_t svce = 0;  // our endpoint (service, instance); must be free in the run directory
    uint32_t inst = 0;
    uint32_t proto = 0;     // what we register as
    uint32_t instance = 0;  // protocol instance
    uint32_t vrfId = 0;     // with regType 0x323F; the others let rtmd choose
    uint32_t regType = MT_RTM_REG_CLIENT;
    uint32_t regFlags = 0;
    std::string name;
    // The SWP queue per family: messages unacknowledged on the wire, and held in all before
    // add() and flush() wait for acknowledgements.
    uint32_t window = 24;
    uint32_t size = 48;
    // Registration: each attempt waits this long, and is repeated this many more times.
    int replyWaitMs = 2000;
    int replyRetries = 2;
  };

  struct Stats {
    uint64_t routes = 0;       // elements sent (adds and deletes)
    uint64_t messages = 0;     // update messages enqueued
    uint64_t acks = 0;         // acknowledgements handled
    uint64_t fullWaits = 0;    // times a full queue made us wait
    uint64_t received = 0;     // other messages from rtmd, answered on their SWP queues
    uint64_t retransmitted = 0;
  };

  explicit ProtoClient(Options opts);
  ~ProtoClient();  // closes the endpoint and removes the queues; does not deregister
  ProtoClient(const ProtoClient &) = delete;
  ProtoClient &operator=(const ProtoClient &) = delete;

  // Opens our endpoint. 0, or -1 (lastError() says why).
  int open();
  // Registers in a family (0 or 2) and makes that family's SWP queue. A client that was
  // registered before (by an earlier run) gets its old handle back. 0 or -1.
  int registerFamily(uint8_t afIndex);
  bool registered(uint8_t afIndex) const;
  uint32_t cid(uint8_t afIndex) const;

  // Buffers one add or delete of the route's family; a full message is sent, waiting for
  // room in the window when needed. 0 or -1.
  int add(const Route &r);
  int del(const Route &r);
  // Sends what is buffered. 0 or -1.
  int flush();
  // Waits until everything sent has been acknowledged (flush first). 0; -1 on time-out or
  // when rtmd stopped acknowledging.
  int waitIdle(int timeoutMs);
  // Handles what arrived (acks; messages on rtmd's queues to us, which are acknowledged and
  // then given to the message handler), waiting up to timeoutMs for the first. Also runs the
  // retransmission timers. Returns the number of messages handled, or -1.
  int poll(int timeoutMs);
  // Deregisters the family (rtmd then removes every route of ours in it) and removes its
  // queue. 0 or -1.
  int deregister(uint8_t afIndex);

  // Enqueues a message exactly as given on the family's SWP queue (the queue writes the IPC
  // and SWP headers). For tests and for messages this class has no encoder for. 0 or -1.
  int sendRaw(uint8_t afIndex, const uint8_t *msg, size_t len);

  // Called for each message of rtmd's other than an acknowledgement, after it was answered.
  void setMessageHandler(std::function<void(const uint8_t *msg, size_t len)> fn) { handler_ = std::move(fn); }

  int key() const { return key_; }
  Stats stats() const;
  const std::string &lastError() const { return err_; }

 private:
  struct Family {
    bool registered = false;
    uint32_t cid = 0;
    uint32_t queue = 0;
    uint8_t *pending = nullptr;  // the message being filled, or null
  };
  int append(uint32_t subCmd, const Route &r);
  int enqueue(Family &f, uint8_t *msg, size_t len);
  int handle(const uint8_t *msg, size_t len);
  int fail(const std::string &what);
  Family *family(uint8_t afIndex);

  Options opts_;
  int key_ = -1;
  uint32_t seqList_ = 0;  // expected sequences of rtmd's queues towards us
  Family fam_[2];
  Stats stats_;
  std::function<void(const uint8_t *, size_t)> handler_;
  std::string err_;
  std::vector<uint8_t> rx_;
};

// MT_RTM_CLEAR_FIB (0x3240, plain, answered with mstatus 0): have rtmd send a download client's
// table of a VRF afresh, after the same marker that opens a fresh download. The handle at 60, the
// VRF at 124, the family byte at 160. Returns CLEAR_FIB_MSG_LEN, or 0 when cap is too small.
constexpr size_t CLEAR_FIB_OFF_CID = 60;
constexpr size_t CLEAR_FIB_OFF_VRFID = 124;
constexpr size_t CLEAR_FIB_OFF_AFINDEX = 160;
constexpr uint32_t CLEAR_FIB_MSG_LEN = 161;
size_t encodeClearFib(uint32_t cid, uint8_t afIndex, uint32_t vrfId, uint8_t *buf, size_t cap);

// ---- Download clients view ------------------------------------------------------------------

struct DnldClientRow {
  uint32_t cid = 0;
  uint8_t list = 0;  // RTM_DC_LIST_NONE, _REGULAR or _SUPER
  uint32_t proto = 0, instance = 0;
  uint32_t dnldState = 0;  // 255: the download queue failed
  uint32_t qState = 0, filterState = 0;
  uint32_t adds = 0, dels = 0, sends = 0, superSends = 0, failures = 0;
  uint32_t queueLen = 0;  // messages held on the download queue (RTM_DC_QLEN_NONE: no queue)
  uint32_t ruleFlags = 0;
  uint64_t version = 0;  // served up to, in the VRF asked about
};
struct DnldClientsReply {
  uint32_t status = RTM_DC_EBADREQ;
  uint32_t superMembers = 0;
  uint64_t treeVersion = 0, groupVersion = 0;
  std::vector<DnldClientRow> rows;
  const DnldClientRow *find(uint32_t proto, uint32_t instance) const;
};
// MT_NM_CMD with sub-code MT_RTM_GET_DNLD_CLIENTS for a family (0 or 2) and a VRF. Returns
// RTM_DC_REQ_LEN, or 0 if cap is too small.
size_t encodeDnldClientsRequest(uint8_t afIndex, uint32_t vrfId, uint8_t *buf, size_t cap);
// RTM_WIRE_OK, or RTM_WIRE_ESHORT when the reply is shorter than its row count says.
int decodeDnldClientsReply(const uint8_t *buf, size_t len, DnldClientsReply *out);
// Asks rtmd over the key's response queue. 0, or -1 with errno (EPROTO for a refused answer).
int queryDnldClients(int key, uint8_t afIndex, uint32_t vrfId, DnldClientsReply *out, int attemptMs = 2000,
                     int retries = 2);

// ---- The FIB agent --------------------------------------------------------------------------
//
// rtmclient::FibAgent is a download client of one family: it registers as protocol 27 (FIB,
// IPv4) or 28 (FIB6, IPv6) for a line-card slot, asks for the download of a VRF, takes rtmd's
// route, next-hop and control messages on rtmd's download queue, acknowledges each in sequence
// and keeps the table they describe: prefix -> protocol, metric, next hops (address, ifindex,
// VRF, weight) and TLV. A malformed message is counted and dropped whole.
//
// For tests of back-pressure and failure it can be made slow (a delay before each
// acknowledgement) or stop acknowledging after a number of messages, as a stuck process would;
// what it does not acknowledge it does not apply either.
//
//     rtmclient::FibAgent::Options o;
//     o.svce = 400; o.inst = 1; o.afIndex = RTM_IPV4UNI_AFINDEX; o.name = "fib-1";
//     rtmclient::FibAgent a(o);
//     if (a.open() || a.registerAgent() || a.startDownload(0)) die(a.lastError());
//     while (a.routeCount() < expected) a.poll(100);
//
// A FIB agent (protocol 27) is refused until the interface manager has told rtmd that the
// slot's interface download is complete. Not thread-safe: use it from one thread.

struct FibPrefix {
  uint8_t afIndex = 0;
  uint8_t len = 0;
  uint32_t vrfId = 0;
  uint8_t addr[16] = {};
  bool operator==(const FibPrefix &o) const {
    return afIndex == o.afIndex && len == o.len && vrfId == o.vrfId && memcmp(addr, o.addr, sizeof addr) == 0;
  }
  // VRF, family, address, length: the order of a dump.
  bool operator<(const FibPrefix &o) const;
};

struct FibRoute {
  uint32_t proto = 0;
  uint32_t metric = 0;
  uint32_t marker = 0;
  bool weighted = false;
  std::vector<FibNextHop> nh;
  std::vector<uint8_t> tlv;
};

// One route as a line of text: "VRF PREFIX/LEN proto P metric M [vrrp] [weighted] nh
// ADDR%IFINDEX@VRF[*WEIGHT] ... [tlv HEX]". What --dump writes and what tests compare.
std::string formatFibRoute(const FibPrefix &p, const FibRoute &r);

class FibTable;

class FibAgent {
 public:
  struct Options {
    uint32_t svce = 0;  // our endpoint (service, instance); must be free in the run directory
    uint32_t inst = 0;
    uint8_t afIndex = RTM_IPV4UNI_AFINDEX;  // IPv4 registers as FIB (27), IPv6 as FIB6 (28)
    uint32_t instance = 0;                  // the line card's slot
    std::string name;
    uint32_t filter = 0;  // 1: the small-FIB filter applies to us
    // Our SWP queue to rtmd, which carries only the download control.
    uint32_t window = 4;
    uint32_t size = 16;
    int replyWaitMs = 2000;
    int replyRetries = 2;
    // Messages taken in order are acknowledged together: one cumulative ack for every this
    // many, and for what is left when the socket is drained. 1 acknowledges each.
    uint32_t ackEvery = 8;
    int ackDelayMs = 0;              // wait this long before taking each sequenced message
    uint64_t noAckAfter = UINT64_MAX;  // take this many sequenced messages, then no more
  };

  struct Stats {
    uint64_t messages = 0;   // sequenced messages taken (in order, acknowledged)
    uint64_t routeMsgs = 0;  // of which route downloads
    uint64_t nhMsgs = 0;     // next-hop bundles
    uint64_t cntrlMsgs = 0;  // download control (a fresh download begins)
    uint64_t otherMsgs = 0;  // anything else rtmd sends an agent (configuration, VRFs, ...)
    uint64_t malformed = 0;  // dropped whole
    uint64_t adds = 0, dels = 0;
    uint64_t delsUnknown = 0;  // deletes of a prefix we did not hold
    uint64_t nhAdds = 0, nhDels = 0;
    uint64_t freshStarts = 0;  // tables of a VRF emptied by a fresh download
    uint64_t repeats = 0, gaps = 0;  // acknowledged again or refused, not applied
    uint64_t withheld = 0;     // left unacknowledged once noAckAfter was reached
    uint64_t acks = 0;         // acknowledgements of our own control messages
  };

  explicit FibAgent(Options opts);
  ~FibAgent();  // closes the endpoint; does not deregister
  FibAgent(const FibAgent &) = delete;
  FibAgent &operator=(const FibAgent &) = delete;

  // Opens our endpoint. 0 or -1 (lastError() says why).
  int open();
  // Registers with rtmd and makes our queue to it. An agent registered before (by an earlier
  // run) gets its old handle back and keeps rtmd's queue. 0 or -1.
  int registerAgent();
  // Asks for the whole table of the VRF; rtmd marks the start and walks it afresh. 0 or -1.
  int startDownload(uint32_t vrfId);
  int stopDownload(uint32_t vrfId);
  // Takes what arrived, waiting up to timeoutMs for the first message, and runs the SWP
  // timers. The number of messages handled, or -1. While messages are being taken, an ack
  // that rtmd's full socket turns back is kept rather than waited on (open() turns
  // qorSwpAckNoWait on for the process); what is kept goes out, waiting for room if it must,
  // before poll returns.
  int poll(int timeoutMs);
  // Waits until rtmd acknowledged our control messages. 0 or -1.
  int waitIdle(int timeoutMs);
  // Leaves rtmd (which removes our download queue). 0 or -1.
  int deregister();

  bool registered() const { return registered_; }
  uint32_t cid() const { return cid_; }
  int key() const { return key_; }
  uint8_t afIndex() const { return opts_.afIndex; }
  bool withholding() const { return stats_.messages >= opts_.noAckAfter; }
  // Options::noAckAfter, changed on the way: stats().messages stops taking now, UINT64_MAX
  // takes everything again.
  void setNoAckAfter(uint64_t n) { opts_.noAckAfter = n; }

  size_t routeCount() const;
  size_t nextHopCount() const { return nexthops_.size(); }
  // The route of a prefix into *out; false if the table has none.
  bool find(const FibPrefix &p, FibRoute *out) const;
  // Every route, in no particular order.
  void forEachRoute(const std::function<void(const FibPrefix &, const FibRoute &)> &fn) const;
  // Every route in FibPrefix order (a writer of a large table streams it from here).
  void forEachRouteSorted(const std::function<void(const FibPrefix &, const FibRoute &)> &fn) const;
  // Makes room for this many routes at once (an agent that knows the table's size).
  void reserve(size_t routes);
  // Every route as formatFibRoute lines in FibPrefix order, each ending in a newline.
  std::string dump() const;

  // Called after each message taken in sequence, with its type (tests watch the markers).
  void setMessageHook(std::function<void(uint32_t mtype, const uint8_t *msg, size_t len)> fn) {
    hook_ = std::move(fn);
  }

  const Stats &stats() const { return stats_; }
  const std::string &lastError() const { return err_; }
  // Why the last malformed message was dropped.
  const std::string &lastMalformed() const { return malformedWhy_; }

 private:
  struct SeqSlot {
    uint32_t queue;
    uint32_t expected;
    bool mayRestart;  // we asked for a download since the last message taken in order
    uint32_t pending = 0;  // taken in order and not acknowledged yet
    uint8_t last[IPC_SWP_HDR_LEN] = {};  // header of the last of them, for the ack
  };
  int fail(const std::string &what);
  int sendCntrl(uint32_t action, uint32_t vrfId);
  void handle(const uint8_t *msg, size_t len);
  void take(const uint8_t *msg, size_t len);
  void flushAck(SeqSlot &slot);
  void flushAcks();
  void applyRoutes(const uint8_t *msg, size_t len);
  void applyNextHops(const uint8_t *msg, size_t len);
  void freshStart(uint8_t afIndex, uint32_t vrfId);
  void malformed(uint32_t mtype, int err);

  Options opts_;
  int key_ = -1;
  uint32_t queue_ = 0;
  uint32_t cid_ = 0;
  bool registered_ = false;
  std::vector<SeqSlot> seq_;
  std::unique_ptr<FibTable> table_;
  std::set<std::tuple<uint32_t, uint32_t, std::array<uint8_t, 16>>> nexthops_;  // VRF, ifindex, address
  FibRouteMsg scratch_;
  std::vector<FibNhRecord> nhScratch_;
  std::vector<FibNextHop> nhRoute_;
  std::vector<std::pair<FibPrefix, uint32_t>> keyed_;  // a message's prefixes and their hashes
  Stats stats_;
  std::function<void(uint32_t, const uint8_t *, size_t)> hook_;
  std::string err_, malformedWhy_;
  std::vector<uint8_t> rx_;
};

}  // namespace rtmclient
