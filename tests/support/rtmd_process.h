// Test support: rtmd (or a tool) as a real process in a fresh run directory, and a test
// endpoint that talks to it over the real sockets.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace rtmtest {

// A fresh 0700 directory under /tmp, removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

// Path of a built executable: $RTM_BUILD_DIR/<relative>.
std::string builtBinary(const std::string &relative);

// A child process; SIGKILLed on destruction if still running.
class Process {
 public:
  Process(const std::string &exe, const std::vector<std::string> &args);
  ~Process();
  pid_t pid() const { return pid_; }
  // Sends a signal and waits up to timeoutMs for the exit; returns the exit status
  // (or 128 + signal), -1 on time-out.
  int stop(int sig, int timeoutMs);
  bool running();

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

// Polls `file` until it contains `needle` or timeoutMs passes.
bool waitForText(const std::string &file, const std::string &needle, int timeoutMs);
std::string readFile(const std::string &file);

// Fills the source fields of msg with the queue's own address and the target fields with
// (svce, inst)'s request queue. False when the target cannot be resolved.
bool addressMessage(uint8_t *msg, int fromQueue, uint32_t svce, uint32_t inst);

}  // namespace rtmtest
