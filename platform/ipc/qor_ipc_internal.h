// Shared between the files of the ipc library only.
#pragma once

#include <string>

namespace qoripc {
std::string runDir();
// Creates <run-dir> and <run-dir>/ipc, private to this user. False with errno on failure.
bool ensureRunDir();
// True while some process has a socket bound at path.
bool endpointAlive(const char *path);
}  // namespace qoripc
