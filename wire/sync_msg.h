// The wire format of a sync message: the 12-byte header (big-endian) and the byte-order
// helpers of batch records. The bottom of the library: it includes nothing of the library but
// the public headers, and the sender, the dispatcher and the batch codec all encode and decode
// through it.
//
// Message layout (payload of one MTS message under the client's sync opcode):
//
//   0   db_index      1 byte, registry index 1..10
//   1   reserved      0
//   2   key_len       16-bit big-endian
//   4   data_len      16-bit big-endian
//   6   reserved      0
//   8   sync_opcode   32-bit big-endian
//   12  key_len bytes of key, then data_len bytes of data
//
// Readers never trust the header alone: decode() checks the lengths against the payload
// actually received.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "hadra/sync.h"

namespace hadra::wire {

inline void put_be16(uint8_t* p, uint32_t v) noexcept {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
inline void put_be32(uint8_t* p, uint32_t v) noexcept {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}
inline uint32_t get_be16(const uint8_t* p) noexcept { return (uint32_t{p[0]} << 8) | p[1]; }
inline uint32_t get_be32(const uint8_t* p) noexcept {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

inline void put_le16(uint8_t* p, uint32_t v) noexcept {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void put_le32(uint8_t* p, uint32_t v) noexcept {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}
inline uint32_t get_le16(const uint8_t* p) noexcept { return p[0] | (uint32_t{p[1]} << 8); }
inline uint32_t get_le32(const uint8_t* p) noexcept {
  return p[0] | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

// A header with every field set; lengths must already fit 16 bits.
inline hadra_sync_hdr make_hdr(uint8_t index, uint32_t key_len, uint32_t data_len, uint32_t opcode) noexcept {
  hadra_sync_hdr h;
  std::memset(&h, 0, sizeof h);
  h.db_index = index;
  put_be16(h.key_len, key_len);
  put_be16(h.data_len, data_len);
  put_be32(h.sync_opcode, opcode);
  return h;
}

// The data_len field of the header that precedes payload + 12 (for instance a batch handed
// on by itself, whose length only its header knows).
inline uint32_t data_len_before(const void* after_header) noexcept {
  return get_be16(static_cast<const uint8_t*>(after_header) - HADRA_SYNC_HDR_LEN + 4);
}

// A received sync message, its parts located inside the payload.
struct Decoded {
  uint8_t db_index;
  uint32_t opcode;
  uint32_t key_len;
  uint32_t data_len;
  const uint8_t* key;   // payload + 12
  const uint8_t* data;  // payload + 12 + key_len
};

enum class DecodeResult { kOk, kTooShort, kLengthsExceedPayload };

// Locate header, key and data in a payload of size bytes. kTooShort when there is no whole
// header; kLengthsExceedPayload when key_len + data_len reach past the payload (the header
// fields are still filled in so the caller can report them).
inline DecodeResult decode(const void* payload, uint32_t size, Decoded* out) noexcept {
  const auto* p = static_cast<const uint8_t*>(payload);
  if (p == nullptr || size < HADRA_SYNC_HDR_LEN) return DecodeResult::kTooShort;
  out->db_index = p[0];
  out->key_len = get_be16(p + 2);
  out->data_len = get_be16(p + 4);
  out->opcode = get_be32(p + 8);
  out->key = p + HADRA_SYNC_HDR_LEN;
  out->data = out->key + out->key_len;
  if (uint64_t{HADRA_SYNC_HDR_LEN} + out->key_len + out->data_len > size) return DecodeResult::kLengthsExceedPayload;
  return DecodeResult::kOk;
}

// Text that reports use for a sync opcode; opcode 8 reads "SDB_UPDATE". Null for 0 or > 10.
inline const char* opcode_report_text(uint32_t opcode) noexcept {
  static constexpr const char* kText[] = {nullptr,       "PSS_UPDATE",  "PSS_DELETE",       "PSS_DESTROY",
                                          "SDB_UPDATE",  "SDB_DELETE",  "SDB_DESTROY",      "PSS_DELETE_RANGE",
                                          "SDB_UPDATE",  "MSDB_BATCH_UPDATE", "PSS_PURGE"};
  return opcode < sizeof kText / sizeof kText[0] ? kText[opcode] : nullptr;
}

}  // namespace hadra::wire
