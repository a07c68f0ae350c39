// Layout of the interface manager's notification (MT_IFM_NOTIFY, 10908), shared by rtmd and
// the interface-manager feeder.
//
// A notification is a sequenced message (SWP header at 60, checked against rtmd's one expected
// sequence for IFM): a record count at 128, then from 140 the records back to back. A record is
// a u16 type and a u16 length of the whole record (these four bytes included), then its payload.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t IFM_NOTIF_OFF_COUNT = 128;
constexpr size_t IFM_NOTIF_OFF_RECS = 140;
constexpr size_t IFM_REC_HDR_LEN = 4;
constexpr size_t IFM_REC_OFF_TYPE = 0;  // u16
constexpr size_t IFM_REC_OFF_LEN = 2;   // u16, the whole record
constexpr size_t IFM_REC_OFF_PAYLOAD = 4;

// A line card's interfaces are all known: payload word 0 is the slot. Until rtmd has had this
// for a slot it refuses that slot's FIB agent.
constexpr uint16_t IFM_TYP_SLOT_DNLD_COMPLETE = 73;
constexpr size_t IFM_SLOT_DNLD_REC_LEN = IFM_REC_HDR_LEN + 4;
