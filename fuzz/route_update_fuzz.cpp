// Fuzz target: MT_RTM_UPD_ROUTE as received, through its handler. The bytes are the whole
// message (header included); handles 0 to 7 of both families are clients of the kinds whose
// routes take different paths (dynamic, BGP, static, connected, unnumbered, VRRP, every VRF).
#include <algorithm>
#include <cstring>
#include <vector>

#include "clients/rtm_client.h"
#include "fuzz/fuzz_daemon.h"
#include "rib/rtm_rib.h"
#include "rtm/rtm_types.h"
#include "rtm/rtm_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  rtmfuzz::daemonForInput(256);
  static const uint32_t kProtos[] = {RTM_PROTO_OSPF, RTM_PROTO_BGP,  RTM_PROTO_STATIC, RTM_PROTO_CONNECTED,
                                     RTM_PROTO_POS,  RTM_PROTO_VRRP, RTM_PROTO_RIP,    RTM_PROTO_ISIS};
  for (uint8_t af : {RTM_IPV4UNI_AFINDEX, RTM_IPV6UNI_AFINDEX})
    for (uint32_t cid = 0; cid < 8; ++cid)
      if (!rt_client_tbl[af][cid].rtc_state)
        rtmfuzz::activeClient(af, cid, kProtos[cid], cid == 6 ? ALL_VRF_ID : 0);
  // Exactly the received bytes, so that any read past them is caught.
  std::vector<uint8_t> msg(data, data + std::min<size_t>(size, RTM_IPC_BUF_SIZE));
  rtmUpdateRouteIPv4(msg.data(), uint32_t(msg.size()), nullptr);
  return 0;
}
