#include "download/rtm_download.h"

#include "frame/rtm_worker.h"

volatile uint8_t rtmDnldRestart;

void rtmDownloadMain(void *) { rtmWorkerIdleLoop(); }

void rtmClearDownloadThread(uint32_t, uint8_t) {
  rtmWaitWorkerSuspended(80, rtmDnldRestart);
  rtmDnldRestart = 0;
}
