// The configuration store: the running configuration of the daemon as ordered lines.
//
// A handler that changes configuration stores the line that would recreate the change, and
// `show running-config` prints the stored lines back. A line is named by its mode (context and
// sub-context), its record class and its key (binary, up to 256 bytes, chosen by the caller);
// storing a line under a name that exists replaces its text, so an edit of a rule overwrites
// its line. Lines are ordered by context, then sub-context, then class, then key bytes (a key
// that is a prefix of another comes first): the key is the sort key, and a separator stored
// with an empty key leads its class. Insertion order plays no part, so the running
// configuration reads the same however the commands arrived.
// A mode header (qorCfgSetCommCfgData) is printed once ahead of the lines of its context and
// sub-context.
//
// qorCfgSync mirrors a record to the peer route processor. There is no peer in this process:
// the store keeps the records it was given (the newest QOR_CFG_SYNC_KEEP) so that tests and the
// debug shell can read what would have been sent.
//
// Stores are per handle (the task key). Not thread-safe: the daemon changes configuration on
// its main task only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "rtm/rtm_wire.h"

// ---- The configuration record (552 bytes), as handlers fill it ----

constexpr size_t QOR_CFG_REC_LEN = 552;
constexpr size_t QOR_CFG_KEY_MAX = 256;
constexpr size_t QOR_CFG_TEXT_MAX = 281;  // bytes of the text field, terminator included
// A record whose byte at this offset holds the mark is not mirrored to the peer. The offset
// falls inside the text field; that is the record's historical layout and callers rely on it.
constexpr size_t QOR_CFG_OFF_NOSYNC = 280;
constexpr uint8_t QOR_CFG_NOSYNC_MARK = 33;

struct qorCfgRecord {
  uint8_t key[QOR_CFG_KEY_MAX];  // 0
  rtm::be32 recClass;            // 256: record class (174 for static routes)
  rtm::be16 context;             // 260: mode the line belongs to
  rtm::be16 subContext;          // 262
  rtm::be32 keyLen;              // 264
  char text[QOR_CFG_TEXT_MAX];   // 268: the command line, NUL-terminated
  uint8_t pad[3];
};
static_assert(sizeof(qorCfgRecord) == QOR_CFG_REC_LEN);
static_assert(offsetof(qorCfgRecord, recClass) == 256 && offsetof(qorCfgRecord, context) == 260 &&
              offsetof(qorCfgRecord, subContext) == 262 && offsetof(qorCfgRecord, keyLen) == 264 &&
              offsetof(qorCfgRecord, text) == 268);

// Clears the record and sets its class and mode.
void qorCfgRecInit(qorCfgRecord *rec, uint32_t recClass, uint16_t context = 0, uint16_t subContext = 0);
// 0, or -1 when the key is longer than QOR_CFG_KEY_MAX (the record is left unchanged).
int qorCfgRecSetKey(qorCfgRecord *rec, const void *key, uint32_t len);
// Copies the text, cut to what the field holds; 0, or 1 when it had to be cut.
int qorCfgRecSetText(qorCfgRecord *rec, const char *text);
// True when the record carries the do-not-sync mark.
bool qorCfgRecNoSync(const qorCfgRecord *rec);

// ---- The sync record (812 bytes) mirrored to the peer ----

constexpr size_t QOR_CFG_SYNC_LEN = 812;
struct qorCfgSyncRecord {
  uint8_t curMode;                // 0
  uint8_t zero;                   // 1
  rtm::be16 subSysType;           // 2
  rtm::be32 subSysUnit;           // 4
  rtm::be32 reserved;             // 8: always 0
  uint8_t pad[260];               // 12
  char text[QOR_CFG_TEXT_MAX];    // 272: the command, "no " ahead of it for a removal
  uint8_t tail[259];
};
static_assert(sizeof(qorCfgSyncRecord) == QOR_CFG_SYNC_LEN);
static_assert(offsetof(qorCfgSyncRecord, subSysType) == 2 && offsetof(qorCfgSyncRecord, subSysUnit) == 4 &&
              offsetof(qorCfgSyncRecord, text) == 272);

// Fills `out` for a configuration record. Returns false, leaving `out` alone, when the record
// carries the do-not-sync mark. The text is cut to what the field holds.
bool qorCfgBuildSyncRecord(qorCfgSyncRecord *out, int noCmd, const qorCfgRecord *rec, uint8_t curMode,
                           uint16_t subSysType, uint32_t subSysUnit);

// ---- The store ----

// Stores the line of a record (qorCfgRecord bytes), replacing the text of a line of the same
// mode, class and key. 0, or 1 for a key longer than 256 bytes or an unterminated text.
int qorCfgInsert(uint32_t handle, const void *rec);
// Removes the lines of class `recClass` whose key is exactly key[0..keyLen), in whatever mode
// (callers give each line a key of its own within its class). 0, or 1 if none.
int qorCfgRemoveExact(uint32_t handle, const void *key, uint32_t keyLen, uint32_t recClass);
// Removes the one line a record names (mode, class and key), as built for qorCfgInsert. 0 or 1.
int qorCfgRemoveNode(uint32_t handle, const void *rec);
// Sets the header printed ahead of the lines of a mode; null or "" removes it. 0.
int qorCfgSetCommCfgData(uint32_t handle, uint16_t context, uint16_t subContext, const char *modeLine);
// Mirrors a record to the peer (kept, see above). 0, or 1 for a null or empty record.
int qorCfgSync(uint32_t handle, const void *data, uint32_t len);

// ---- Reading back ----

struct QorCfgLine {
  uint16_t context = 0, subContext = 0;
  uint32_t recClass = 0;
  std::string key;   // binary
  std::string text;
};
// Every line in order.
std::vector<QorCfgLine> qorCfgLines(uint32_t handle);
size_t qorCfgLineCount(uint32_t handle);
// The running configuration as `show running-config` prints it: mode headers and lines in
// order, each followed by "\r\n".
std::string qorCfgRunningConfig(uint32_t handle);
// The text of a line of that class and key (the first by mode), or null.
const char *qorCfgFind(uint32_t handle, const void *key, uint32_t keyLen, uint32_t recClass);

struct QorCfgSynced {
  uint32_t handle;
  std::vector<uint8_t> bytes;
};
constexpr size_t QOR_CFG_SYNC_KEEP = 4096;
// Records passed to qorCfgSync, oldest first.
const std::vector<QorCfgSynced> &qorCfgSyncLog();
void qorCfgSyncLogClear();

// ---- Tests ----

// The next n calls of qorCfgInsert (or of qorCfgSync) fail with 1.
void qorCfgFailNextInsert(uint32_t n);
void qorCfgFailNextSync(uint32_t n);
// Empties every store, the sync log and the fault injection.
void qorCfgReset();
