// The next-hop database: every next hop used by a RIB route, held once per VRF and family
// and counted by reference.
//
// A route add takes one reference per next hop (rtmNhAdd) and a delete drops it
// (rtmNhDelete); the record lives while its count is above zero. The first reference tells
// the ARP or NDP manager to resolve the neighbour and, for IPv4, puts an add record into the
// VRF's open next-hop bundle; the last one asks for the opposite. Bundles wait in a per-VRF
// FIFO that the download thread drains ahead of its route walks, so a FIB agent learns a next
// hop before the first route that uses it; a new agent is given the whole database at once
// (rtmNhNewClient).
//
// The records of one VRF and family sit in a hash table keyed by (ifindex, address): the key
// is 64 bits for IPv4 and 160 for IPv6, the only question ever asked is an exact one, and the
// hot path (a route add whose next hop exists) must cost one hash probe and no allocation.
#pragma once

#include <cstddef>
#include <cstdint>

#include "coll/qor_coll.h"
#include "rtm/rtm_types.h"

struct rt_client;

// A next hop. Key and record are one block of RTM_NH_POOL (RTM6_NH_POOL for IPv6).
struct rt_nh {
  rt_nh *rtn_next;       // chain of its table bucket
  int32_t rtn_refcnt;    // one per route next hop that uses it
  uint32_t rtn_vrfId;
  uint32_t rtn_weight;   // weighted ECMP, set by the route code
  uint32_t rtn_ifindex;  // 0 when the route gave none
  uint8_t rtn_afIndex;
  uint8_t rtn_loopback;  // the route had flag RTP_FLAG_LOOPBACK when the record was made
  uint8_t rtn_spare[2];
  uint8_t rtn_addr[];    // 4 or 16 bytes
};
constexpr size_t rtmNhSize(unsigned afIndex) { return offsetof(rt_nh, rtn_addr) + rtmAfAddrLen(afIndex); }

// Route flag that marks a next hop as the loopback (it is announced as 127.0.0.1).
constexpr uint32_t RTP_FLAG_LOOPBACK = 0x2000000;
constexpr uint32_t RTM_NH_LOOPBACK_ADDR = 0x7F000001;

// Interface types of the interface manager that never need neighbour resolution.
constexpr uint32_t RTM_IFTYPE_ALWAYS_UP = 19;
constexpr uint32_t RTM_IFTYPE_LOOPBACK = 20;
constexpr uint32_t RTM_IFTYPE_NULL = 21;

// A bundle is closed at this length (329 records); a replay to one client sends at 8012.
constexpr uint32_t RTM_NH_BUNDLE_CLOSE = 8028;
constexpr uint32_t RTM_NH_REPLAY_SEND = 8012;

// The table of one VRF and family.
struct rtm_nh_table;
extern rtm_nh_table *rtmNhRdx[MAX_VRF][3];

// A node of a VRF's next-hop FIFO.
struct rtm_nh_fifo_node {
  QOR_DLL_NODE link;
  uint32_t fifo_seq;
  uint8_t *fifo_buf;      // the bundle (RTM_SWP_NH_DNLD_POOL)
  uint64_t fifo_clients;  // bit per client cid that has been given this bundle
};
extern QOR_DLL nhBundleFifo[MAX_VRF];
extern uint8_t *pNhBundle[MAX_VRF];  // the open bundle: already in the FIFO, still being filled
extern uint32_t rtmNhFifoSeqNoAdd[MAX_VRF], rtmNhFifoSeqNoDel[MAX_VRF];
// Set while `clear ip route` empties the VRF: nothing is bundled and the FIFO is dropped.
extern uint8_t rtmNhClearIpRouteInProgress[MAX_VRF];

// Counters: records bundled, records sent, neighbour requests sent.
extern uint32_t rtmnhcount, rtmnhcount_s, rtmarpcount, rtmndpcount;

// ---- The database ------------------------------------------------------------------------

// Makes the FIFO and the tables of a VRF (an existing VRF keeps its own). 0, or 1 after event
// 0x14802c.
int rtmNhInit(uint32_t vrfId);
// VRFs 1 to 512 only: drops the FIFO and both tables with their records.
void rtmNhDestroy(uint32_t vrfId);
// Takes a reference on the next hop, making it if needed. `result` is 0, or RTM_NO_MEMORY, or
// RTM_FAILURE for a VRF or family without a table; the record is null on failure.
rt_nh *rtmNhAdd(uint32_t vrfId, uint8_t afIndex, uint32_t ifindex, const uint8_t *addr, int *result, uint32_t proto,
                uint32_t flags);
// Drops one reference; the last one removes the record.
void rtmNhDelete(uint8_t afIndex, rt_nh *rtn, uint32_t proto);
// Removes and frees every record of one table, telling nobody.
void rtmNhDeleteAll(uint32_t vrfId, uint8_t afIndex);
rt_nh *rtmNhFind(uint32_t vrfId, uint8_t afIndex, uint32_t ifindex, const uint8_t *addr);
rtm_nh_table *rtmNhGetTree(uint32_t vrfId, uint8_t afIndex);
// Records in a table (0 without one).
uint32_t rtmNhCount(uint32_t vrfId, uint8_t afIndex);
// Calls cb for every record of a table; a non-zero result stops the walk and is returned. The
// callback may delete the record it is given.
using RtmNhWalkCB = int (*)(rt_nh *rtn, void *arg);
int rtmNhWalk(uint32_t vrfId, uint8_t afIndex, RtmNhWalkCB cb, void *arg);

// ---- Neighbour requests ------------------------------------------------------------------

// Builds a request for the ARP (IPv4) or NDP (IPv6) manager and queues it. 0 (also when the
// manager has not registered: there is nobody to tell), or RTM_NO_MEMORY.
int rtmNhArpReq(uint8_t afIndex, uint32_t vrfId, uint32_t ifindex, const uint8_t *addr, uint32_t op);
int rtmNhNdpReq(uint8_t afIndex, uint32_t vrfId, uint32_t ifindex, const uint8_t *addr, uint32_t op);
// Queues a built request: 0 (the queue owns it), or 1 (the caller frees it).
int rtmNhArpSend(uint8_t *buf);
int rtmNhNdpSend(uint8_t *buf);

// ---- Bundles, the FIFO and the download --------------------------------------------------

// Adds one record to the VRF's open bundle. 0, or RTM_NO_MEMORY, or RTM_FAILURE for a bad op.
int rtmNhBundleNH(uint32_t vrfId, uint8_t afIndex, const rt_nh *rtn, uint32_t op);
rtm_nh_fifo_node *rtmNhAddToFifo(uint8_t *buf, uint32_t vrfId);
void rtmNhRemoveFromFifo(rtm_nh_fifo_node *node, uint32_t vrfId);
void rtmNhClearFifo(uint8_t afIndex, uint32_t vrfId);
// Gives every waiting bundle of the VRF to every download client of the family that lacks it.
void rtmNhDownloadFromFifo(uint8_t afIndex, uint32_t vrfId);
// Sends the whole database of the VRF (0xFFFF: of every VRF) to one client. 0, or RTM_NO_MEMORY.
int rtmNhNewClient(uint8_t afIndex, uint32_t vrfId, rt_client *client);
// Enqueues a bundle of `len` bytes on the client's download queue: 0 (the queue owns it), 1 for
// a stopped client, -1 when the queue refused it (the caller frees it in both cases).
int rtmNhSend(rt_client *client, uint8_t *buf, uint32_t len);

// Failure callbacks of the queues that carry next hops and neighbour requests.
void rtmNhErrCB(uint32_t queue, uint32_t error);
void rtmArpmDownloadErrCB(uint32_t queue, uint32_t error);
void rtmNdpmDownloadErrCB(uint32_t queue, uint32_t error);

// ---- Hooks -------------------------------------------------------------------------------

// What the database asks of the interface manager and of route lookup; null means unknown
// (type 0, no connected route).
struct RtmNhHooks {
  uint32_t (*ifmIfIndexToIfType)(uint32_t ifindex);
  uint32_t (*rtmGetConnectedRouteIfindex)(uint8_t afIndex, const uint8_t *addr, uint32_t vrfId);
};
extern RtmNhHooks rtmNhHooks;

// Back to a clean start (tests): every table, FIFO and counter, and the hooks.
void rtmNhReset();
