// rtmd: process entry. Parses the daemon's own options, sets up the platform (run directory,
// log sink, signals) and runs the main task in this thread.
#include <cerrno>
#include <csignal>
#include <string>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chassis/qor_chassis.h"
#include "frame/rtm_frame.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "rtm/rtm_types.h"

namespace {
const char kUsage[] =
    "usage: rtmd --run-dir DIR [--log-file FILE] [--debug BITS]\n"
    "\n"
    "Runs the route table manager in the foreground until SIGTERM or SIGINT.\n"
    "\n"
    "  --run-dir DIR    directory of the message endpoints (created 0700; sockets in DIR/ipc)\n"
    "  --log-file FILE  append the log to FILE instead of standard error\n"
    "  --debug BITS     initial debug bits (rtmdebug), decimal or 0x-hex\n"
    "  --version        print the version and exit\n"
    "  --help           print this text and exit\n";

[[noreturn]] void usageError(const char *what) {
  fprintf(stderr, "rtmd: %s\n%s", what, kUsage);
  exit(2);
}

// SIGTERM and SIGINT are taken by one thread with sigwait, so the main loop learns of them at
// a clean point (its wake-up pipe), never inside a handler.
void *signalThread(void *) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  for (;;) {
    int sig = 0;
    if (sigwait(&set, &sig) == 0) {
      rtmRequestExit(0);
      return nullptr;
    }
  }
}
}  // namespace

int main(int argc, char **argv, char **envp) {
  const char *runDir = nullptr, *logFile = nullptr;
  for (int i = 1; i < argc; ++i) {
    const char *a = argv[i];
    auto value = [&](const char *opt) -> const char * {
      if (i + 1 >= argc) usageError((std::string(opt) + " needs a value").c_str());
      return argv[++i];
    };
    if (!strcmp(a, "--help") || !strcmp(a, "-h")) {
      fputs(kUsage, stdout);
      return 0;
    } else if (!strcmp(a, "--version")) {
      printf("rtmd 0.1.0\n");
      return 0;
    } else if (!strcmp(a, "--run-dir")) {
      runDir = value(a);
    } else if (!strcmp(a, "--log-file")) {
      logFile = value(a);
    } else if (!strcmp(a, "--debug")) {
      char *end = nullptr;
      const char *v = value(a);
      unsigned long bits = strtoul(v, &end, 0);
      if (!*v || *end) usageError("--debug takes a number");
      rtmdebug = static_cast<uint32_t>(bits);
    } else {
      usageError((std::string("unknown option ") + a).c_str());
    }
  }
  if (!runDir) usageError("--run-dir is required");
  if (logFile && !qorLogSetFile(logFile)) {
    fprintf(stderr, "rtmd: cannot open log file %s\n", logFile);
    return 2;
  }
  qorLogSetProgram("rtmd");
  if (mkdir(runDir, 0700) != 0 && errno != EEXIST) {
    fprintf(stderr, "rtmd: cannot create run directory %s: %s\n", runDir, strerror(errno));
    return 2;
  }
  if (qorIpcSetRunDir(runDir) != 0) {
    fprintf(stderr, "rtmd: run directory path too long: %s\n", runDir);
    return 2;
  }
  if (QOR_NbsdpInit(argc, argv, envp) != 0) return 0;

  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);  // every thread made from here on inherits it
  signal(SIGPIPE, SIG_IGN);
  if (pipe(rtmExitPipe) != 0) return 1;
  pthread_t sigThread;
  pthread_create(&sigThread, nullptr, signalThread, nullptr);
  pthread_detach(sigThread);

  qorDdbInit(argv);
  qorTaskSetIdentity(RTM_SVCE, 0);
  rtmTaskMain(argc, argv);
}
