// Start-up and the main loop.
//
// The main task registers with the chassis manager, IFM and the ISSU manager, then loops:
// read at most rtmQueueReadMax messages, then let the workers run; sleep in select only when
// there is nothing to do. Registrations that are still outstanding are retried once a second.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <unistd.h>

#include "clients/rtm_client.h"
#include "download/rtm_download.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "interfaces/rtm_if.h"
#include "chassis/qor_chassis.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "nexthop/rtm_nh.h"
#include "poller/rtm_poll.h"
#include "redist/rtm_redist.h"
#include "rib/rtm_rib.h"
#include "rpf/rtm_rpf.h"
#include "rtm/rtm_wire.h"
#include "sdn/rtm_sdn.h"
#include "static/rtm_static.h"
#include "swp/qor_swp.h"
#include "timer/qor_timer.h"
#include "views/rtm_views.h"
#include "vrf/rtm_vrf.h"

using rtm::ld32;

int32_t pkey = -1, rtmPkey = -1;
uint32_t service, instance;
uint32_t rtmevkey;
uint64_t rtmMainStart;
uint32_t rtmIfmRegState, rtmChmRegState, rtmBrmRegState;
uint32_t rtmCfgDnldInProg, g_rtmisInitialCfgDone;
int32_t rtmChmRegRetryCnt = 5, rtmQueueReadMax = 150;
bool rtmAckHolding = false;
uint32_t rtmdebug;
int rtmClkRate;
QorThreadGroup rtmThreads = -1;
int rtmThreadMain;
uint32_t rtmTicUpdate[4][513], rtmTicWake[4][513];
uint8_t g_ecmpMaxPaths = 16, g_ipEcmpMaxPaths = 16;
uint32_t g_Lpm_Ipv6_128_Val, g_l2_mem_entries, g_l3_mem_entries, g_lpm_mem_entries;
uint8_t rtmHashAlgorithm;
RtmLoopStats rtmLoopStats;
volatile int rtmExitRequested;
int rtmExitPipe[2] = {-1, -1};
SEM_ID bgpTaskStartSem;

namespace {
uint8_t g_l3Table[84];
uint8_t *g_rxBuffer;

// OSPF instances waiting for BGP's convergence, per VRF slot.
constexpr int kOspfSlots = 512;
struct OspfWaitInfo {
  uint32_t inst;
  int32_t vrf;
};
}  // namespace

uint8_t rtmOspfWaitForBgp[kOspfSlots], rtmOspfIsInformedBgp[kOspfSlots];
OspfWaitInfo ospfInfo[kOspfSlots];

int RtmChmRegister(int32_t key, int card) { return qorChmRegister(key, card, 1); }
int rtmIssuRegister() { return qorIssuRegister(rtmPkey, 5); }

void rtmOspfInit() {
  for (int i = 0; i < kOspfSlots; ++i) {
    rtmOspfWaitForBgp[i] = 0;
    rtmOspfIsInformedBgp[i] = 0;
    ospfInfo[i] = {0, -1};
  }
}

// FIB audit: both families enabled, every 60 seconds.
struct RtmFibAudit {
  uint32_t enabled, interval, state;
} rtmFibAudit[2];
void rtmFibAuditInit() {
  for (auto &a : rtmFibAudit) a = {1, 60, 0};
}

void rtmDbgInit() {}

void rtmStartThreads() {
  struct Worker {
    int id;
    const char *name;
    QorThreadEntry entry;
  };
  static const Worker workers[] = {
      {rtmThreadStatic, "rtmStatic", rtmStaticThreadEntry}, {rtmThreadRedis, "rtmRedis", rtmRedistMain},
      {rtmThreadRteDn, "rtmRteDn", rtmDownloadMain},        {rtmThreadTic, "rtmTic", rtmTicMain},
      {rtmThreadPoll, "rtmPoll", rtmPollMain},              {rtmThreadMstatic, "rtmMstatic", rtmMstaticThreadEntry},
      {rtmThreadRtLeak, "rtmRtLeak", rtmRouteLeakThread},
  };
  for (const Worker &w : workers)
    if (qorThreadTmeCreate(w.id, 0, rtmThreads, w.name, w.entry, nullptr, RTM_THREAD_STACK, 0) != 0)
      qorSysErr(rtmevkey, 0, 0x148002, 0, "RTM: rtmStartThreads", w.name);
}

int rtmTaskInit(int32_t key) {
  rtmFrameInitHandlers();
  rtmInitIsisTagInstTbl(key);
  if (rtmMemPoolAlloc() != 0) {
    qorSysErr(rtmevkey, 0, 0x148002, 0, "RTM: rtmTaskInit");
    return 1;
  }
  if (rtmIpcInit(key) == 1) {
    qorSysErr(rtmevkey, 0, 0x148003, 0, "RTM:rtmTaskInit, failed rtmIpcInit");
    return 1;
  }
  g_rtmVrfInUse[0] = 1;
  if (rtmVrfCacheAllocate(0) || rtmRibRtInetAllocate(0) || rtmPollRadicalRefAllocate(0) ||
      rtmTicRadicalRefAllocate(0))
    return 1;
  rtmNhInit(0);
  rtmRpfNhInit(0);
  if (rtmRibCreate(0, "inet.0", "inet.0c", "inet.0p", "inet.0g", "inet.0m", "inet.0s") != 0) return 1;
  rtmClientInit();
  rtmRibInit();
  rtmDownloadInit();
  rtmIfInit();
  rtmStaticInit(0);
  rtmMstaticInit();
  rtmStartThreads();
  rtmStaticBfdInit();
  rtmDbgInit();
  rtmTicInit();
  rtmOspfInit();
  rtmRtleakInit();
  if (rtmMstaticRadicalRefAllocate(0) != 0) return 1;
  rtmHashAlgorithm = 0;
  rtmFibAuditInit();
  rtmOfmInit();
  halRtmInit();
  rtmViewsInit();
  qorInitHistoryTable(5000, 150, 1);
  qorEnableHistoryLogging();
  rtmRedistIbgpInit();
  return 0;
}

void rtmRequestExit(int status) {
  rtmExitRequested = status == 0 ? 1 : status;
  if (rtmExitPipe[1] >= 0) {
    char c = 1;
    ssize_t n = write(rtmExitPipe[1], &c, 1);
    (void)n;
  }
}

void rtmTaskExit(int status) {
  qorEventLog(rtmevkey, 1, "RTM is exiting...\n");
  if (rtmMemPoolFree() != 0) qorSysErr(rtmevkey, 0, 0x148001, 0, "RTM:rtmTaskExit, failed to Deallocate memory pools");
  // The sockets go with the process: a peer must not find an endpoint nobody reads.
  if (rtmIpcKey != -1) qorIpcClose(rtmIpcKey);
  fflush(nullptr);
  // Workers are parked inside the thread group; ending the process without running static
  // destructors keeps them from waking up into freed state.
  _exit(status);
}

// ---- Receiving ---------------------------------------------------------------------------

namespace {
unsigned rtmLookSkips;  // requests taken in a row without a look at the descriptors
}  // namespace

int rtmRecvFromAllQ(uint8_t *buffer, int wait) {
  int status = 1;
  int timeoutMs = wait == 1 ? 5000 : 0;
  // While IFM or the chassis manager has not answered, the loop must come round once a second
  // to register again even when no message arrives, so the sleep is cut to that second.
  if (timeoutMs > 1000 && (rtmIfmRegState == 0 || rtmChmRegState == 0)) timeoutMs = 1000;
  rtm::st32(buffer, IPC_OFF_MTYPE, 0);
  enum { TMR, REQ, PIPE, EXIT, N };
  pollfd fds[N] = {{Key_getSocketFd(rtmTmrQfd), POLLIN, 0},
                   {Key_getSocketFd(rtmReqQfd), POLLIN, 0},
                   {rtm_swp_pipe, POLLIN, 0},
                   {rtmExitPipe[0], POLLIN, 0}};
  int rc = 0;
  int err = 0;
  // A look that cannot block needs no stretch when it finds work: letting go of the baton
  // would cost two thread hand-offs per message in a burst, and the workers get their turn at
  // the yield after the budget. Only when nothing is ready do the workers run during the select.
  // A bulk configuration is the exception: the loop does not yield then, so the stretch is the
  // workers' only turn and is always opened.
  //
  // A request already taken from the kernel needs no look at all: a burst's messages come off
  // the socket several at a time, and a look per message was a third of the daemon's system
  // calls in a table load. Every few messages the look is made all the same, so that the timer
  // queue and the pipes wait behind a burst for no more than that.
  constexpr unsigned kLooksSkipped = 4;
  if (timeoutMs == 0 && rtmCfgDnldInProg != 1) {
    if (rtmLookSkips < kLooksSkipped && qorIpcInHand(rtmReqQfd) > 0) {
      ++rtmLookSkips;
      rc = 1;
      fds[REQ].revents = POLLIN;
    } else {
      rtmLookSkips = 0;
      rc = poll(fds, N, 0);
      err = errno;
    }
  }
  if (rc == 0) {
    qorThreadRunConcurrentStart(rtmThreads);
    do {
      rc = poll(fds, N, timeoutMs);
    } while (rc < 0 && errno == EINTR && !rtmExitRequested);
    err = errno;
    qorThreadRunConcurrentEnd(rtmThreads, rtmThreadMain);
  }
  if (rc < 0) {
    if (err == EINTR) return 1;
    ++rtmseltoerr;
    qorSysErr(rtmevkey, 0, 0x14802F, 0, "RTM: rtmRecvFromAllQ", err);
    return 1;
  }
  if (fds[TMR].revents & POLLIN) {
    int n = qorIpcRecv(rtmTmrQfd, buffer, RTM_IPC_BUF_SIZE, QOR_IPC_NOWAIT, 0, 0);
    if (n >= 0) {
      ++rtmtmrqcnt;
      rtmCurMsgLen = static_cast<uint32_t>(n);
      if (rtmAckHolding) qorSwpAckHold(false);  // a timer's work may wait on somebody
      rtmMessageSwitch(buffer);
      status = 0;
    } else if (errno != EAGAIN) {
      ++rtmtmrqcnterr;
      qorSysErr(rtmevkey, 0, 0x148030, 0, "RTM: rtmRecvFromAllQ", errno);
      status = 1;
    }
  }
  if (fds[REQ].revents & POLLIN) {
    int n = qorIpcRecv(rtmReqQfd, buffer, RTM_IPC_BUF_SIZE, QOR_IPC_NOWAIT, 0, 0);
    if (n < 0) {
      if (errno != EAGAIN) {
        ++rtmreqqcnterr;
        qorSysErr(rtmevkey, 0, 0x148030, 0, "RTM: rtmRecvFromAllQ", errno);
        status = 1;
      }
    } else {
      uint32_t mlen = static_cast<uint32_t>(n) >= IPC_HDR_LEN ? ld32(buffer, IPC_OFF_MLEN) : IPC_HDR_LEN;
      if (mlen > static_cast<uint32_t>(n)) {
        ++rtmreqqcnterr;
        char text[256];
        snprintf(text, sizeof text, "RTM: Msg received short on request Q. rcvd %d bytes, expected %d bytes", n,
                 static_cast<int>(mlen));
        qorSysErr(rtmevkey, 0, 0x148030, 0, text);
        status = 1;
      } else {
        ++rtmreqqcnt;
        rtmCurMsgLen = static_cast<uint32_t>(n);
        // Route updates arrive in bursts from one client: their acks are held and sent as one
        // at the end of the burst (or every few messages). Any other message but an ack may
        // lead to a wait on somebody, so what is held goes out before it.
        const uint32_t mtype = ld32(buffer, IPC_OFF_MTYPE);
        qorSwpAckHold(rtmAckHolding && (mtype == MT_RTM_UPD_ROUTE || mtype == MT_SWP_ACK));
        rtmMessageSwitch(buffer);
        status = 0;
      }
    }
  }
  if (fds[PIPE].revents & POLLIN) qorSwpReadPipe(rtm_swp_pipe);
  return status;
}

namespace {
int recvOne(int queue, uint8_t *buffer, int wait, bool countFirst) {
  if (!wait || countFirst) {
    if (qorIpcGetNumMsgs(queue) < 1) return 1;
  }
  int n = qorIpcRecv(queue, buffer, RTM_IPC_BUF_SIZE, wait ? QOR_IPC_WAIT_TIMEOUT : QOR_IPC_NOWAIT, 0, 0);
  if (n >= 0) return 0;
  if (errno == QOR_IPC_ETIMEDOUT || errno == EAGAIN) return 1;
  qorSysErr(rtmevkey, 0, 0x148030, 0, "RTM: rtmRecvFromAllQ", errno);
  rtmTaskExit(-1);
}
}  // namespace

int rtmRecvFromReqQ(uint8_t *buffer, int wait) { return recvOne(rtmReqQfd, buffer, wait, false); }
int rtmRecvFromTmrQ(uint8_t *buffer, int wait) { return recvOne(rtmTmrQfd, buffer, wait, true); }

// ---- The loop ----------------------------------------------------------------------------

namespace {
bool secondPassed(uint64_t last) { return (qorTickGet() - last) / static_cast<uint64_t>(rtmClkRate) != 0; }
}  // namespace

void rtmMainLoopPass(RtmLoopState &st) {
  ++rtmLoopStats.passes;
  if ((rtmIfmRegState == 0 || rtmChmRegState == 0 || rtmBrmRegState == 0) && secondPassed(st.last)) {
    if (rtmIfmRegState == 0) rtmIfmRegister(), ++rtmLoopStats.regRetries;
    if (rtmChmRegState == 0 && RtmChmRegister(rtmPkey, 2) != -1) rtmChmRegState = 1;
    if (rtmBrmRegState == 0) halRtmBrmRegister();
    st.last = qorTickGet();
  }
  int result = rtmRecvFromAllQ(st.buffer, st.wait);
  if (result == 0) {
    --st.budget;
    ++rtmLoopStats.handled;
  }
  if ((rtmIfmRegState == 0 || rtmChmRegState == 0) && secondPassed(st.last)) {
    if (rtmIfmRegState == 0)
      rtmIfmRegister(), ++rtmLoopStats.regRetries;
    else if (qorChmRegister(rtmPkey, 2, 1) != -1)
      rtmChmRegState = 1;
    st.last = qorTickGet();
  }
  if (st.budget != 0 && result == 0) {
    st.wait = 0;
    return;
  }
  qorSwpAckFlush();  // the burst has ended: before the workers' turn or a wait
  st.budget = rtmQueueReadMax;
  if (rtmCfgDnldInProg == 1) {
    st.wait = 1;
    return;
  }
  ++rtmLoopStats.yields;
  int others = qorThreadYield(rtmThreads);
  if (others > 0) ++rtmLoopStats.yieldsTaken;
  st.wait = others == 0 ? 1 : 0;
}

int halRtmBrmRegister() {
  ++rtmLoopStats.brmCalls;
  return 0;
}

void rtmTaskMain(int argc, char **argv) {
  rtmClkRate = sysClkRateGet();
  memset(g_l3Table, 0, sizeof g_l3Table);
  pkey = qorTaskStartup(argc, argv, 0);
  if (pkey == -1) exit(1);
  rtmPkey = pkey;
  rtmMainStart = qorTickGet();
  service = qorTaskGetServiceByKey(pkey);
  instance = qorTaskGetInstanceByKey(pkey);
  int32_t ev = qorEvtOpenlog("RTM", 0, service, instance);
  if (ev == -1) exit(2);
  rtmevkey = static_cast<uint32_t>(ev);
  qorEvtSetSeverityLevel(rtmevkey, 0x01FFFFFF);
  qorEvtRegisterSvce(rtmevkey, 1);
  rtmThreads = qorThreadInit(&rtmThreadMain, rtmevkey);
  if (rtmTaskInit(pkey) != 0) exit(1);
  rtmAckHolding = true;
  qorEventLog(rtmevkey, 17, "RTM Task is Ready");
  g_rxBuffer = rtmGetIpcBuffer();
  if (!g_rxBuffer) {
    qorSysErr(rtmevkey, 0, 0x148002, 0, "RTM: rtmTaskMain");
    exit(0);
  }
  if (qorChmGetL3TableCfg(rtmPkey, g_l3Table) == -1) {
    qorTracePrintf(51, "RTM could not Get L3 Table Info fromChassis Mgr\r\n");
  } else {
    g_ecmpMaxPaths = g_ipEcmpMaxPaths = g_l3Table[64];
    g_Lpm_Ipv6_128_Val = ld32(g_l3Table, 68);
    g_l2_mem_entries = ld32(g_l3Table, 72);
    g_l3_mem_entries = ld32(g_l3Table, 76);
    g_lpm_mem_entries = ld32(g_l3Table, 80);
  }
  for (int i = 0; i < rtmChmRegRetryCnt; ++i) {
    if (RtmChmRegister(rtmPkey, 2) != -1) {
      rtmChmRegState = 1;
      break;
    }
    qorTracePrintf(51, "RTM could not register with Chassis Mgr. Retrying...\r\n");
    taskDelay(2 * rtmClkRate);
  }
  halRtmBrmRegister();
  RtmLoopState st;
  st.wait = 0;
  st.budget = rtmQueueReadMax;
  st.buffer = g_rxBuffer;
  bgpTaskStartSem = semBCreate(0, 1);
  rtmIfmRegister();
  rtmIssuRegister();
  qorTaskReady(pkey);
  st.last = qorTickGet();
  for (;;) {
    if (rtmExitRequested) rtmTaskExit(rtmExitRequested == 1 ? 0 : rtmExitRequested);
    rtmMainLoopPass(st);
  }
}

void rtmFrameReset() {
  if (rtmThreads > 0) qorThreadGroupDestroy(rtmThreads);
  rtmThreads = -1;
  rtmRibReset();
  rtmClientReset();
  rtmNhReset();
  rtmDownloadReset();
  qorSwpReset();
  qorIpcReset();
  qorTimerReset();
  if (g_rxBuffer) rtmMemFreeNonPool(__FILE__, __LINE__, g_rxBuffer);
  g_rxBuffer = nullptr;
  rtmMemPoolFree();
  rtmIpcKey = -1;
  rtm_swp_pipe = -1;
  rtmIfmRegState = rtmChmRegState = rtmBrmRegState = 0;
  rtmCfgDnldInProg = g_rtmisInitialCfgDone = 0;
  rtmdebug = 0;
  rtmExitRequested = 0;
  rtmLoopStats = {};
  rtmreqqcnt = rtmtmrqcnt = rtmrspqcnt = rtmreqqcnterr = rtmtmrqcnterr = rtmrspqcnterr = rtmseltoerr = 0;
  memset(rtmTicUpdate, 0, sizeof rtmTicUpdate);
  memset(rtmTicWake, 0, sizeof rtmTicWake);
}
