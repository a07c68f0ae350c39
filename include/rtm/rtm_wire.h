// Big-endian access to wire records.
//
// Every multi-byte field on the wire is big-endian, at a fixed byte offset. Records are read
// and written only through these helpers (or through the field types below, whose offsets
// are checked at compile time), never by casting a host struct over the bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace rtm {

inline uint16_t ld16(const void *p, size_t off = 0) {
  const uint8_t *b = static_cast<const uint8_t *>(p) + off;
  return static_cast<uint16_t>((b[0] << 8) | b[1]);
}
inline uint32_t ld32(const void *p, size_t off = 0) {
  const uint8_t *b = static_cast<const uint8_t *>(p) + off;
  return (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | uint32_t(b[3]);
}
inline uint64_t ld64(const void *p, size_t off = 0) {
  return (uint64_t(ld32(p, off)) << 32) | ld32(p, off + 4);
}
inline uint8_t ld8(const void *p, size_t off = 0) { return static_cast<const uint8_t *>(p)[off]; }

inline void st16(void *p, size_t off, uint16_t v) {
  uint8_t *b = static_cast<uint8_t *>(p) + off;
  b[0] = uint8_t(v >> 8);
  b[1] = uint8_t(v);
}
inline void st32(void *p, size_t off, uint32_t v) {
  uint8_t *b = static_cast<uint8_t *>(p) + off;
  b[0] = uint8_t(v >> 24);
  b[1] = uint8_t(v >> 16);
  b[2] = uint8_t(v >> 8);
  b[3] = uint8_t(v);
}
inline void st64(void *p, size_t off, uint64_t v) {
  st32(p, off, uint32_t(v >> 32));
  st32(p, off + 4, uint32_t(v));
}
inline void st8(void *p, size_t off, uint8_t v) { static_cast<uint8_t *>(p)[off] = v; }

// Field types for records laid out as structs: storage is big-endian bytes, so a struct made
// of them has no padding and its offsetof values equal the wire offsets.
struct be16 {
  uint8_t b[2];
  operator uint16_t() const { return ld16(b); }
  be16 &operator=(uint16_t v) { st16(b, 0, v); return *this; }
};
struct be32 {
  uint8_t b[4];
  operator uint32_t() const { return ld32(b); }
  be32 &operator=(uint32_t v) { st32(b, 0, v); return *this; }
};
struct be64 {
  uint8_t b[8];
  operator uint64_t() const { return ld64(b); }
  be64 &operator=(uint64_t v) { st64(b, 0, v); return *this; }
};
static_assert(sizeof(be16) == 2 && sizeof(be32) == 4 && sizeof(be64) == 8);
static_assert(alignof(be32) == 1 && alignof(be64) == 1);

}  // namespace rtm

// The 60-byte IPC header at the head of every message.
constexpr size_t IPC_HDR_LEN = 60;
constexpr size_t IPC_OFF_MLEN = 8;
constexpr size_t IPC_OFF_MTYPE = 12;
constexpr size_t IPC_OFF_INST = 16;      // the instance word of rtmOspfSendIpc
constexpr size_t IPC_OFF_MSTATUS = 20;
constexpr size_t IPC_OFF_SYNCWORD = 24;  // first payload word of sync commands
constexpr size_t IPC_OFF_TRANSCODE = 32;
constexpr size_t IPC_OFF_SRC_SLOT = 36;
constexpr size_t IPC_OFF_SRC_CARD = 40;
constexpr size_t IPC_OFF_SRC_SVCE = 44;
constexpr size_t IPC_OFF_TGT_SLOT = 48;
constexpr size_t IPC_OFF_TGT_CARD = 52;
constexpr size_t IPC_OFF_TGT_SVCE = 56;

// The SWP header follows at 60: queue handle, then sequence number.
constexpr size_t SWP_HDR_LEN = 8;
constexpr size_t SWP_OFF_QUEUE = 60;
constexpr size_t SWP_OFF_SEQ = 64;
constexpr size_t IPC_SWP_HDR_LEN = IPC_HDR_LEN + SWP_HDR_LEN;  // 68

// The largest message on any queue: one IPC buffer.
constexpr size_t RTM_IPC_BUF_SIZE = 8192;

struct ipc_hdr {
  uint8_t reserved[8];
  rtm::be32 mlen;
  rtm::be32 mtype;
  rtm::be32 inst;
  rtm::be32 mstatus;
  rtm::be32 syncWord;
  rtm::be32 reserved2;
  rtm::be32 mtransCode;
  rtm::be32 srcSlot;
  rtm::be32 srcCard;
  rtm::be32 srcSvce;
  rtm::be32 tgtSlot;
  rtm::be32 tgtCard;
  rtm::be32 tgtSvce;
};
static_assert(sizeof(ipc_hdr) == IPC_HDR_LEN);
static_assert(offsetof(ipc_hdr, mlen) == IPC_OFF_MLEN && offsetof(ipc_hdr, mtype) == IPC_OFF_MTYPE);
static_assert(offsetof(ipc_hdr, mstatus) == IPC_OFF_MSTATUS && offsetof(ipc_hdr, mtransCode) == IPC_OFF_TRANSCODE);
static_assert(offsetof(ipc_hdr, srcSvce) == IPC_OFF_SRC_SVCE && offsetof(ipc_hdr, tgtSvce) == IPC_OFF_TGT_SVCE);

struct swp_hdr {
  rtm::be32 queue;
  rtm::be32 seq;
};
static_assert(sizeof(swp_hdr) == SWP_HDR_LEN);
