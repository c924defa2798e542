// The batch codec: SDB and MSDB batches packed into a buffer for the sender, and the bounded
// reader for the standby. Bytes only: sending a full batch and applying a read one belong to
// the SDB store (sdb/batch_sync.cc, sdb/standby.cc).
//
// A batch is the data part of a sync message with opcode 8 (SDB_BATCH_UPDATE) or 9
// (MSDB_BATCH_UPDATE) and no key. Unlike the sync header, everything inside is
// little-endian:
//
//   count        u32   records that follow, at least 1
//   per record:
//     op         u16   0 = write; any other value = an operation on the key alone
//     key_len    u16
//     key        key_len bytes
//     -- only when op is 0:
//     data_len   u32
//     data       data_len bytes
//     -- MSDB only, still only when op is 0:
//     skey_count u16
//     per secondary key: skey_len u16, skey_len bytes, skey_tag u16
//
// The standby reads op, key_len, skey_count, skey_len and skey_tag back as signed 16-bit
// values, widened with their sign. The sender therefore refuses, before the local write,
// any list that the standby could not read back as it was meant (an op from 0x8000 to
// 0xffff7fff, whose 16-bit form widens to another value; keys or
// secondary keys of 2^15 bytes or more, 2^15 or more secondary keys, a negative count) or
// that could not be carried at all (a record larger than 60000 - 4 bytes, an entry whose
// key, value or secondary keys are missing): a refused list is written nowhere, so the two
// supervisors never disagree about it.
//
// Packing: records are appended in list order after the 4-byte count. When the next record
// does not fit in what is left of the buffer and the buffer holds records, the buffer is
// sent as one message and a new batch starts, so every message begins with its own count.
#pragma once

#include <cstdint>

#include "hadra/sdb.h"

namespace hadra::wire {

inline constexpr uint32_t kBatchBufSize = HADRA_SDB_BATCH_BUF_SIZE;
inline constexpr uint32_t kBatchCountLen = 4;
inline constexpr uint32_t kBatchRecordRoom = kBatchBufSize - kBatchCountLen;  // most bytes of one record
inline constexpr uint32_t kFieldLimit = HADRA_SDB_BATCH_FIELD_LIMIT;

// An op travels as its low 16 bits and is widened back with their sign. Ops below 0x8000 and
// from 0xffff8000 up come back as they left; any other would reach the standby as another op.
inline constexpr bool op_survives_wire(uint32_t op) noexcept { return op < 0x8000u || op >= 0xffff8000u; }

// Exact encoded size of one record; 64-bit so that a 32-bit value length cannot wrap it.
uint64_t record_size(const sdb_list_op& e) noexcept;
uint64_t record_size(const sdb_mkey_op& e) noexcept;

// Why the list cannot be synced as a batch (a short static text), or null when every record
// can. *bad receives the index of the first record that cannot.
const char* unsendable(const sdb_list_op* list, uint32_t count, uint32_t* bad) noexcept;
const char* unsendable(const sdb_mkey_op* list, uint32_t count, uint32_t* bad) noexcept;

// Where encode_batches hands each full batch: buf holds len bytes, count first. The buffer is
// reused for the next batch once flush returns.
class BatchOut {
 public:
  virtual void flush(uint8_t* buf, uint32_t len) noexcept = 0;

 protected:
  ~BatchOut() = default;
};

// Pack the records into buf (kBatchBufSize bytes) and hand each full batch to out. The list
// must have passed unsendable().
void encode_batches(uint8_t* buf, const sdb_list_op* list, uint32_t count, BatchOut* out) noexcept;
void encode_batches(uint8_t* buf, const sdb_mkey_op* list, uint32_t count, BatchOut* out) noexcept;

// ---- Reading a received batch -------------------------------------------------------------

// One record as the standby reads it; pointers into the received batch.
struct RecordView {
  uint32_t op;          // the 16-bit op widened with its sign
  const uint8_t* key;
  uint32_t key_len;
  bool has_data;        // op is 0
  const uint8_t* data;  // when has_data
  uint32_t data_len;
  uint32_t skey_count;  // MSDB, op 0: secondary keys that follow
};

struct SkeyView {
  const uint8_t* key;
  uint32_t len;
  uint32_t tag;  // the 16-bit tag widened with its sign
};

// The record count of a received batch of len bytes, or 0 when the batch is malformed
// before its first record: too short for a count, count 0, or more records announced than
// len bytes could hold.
uint32_t batch_count(const uint8_t* batch, uint32_t len) noexcept;

// Sink of walk_batch: called for each record, then for each of its secondary keys.
class BatchSink {
 public:
  virtual void record(uint32_t i, const RecordView& r) noexcept = 0;
  virtual void skey(uint32_t i, uint32_t j, const SkeyView& s) noexcept = 0;

 protected:
  ~BatchSink() = default;
};

// Walk the count records of a batch of len bytes (msdb: MSDB records). Never reads past
// len. False, possibly after some records were handed to the sink, when a negative length
// or secondary-key count is met, a record does not fit, or bytes are left over after the
// last record.
bool walk_batch(const uint8_t* batch, uint32_t len, bool msdb, BatchSink* sink) noexcept;

}  // namespace hadra::wire
