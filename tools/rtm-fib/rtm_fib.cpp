// rtm-fib: a FIB agent a user can run. It registers with rtmd as the FIB (IPv4) or FIB6 (IPv6)
// agent of a line-card slot, asks for the download of a VRF, keeps the table rtmd sends and
// reports how fast it filled (and, if asked, how fast it emptied again).
//
// It can play a slow line card (--ack-delay) or a stuck one (--no-ack-after), to watch rtmd's
// back-pressure and its failure handling from the outside.
#include <sched.h>
#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "client/rtm_client_lib.h"
#include "ipc/qor_ipc.h"
#include "log/qor_log.h"
#include "tools/common/rtm_tool_cli.h"

namespace {

using rtmtool::die;
using rtmtool::g_stop;
using rtmtool::onSignal;
using rtmtool::usageError;
using rtmtool::withCommas;
using rtmtool::number;

const char kUsage[] =
    "usage: rtm-fib [--run-dir DIR] [--family ipv4|ipv6] [--slot N] [--vrf V] [options]\n"
    "\n"
    "Registers with rtmd as the FIB agent of a line-card slot (protocol 27 for IPv4, 28 for\n"
    "IPv6), asks for the routes of a VRF and keeps them, acknowledging every message.\n"
    "\n"
    "  --run-dir DIR         rtmd's run directory (default: $RTM_RUN_DIR, else /tmp/rtmd-<uid>)\n"
    "  --family F            ipv4 (default) or ipv6\n"
    "  --slot N              line-card slot, 0 to 4095: the registration's instance and our\n"
    "                        endpoint's instance (default 0)\n"
    "  --instance N          the same as --slot\n"
    "  --vrf V               VRF whose download to ask for, 0 to 512 (default 0)\n"
    "  --svce S              service number of our endpoint (default 400 for IPv4, 402 for IPv6)\n"
    "  --ack-delay MS        wait MS milliseconds before taking each message (a slow agent)\n"
    "  --no-ack-after N      take N messages, then acknowledge nothing more (a stuck agent)\n"
    "  --expect N            exit once the table holds N routes; print the time and the rate\n"
    "  --expect-empty-after  with --expect: then wait until the table is empty again, and print\n"
    "                        the time and rate of the withdrawal\n"
    "  --timeout S           give up waiting for --expect after S seconds (default 600)\n"
    "  --wait-rtmd S         keep trying to register for S seconds (default 10)\n"
    "  --dump FILE           write the table to FILE, one route a line, sorted: once --expect is\n"
    "                        met, else when the agent ends (written whole, then renamed)\n"
    "  --no-deregister       leave without deregistering (as a line card that died)\n"
    "  --no-batch            run under the normal scheduling policy, which wakes the agent (and\n"
    "                        runs it at once) for every message; by default it asks for\n"
    "                        SCHED_BATCH and takes what arrived when it is next run\n"
    "  --show-clients        print rtmd's view of the family's download clients and exit\n"
    "  --quiet               print only errors and the result lines\n"
    "  --help                print this text\n"
    "\n"
    "Without --expect it runs until SIGINT or SIGTERM. An IPv4 agent is refused until the\n"
    "interface manager has reported the slot's interfaces complete (rtm-ifm --slots).\n";

struct Args {
  std::string runDir, dump;
  bool ipv6 = false;
  uint32_t slot = 0, vrf = 0, svce = 0;
  uint32_t ackDelay = 0;
  uint64_t noAckAfter = UINT64_MAX;
  uint64_t expect = 0;
  bool haveExpect = false, expectEmpty = false, deregister = true, quiet = false, showClients = false;
  bool batch = true;
  uint32_t timeout = 600, waitRtmd = 10;
};

Args parseArgs(int argc, char **argv) {
  Args a;
  for (int i = 1; i < argc; ++i) {
    std::string o = argv[i];
    auto value = [&]() -> const char * {
      if (i + 1 >= argc) usageError(o + " needs a value");
      return argv[++i];
    };
    if (o == "--help" || o == "-h") {
      fputs(kUsage, stdout);
      exit(0);
    } else if (o == "--run-dir") {
      a.runDir = value();
    } else if (o == "--family") {
      std::string f = value();
      if (f == "ipv4" || f == "4")
        a.ipv6 = false;
      else if (f == "ipv6" || f == "6")
        a.ipv6 = true;
      else
        usageError("--family takes ipv4 or ipv6, not '" + f + "'");
    } else if (o == "--slot" || o == "--instance") {
      a.slot = static_cast<uint32_t>(number(o, value(), 0, QOR_IPC_MAX_INST));
    } else if (o == "--vrf") {
      a.vrf = static_cast<uint32_t>(number(o, value(), 0, MAX_VRF - 1));
    } else if (o == "--svce") {
      a.svce = static_cast<uint32_t>(number(o, value(), 1, QOR_IPC_MAX_SVCE));
    } else if (o == "--ack-delay") {
      a.ackDelay = static_cast<uint32_t>(number(o, value(), 0, 60000));
    } else if (o == "--no-ack-after") {
      a.noAckAfter = number(o, value(), 0, UINT64_MAX - 1);
    } else if (o == "--expect") {
      a.expect = number(o, value(), 1, UINT64_MAX - 1);
      a.haveExpect = true;
    } else if (o == "--expect-empty-after") {
      a.expectEmpty = true;
    } else if (o == "--timeout") {
      a.timeout = static_cast<uint32_t>(number(o, value(), 1, 86400));
    } else if (o == "--wait-rtmd") {
      a.waitRtmd = static_cast<uint32_t>(number(o, value(), 0, 3600));
    } else if (o == "--dump") {
      a.dump = value();
    } else if (o == "--show-clients") {
      a.showClients = true;
    } else if (o == "--no-deregister") {
      a.deregister = false;
    } else if (o == "--no-batch") {
      a.batch = false;
    } else if (o == "--quiet") {
      a.quiet = true;
    } else {
      usageError("unknown option '" + o + "'");
    }
  }
  if (a.expectEmpty && !a.haveExpect) usageError("--expect-empty-after goes with --expect N");
  if (a.svce == 0) a.svce = a.ipv6 ? 402 : 400;
  if (a.svce == RTM_SVCE || a.svce == IFM_TASK_ID) usageError("--svce " + std::to_string(a.svce) + " belongs to rtmd's peers");
  return a;
}

// CPU seconds this process has used, user and system.
double cpuNow() {
  struct rusage ru {};
  getrusage(RUSAGE_SELF, &ru);
  return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// The table as text into FILE, whole or not at all: written aside, then renamed.
bool writeDump(const rtmclient::FibAgent &agent, const std::string &file) {
  const std::string tmp = file + ".tmp";
  // Line by line: a million routes as one string cost more in fresh memory than in writing.
  FILE *out = fopen(tmp.c_str(), "w");
  if (!out) return false;
  bool ok = true;
  agent.forEachRouteSorted([&](const rtmclient::FibPrefix &p, const rtmclient::FibRoute &r) {
    ok = ok && fputs(rtmclient::formatFibRoute(p, r).c_str(), out) >= 0 && fputc('\n', out) != EOF;
  });
  if (fclose(out) != 0 || !ok) return false;
  return rename(tmp.c_str(), file.c_str()) == 0;
}

double wallNow() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// One line per download client of the family, as rtmd sees it.
int showClients(const Args &a, uint8_t af) {
  // A short-lived endpoint of our own for the question: the agents' are taken.
  int key = -1;
  for (uint32_t inst = 0; inst <= QOR_IPC_MAX_INST && key < 0; ++inst) key = qorIpcOpen(a.svce + 50, inst);
  if (key < 0) die(std::string("cannot open an endpoint in ") + qorIpcGetRunDir() + ": " + strerror(errno));
  rtmclient::DnldClientsReply r;
  if (rtmclient::queryDnldClients(key, af, a.vrf, &r) != 0) die(std::string("rtmd did not answer: ") + strerror(errno));
  printf("rtm-fib: %s VRF %u: table version %llu, super group at %llu with %u member(s)\n", af ? "IPv6" : "IPv4",
         a.vrf, static_cast<unsigned long long>(r.treeVersion), static_cast<unsigned long long>(r.groupVersion),
         r.superMembers);
  printf("  %-4s %-5s %-8s %-7s %-10s %10s %10s %8s %8s %6s %10s\n", "cid", "proto", "instance", "list", "state",
         "adds", "deletes", "sent", "as-group", "queue", "version");
  for (const rtmclient::DnldClientRow &row : r.rows) {
    const char *list = row.list == RTM_DC_LIST_SUPER ? "super" : row.list == RTM_DC_LIST_REGULAR ? "regular" : "-";
    const char *state = row.dnldState == 255 ? "failed" : "ok";
    char q[16];
    if (row.queueLen == RTM_DC_QLEN_NONE)
      snprintf(q, sizeof q, "-");
    else
      snprintf(q, sizeof q, "%u", row.queueLen);
    printf("  %-4u %-5u %-8u %-7s %-10s %10u %10u %8u %8u %6s %10llu\n", row.cid, row.proto, row.instance, list, state,
           row.adds, row.dels, row.sends, row.superSends, q, static_cast<unsigned long long>(row.version));
  }
  qorIpcClose(key);
  return 0;
}

// A download is a stream of messages, each a few microseconds of work. Under the normal policy
// every one of them wakes the agent and the wake-up preempts rtmd on the spot: rtmd's thread and
// the agents then take turns message by message, a context switch each, and on two cores that
// switching cost a tenth to a sixth of the time to fill four agents. A batch task is not run
// ahead of the task it was woken by, so it finds several messages waiting and takes them in one
// go.
void askForBatchScheduling() {
  sched_param p{};
  if (sched_setscheduler(0, SCHED_BATCH, &p) != 0)
    fprintf(stderr, "rtm-fib: cannot use SCHED_BATCH (%s); going on under the normal policy\n", strerror(errno));
}

}  // namespace

int main(int argc, char **argv) {
  rtmtool::g_prog = "rtm-fib";
  Args a = parseArgs(argc, argv);
  qorLogSetProgram("rtm-fib");
  if (!a.runDir.empty() && qorIpcSetRunDir(a.runDir.c_str()) != 0) usageError("run directory path too long");
  if (a.showClients) return showClients(a, a.ipv6 ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX);
  if (a.batch) askForBatchScheduling();
  const char *fam = a.ipv6 ? "IPv6" : "IPv4";
  const std::string who = "slot " + std::to_string(a.slot) + " " + fam;

  rtmclient::FibAgent::Options o;
  o.svce = a.svce;
  o.inst = a.slot;
  o.afIndex = a.ipv6 ? RTM_IPV6UNI_AFINDEX : RTM_IPV4UNI_AFINDEX;
  o.instance = a.slot;
  o.name = std::string("rtm-fib ") + (a.ipv6 ? "v6 " : "v4 ") + std::to_string(a.slot);
  o.ackDelayMs = static_cast<int>(a.ackDelay);
  o.noAckAfter = a.noAckAfter;
  o.replyWaitMs = 1000;
  o.replyRetries = 1;
  rtmclient::FibAgent agent(o);
  if (agent.open() != 0) die(agent.lastError());
  if (a.haveExpect) agent.reserve(a.expect);

  signal(SIGINT, onSignal);
  signal(SIGTERM, onSignal);
  using Clock = std::chrono::steady_clock;
  const auto regDeadline = Clock::now() + std::chrono::seconds(a.waitRtmd);
  while (agent.registerAgent() != 0) {
    if (g_stop || Clock::now() >= regDeadline) die(agent.lastError());
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  if (agent.startDownload(a.vrf) != 0) die(agent.lastError());
  if (!a.quiet)
    printf("rtm-fib: registered as the %s agent of slot %u: client %u; downloading VRF %u\n",
           a.ipv6 ? "FIB6" : "FIB", a.slot, agent.cid(), a.vrf),
        fflush(stdout);

  // Times are taken from the first route message, so a run measures rtmd and not our start-up.
  Clock::time_point first{}, full{}, drainStart{};
  bool haveFirst = false, reached = false, emptied = false, timedOut = false;
  agent.setMessageHook([&](uint32_t mtype, const uint8_t *, size_t) {
    if (mtype != MT_RTM_FIB_ROUTE && mtype != MT_RTM6_FIB_ROUTE) return;
    if (!haveFirst) haveFirst = true, first = Clock::now();
    if (reached && drainStart == Clock::time_point{}) drainStart = Clock::now();
  });
  const auto deadline = Clock::now() + std::chrono::seconds(a.timeout);
  int rc = 0;
  while (!g_stop) {
    if (agent.poll(50) < 0) {
      fprintf(stderr, "rtm-fib: %s\n", agent.lastError().c_str());
      rc = 1;
      break;
    }
    if (a.haveExpect && !reached && agent.routeCount() >= a.expect) {
      reached = true;
      full = Clock::now();
      const double secs = std::chrono::duration<double>(full - first).count();
      printf("rtm-fib: %s holds %s routes: %.3f s after the first, %s routes/s (at %.3f, cpu %.2f s)\n",
             who.c_str(), withCommas(agent.routeCount()).c_str(), secs,
             withCommas(static_cast<uint64_t>(secs > 0 ? agent.routeCount() / secs : 0)).c_str(), wallNow(), cpuNow());
      fflush(stdout);
      if (!a.dump.empty()) {
        if (!writeDump(agent, a.dump)) fprintf(stderr, "rtm-fib: cannot write %s: %s\n", a.dump.c_str(), strerror(errno));
        a.dump.clear();
      }
      if (!a.expectEmpty) break;
    }
    if (reached && a.expectEmpty && agent.routeCount() == 0) {
      emptied = true;
      const auto from = drainStart == Clock::time_point{} ? full : drainStart;
      const double secs = std::chrono::duration<double>(Clock::now() - from).count();
      printf("rtm-fib: %s saw %s routes withdrawn in %.3f s, %s routes/s (at %.3f, cpu %.2f s)\n", who.c_str(),
             withCommas(a.expect).c_str(), secs, withCommas(static_cast<uint64_t>(secs > 0 ? a.expect / secs : 0)).c_str(),
             wallNow(), cpuNow());
      fflush(stdout);
      break;
    }
    if (a.haveExpect && Clock::now() >= deadline) {
      timedOut = true;
      break;
    }
  }

  const rtmclient::FibAgent::Stats &st = agent.stats();
  if (timedOut) {
    fprintf(stderr, "rtm-fib: %s: gave up after %u s holding %s routes (%s wanted%s)\n", who.c_str(), a.timeout,
            withCommas(agent.routeCount()).c_str(), withCommas(a.expect).c_str(),
            reached && !emptied ? ", waiting for the withdrawal" : "");
    rc = 3;
  }
  if (!a.dump.empty() && !writeDump(agent, a.dump)) {
    fprintf(stderr, "rtm-fib: cannot write %s: %s\n", a.dump.c_str(), strerror(errno));
    rc = rc ? rc : 1;
  }
  if (!a.quiet || st.malformed) {
    printf("rtm-fib: %s: %s routes, %s next hops held; %s messages (%s routes, %s next hops, %s control, %s other); "
           "%s adds, %s deletes; %s malformed, %s repeats, %s gaps, %s withheld\n",
           who.c_str(), withCommas(agent.routeCount()).c_str(), withCommas(agent.nextHopCount()).c_str(),
           withCommas(st.messages).c_str(), withCommas(st.routeMsgs).c_str(), withCommas(st.nhMsgs).c_str(),
           withCommas(st.cntrlMsgs).c_str(), withCommas(st.otherMsgs).c_str(), withCommas(st.adds).c_str(),
           withCommas(st.dels).c_str(), withCommas(st.malformed).c_str(), withCommas(st.repeats).c_str(),
           withCommas(st.gaps).c_str(), withCommas(st.withheld).c_str());
    if (st.malformed) printf("rtm-fib: last malformed message: %s\n", agent.lastMalformed().c_str());
  }
  fflush(stdout);
  // A stuck agent does not leave politely: rtmd is to find out by itself.
  if (a.deregister && !agent.withholding() && agent.deregister() != 0)
    fprintf(stderr, "rtm-fib: %s\n", agent.lastError().c_str());
  return rc;
}
