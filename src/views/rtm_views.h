// Management views: commands that read the tables and answer in one reply.
//
// The handlers plug into the frame's NM table at start-up (rtmViewsInit) and only read: they
// never change a table, never yield and never send anything but their reply, so a monitoring
// tool may poll them while routes are being added.
#pragma once

#include <cstdint>

struct rt_client;

// Plugs the view handlers into the frame. 0, or 1 if the frame refused one.
int rtmViewsInit();

// MT_RTM_GET_ROUTE_COUNT: fills the reply into msg (which holds the request of len bytes and
// has room for RTM_IPC_BUF_SIZE) and sends it. The layout is in rtm/rtm_route_count.h.
int rtmGetRouteCount(uint8_t *msg, uint32_t len, rt_client *rtc);
// The reply without the sending, for the handler and for tests. Returns the status word.
uint32_t rtmRouteCountBuild(uint8_t *msg, uint32_t len);

// MT_RTM_GET_DNLD_CLIENTS: the download clients of a family (rtm/rtm_dnld_clients.h). The
// build leaves the reply in msg (room for RTM_IPC_BUF_SIZE) and returns the status word.
int rtmGetDnldClients(uint8_t *msg, uint32_t len, rt_client *rtc);
uint32_t rtmDnldClientsBuild(uint8_t *msg, uint32_t len);
