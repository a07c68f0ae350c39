// The configuration store: an ordered map of lines per handle, an index by line name, and the
// log of records mirrored to the peer. See qor_cfg.h for the ordering.
#include "cfg/qor_cfg.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <tuple>

namespace {

struct SortKey {
  uint16_t context, subContext;
  uint32_t recClass;
  std::string key;
  bool operator<(const SortKey &o) const {
    return std::tie(context, subContext, recClass, key) < std::tie(o.context, o.subContext, o.recClass, o.key);
  }
};

// Class and key: what RemoveExact names, whatever the mode.
using Name = std::pair<uint32_t, std::string>;

struct Store {
  std::map<SortKey, std::string> lines;
  std::multimap<Name, SortKey> byName;
  std::map<std::pair<uint16_t, uint16_t>, std::string> headers;
};

struct State {
  std::map<uint32_t, Store> stores;
  std::vector<QorCfgSynced> synced;
  uint32_t failInsert = 0, failSync = 0;
};

State &st() {
  static State s;
  return s;
}

bool takeFailure(uint32_t &n) {
  if (!n) return false;
  --n;
  return true;
}

std::string keyString(const void *key, uint32_t len) {
  return len ? std::string(static_cast<const char *>(key), len) : std::string();
}

SortKey sortKeyOf(const qorCfgRecord *rec) {
  return {rec->context, rec->subContext, rec->recClass, keyString(rec->key, rec->keyLen)};
}

}  // namespace

void qorCfgRecInit(qorCfgRecord *rec, uint32_t recClass, uint16_t context, uint16_t subContext) {
  memset(rec, 0, sizeof *rec);
  rec->recClass = recClass;
  rec->context = context;
  rec->subContext = subContext;
}

int qorCfgRecSetKey(qorCfgRecord *rec, const void *key, uint32_t len) {
  if (len > QOR_CFG_KEY_MAX || (len && !key)) return -1;
  memset(rec->key, 0, sizeof rec->key);
  if (len) memcpy(rec->key, key, len);
  rec->keyLen = len;
  return 0;
}

int qorCfgRecSetText(qorCfgRecord *rec, const char *text) {
  size_t n = text ? strlen(text) : 0;
  size_t keep = std::min(n, QOR_CFG_TEXT_MAX - 1);
  memset(rec->text, 0, sizeof rec->text);
  if (keep) memcpy(rec->text, text, keep);
  return keep < n;
}

bool qorCfgRecNoSync(const qorCfgRecord *rec) {
  return reinterpret_cast<const uint8_t *>(rec)[QOR_CFG_OFF_NOSYNC] == QOR_CFG_NOSYNC_MARK;
}

bool qorCfgBuildSyncRecord(qorCfgSyncRecord *out, int noCmd, const qorCfgRecord *rec, uint8_t curMode,
                           uint16_t subSysType, uint32_t subSysUnit) {
  if (qorCfgRecNoSync(rec)) return false;
  memset(out, 0, sizeof *out);
  out->curMode = curMode;
  out->subSysType = subSysType;
  out->subSysUnit = subSysUnit;
  std::string text = noCmd ? "no " : "";
  text.append(rec->text, strnlen(rec->text, sizeof rec->text));
  memcpy(out->text, text.data(), std::min(text.size(), sizeof out->text - 1));
  return true;
}

int qorCfgInsert(uint32_t handle, const void *data) {
  if (!data || takeFailure(st().failInsert)) return 1;
  const auto *rec = static_cast<const qorCfgRecord *>(data);
  size_t textLen = strnlen(rec->text, sizeof rec->text);
  if (rec->keyLen > QOR_CFG_KEY_MAX || textLen == sizeof rec->text) return 1;
  Store &s = st().stores[handle];
  SortKey sk = sortKeyOf(rec);
  auto [it, isNew] = s.lines.try_emplace(sk);
  it->second.assign(rec->text, textLen);
  if (isNew) s.byName.emplace(Name{sk.recClass, sk.key}, sk);
  return 0;
}

int qorCfgRemoveExact(uint32_t handle, const void *key, uint32_t keyLen, uint32_t recClass) {
  auto it = st().stores.find(handle);
  if (it == st().stores.end() || keyLen > QOR_CFG_KEY_MAX || (keyLen && !key)) return 1;
  Store &s = it->second;
  auto [from, to] = s.byName.equal_range({recClass, keyString(key, keyLen)});
  if (from == to) return 1;
  for (auto n = from; n != to; ++n) s.lines.erase(n->second);
  s.byName.erase(from, to);
  return 0;
}

int qorCfgRemoveNode(uint32_t handle, const void *data) {
  auto it = st().stores.find(handle);
  if (!data || it == st().stores.end()) return 1;
  const auto *rec = static_cast<const qorCfgRecord *>(data);
  if (rec->keyLen > QOR_CFG_KEY_MAX) return 1;
  Store &s = it->second;
  SortKey sk = sortKeyOf(rec);
  if (!s.lines.erase(sk)) return 1;
  auto [from, to] = s.byName.equal_range({sk.recClass, sk.key});
  for (auto n = from; n != to; ++n)
    if (!(n->second < sk) && !(sk < n->second)) {
      s.byName.erase(n);
      break;
    }
  return 0;
}

int qorCfgSetCommCfgData(uint32_t handle, uint16_t context, uint16_t subContext, const char *modeLine) {
  auto &h = st().stores[handle].headers;
  if (modeLine && *modeLine)
    h[{context, subContext}] = modeLine;
  else
    h.erase({context, subContext});
  return 0;
}

int qorCfgSync(uint32_t handle, const void *data, uint32_t len) {
  State &s = st();
  if (!data || !len || takeFailure(s.failSync)) return 1;
  // Keep the newest records; trim in batches so the log costs little per call.
  if (s.synced.size() >= QOR_CFG_SYNC_KEEP + QOR_CFG_SYNC_KEEP / 4)
    s.synced.erase(s.synced.begin(), s.synced.begin() + (s.synced.size() - QOR_CFG_SYNC_KEEP + 1));
  const auto *b = static_cast<const uint8_t *>(data);
  s.synced.push_back({handle, std::vector<uint8_t>(b, b + len)});
  return 0;
}

std::vector<QorCfgLine> qorCfgLines(uint32_t handle) {
  std::vector<QorCfgLine> out;
  auto it = st().stores.find(handle);
  if (it == st().stores.end()) return out;
  for (auto &[k, text] : it->second.lines) out.push_back({k.context, k.subContext, k.recClass, k.key, text});
  return out;
}

size_t qorCfgLineCount(uint32_t handle) {
  auto it = st().stores.find(handle);
  return it == st().stores.end() ? 0 : it->second.lines.size();
}

std::string qorCfgRunningConfig(uint32_t handle) {
  std::string out;
  auto it = st().stores.find(handle);
  if (it == st().stores.end()) return out;
  const Store &s = it->second;
  bool first = true;
  std::pair<uint16_t, uint16_t> mode{};
  for (auto &[k, text] : s.lines) {
    std::pair<uint16_t, uint16_t> m{k.context, k.subContext};
    if (first || m != mode) {
      auto h = s.headers.find(m);
      if (h != s.headers.end()) out += h->second + "\r\n";
      mode = m;
      first = false;
    }
    out += text;
    out += "\r\n";
  }
  return out;
}

const char *qorCfgFind(uint32_t handle, const void *key, uint32_t keyLen, uint32_t recClass) {
  auto it = st().stores.find(handle);
  if (it == st().stores.end() || keyLen > QOR_CFG_KEY_MAX || (keyLen && !key)) return nullptr;
  auto n = it->second.byName.find({recClass, keyString(key, keyLen)});
  return n == it->second.byName.end() ? nullptr : it->second.lines.at(n->second).c_str();
}

const std::vector<QorCfgSynced> &qorCfgSyncLog() { return st().synced; }
void qorCfgSyncLogClear() { st().synced.clear(); }
void qorCfgFailNextInsert(uint32_t n) { st().failInsert = n; }
void qorCfgFailNextSync(uint32_t n) { st().failSync = n; }

void qorCfgReset() {
  State &s = st();
  s.stores.clear();
  s.synced.clear();
  s.failInsert = s.failSync = 0;
}
