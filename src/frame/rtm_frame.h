// The task frame: start-up, the main loop, message dispatch and RTM's own IPC paths.
//
// One main task owns every table and runs every message handler to completion; seven
// cooperative worker threads run only when the main task yields or sits in select. The main
// loop reads at most rtmQueueReadMax messages before it offers the processor to the workers,
// and does not yield during a bulk configuration.
#pragma once

#include <cstdint>

#include "thread/qor_thread.h"

// ---- State of the frame ----------------------------------------------------------------
extern int32_t pkey, rtmPkey;
extern uint32_t service, instance;
extern uint32_t rtmevkey;
extern uint64_t rtmMainStart;
extern uint32_t rtmIfmRegState, rtmChmRegState, rtmBrmRegState;
extern uint32_t rtmCfgDnldInProg, g_rtmisInitialCfgDone;
extern int32_t rtmChmRegRetryCnt, rtmQueueReadMax;
// The daemon's loop holds the acks of route updates until the end of each burst of reads
// (set by rtmTaskMain; tests that drive the loop themselves see an ack per message).
extern bool rtmAckHolding;
extern uint32_t rtmdebug;
extern int rtmClkRate;

extern QorThreadGroup rtmThreads;
extern int rtmThreadMain;
constexpr int rtmThreadStatic = 77;
constexpr int rtmThreadRedis = 78;
constexpr int rtmThreadRteDn = 80;
constexpr int rtmThreadTic = 79;
constexpr int rtmThreadPoll = 125;
constexpr int rtmThreadMstatic = 163;
constexpr int rtmThreadRtLeak = 338;
constexpr uint32_t RTM_THREAD_STACK = 16000;

extern uint32_t rtmTicUpdate[4][513], rtmTicWake[4][513];

// Receive statistics, printed by rtmipcstats.
extern uint32_t rtmreqqcnt, rtmtmrqcnt, rtmrspqcnt;
extern uint32_t rtmreqqcnterr, rtmtmrqcnterr, rtmrspqcnterr, rtmseltoerr;

// L3 table figures from the chassis manager (built-in defaults otherwise).
extern uint8_t g_ecmpMaxPaths, g_ipEcmpMaxPaths;
extern uint32_t g_Lpm_Ipv6_128_Val, g_l2_mem_entries, g_l3_mem_entries, g_lpm_mem_entries;

// ---- IPC handles and RTM's own address ---------------------------------------------------
extern int rtmIpcKey, rtmReqQfd, rtmTmrQfd, rtm_swp_pipe;
extern uint32_t rtmrouteinfo[4];  // slot, card, svce, spare

int rtmIpcInit(int32_t key);
uint8_t *rtmGetIpcBuffer();
void rtmFreeIpcBuffer(uint8_t *buffer);
void rtmClearIpcBuffer(uint8_t *buffer);
int rtmSendMessage(uint32_t mtype, uint8_t *msg, uint32_t len, uint32_t transCode, uint32_t svce, uint32_t inst);
int rtmSendReply(uint8_t *msg);
int rtmIpcSendAndWait(uint32_t mtype, uint8_t *msg, uint32_t len, uint32_t svce, uint8_t *replyBuf, uint32_t replyLen);
int rtmSendIpc(uint32_t mtype, uint32_t svce, uint32_t inst);
int rtmOspfSendIpc(uint32_t mtype, uint32_t svce, uint32_t inst);
int rtm_notify_bgp_convergence(uint32_t mtype, uint32_t svce, uint32_t inst, uint32_t value);
int rtmTicCreatePipe(const char *name);
void rtmTicWritePipe(int fd, uint32_t value);
int rtmTicProcessPipe(int fd);
void rtmipcstats();

// ---- Start-up and the loop ---------------------------------------------------------------
int rtmTaskInit(int32_t key);
void rtmStartThreads();
[[noreturn]] void rtmTaskMain(int argc, char **argv);
[[noreturn]] void rtmTaskExit(int status);
int RtmChmRegister(int32_t key, int card);
int rtmRecvFromAllQ(uint8_t *buffer, int wait);
int rtmRecvFromReqQ(uint8_t *buffer, int wait);
int rtmRecvFromTmrQ(uint8_t *buffer, int wait);

// One pass of the main loop, with the loop's own state, so tests can drive it pass by pass.
struct RtmLoopState {
  int wait = 0;
  int budget = 150;
  uint64_t last = 0;
  uint8_t *buffer = nullptr;
};
void rtmMainLoopPass(RtmLoopState &st);
// Counts what the loop did, for tests and the debug shell.
struct RtmLoopStats {
  uint64_t passes, yields, yieldsTaken, handled, regRetries, brmCalls;
};
extern RtmLoopStats rtmLoopStats;

// Asks the main loop to end through rtmTaskExit (from the signal path).
void rtmRequestExit(int status);
extern volatile int rtmExitRequested;
extern int rtmExitPipe[2];

// ---- Dispatch ----------------------------------------------------------------------------
void rtmMessageSwitch(uint8_t *msg);

// Handler of a message: the message buffer (8192 bytes, valid until the handler returns), its
// received length, and for sequenced client messages the client (else null).
struct rt_client;
// The result is the status of the commands whose reply carries it.
using RtmMsgHandler = int (*)(uint8_t *msg, uint32_t len, rt_client *rtc);
// Plugs a handler in by message type or NM sub-code; -1 for a code the catalogue lacks.
int rtmFrameSetHandler(uint32_t mtype, RtmMsgHandler fn);
int rtmFrameSetNmHandler(uint32_t sub, RtmMsgHandler fn);
// Clears every handler and installs the frame's own.
void rtmFrameInitHandlers();
// Fixed sequence words of the managers' messages.
extern uint32_t expAclDownloadSeq, rtmBrmSeqNum, rtmIssuSeqNum, qHandle;

// Length of the message being dispatched, as received (mlen is checked not to exceed it).
extern uint32_t rtmCurMsgLen;

// ---- Platform hooks of the frame (stand-ins of the chassis layer) ------------------------
int halRtmBrmRegister();
int halRtmInit();
int rtmIssuRegister();

// ---- Small inits of the frame ------------------------------------------------------------
void rtmOspfInit();
void rtmFibAuditInit();
void rtmDbgInit();
extern uint8_t rtmHashAlgorithm;

// Back to a clean start (tests): frees what rtmTaskInit made, resets every global.
void rtmFrameReset();
