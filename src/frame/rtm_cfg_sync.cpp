// Every handler that changes the running configuration also mirrors the line to the standby,
// so that a switchover keeps the configuration the operator typed.
#include "frame/rtm_cfg_sync.h"

#include "frame/rtm_frame.h"
#include "log/qor_log.h"

int rtmCfgSyncData(int noCmd, uint32_t handle, qorCfgRecord rec, uint8_t curMode, uint16_t subSysType,
                   uint32_t subSysUnit) {
  qorCfgSyncRecord sync;
  if (!qorCfgBuildSyncRecord(&sync, noCmd, &rec, curMode, subSysType, subSysUnit)) return 0;
  if (rtmdebug & 0x8)
    qorDebugPrintf("\r\nrtmCfgSyncData: no_cmd %d string is # %s # curMode %d subSysType %d subSysUnit %d", noCmd,
                   sync.text, curMode, subSysType, unsigned(subSysUnit));
  if (qorCfgSync(handle, &sync, sizeof sync) != 0) {
    qorSysErr(rtmevkey, 0, 0x148057, 0, "RTM: rtmCfgSyncData", sync.text);
    return 1;
  }
  return 0;
}
