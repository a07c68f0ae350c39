// The download thread: version walks that push active routes to FIB clients.
#pragma once

#include <cstdint>

extern volatile uint8_t rtmDnldRestart;

void rtmDownloadMain(void *arg);
// Stops the download walk for a renumbering: waits until the thread rests, resets its walk.
void rtmClearDownloadThread(uint32_t vrfId, uint8_t afIndex);
