// The message catalogue as the dispatch sees it: names, kinds, where a client message keeps
// its handle and family; and the protocol and subtype texts of the display.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "rtm/rtm_msgs.h"
#include "rtm/rtm_types.h"

namespace {

std::string str(const char *s) { return s ? s : "(null)"; }

// Message types and NM sub-codes (kind N) are two catalogues: the same number may be in both.
TEST(Msgs, NamesAndKindsOfMessageTypesAndNmCommands) {
  struct Case {
    uint32_t code;
    const char *name;
    RtmMsgKind kind;
  };
  const Case cases[] = {
      {0x0192, "MT_SWP_ACK", RTM_KIND_P},              {0x07D7, "MT_RTM_IGNORED", RTM_KIND_P},
      {0x1771, "MT_NM_CMD", RTM_KIND_P},               {0x3204, "MT_RTM_UPD_ROUTE", RTM_KIND_C},
      // Shared names: several codes, one name.
      {0x3201, "MT_RTM_REG_CLIENT", RTM_KIND_P},       {0x3220, "MT_RTM_REG_CLIENT", RTM_KIND_P},
      {0x323F, "MT_RTM_REG_CLIENT", RTM_KIND_P},       {0x321C, "MT_RTM_REDIST_TGT_CLIENT", RTM_KIND_P},
      {0x321D, "MT_RTM_REDIST_TGT_CLIENT", RTM_KIND_P},
      {0x3230, "MT_RTM_FLUSH_CLIENT_POLLER_ROUTES_SWP", RTM_KIND_C},
      {0x3231, "MT_RTM_FLUSH_CLIENT_POLLER_ROUTES_SWP", RTM_KIND_C},
      {0x3234, "UPD_DEF_INFO", RTM_KIND_P},            {0x3235, "UPD_DEF_INFO", RTM_KIND_P},
      {0x73A2, "MT_VRF_VLAN", RTM_KIND_P},             {0x73A3, "MT_VRF_VLAN", RTM_KIND_P},
      // As an mtype 0x3215 is the client's flush answer; as a sub-code, the CLI's clear.
      {0x3215, "MT_RTM_CLR_ROUTE", RTM_KIND_C},        {0x3215, "MT_RTM_CLEAR_ROUTES", RTM_KIND_N},
      {0x388D, "MT_ACL_RMAP_TRIGGER", RTM_KIND_M},     {0xC674, "MT_ISSUMGR_STATE_UPDATE", RTM_KIND_M},
      // Codes rtmd only sends still have names for the send trace.
      {0x321E, "MT_RTM_FIB_ROUTE", RTM_KIND_OUT},      {12859, "MT_RTM_EGR_L3_INDEX", RTM_KIND_OUT},
      {12890, "MT_RTM_TNL_DEST_INFO", RTM_KIND_OUT},   {0x3882, "MT_ACL_RMAP_REGISTER", RTM_KIND_OUT},
      {10908, "MT_IFM_NOTIFY", RTM_KIND_P},            {12924, "MT_RTM_FIB_ISSU_EVENT", RTM_KIND_C},
      {0x3207, "MT_RTM_UPD_STATIC", RTM_KIND_N},       {0x325B, "VRF_CLI_MAX_ROUTE_CLI", RTM_KIND_N},
      {0x3527, "MT_RTM_BGP_AS_FORMAT", RTM_KIND_N},    {0x352A, "MT_BGP_GR_CONVERGED_MSG", RTM_KIND_N},
      {0x12000000, "MT_RTM_SNMP_ROUTE_ENTRY_INET", RTM_KIND_N},
      {0x12000241, "MT_RTM_SNMP_ROUTE_SCALAR_INET", RTM_KIND_N},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.code);
    const bool nm = c.kind == RTM_KIND_N;
    EXPECT_EQ(std::string(c.name), str(nm ? rtmNmCmdName(c.code) : rtmMsgName(c.code)));
    const RtmMsgInfo *mi = nm ? rtmNmCmdInfo(c.code) : rtmMsgInfo(c.code);
    ASSERT_NE(nullptr, mi);
    EXPECT_EQ(c.kind, mi->kind);
  }
  for (uint32_t unknown : {0u, 0x3206u, 0x3200u, 0x3527u, 0x12000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(nullptr, rtmMsgName(unknown)) << std::hex << unknown;
    EXPECT_EQ(nullptr, rtmMsgInfo(unknown));
  }
  // Message types are not commands.
  for (uint32_t unknown : {0x3204u, 0x3216u, 0x1771u, 0x12000001u, 0u})
    EXPECT_EQ(nullptr, rtmNmCmdName(unknown)) << std::hex << unknown;

  // The one command that leaves without the TIC check.
  EXPECT_TRUE(rtmNmCmdInfo(MT_RTM_BGP_AS_FORMAT)->flags & RTM_MSGF_NO_TIC);
  EXPECT_FALSE(rtmNmCmdInfo(MT_RTM_CLEAR_ROUTES)->flags & RTM_MSGF_NO_TIC);
}

// Where the dispatch finds the client handle and afIndex, read from real message bytes, and
// only from bytes that were received.
TEST(Msgs, ClientAndFamilyOfClientMessages) {
  struct Field {
    size_t off;
    int width;
    uint32_t value;
  };
  struct Case {
    const char *what;
    uint32_t code;
    std::vector<Field> set;
    uint32_t wantCid, wantAf;
    size_t len = 300;  // the bytes received
    int rc = RTM_WIRE_OK;
  };
  const Case cases[] = {
      {"route update: byte 149", MT_RTM_UPD_ROUTE, {{140, 4, 5}, {149, 1, 2}}, 5, 2},
      {"route update IPv4", MT_RTM_UPD_ROUTE, {{140, 4, 63}, {148, 1, 2}}, 63, 0},
      {"multicast update looks up row 0", MT_RTM_UPD_V4MUL_ROUTE, {{140, 4, 4}, {149, 1, 1}}, 4, 0},
      {"flush answer IPv4", MT_RTM_CLR_ROUTE, {{136, 4, 11}, {140, 1, 2}}, 11, 0},
      {"flush answer IPv6", MT_RTM6_CLR_ROUTE, {{136, 4, 11}}, 11, 2},
      {"redist delete rules", MT_RTM_REDIST_DELETE_RULES, {{128, 4, 3}, {132, 1, 2}}, 3, 2},
      {"redist restart", MT_RTM_REDIST_RESTART, {{136, 4, 8}, {140, 1, 2}}, 8, 2},
      {"instance: a word", MT_RTM_REG_CLIENT_INSTANCE, {{136, 4, 2}, {140, 4, 2}}, 2, 2},
      {"instance: a byte is not enough", MT_RTM_REG_CLIENT_INSTANCE, {{136, 4, 2}, {140, 1, 2}}, 2, 0x02000000},
      {"download control, IPv4: high half", MT_RTM_DNLD_CNTRL, {{128, 4, 0x30004}, {140, 1, 1}}, 3, 0},
      {"download control, IPv6: low half", MT_RTM_DNLD_CNTRL, {{128, 4, 0x30004}, {140, 1, 2}}, 4, 2},
      {"download control, other family", MT_RTM_DNLD_CNTRL, {{128, 4, 0x30004}, {140, 1, 7}}, 4, 2},
      {"tunnel 4 is IPv6", MT_TNL_DESTADDR_INFO, {{128, 4, 9}, {140, 4, 4}}, 9, 2},
      {"tunnel 5 is IPv6", MT_TNL_DESTADDR_INFO, {{128, 4, 9}, {140, 4, 5}}, 9, 2},
      {"tunnel 3 is IPv4", MT_TNL_DESTADDR_INFO, {{128, 4, 9}, {140, 4, 3}}, 9, 0},
      {"tunnel 1 is IPv4", MT_TNL_DESTADDR_INFO, {{128, 4, 9}, {140, 4, 1}}, 9, 0},
      {"poll lookup without SWP", MT_RTM6_POLL_MULTI_RECUR_RTE_LKUP, {{136, 4, 1}}, 1, 2},
      {"deregister a family", MT_RTM_DEREG_AF_CLIENT, {{60, 4, 6}, {64, 1, 2}}, 6, 2},
      // Fields beyond what was received are refused, up to the last byte.
      {"route update without its family byte", MT_RTM_UPD_ROUTE, {}, 0, 0, 149, RTM_WIRE_ESHORT},
      {"route update to its family byte", MT_RTM_UPD_ROUTE, {}, 0, 0, 150},
      {"flush answer with its handle cut short", MT_RTM_CLR_ROUTE, {}, 0, 0, 139, RTM_WIRE_ESHORT},
      {"flush answer to its handle", MT_RTM_CLR_ROUTE, {}, 0, 0, 140},
      {"tunnel without its family word", MT_TNL_DESTADDR_INFO, {}, 0, 0, 143, RTM_WIRE_ESHORT},
      {"a message without a client has nothing to give", MT_RTM_REG_CLIENT, {}, 0, 0, 300, RTM_WIRE_ENOFIELD},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    uint8_t msg[300] = {};
    for (const Field &f : c.set) {
      if (f.width == 1) rtm::st8(msg, f.off, uint8_t(f.value));
      if (f.width == 4) rtm::st32(msg, f.off, f.value);
    }
    const RtmMsgInfo *mi = rtmMsgInfo(c.code);
    ASSERT_NE(nullptr, mi);
    uint32_t cid = 0xdead, af = 0xdead;
    ASSERT_EQ(c.rc, rtmMsgClientAf(*mi, msg, c.len, &cid, &af));
    if (c.rc != RTM_WIRE_OK) continue;
    EXPECT_EQ(c.wantCid, cid);
    EXPECT_EQ(c.wantAf, af);
  }
}

TEST(Types, ProtocolNames) {
  struct Case {
    uint32_t proto;
    const char *longName, *letter;
  };
  const Case cases[] = {
      {RTM_PROTO_CONNECTED, "connected", "C"},   {RTM_PROTO_STATIC, "static", "S"},
      {RTM_PROTO_ISIS, "ISIS", "i"},             {RTM_PROTO_POS, "POS", "C"},
      {RTM_PROTO_TCLASSMGR, "TClassMgr", "?"},   {RTM_PROTO_BFD, "Unknown protocol type", "?"},
      {20, "Unknown protocol type", "S"},        {23, "Unknown protocol type", "S"},
      {RTM_PROTO_LDP, "LDP", "?"},               {RTM_PROTO_SUPER, "SUPER", "?"},
      {0, "Unknown protocol type", "?"},         {33, "Unknown protocol type", "?"},
      {0xFFFFFFFF, "Unknown protocol type", "?"},
  };
  for (const Case &c : cases) {
    EXPECT_STREQ(c.longName, rtmClientGetProtoName(c.proto)) << c.proto;
    EXPECT_STREQ(c.letter, rtmGetProtoStr(c.proto)) << c.proto;
  }
}

TEST(Types, SubtypeTexts) {
  struct Case {
    uint32_t subtype;
    const char *longText, *shortText;
  };
  const Case cases[] = {
      {0, " ", " "},                                 {RT_INTERNAL, " ", " "},
      {RT_CANDIDATE_DEFAULT, "candidate-default", "*"}, {RT_OSPF_IA, "inter area", "IA"},
      {12, "inter area", "IA"},                      {RT_OSPF_E2, "external 2", "E2"},
      {RT_BGP_EXTERNAL, "external", "EX"},           {RT_LOCAL, "local", "LO"},
      {RT_UNNUMBERED, "local", "  "},                {17, "unknown", "UN"},
      {RT_SUBTYPE_ANY, "unknown", "UN"},
  };
  for (const Case &c : cases) {
    EXPECT_STREQ(c.longText, rtmGetSubTypeStr(c.subtype, 1)) << c.subtype;
    EXPECT_STREQ(c.shortText, rtmGetSubTypeStr(c.subtype, 0)) << c.subtype;
  }
}

}  // namespace
