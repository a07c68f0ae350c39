// The client registry: every process that talks to RTM on a lasting basis is a client, known
// by a small handle (cid) per address family.
//
// A client has one record per family in the fixed table rt_client_tbl (rows 0 and 2; row 1
// stays empty because IPv4 multicast clients register on row 0), and per VRF it serves one
// rtClientVrfInfo with its change-list walkers and route counters. Registration gives the
// record its SWP queues: a download queue for FIB-side clients (shared by the two families of
// one agent), a redistribution queue for protocols (MBGP rides on BGP's). Download clients
// also stand on the regular or super list of their family, which the download thread and the
// next-hop FIFO drain serve. The ARP and NDP managers are not routing clients: they get a
// record of their own (arpClient, ndpClient) and a queue for neighbour requests.
//
// Work that registration and deregistration hand to subsystems built elsewhere (first contents
// of a new FIB agent, clearing a leaving client's routes, redistribution rules) goes through
// rtmClientHooks, each hook named after the function it stands for and null until its owner
// plugs it in.
#pragma once

#include <cstdint>

#include "coll/qor_coll.h"
#include "radix/qor_radix.h"
#include "rtm/rtm_types.h"

// rtc_state.
constexpr uint32_t RTC_STATE_FREE = 0;
constexpr uint32_t RTC_STATE_ACTIVE = 1;
// rtc_dnldState and rtc_redistState of a freshly registered client; 255 marks a failed queue.
constexpr uint32_t RTC_Q_REGISTERED = 0xFFFFFF00;
constexpr uint32_t RTC_Q_STOPPED = 255;
// rtmClientGetVrfId of a handle that is not active.
constexpr int32_t RTM_CLIENT_NOT_ACTIVE = -100;
// Results of _rtmRegisterClient.
constexpr int RTM_REG_NEW = 0;
constexpr int RTM_REG_FAIL = 1;
constexpr int RTM_REG_DUPLICATE = 2;

// Bits of rvi_ruleFlags[0] (and of the other two rule bytes where they apply).
constexpr uint8_t RVI_RULE_FIRST_LOOK = 0x2;  // everything needs a first look
constexpr uint8_t RVI_DNLD_ON = 0x8;          // download wanted in this VRF
constexpr uint8_t RVI_DNLD_NEW = 0x10;        // walker to be built afresh

// Slots of a chassis whose line cards report an interface download.
constexpr uint32_t RTM_MAX_SLOTS = 13;

// True for the kinds of rtc_proto (ranges of the protocol ids).
constexpr bool rtmProtoIsInternal(uint32_t p) { return p >= 1 && p <= 3; }
constexpr bool rtmProtoIsDownload(uint32_t p) { return p >= RTM_PROTO_IPM && p <= RTM_PROTO_LDP; }
// Protocols that own a redistribution queue (MBGP shares BGP's, OFM takes none).
constexpr bool rtmProtoOwnsRedistQ(uint32_t p) {
  return p >= 4 && p <= 23 && p != RTM_PROTO_MBGP && p != RTM_PROTO_OFM;
}
// Clients that stay registered for the life of the process.
constexpr bool rtmProtoIsPermanent(uint32_t p) {
  return rtmProtoIsInternal(p) || p == RTM_PROTO_IPM || p == RTM_PROTO_IPM6;
}

// A client in one VRF.
struct rtClientVrfInfo {
  uint64_t rvi_version;        // last version of the main tree the client was given
  uint32_t rvi_subtypeCnt[6];  // see rtmRouteCounters
  uint32_t rvi_blockedVer[2];
  uint32_t rvi_ticVersion[2];  // last version seen by the default-information walk
  uint32_t rvi_ruleChange;
  uint32_t rvi_blocked;        // 1 while a clear of the client's routes in this VRF is pending
  qor_radical_walker rvi_walker;
  uint64_t rvi_conVersion;     // last version of the connected tree the client was given
  qor_radical_walker rvi_conWalker;
  uint32_t rvi_active;
  uint32_t rvi_inactive;
  uint32_t rvi_activeBgp;      // protocols 2 and 6
  uint32_t rvi_inactiveBgp;
  void *rvi_slaveRules;        // redistribution rules
  void *rvi_masterRules;
  uint8_t rvi_ruleFlags[3];    // main, accept/reject, connected
  // State of the redistribution and default-information walks.
  uint8_t rvi_redist_state;
  uint64_t rvi_redMaxVersion;
  uint64_t rvi_conMaxVersion;
  uint8_t rvi_restartPrefix[16];
  uint8_t rvi_restartPrefixLen;
  uint8_t rvi_defInfoNeeded;
  uint8_t rvi_defInfoActive;
  uint8_t rvi_defInfoStart;
  uint8_t rvi_defInfoEnd;
  uint32_t rvi_dioCount;
};

struct rt_client {
  uint32_t rtc_state;  // RTC_STATE_ACTIVE or RTC_STATE_FREE (then the whole record is zero)
  uint32_t rtc_proto;
  uint32_t rtc_vrfId;  // or ALL_VRF_ID
  uint32_t rtc_instance;
  uint32_t rtc_ipcInst;
  int32_t rtc_slot;  // -1 for the internal sources
  uint32_t rtc_ipAddr;
  uint32_t rtc_ipcSvce;
  int32_t rtc_type;  // 1 FIB agents, 2 others, -1 internal sources
  uint32_t rtc_afIndex;
  uint32_t rtc_cid;
  // Expected SWP sequence of the client's messages: rtc_expSeqPtr points at rtc_expSeq, or,
  // for the second family of a paired agent, at the first family's, since the agent sends
  // both families' messages on one queue. Word [1] is the expected sequence.
  uint32_t *rtc_expSeqPtr;
  uint32_t rtc_expSeq[2];
  char rtc_name[40];  // not terminated when it fills the field
  uint32_t rtc_flags;
  uint64_t rtc_regTime;
  uint32_t rtc_filter;
  uint32_t rtc_filterState;
  uint32_t rtc_dnldQ;
  uint32_t rtc_dnldState;
  uint32_t rtc_dnldSpare;
  uint32_t rtc_redistQ;
  uint32_t rtc_redistState;
  uint32_t rtc_redistSpare;
  uint32_t rtc_addCount;  // route commands bundled, by kind
  uint32_t rtc_delCount;
  uint32_t rtc_sendCount;       // buffers sent directly
  uint32_t rtc_superSendCount;  // buffers sent as a super group member
  uint32_t rtc_lastCnt;         // queue failures
  uint32_t expSeqQListHdl;      // expected-sequence list of a client with many queues, or 0
  uint32_t rtc_paired;          // 1: this record uses the download queue of the other family's
  // Walk state of redistribution and default information.
  uint8_t rtc_redWalkFlags[3];
  uint8_t rtc_conWalkFlags[3];
  uint8_t rtc_walking;  // 1 while a redistribution walk holds the record
  uint32_t rtc_redCount;
  uint32_t rtc_conCount;
  uint32_t rtc_qState;
  void *rtc_dioRules;
  rtClientVrfInfo *rtc_vrf[MAX_VRF];
};

// A node of the regular and super lists.
struct rtm_client_node {
  QOR_DLL_NODE link;
  rt_client *client;
};

extern rt_client rt_client_tbl[3][MAX_RTM_CLEINTS];
extern QOR_DLL regularClients[3], superClients[3];
extern rt_client *dummySuperClient[3];
extern uint32_t rtmCurrentFilterState;

// Per slot: the interface manager has finished the slot's interface download (notification
// type 73). A FIB agent of the slot is refused until then.
extern uint8_t rtmRcvdDnldCmpFrmIfm[RTM_MAX_SLOTS];
// Bit per slot with a registered FIB agent.
extern uint32_t g_activeFibSlt;

// The ARP and NDP managers.
struct rtm_nbr_client {
  uint32_t state;  // 1 ARP, 2 NDP once registered; 0 before
  uint32_t task;
  uint32_t svce;
  uint32_t card;
  uint32_t inst;
  uint32_t word;
  uint32_t queue;   // SWP queue of neighbour requests
  uint32_t qstate;  // RTC_Q_REGISTERED
  uint32_t count;
};
extern rtm_nbr_client arpClient, ndpClient;
extern uint32_t arpClientRegCnt, ndpClientRegCnt;

// OSPF qualifiers: per VRF a list of the OSPF instances that serve it.
struct rtm_ospf_qual {
  rtm_ospf_qual *next;
  uint32_t instance;
};
extern rtm_ospf_qual **ospfMap, **ospfMap6;

// The group tree of the OFM relay, made when OFM registers.
extern qor_radix_tree *rtmOfmGroupTree;

// ---- Look-ups ----------------------------------------------------------------------------

// The active client of handle `cid` in the family, or null (afIndex 1 and 3 have no clients).
rt_client *rtmClientGetByHandle(uint8_t afIndex, uint32_t cid);
rt_client *rtmClientGet(uint8_t afIndex, uint32_t proto, uint32_t instance);
rt_client *rtmClientGetByProto(uint8_t afIndex, uint32_t proto);
rt_client *rtmClientGetByIpcInfo(uint8_t afIndex, uint32_t svce, uint32_t inst);
// rtc_vrfId of an active client, or RTM_CLIENT_NOT_ACTIVE.
int32_t rtmClientGetVrfId(uint8_t afIndex, uint32_t cid);
// The client's record for a VRF, or null.
rtClientVrfInfo *rtmClientGetVrfInfo(uint8_t afIndex, uint32_t cid, uint32_t vrfId);
// The client name as a terminated string.
const char *rtmClientName(const rt_client *rtc, char (&buf)[41]);
const char *rtmClientGetProtoNameByIpc(uint8_t afIndex, uint32_t svce, uint32_t inst);

// ---- Registration ------------------------------------------------------------------------

int rtmClientInit();
int _rtmRegisterClient(uint8_t afIndex, uint32_t proto, const char *name, uint32_t flags, uint32_t instance,
                       uint32_t svce, uint32_t card, uint32_t ipcInst, uint32_t spare, uint32_t *cidOut,
                       uint32_t filter, uint32_t vrfId);
// Handles a registration message of `len` bytes: writes mstatus and reg_cid into it and gives
// the result of _rtmRegisterClient (RTM_REG_FAIL also for a refused message).
int rtmRegisterClient(uint8_t *msg, uint32_t len);
// The ARP and NDP managers; replies by itself.
int rtmRegisterClientNonRtProto(uint8_t *msg, uint32_t len);
// The message form: cid from offset 60. Writes mstatus.
int rtmDeregisterClient(uint8_t afIndex, uint8_t *msg, int delOtherAf);
// The same, by handle: queues, then _rtmDeregisterClient. 0 or 1.
int rtmDeregisterClientCid(uint8_t afIndex, uint32_t cid, int delOtherAf);
int _rtmDeregisterClient(uint8_t afIndex, uint32_t cid, int afDel);
int rtmDeregisterAFClient(uint8_t afIndex, uint32_t cid);
int rtmClientEvtNotification(uint8_t *msg, uint32_t len);
// Clears a leaving client's routes in its VRF (every VRF for ALL_VRF_ID).
void rtmRemoveProtoRoutes(uint8_t afIndex, rt_client *rtc, uint32_t vrfId);

// ---- Per-VRF records ---------------------------------------------------------------------

// 0, or 1 when there is no memory (the slot stays null).
int rtmClientVrfInit(rt_client *rtc, uint32_t vrfId);
// Takes the walkers off their trees and frees the record. 0, or 1 when there was none.
int rtmClientVrfDestroy(rt_client *rtc, uint32_t vrfId);
// A VRF came or goes: every client (and the super dummies) gains or loses its record.
int rtmClientUpdateVrfCreate(uint32_t vrfId);
void rtmClientUpdateVrfDelete(uint32_t vrfId);

// ---- Regular and super lists -------------------------------------------------------------

int rtmAddClientToList(QOR_DLL *list, rt_client *rtc);
int rtmRemoveClientFromList(QOR_DLL *list, rt_client *rtc);
bool rtmClientOnList(const QOR_DLL *list, const rt_client *rtc);
void rtmValidateOneSuperClient(rt_client *rtc, uint8_t afIndex);
// Promotes the regular clients that stand at the super group's version in every VRF in use.
void rtmValidateRegularClients(uint32_t vrfId, uint8_t afIndex);
// Takes back to the regular list the super members that are filtered or whose queue failed.
// Call it before rtmValidateRegularClients.
void rtmValidateSuperClients(uint32_t vrfId, uint8_t afIndex);
inline rt_client *rtmClientOfNode(QOR_DLL_NODE *n) { return reinterpret_cast<rtm_client_node *>(n)->client; }

// ---- Filter state, flush and clear -------------------------------------------------------

// Per family: whether IPM instance 1 takes BGP routes.
extern uint32_t rtmDownloadBgpRoutesToIpm1[3];
// Per family and VRF: the key of the last clear sent to the protocols; an answer must carry it.
extern uint32_t rtmExpClrRteKey[3][MAX_VRF];

// The filter command: data[0] 16 filters (data[1] non-zero: the small form), 17 lifts it. 0.
int rtmClientUpdateFilterFlag(uint32_t unused, uint8_t afIndex, const uint8_t *data);
void rtmClientSetFilterFlag(uint8_t afIndex);
void rtmClientResetFilterFlag(uint8_t afIndex);
void rtmClientSetCfgFilterFlag(uint8_t afIndex);
int rtmRedownloadBgpRoutesToIpm1(uint8_t afIndex, uint32_t value);
// `clear ip route`: the 48-byte clear record. 0, or 1 when a protocol could not be told.
int rtmClearIpRoutesCmd(const uint8_t *record);
// A protocol's answer to a clear (the flush message layout); ends its blocked state.
int rtmClearClientIpRoutes(rt_client *rtc, const uint8_t *msg, uint32_t vrfId);
// Sends a client's FIB afresh (the MT_RTM_CLEAR_FIB message).
int rtmClearIpFibCmd(uint8_t *msg);
// Flushes: a client's own routes go.
int rtmFlushClientRoutes(uint8_t *msg);
int rtmFlushClientRoutesSwp(uint8_t afIndex, rt_client *rtc, uint8_t *msg);
int rtmFlushClientVrfRoutesSwp(uint8_t afIndex, rt_client *rtc, uint8_t *msg);
int _rtmFlushClientRoutes(uint8_t afIndex, rt_client *rtc);
int _rtmFlushClientVrfRoutes(uint8_t afIndex, rt_client *rtc, uint32_t vrfId);
void rtmFlushAllVrfRoutes(uint32_t vrfId);
// Sends the flush message for a clear record on a protocol's queue: 0, or 1.
int rtmSendSwpFlushMessage(uint8_t afIndex, uint32_t queue, const uint8_t *record);
// Handlers of the filter, flush and clear messages, and their state (from rtmClientInit).
void rtmClientFlushInit();

// ---- Counters ----------------------------------------------------------------------------

// op 1 counts a route of the client in, op 2 out; active tells which side of the election.
void rtmRouteCounters(uint8_t afIndex, uint32_t vrfId, uint32_t cid, uint32_t subtype, int op, int active);
uint32_t rtmVrfGetActiveRoutesCount(uint8_t afIndex, uint32_t vrfId);

// ---- Qualifiers --------------------------------------------------------------------------

// `qualifier` points at the instance word (big-endian) of the message.
void mapQualifier(uint32_t proto, uint32_t vrfId, const uint8_t *qualifier, uint8_t afIndex);
void unmapQualifier(uint32_t proto, uint32_t vrfId, const uint8_t *qualifier, uint8_t afIndex);
void clearAllQualifierForProto(uint32_t proto, uint32_t instance, uint32_t vrfId, uint8_t afIndex);
int verifyQualifierVrfId(uint8_t afIndex, uint32_t proto, uint32_t vrfId, uint32_t instance);

// ---- Hooks -------------------------------------------------------------------------------

// Work of other subsystems at registration and deregistration. Every member is optional.
struct RtmClientHooks {
  // First contents of a download client, in the order they are sent.
  void (*rtmSendUftConfigToAgent)(uint8_t afIndex, rt_client *rtc);
  void (*rtmRednldVrfInfoToFibClient)(uint8_t afIndex, rt_client *rtc);
  void (*rtmIssuStartRestore)(uint32_t queue);
  void (*rtmSendSwpHashAlgorithmMessage)(uint8_t afIndex, uint32_t queue, uint8_t algorithm);
  void (*rtmSendEcmpMaxPathConfigToAgent)(uint8_t afIndex, uint32_t cid);
  // Per VRF with a tree: the VRF create message (not for VRF 0) and the unknown-unicast block.
  void (*rtmSendFibVrfFirstContents)(uint8_t afIndex, rt_client *rtc, uint32_t vrfId);
  // Weighted and deterministic ECMP, path-group fallback, host tables, LPM, audit.
  void (*rtmSendFibFeatureConfig)(uint8_t afIndex, rt_client *rtc);
  void (*rtmSendFib6HashConfMsgClient)(uint8_t afIndex, rt_client *rtc);
  void (*rtmClientIpRedirDownloadAll)(rt_client *rtc);
  void (*rtmProtoClientInfoDownload)(uint32_t queue, uint32_t vrfId, uint32_t proto, uint32_t tgtProto, int bulk,
                                     int add);
  void (*rtmRegClientRmaps)(uint8_t afIndex, rt_client *rtc, uint32_t vrfId);
  // Egress L3 indexes, ZLK and BRM state for a FIB agent of IPv4.
  void (*halRtmFibAgentRegistered)(rt_client *rtc);
  void (*rtmBulkDownloadTnlDestAddrInfo)(rt_client *rtc);
  void (*rtmOfmDnldAllSdnRoutes)();
  void (*rtmStaticBfdTaskNotif)(int up, int flag, uint32_t vrfId, uint8_t afIndex);
  // Deregistration.
  void (*rtmRedistValidateIsisTagInTbl)(uint8_t afIndex, uint32_t instance, const char *name, int add,
                                        uint32_t vrfId);
  void (*rtmDeregisterInternalBgpClients)(uint8_t afIndex, rt_client *rtc);
  void (*clearClientRedistRuleInRib)(uint8_t afIndex, rt_client *rtc);
  void (*rtmClearVrfProtoRoutes)(uint8_t afIndex, rt_client *rtc, uint32_t vrfId);
  void (*rtmRpfClearVrfProtoRoutes)(uint8_t afIndex, rt_client *rtc, uint32_t vrfId);
  void (*rtmPollRibClearProto)(uint8_t afIndex, uint32_t cid, uint32_t vrfId);
  void (*rtmDeregClientRmaps)(uint8_t afIndex, rt_client *rtc);
  void (*_rtmDeregFreeDioRuleList)(uint8_t afIndex, rt_client *rtc);
  void (*_rtmDeregFreeRedistRuleList)(uint8_t afIndex, rt_client *rtc, uint32_t vrfId);
  void (*_rtmClearClientRedistRule)(uint8_t afIndex, rt_client *rtc, uint32_t vrfId);
  void (*unmapQualifierEffects)(uint8_t afIndex, uint32_t vrfId, uint32_t instance);
  void (*rtmClearDownloadBit)(uint8_t afIndex, rt_client *rtc);
  // Failed queues (with no hook, the client's queue state becomes RTC_Q_STOPPED).
  void (*rtmDownloadErrCB)(uint32_t queue, uint32_t error);
  void (*rtmRedistErrCB)(uint32_t queue, uint32_t error);
  // Chassis events.
  void (*halRtmHandleZlkPeerStatus)(const uint8_t *msg, uint32_t len);
  void (*halrtmBrmUpdSvpLcConfigStatus)(uint32_t slot);
};
extern RtmClientHooks rtmClientHooks;

// Back to a clean start (tests): frees every record, list and map, forgets the hooks' state.
void rtmClientReset();
