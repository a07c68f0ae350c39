// Pieces the library's two halves share; not part of the interface.
#pragma once

#include <cstdint>
#include <string>

#include "client/rtm_client_lib.h"

namespace rtmclient {
// A transaction code no earlier exchange of this endpoint used.
uint32_t nextTransCode();
// Points the message's target fields at rtmd's request queue and gives it a fresh transaction
// code. False when no rtmd holds its endpoint in the run directory.
bool addressToRtmd(uint8_t *msg);
// Sends a registration on `key` and waits for rtmd's answer of `replyType`, with the retries
// and wait of the caller's options. Empty on an answer that decodes to a valid handle (rr holds
// it, status included); otherwise what went wrong, for the caller's error text. A refusal is
// left to the caller, who knows what to tell the user about it.
std::string exchangeRegistration(int key, const RegRequest &req, uint32_t replyType, int retries, int waitMs,
                                 RegReply *rr);
// One NM command of n bytes in req to rtmd and its answer in reply (both RTM_IPC_BUF_SIZE), with
// the caller's wait and retries. 0 with the answer's length, as far as it lies in the buffer, in
// *replyLen; else -1 with errno (ECONNREFUSED when no rtmd is found).
int nmExchange(int key, uint8_t *req, size_t n, uint8_t *reply, int attemptMs, int retries, size_t *replyLen);
}  // namespace rtmclient
