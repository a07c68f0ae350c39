// Name service: where an endpoint lives and whether a process holds it.
//
// Names are pure arithmetic over the run directory, so a client in any language computes
// them the same way: queue id = svce << 16 | inst << 4 | kind, card = 127.0.0.1, path =
// <run-dir>/ipc/<svce>.<inst>[.tmr|.rsp]. Liveness is asked of the kernel: connecting a
// datagram socket to the path succeeds only while some process has it bound, so a socket
// file left behind by a crashed process reads as "no such endpoint".
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "ipc/qor_ipc.h"
#include "ipc/qor_ipc_internal.h"

namespace {
// The longest name under the run directory: "/ipc/65535.4095.tmr" and its terminating NUL.
constexpr size_t kLongestTail = 20;

std::mutex g_dirMu;
std::string g_runDir;
bool g_runDirChosen = false;

std::string defaultRunDir() {
  const char *env = getenv("RTM_RUN_DIR");
  if (env && *env) return env;
  return "/tmp/rtmd-" + std::to_string(getuid());
}
}  // namespace

int qorIpcSetRunDir(const char *path) {
  if (!path || !*path) {
    errno = EINVAL;
    return -1;
  }
  std::string p(path);
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  if (p.size() + kLongestTail > sizeof(sockaddr_un{}.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  std::lock_guard<std::mutex> lk(g_dirMu);
  g_runDir = std::move(p);
  g_runDirChosen = true;
  return 0;
}

const char *qorIpcGetRunDir() {
  std::lock_guard<std::mutex> lk(g_dirMu);
  if (!g_runDirChosen) {
    g_runDir = defaultRunDir();
    g_runDirChosen = true;
  }
  return g_runDir.c_str();
}

namespace qoripc {

std::string runDir() { return qorIpcGetRunDir(); }

bool ensureRunDir() {
  std::string dir = runDir();
  // Only the run directory's owner may talk to the daemon: create it (and any missing
  // parents) private, and insist that the ipc folder inside, which is ours alone, is private.
  for (size_t pos = 1; pos <= dir.size(); ++pos) {
    if (pos != dir.size() && dir[pos] != '/') continue;
    std::string part = dir.substr(0, pos);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  std::string ipc = dir + "/ipc";
  if (mkdir(ipc.c_str(), 0700) != 0 && errno != EEXIST) return false;
  struct stat st;
  if (stat(ipc.c_str(), &st) != 0) return false;
  if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
    errno = EACCES;
    return false;
  }
  if ((st.st_mode & 0777) != 0700 && chmod(ipc.c_str(), 0700) != 0) return false;
  return true;
}

bool endpointAlive(const char *path) {
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof sa.sun_path) return false;
  strcpy(sa.sun_path, path);
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  int saved = errno;
  bool alive = connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
  close(fd);
  errno = saved;
  return alive;
}

}  // namespace qoripc

uint32_t qor_getQueueId(uint32_t svce, uint32_t inst, uint32_t kind, uint32_t /*card*/) {
  if (svce > QOR_IPC_MAX_SVCE || inst > QOR_IPC_MAX_INST || kind < QOR_IPC_QUEUE_REQ ||
      kind > QOR_IPC_QUEUE_RSP)
    return 0;
  return (svce << 16) | (inst << 4) | kind;
}

bool qorIpcQueueIdSplit(uint32_t queueId, uint32_t *svce, uint32_t *inst, uint32_t *kind) {
  uint32_t k = queueId & 0xF;
  if (k < QOR_IPC_QUEUE_REQ || k > QOR_IPC_QUEUE_RSP) return false;
  if (svce) *svce = queueId >> 16;
  if (inst) *inst = (queueId >> 4) & 0xFFF;
  if (kind) *kind = k;
  return true;
}

bool qorIpcQueuePath(uint32_t card, uint32_t queueId, char *buf, size_t size) {
  uint32_t svce, inst, kind;
  if (card != QOR_IPC_LOCAL_CARD || !qorIpcQueueIdSplit(queueId, &svce, &inst, &kind)) return false;
  static const char *const suffix[] = {"", "", ".tmr", ".rsp"};
  int n = snprintf(buf, size, "%s/ipc/%u.%u%s", qorIpcGetRunDir(), svce, inst, suffix[kind]);
  return n > 0 && static_cast<size_t>(n) < size;
}

int32_t qor_tmeGetPeerIpAddrByName(uint32_t svce, uint32_t inst, int32_t *err) {
  char path[sizeof(sockaddr_un{}.sun_path)];
  uint32_t qid = qor_getQueueId(svce, inst, QOR_IPC_QUEUE_REQ);
  if (qid != 0 && qorIpcQueuePath(QOR_IPC_LOCAL_CARD, qid, path, sizeof path) &&
      qoripc::endpointAlive(path)) {
    if (err) *err = 0;
    return static_cast<int32_t>(QOR_IPC_LOCAL_CARD);
  }
  if (err) *err = -1;
  return -1;
}

int32_t qor_tmeGetTaskIpAddrByName(uint32_t svce, uint32_t inst, int32_t *err) {
  // Every task of a service is reached through the card of its endpoint.
  return qor_tmeGetPeerIpAddrByName(svce, inst, err);
}

int32_t qor_tmeGetSlotByName(uint32_t svce, uint32_t inst) {
  int32_t err = 0;
  return qor_tmeGetPeerIpAddrByName(svce, inst, &err) == -1 ? -1 : 0;
}
