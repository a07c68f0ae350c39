#include "tests/support/rtmd_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "ipc/qor_ipc.h"
#include "rtm/rtm_wire.h"

extern char **environ;

namespace rtmtest {

TempDir::TempDir() {
  char tmpl[] = "/tmp/rtmtest.XXXXXX";
  char *p = mkdtemp(tmpl);
  path_ = p ? p : "";
  if (p) chmod(p, 0700);
}
TempDir::~TempDir() {
  std::error_code ec;
  if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

std::string builtBinary(const std::string &relative) {
  const char *dir = getenv("RTM_BUILD_DIR");
  return std::string(dir ? dir : ".") + "/" + relative;
}

Process::Process(const std::string &exe, const std::vector<std::string> &args) {
  std::vector<char *> argv;
  argv.push_back(const_cast<char *>(exe.c_str()));
  for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  if (posix_spawn(&pid_, exe.c_str(), nullptr, nullptr, argv.data(), environ) != 0) pid_ = -1;
}
Process::~Process() {
  if (pid_ > 0 && running()) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
  }
}
bool Process::running() {
  if (pid_ <= 0) return false;
  int st;
  pid_t r = waitpid(pid_, &st, WNOHANG);
  if (r == pid_) {
    status_ = st;
    pid_ = -pid_;
    return false;
  }
  return r == 0;
}
int Process::stop(int sig, int timeoutMs) {
  if (pid_ > 0) kill(pid_, sig);
  for (int waited = 0; waited <= timeoutMs; waited += 10) {
    if (!running()) {
      if (WIFEXITED(status_)) return WEXITSTATUS(status_);
      if (WIFSIGNALED(status_)) return 128 + WTERMSIG(status_);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

std::string readFile(const std::string &file) {
  std::ifstream in(file);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool waitForText(const std::string &file, const std::string &needle, int timeoutMs) {
  for (int waited = 0; waited <= timeoutMs; waited += 20) {
    if (readFile(file).find(needle) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

bool addressMessage(uint8_t *msg, int fromQueue, uint32_t svce, uint32_t inst) {
  uint32_t card = 0, qid = 0;
  if (qorIpcQueueAddr(fromQueue, &card, &qid) != 0) return false;
  int32_t err = 0;
  int32_t peer = qor_tmeGetPeerIpAddrByName(svce, inst, &err);
  if (peer == -1) return false;
  rtm::st32(msg, IPC_OFF_SRC_SLOT, 0);
  rtm::st32(msg, IPC_OFF_SRC_CARD, card);
  rtm::st32(msg, IPC_OFF_SRC_SVCE, qid);
  rtm::st32(msg, IPC_OFF_TGT_SLOT, 0);
  rtm::st32(msg, IPC_OFF_TGT_CARD, static_cast<uint32_t>(peer));
  rtm::st32(msg, IPC_OFF_TGT_SVCE, qor_getQueueId(svce, inst, QOR_IPC_QUEUE_REQ));
  return true;
}

}  // namespace rtmtest
