// Batch packing for the sender and the bounded batch reader for the standby (layout and
// rules in batch.h).
#include "wire/batch.h"

#include <cstring>

#include "wire/sync_msg.h"

namespace hadra::wire {
namespace {

uint32_t len_of(const datum* d) noexcept { return d != nullptr ? d->dsize : 0; }

// A datum the encoder can copy: present, and with bytes behind a non-zero length.
bool readable(const datum* d) noexcept { return d != nullptr && (d->dsize == 0 || d->dptr != nullptr); }

// What every record kind shares: a key the encoder can copy and the standby read back.
const char* key_problem(uint32_t op, const datum* key) noexcept {
  if (!op_survives_wire(op)) return "operation from 0x8000 to 0xffff7fff";
  if (!readable(key)) return "missing key";
  if (key->dsize >= kFieldLimit) return "key of 32768 bytes or more";
  return nullptr;
}

const char* problem(const sdb_list_op& e) noexcept {
  if (const char* p = key_problem(e.op, e.key)) return p;
  if (e.op == 0 && !readable(e.data)) return "missing value";
  if (record_size(e) > kBatchRecordRoom) return "record larger than a batch message";
  return nullptr;
}

const char* skeys_problem(const sdb_mkey_op& e) noexcept {
  if (e.skey_count < 0) return "negative secondary-key count";
  if (static_cast<uint32_t>(e.skey_count) >= kFieldLimit) return "32768 or more secondary keys";
  if (e.skey_count > 0 && e.skeys == nullptr) return "missing secondary keys";
  for (int32_t j = 0; j < e.skey_count; ++j) {
    if (!readable(e.skeys[j].skey)) return "missing secondary key";
    if (e.skeys[j].skey->dsize >= kFieldLimit) return "secondary key of 32768 bytes or more";
  }
  return nullptr;
}

const char* problem(const sdb_mkey_op& e) noexcept {
  if (const char* p = key_problem(e.op, e.key)) return p;
  if (e.op == 0) {
    if (e.data != nullptr && !readable(e.data)) return "missing value";
    if (const char* p = skeys_problem(e)) return p;
  }
  if (record_size(e) > kBatchRecordRoom) return "record larger than a batch message";
  return nullptr;
}

template <class Op>
const char* first_problem(const Op* list, uint32_t count, uint32_t* bad) noexcept {
  for (uint32_t i = 0; i < count; ++i) {
    if (const char* p = problem(list[i])) {
      *bad = i;
      return p;
    }
  }
  return nullptr;
}

// Appends records to the batch buffer and flushes it whenever the next record does not fit.
// Every record was checked against kBatchRecordRoom, so an empty buffer always has room.
class BatchWriter {
 public:
  BatchWriter(uint8_t* buf, BatchOut* out) noexcept : buf_(buf), out_(out) {}

  // Starts a new message first when a record of need bytes does not fit what is left.
  // False (the record must be dropped) only if it cannot fit even an empty buffer.
  bool begin_record(uint64_t need) noexcept {
    if (need > kBatchBufSize - fill_ && count_ > 0) send();
    return need <= kBatchBufSize - fill_;
  }
  void put16(uint32_t v) noexcept {
    put_le16(buf_ + fill_, v);
    fill_ += 2;
  }
  void put32(uint32_t v) noexcept {
    put_le32(buf_ + fill_, v);
    fill_ += 4;
  }
  void put(const datum* d) noexcept {
    if (d->dsize > 0) std::memcpy(buf_ + fill_, d->dptr, d->dsize);
    fill_ += d->dsize;
  }
  void end_record() noexcept { ++count_; }
  void finish() noexcept {
    if (count_ > 0) send();
  }

 private:
  void send() noexcept {
    put_le32(buf_, count_);
    out_->flush(buf_, fill_);
    count_ = 0;
    fill_ = kBatchCountLen;
  }

  uint8_t* buf_;
  BatchOut* out_;
  uint32_t count_ = 0;
  uint32_t fill_ = kBatchCountLen;
};

// Bounded little-endian reader over a received batch.
class Reader {
 public:
  Reader(const uint8_t* p, uint32_t len) noexcept : p_(p), left_(len) {}
  bool s16(uint32_t* v) noexcept {
    if (left_ < 2) return false;
    *v = static_cast<uint32_t>(static_cast<int32_t>(static_cast<int16_t>(get_le16(p_))));
    return skip(2);
  }
  bool u32(uint32_t* v) noexcept {
    if (left_ < 4) return false;
    *v = get_le32(p_);
    return skip(4);
  }
  // A length read as signed 16 bits must not be negative.
  bool len16(uint32_t* v) noexcept { return s16(v) && *v < kFieldLimit; }
  bool bytes(uint32_t n, const uint8_t** out) noexcept {
    *out = p_;
    return skip(n);
  }
  bool at_end() const noexcept { return left_ == 0; }

 private:
  bool skip(uint32_t n) noexcept {
    if (n > left_) return false;
    p_ += n;
    left_ -= n;
    return true;
  }
  const uint8_t* p_;
  uint32_t left_;
};

bool read_skeys(Reader& in, uint32_t i, uint32_t n, BatchSink* sink) noexcept {
  for (uint32_t j = 0; j < n; ++j) {
    SkeyView s{};
    if (!in.len16(&s.len) || !in.bytes(s.len, &s.key) || !in.s16(&s.tag)) return false;
    sink->skey(i, j, s);
  }
  return true;
}

bool read_record(Reader& in, uint32_t i, bool msdb, BatchSink* sink) noexcept {
  RecordView r{};
  if (!in.s16(&r.op) || !in.len16(&r.key_len) || !in.bytes(r.key_len, &r.key)) return false;
  r.has_data = r.op == 0;
  if (r.has_data) {
    if (!in.u32(&r.data_len) || !in.bytes(r.data_len, &r.data)) return false;
    if (msdb && !in.len16(&r.skey_count)) return false;
  }
  sink->record(i, r);
  return read_skeys(in, i, r.skey_count, sink);
}

}  // namespace

uint64_t record_size(const sdb_list_op& e) noexcept {
  const uint64_t base = 4 + uint64_t{len_of(e.key)};
  return e.op != 0 ? base : base + 4 + len_of(e.data);
}

uint64_t record_size(const sdb_mkey_op& e) noexcept {
  uint64_t size = 4 + uint64_t{len_of(e.key)};
  if (e.op != 0) return size;
  size += 4 + uint64_t{len_of(e.data)} + 2;
  if (e.skeys != nullptr)
    for (int32_t j = 0; j < e.skey_count; ++j) size += 4 + uint64_t{len_of(e.skeys[j].skey)};
  return size;
}

const char* unsendable(const sdb_list_op* list, uint32_t count, uint32_t* bad) noexcept {
  return first_problem(list, count, bad);
}

const char* unsendable(const sdb_mkey_op* list, uint32_t count, uint32_t* bad) noexcept {
  return first_problem(list, count, bad);
}

void encode_batches(uint8_t* buf, const sdb_list_op* list, uint32_t count, BatchOut* out) noexcept {
  BatchWriter w(buf, out);
  for (uint32_t i = 0; i < count; ++i) {
    const sdb_list_op& e = list[i];
    if (!w.begin_record(record_size(e))) continue;
    w.put16(e.op);
    w.put16(e.key->dsize);
    w.put(e.key);
    if (e.op == 0) {
      w.put32(e.data->dsize);
      w.put(e.data);
    }
    w.end_record();
  }
  w.finish();
}

void encode_batches(uint8_t* buf, const sdb_mkey_op* list, uint32_t count, BatchOut* out) noexcept {
  BatchWriter w(buf, out);
  for (uint32_t i = 0; i < count; ++i) {
    const sdb_mkey_op& e = list[i];
    if (!w.begin_record(record_size(e))) continue;
    w.put16(e.op);
    w.put16(e.key->dsize);
    w.put(e.key);
    if (e.op == 0) {
      w.put32(len_of(e.data));
      if (e.data != nullptr) w.put(e.data);
      w.put16(static_cast<uint32_t>(e.skey_count));
      for (int32_t j = 0; j < e.skey_count; ++j) {
        w.put16(e.skeys[j].skey->dsize);
        w.put(e.skeys[j].skey);
        w.put16(e.skeys[j].tag);
      }
    }
    w.end_record();
  }
  w.finish();
}

uint32_t batch_count(const uint8_t* batch, uint32_t len) noexcept {
  if (batch == nullptr || len < kBatchCountLen) return 0;
  const uint32_t count = get_le32(batch);
  // The smallest record (op, key_len, no key) is 4 bytes: a count beyond what len could hold
  // is refused before anything is allocated for it.
  if (count == 0 || count > (len - kBatchCountLen) / 4) return 0;
  return count;
}

bool walk_batch(const uint8_t* batch, uint32_t len, bool msdb, BatchSink* sink) noexcept {
  const uint32_t count = batch_count(batch, len);
  if (count == 0) return false;
  Reader in(batch + kBatchCountLen, len - kBatchCountLen);
  for (uint32_t i = 0; i < count; ++i)
    if (!read_record(in, i, msdb, sink)) return false;
  return in.at_end();
}

}  // namespace hadra::wire
