#include "fuzz/fuzz_daemon.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "clients/rtm_client.h"
#include "frame/rtm_frame.h"
#include "frame/rtm_mem.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "timer/qor_timer.h"

namespace rtmfuzz {
namespace {
std::string g_runDir;
bool g_up;
unsigned g_inputs;
}  // namespace

bool daemonForInput(unsigned every, void (*beforeReset)()) {
  // A finding may depend on the inputs before it; RTM_FUZZ_RESET_EVERY=1 gives every input a
  // fresh daemon, to replay one alone.
  static const unsigned override = [] {
    const char *e = getenv("RTM_FUZZ_RESET_EVERY");
    return e ? unsigned(strtoul(e, nullptr, 10)) : 0u;
  }();
  if (override) every = override;
  if (g_up && ++g_inputs % every != 0) {
    qorLogClearRecent();
    return false;
  }
  if (g_up && beforeReset) beforeReset();
  if (g_up) rtmFrameReset();
  if (g_runDir.empty()) {
    char tmpl[] = "/tmp/rtm-fuzz.XXXXXX";
    if (!mkdtemp(tmpl)) abort();
    g_runDir = tmpl;
    qorLogSetEcho(false);
    qorClockUseManual(true);
  }
  qorIpcSetRunDir(g_runDir.c_str());
  rtmClkRate = sysClkRateGet();
  rtmThreads = qorThreadInit(&rtmThreadMain, 0);
  if (rtmTaskInit(1) != 0) {
    fprintf(stderr, "fuzz: rtmTaskInit failed\n");
    abort();
  }
  rtmIfmRegState = rtmChmRegState = 1;
  g_up = true;
  return true;
}

void activeClient(uint8_t af, uint32_t cid, uint32_t proto, uint32_t vrfId) {
  rt_client &rtc = rt_client_tbl[af][cid];
  rtc.rtc_state = 1;
  rtc.rtc_cid = cid;
  rtc.rtc_proto = proto;
  rtc.rtc_afIndex = af;
  rtc.rtc_vrfId = vrfId;
  snprintf(rtc.rtc_name, sizeof rtc.rtc_name, "fuzz%u", cid);
  for (uint32_t v : {0u, vrfId < MAX_VRF ? vrfId : 0u})
    if (!rtc.rtc_vrf[v]) rtc.rtc_vrf[v] = static_cast<rtClientVrfInfo *>(RTM_NONPOOL_ALLOC(sizeof(rtClientVrfInfo), 17));
}

}  // namespace rtmfuzz
