#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <tuple>

#include "cfg/qor_cfg.h"

namespace {

constexpr uint32_t kKey = 9;  // task key used as the store handle

struct Line {
  uint16_t context, subContext;
  uint32_t recClass;
  std::string key, text;
};

qorCfgRecord record(const Line &l) {
  qorCfgRecord r;
  qorCfgRecInit(&r, l.recClass, l.context, l.subContext);
  EXPECT_EQ(qorCfgRecSetKey(&r, l.key.data(), uint32_t(l.key.size())), 0);
  EXPECT_EQ(qorCfgRecSetText(&r, l.text.c_str()), 0);
  return r;
}

void insert(const Line &l) {
  qorCfgRecord r = record(l);
  EXPECT_EQ(qorCfgInsert(kKey, &r), 0) << l.text;
}

std::vector<std::string> texts(uint32_t handle) {
  std::vector<std::string> out;
  for (auto &l : qorCfgLines(handle)) out.push_back(l.text);
  return out;
}

class CfgTest : public ::testing::Test {
 protected:
  void SetUp() override { qorCfgReset(); }
  void TearDown() override { qorCfgReset(); }
};

TEST_F(CfgTest, LinesComeBackOrderedByModeClassAndKeyWhateverTheInsertionOrder) {
  // Listed in the order they must come back.
  std::vector<Line> lines = {
      {0, 0, 174, "", "!"},
      {0, 0, 174, std::string("\x0a\x00", 2), "ip route 10.0.0.0/8 1.1.1.1"},
      {0, 0, 174, std::string("\x0a\x00\x01", 3), "ip route 10.0.0.0/8 1.1.1.2"},
      {0, 0, 174, "\x0b", "ip route 11.0.0.0/8 1.1.1.1"},
      {0, 0, 175, "", "ip mroute 10.0.0.0/8 static"},
      {5, 0x91, 1, "\x01", " redistribute static "},
      {5, 0x91, 1, "\x02", " redistribute connected "},
      {7, 0x96, 1, "\x01", " redistribute static "},
  };
  std::vector<size_t> order(lines.size());
  std::iota(order.begin(), order.end(), size_t(0));
  std::mt19937 rng(7);
  for (int round = 0; round < 5; ++round) {
    qorCfgReset();
    std::shuffle(order.begin(), order.end(), rng);
    for (size_t i : order) insert(lines[i]);
    auto got = qorCfgLines(kKey);
    ASSERT_EQ(got.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i)
      EXPECT_EQ(std::tie(got[i].context, got[i].subContext, got[i].recClass, got[i].key, got[i].text),
                std::tie(lines[i].context, lines[i].subContext, lines[i].recClass, lines[i].key, lines[i].text))
          << i;
  }
  EXPECT_EQ(qorCfgLineCount(kKey + 1), 0u) << "stores are per handle";
}

TEST_F(CfgTest, ALineStoredUnderAnExistingNameReplacesIt) {
  insert({5, 0x91, 1, "\x01", " redistribute static metric 5 "});
  insert({5, 0x91, 1, "\x01", " redistribute static "});
  EXPECT_EQ(texts(kKey), std::vector<std::string>{" redistribute static "});
  // The same class and key in another mode is another line (an IPv6 OSPF target's rule).
  qorCfgRecord r = record({0x53, 0x92, 1, "\x01", " redistribute static "});
  ASSERT_EQ(qorCfgInsert(kKey, &r), 0);
  EXPECT_EQ(qorCfgLineCount(kKey), 2u);
  EXPECT_EQ(qorCfgRemoveNode(kKey, &r), 0) << "the record names only its own mode's line";
  ASSERT_EQ(qorCfgLineCount(kKey), 1u);
  EXPECT_EQ(qorCfgLines(kKey)[0].context, 5);
  ASSERT_EQ(qorCfgInsert(kKey, &r), 0);
  EXPECT_EQ(qorCfgRemoveExact(kKey, "\x01", 1, 1), 0) << "by class and key: every mode";
  EXPECT_EQ(qorCfgLineCount(kKey), 0u);
}

TEST_F(CfgTest, RemoveExactTakesOnlyTheLineWithThatClassAndKey) {
  std::vector<Line> lines = {
      {0, 0, 174, "", "!"},
      {0, 0, 174, "ab", "line ab"},
      {0, 0, 174, "abc", "line abc"},
      {0, 0, 175, "ab", "other class ab"},
  };
  for (auto &l : lines) insert(l);
  struct Case {
    const char *what;
    std::string key;
    uint32_t recClass;
    int rc;
    std::vector<std::string> left;
  } cases[] = {
      {"prefix of a key", "a", 174, 1, {"!", "line ab", "line abc", "other class ab"}},
      {"exact key", "ab", 174, 0, {"!", "line abc", "other class ab"}},
      {"again", "ab", 174, 1, {"!", "line abc", "other class ab"}},
      {"class with no lines", "abc", 176, 1, {"!", "line abc", "other class ab"}},
      {"empty key", "", 174, 0, {"line abc", "other class ab"}},
      {"other class", "ab", 175, 0, {"line abc"}},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(qorCfgRemoveExact(kKey, c.key.data(), uint32_t(c.key.size()), c.recClass), c.rc) << c.what;
    EXPECT_EQ(texts(kKey), c.left) << c.what;
  }
  qorCfgRecord r = record({0, 0, 174, "abc", "whatever text"});
  EXPECT_EQ(qorCfgRemoveNode(kKey, &r), 0) << "a record names its line by class and key";
  EXPECT_EQ(qorCfgLineCount(kKey), 0u);
  EXPECT_EQ(qorCfgRemoveNode(kKey, &r), 1);
  EXPECT_EQ(qorCfgRemoveExact(kKey + 1, "abc", 3, 174), 1) << "unknown handle";
}

TEST_F(CfgTest, RunningConfigPrintsEachModeHeaderOnceAheadOfItsLines) {
  qorCfgSetCommCfgData(kKey, 5, 0x91, "router ospf 1");
  qorCfgSetCommCfgData(kKey, 6, 0x95, "router rip");  // no lines: not printed
  for (const Line &l : std::vector<Line>{{0, 0, 174, "", "!"},
                                         {0, 0, 174, "\x01", "ip route 1.0.0.0/8 2.2.2.2"},
                                         {5, 0x91, 1, "\x01", " redistribute static "},
                                         {5, 0x91, 1, "\x02", " redistribute connected "},
                                         {65, 48, 4, "red", "!\r\n maximum dynamic-routes 100 warning-only"}})
    insert(l);
  EXPECT_EQ(qorCfgRunningConfig(kKey),
            "!\r\n"
            "ip route 1.0.0.0/8 2.2.2.2\r\n"
            "router ospf 1\r\n"
            " redistribute static \r\n"
            " redistribute connected \r\n"
            "!\r\n maximum dynamic-routes 100 warning-only\r\n");
  qorCfgSetCommCfgData(kKey, 5, 0x91, nullptr);
  EXPECT_EQ(qorCfgRunningConfig(kKey).find("router ospf"), std::string::npos);
  EXPECT_STREQ(qorCfgFind(kKey, "\x01", 1, 174), "ip route 1.0.0.0/8 2.2.2.2");
  EXPECT_EQ(qorCfgFind(kKey, "\x02", 1, 174), nullptr);
}

TEST_F(CfgTest, MalformedRecordsAndInjectedFailuresStoreNothing) {
  qorCfgRecord r = record({0, 0, 174, "k", "text"});
  qorCfgRecord longKey = r;
  longKey.keyLen = 257;
  qorCfgRecord noEnd = r;
  memset(noEnd.text, 'x', sizeof noEnd.text);
  EXPECT_EQ(qorCfgInsert(kKey, &longKey), 1);
  EXPECT_EQ(qorCfgInsert(kKey, &noEnd), 1);
  EXPECT_EQ(qorCfgInsert(kKey, nullptr), 1);
  qorCfgFailNextInsert(1);
  EXPECT_EQ(qorCfgInsert(kKey, &r), 1);
  EXPECT_EQ(qorCfgLineCount(kKey), 0u);
  EXPECT_EQ(qorCfgInsert(kKey, &r), 0);
  EXPECT_EQ(qorCfgRecSetKey(&r, std::string(257, 'k').data(), 257), -1);
  EXPECT_EQ(qorCfgRecSetText(&r, std::string(400, 't').c_str()), 1);
  EXPECT_EQ(strlen(r.text), QOR_CFG_TEXT_MAX - 1) << "cut to the field";
}

TEST_F(CfgTest, SyncRecordCarriesModeSubsystemAndTextWithNoForARemoval) {
  struct Case {
    const char *what;
    std::string text;
    int noCmd;
    bool built;
    std::string synced;
  } cases[] = {
      {"plain", "ip route 10.0.0.0/8 1.1.1.1", 0, true, "ip route 10.0.0.0/8 1.1.1.1"},
      {"removal", "ip route 10.0.0.0/8 1.1.1.1", 1, true, "no ip route 10.0.0.0/8 1.1.1.1"},
      {"longest text with no", std::string(280, 'a'), 1, true, "no " + std::string(277, 'a')},
      // Byte 280 of the record is byte 12 of the text: 33 there means "do not sync".
      {"marked", "0123456789ab!rest", 0, false, ""},
      {"mark elsewhere", "!0123456789ab", 0, true, "!0123456789ab"},
  };
  for (const Case &c : cases) {
    qorCfgRecord r;
    qorCfgRecInit(&r, 174);
    qorCfgRecSetText(&r, c.text.c_str());
    EXPECT_EQ(qorCfgRecNoSync(&r), !c.built) << c.what;
    qorCfgSyncRecord s;
    memset(&s, 0xEE, sizeof s);
    ASSERT_EQ(qorCfgBuildSyncRecord(&s, c.noCmd, &r, 3, 0x0102, 0x03040506), c.built) << c.what;
    if (!c.built) {
      EXPECT_EQ(reinterpret_cast<uint8_t *>(&s)[0], 0xEE) << "left alone";
      continue;
    }
    const auto *b = reinterpret_cast<const uint8_t *>(&s);
    EXPECT_EQ(std::tuple(b[0], b[1], rtm::ld16(b, 2), rtm::ld32(b, 4), rtm::ld32(b, 8)),
              std::tuple(uint8_t(3), uint8_t(0), uint16_t(0x0102), 0x03040506u, 0u));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(b + 272)), c.synced) << c.what;
    EXPECT_EQ(b[sizeof s - 1], 0) << "the rest is cleared";
  }
}

TEST_F(CfgTest, SyncKeepsWhatWasSentAndCanBeMadeToFail) {
  qorCfgSyncRecord s;
  qorCfgRecord r = record({0, 0, 174, "", "ip route 1.0.0.0/8 2.2.2.2"});
  ASSERT_TRUE(qorCfgBuildSyncRecord(&s, 0, &r, 3, 0, 0));
  EXPECT_EQ(qorCfgSync(kKey, &s, sizeof s), 0);
  qorCfgFailNextSync(1);
  EXPECT_EQ(qorCfgSync(kKey, &s, sizeof s), 1);
  EXPECT_EQ(qorCfgSync(kKey, nullptr, 10), 1);
  const char vrf[] = "_red";
  EXPECT_EQ(qorCfgSync(kKey + 1, vrf, 4), 0);
  auto &log = qorCfgSyncLog();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].handle, kKey);
  EXPECT_EQ(log[0].bytes.size(), QOR_CFG_SYNC_LEN);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(log[0].bytes.data() + 272)), "ip route 1.0.0.0/8 2.2.2.2");
  EXPECT_EQ(std::string(log[1].bytes.begin(), log[1].bytes.end()), "_red");
  for (size_t i = 0; i < QOR_CFG_SYNC_KEEP * 2; ++i) qorCfgSync(kKey, &i, sizeof i);
  EXPECT_LE(qorCfgSyncLog().size(), QOR_CFG_SYNC_KEEP + QOR_CFG_SYNC_KEEP / 4);
  size_t last;
  memcpy(&last, qorCfgSyncLog().back().bytes.data(), sizeof last);
  EXPECT_EQ(last, QOR_CFG_SYNC_KEEP * 2 - 1) << "the newest are kept";
}

}  // namespace
