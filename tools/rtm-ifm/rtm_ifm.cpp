// rtm-ifm: a small interface manager. It holds IFM's endpoint (service 138) and answers the
// route table manager's registration, so rtmd can come up outside a chassis.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "rtm/rtm_wire.h"

namespace {
constexpr uint32_t kIfmSvce = 138;
constexpr uint32_t kIfmRegister = 10802;

const char kUsage[] =
    "usage: rtm-ifm --run-dir DIR [--no-answer] [--count N] [--quiet]\n"
    "\n"
    "Interface manager stand-in: takes IFM's endpoint in DIR and answers registrations.\n"
    "\n"
    "  --run-dir DIR  the run directory rtmd uses\n"
    "  --no-answer    receive registrations but never answer them (to watch the retries)\n"
    "  --count N      exit after N registrations were received (default: run until SIGTERM)\n"
    "  --quiet        print nothing but errors\n"
    "  --help         print this text\n";

volatile sig_atomic_t g_stop;
void onSignal(int) { g_stop = 1; }

[[noreturn]] void usageError(const std::string &what) {
  fprintf(stderr, "rtm-ifm: %s\n%s", what.c_str(), kUsage);
  exit(2);
}
}  // namespace

int main(int argc, char **argv) {
  const char *runDir = nullptr;
  bool answer = true, quiet = false;
  long count = -1;
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
  uint8_t buf[RTM_IPC_BUF_SIZE];
  long seen = 0;
  while (!g_stop && (count < 0 || seen < count)) {
    int n = qorIpcRecv(q, buf, sizeof buf, QOR_IPC_WAIT_TIMEOUT, 500, 0);
    if (n < 0) continue;
    if (static_cast<size_t>(n) < IPC_HDR_LEN) {
      fprintf(stderr, "rtm-ifm: dropped a %d-byte message shorter than a header\n", n);
      continue;
    }
    uint32_t mtype = rtm::ld32(buf, IPC_OFF_MTYPE);
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
    }
    fflush(stdout);
  }
  qorIpcClose(key);
  return 0;
}
