// rtm-ifm: a small interface manager. It holds IFM's endpoint (service 138) and answers the
// route table manager's registration, so rtmd can come up outside a chassis. After each
// registration it tells rtmd, in one sequenced notification, that the interfaces of its line
// card slots are complete: rtmd refuses a slot's FIB agent until then.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

#include <vector>

#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "rtm/rtm_ifm_msgs.h"
#include "rtm/rtm_wire.h"
#include "swp/qor_swp.h"

namespace {
constexpr uint32_t kIfmSvce = 138;
constexpr uint32_t kIfmRegister = 10802;
constexpr uint32_t kIfmNotify = 10908;
constexpr uint32_t kRtmSvce = 76;
constexpr uint32_t kSwpAck = 0x0192;

const char kUsage[] =
    "usage: rtm-ifm --run-dir DIR [--no-answer] [--count N] [--slots LIST] [--quiet]\n"
    "\n"
    "Interface manager stand-in: takes IFM's endpoint in DIR and answers registrations.\n"
    "\n"
    "  --run-dir DIR  the run directory rtmd uses\n"
    "  --no-answer    receive registrations but never answer them (to watch the retries)\n"
    "  --count N      exit after N registrations were received (default: run until SIGTERM)\n"
    "  --slots LIST   line card slots whose interfaces to report complete, e.g. 0,1 (default 0;\n"
    "                 'none' reports none, and rtmd then refuses FIB agents)\n"
    "  --quiet        print nothing but errors\n"
    "  --help         print this text\n";

volatile sig_atomic_t g_stop;
void onSignal(int) { g_stop = 1; }

void freeMessage(void *msg) { free(msg); }
void queueFailed(uint32_t, uint32_t) { fprintf(stderr, "rtm-ifm: rtmd stopped acknowledging our notifications\n"); }

// One notification with a slot-complete record per slot; the queue writes the headers.
uint8_t *slotNotification(const std::vector<uint32_t> &slots, uint32_t *len) {
  *len = static_cast<uint32_t>(IFM_NOTIF_OFF_RECS + IFM_SLOT_DNLD_REC_LEN * slots.size());
  uint8_t *m = static_cast<uint8_t *>(calloc(1, *len));
  if (!m) return nullptr;
  rtm::st32(m, IPC_OFF_MLEN, *len);
  rtm::st32(m, IPC_OFF_MTYPE, kIfmNotify);
  rtm::st32(m, IFM_NOTIF_OFF_COUNT, static_cast<uint32_t>(slots.size()));
  size_t off = IFM_NOTIF_OFF_RECS;
  for (uint32_t slot : slots) {
    rtm::st16(m, off + IFM_REC_OFF_TYPE, IFM_TYP_SLOT_DNLD_COMPLETE);
    rtm::st16(m, off + IFM_REC_OFF_LEN, IFM_SLOT_DNLD_REC_LEN);
    rtm::st32(m, off + IFM_REC_OFF_PAYLOAD, slot);
    off += IFM_SLOT_DNLD_REC_LEN;
  }
  return m;
}

[[noreturn]] void usageError(const std::string &what) {
  fprintf(stderr, "rtm-ifm: %s\n%s", what.c_str(), kUsage);
  exit(2);
}
}  // namespace

int main(int argc, char **argv) {
  const char *runDir = nullptr;
  bool answer = true, quiet = false;
  long count = -1;
  std::vector<uint32_t> slots = {0};
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      fputs(kUsage, stdout);
      return 0;
    } else if (a == "--run-dir" && i + 1 < argc) {
      runDir = argv[++i];
    } else if (a == "--no-answer") {
      answer = false;
    } else if (a == "--quiet") {
      quiet = true;
    } else if (a == "--count" && i + 1 < argc) {
      char *end;
      count = strtol(argv[++i], &end, 10);
      if (*end || count <= 0) usageError("--count takes a positive number");
    } else if (a == "--slots" && i + 1 < argc) {
      std::string list = argv[++i];
      slots.clear();
      if (list != "none") {
        for (size_t at = 0; at <= list.size();) {
          size_t comma = list.find(',', at);
          std::string item = list.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
          char *end;
          long v = strtol(item.c_str(), &end, 10);
          if (item.empty() || *end || v < 0 || v > 12) usageError("--slots takes slot numbers 0 to 12, e.g. 0,1");
          slots.push_back(static_cast<uint32_t>(v));
          if (comma == std::string::npos) break;
          at = comma + 1;
        }
      }
    } else {
      usageError("unknown or incomplete option " + a);
    }
  }
  if (!runDir) usageError("--run-dir is required");
  qorLogSetProgram("rtm-ifm");
  mkdir(runDir, 0700);
  if (qorIpcSetRunDir(runDir) != 0) usageError("run directory path too long");
  int key = qorIpcOpen(kIfmSvce, 0);
  if (key < 0) {
    fprintf(stderr, "rtm-ifm: cannot open IFM's endpoint in %s: %s\n", runDir, strerror(errno));
    return 1;
  }
  signal(SIGTERM, onSignal);
  signal(SIGINT, onSignal);
  int q = Key_getReqQueue(key);
  uint32_t notifQ = 0;
  if (qorSwpQueueCreate_p(0, 0, 4, 16, kIfmSvce, 0, key, kRtmSvce, 0, 0, 0, 0, freeMessage, queueFailed, &notifQ, -1) !=
      QOR_SWP_OK) {
    fprintf(stderr, "rtm-ifm: cannot create the notification queue\n");
    return 1;
  }
  uint8_t buf[RTM_IPC_BUF_SIZE];
  long seen = 0;
  while (!g_stop && (count < 0 || seen < count)) {
    qorSwpRunTimers();
    int n = qorIpcRecv(q, buf, sizeof buf, QOR_IPC_WAIT_TIMEOUT, 200, 0);
    if (n < 0) continue;
    if (static_cast<size_t>(n) < IPC_HDR_LEN) {
      fprintf(stderr, "rtm-ifm: dropped a %d-byte message shorter than a header\n", n);
      continue;
    }
    uint32_t mtype = rtm::ld32(buf, IPC_OFF_MTYPE);
    if (mtype == kSwpAck) {
      void *released = nullptr;
      qorSwpDequeue(buf, &released);
      continue;
    }
    if (mtype != kIfmRegister) {
      if (!quiet) printf("rtm-ifm: ignored message type %u (%d bytes)\n", mtype, n);
      continue;
    }
    ++seen;
    if (!quiet) printf("rtm-ifm: registration %ld from service %u (%d bytes)\n", seen, rtm::ld32(buf, 60), n);
    if (answer) {
      rtm::st32(buf, IPC_OFF_MSTATUS, 0);
      if (qorIpcReply(key, buf, static_cast<uint32_t>(n)) != 0)
        fprintf(stderr, "rtm-ifm: reply failed: %s\n", strerror(errno));
      // A registration comes from an rtmd that starts its count of our notifications at 1.
      uint32_t len = 0;
      uint8_t *notif = slots.empty() ? nullptr : slotNotification(slots, &len);
      if (notif) {
        qorSwpQueueFlush(notifQ);
        if (qorSwpEnqueue(notifQ, notif, len) != QOR_SWP_OK) {
          fprintf(stderr, "rtm-ifm: the slot notification could not be queued\n");
          free(notif);
        } else if (!quiet) {
          printf("rtm-ifm: told rtmd that %zu slot(s) are complete\n", slots.size());
        }
      }
    }
    fflush(stdout);
  }
  // What rtmd has not acknowledged yet would be lost with us: give it a moment.
  for (int i = 0; i < 10 && qorSwpQueueGetLen(notifQ) > 0; ++i) {
    int n = qorIpcRecv(q, buf, sizeof buf, QOR_IPC_WAIT_TIMEOUT, 100, 0);
    if (n >= static_cast<int>(IPC_HDR_LEN) && rtm::ld32(buf, IPC_OFF_MTYPE) == kSwpAck) {
      void *released = nullptr;
      qorSwpDequeue(buf, &released);
    }
  }
  qorSwpQueueRemove(notifQ);
  qorIpcClose(key);
  return 0;
}
