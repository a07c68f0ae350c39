// The interface manager's notifications (MT_IFM_NOTIFY).
#pragma once

#include <cstdint>

struct rt_client;

// IFM's sequence as rtmd expects it (0 is taken as 1).
extern uint32_t rtmIfmSeqNum;

// The handler: checks and acknowledges the sequence, then walks the records.
int rtmIfmNotification(uint8_t *msg, uint32_t len, rt_client *rtc);
// Plugs the handler into the dispatch and starts the sequence afresh.
void rtmIfmNotifInit();
