// The history ring file: a process's recent history where the supervisor's daemon can read it.
//
// A service process of a pair keeps, besides its in-memory history buffers, one ring file
// under its root, <root>/log/hist-<pid>.ring, mapped into its memory. Into it go:
//   - every sync message it sends to the peer (the active) or applies (the standby): the
//     stream (SAP, epoch, HA number), the database index, the opcode, the payload's length and
//     XXH3-64 digest. The same message has the same digest on both sides, so comparing the
//     two supervisors' rings finds the first message they disagree on;
//   - a copy of every record made in its history buffers (event, uuid, text);
//   - per database index, totals of messages and bytes sent and applied and the time of the
//     last one, and the database's name and URI from the library's registry.
// The file outlives the process, so a crashed service's last moments can still be read.
//
// Writers (one process) take a mutex; the daemon reads without any lock. Each record has a
// guard word: 0 while it is written, else its ring sequence number plus one, stored last with
// release ordering. A reader copies the record and keeps it only when the guard reads the
// same, non-zero value before and after the copy.
//
// The layout below must not change without a new version number.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace hadra::plat::hist {

constexpr uint32_t kRingMagic = 0x48485247u;  // "HHRG"
constexpr uint16_t kRingVersion = 1;
constexpr uint32_t kRingRecords = 4096;
constexpr uint32_t kRingMaxIndex = 10;
constexpr size_t kRingText = 64;

enum RecKind : uint32_t { kSent = 1, kApplied = 2, kEvent = 3 };

struct RingRec {
  std::atomic<uint64_t> guard;  // 0 while written; ring sequence number + 1 once complete
  uint64_t time_ns;             // wall clock (CLOCK_REALTIME): both supervisors merge by it
  uint64_t ha_seqno;            // sync: the HA number of the message
  uint64_t digest;              // sync: XXH3-64 of the payload
  uint32_t kind;                // RecKind
  uint32_t sap;                 // sync: the service's SAP (the same on both supervisors)
  uint32_t epoch;               // sync: the stream's epoch
  uint32_t opcode;              // sync: the message's opcode; event: the event code
  uint32_t uuid;                // the service's uuid (0 when not known yet)
  uint32_t len;                 // sync: payload bytes; event: record bytes
  uint8_t index;                // sync: the database index (first payload byte)
  uint8_t pad[7];
  char text[kRingText];         // event: its text (NUL-terminated, cut); sync: empty
};

struct RingDb {
  std::atomic<uint64_t> sent_msgs, sent_bytes, applied_msgs, applied_bytes, last_sent_ns, last_applied_ns;
};

struct RingHdr {
  uint32_t magic;    // kRingMagic once the header is complete
  uint16_t version;  // kRingVersion
  uint16_t rec_size; // sizeof(RingRec)
  uint32_t pid;
  uint32_t cap;      // records in the ring
  std::atomic<uint64_t> next;  // records ever written; the ring holds the last min(next, cap)
  std::atomic<uint32_t> uuid;
  uint32_t pad;
  RingDb db[kRingMaxIndex + 1];  // [0] unused
  char names[kRingMaxIndex + 1][32];
  char uris[kRingMaxIndex + 1][160];
};

static_assert(sizeof(RingRec) == 128 && offsetof(RingRec, kind) == 32 && offsetof(RingRec, text) == 64,
              "history ring record layout");
static_assert(offsetof(RingHdr, next) == 16 && offsetof(RingHdr, db) == 32 && sizeof(RingDb) == 48 &&
                  offsetof(RingHdr, names) == 32 + 48 * 11 && sizeof(RingHdr) == 32 + 48 * 11 + 32 * 11 + 160 * 11,
              "history ring header layout");
static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free,
              "the ring is shared between processes through lock-free atomics");

inline size_t ring_file_size(uint32_t cap) { return sizeof(RingHdr) + static_cast<size_t>(cap) * sizeof(RingRec); }

// A ring as read back: plain values, for the daemon and tests.
struct Entry {
  uint64_t seq = 0;
  uint64_t time_ns = 0, ha_seqno = 0, digest = 0;
  uint32_t kind = 0, sap = 0, epoch = 0, opcode = 0, uuid = 0, len = 0;
  uint8_t index = 0;
  std::string text;
};
struct DbTotals {
  uint64_t sent_msgs = 0, sent_bytes = 0, applied_msgs = 0, applied_bytes = 0, last_sent_ns = 0, last_applied_ns = 0;
  std::string name, uri;
};
struct Ring {
  uint32_t pid = 0, uuid = 0;
  std::vector<Entry> entries;   // oldest first
  DbTotals db[kRingMaxIndex + 1];
};

// Reads a ring from the bytes of its file (which its writer may be changing): false with *why
// for bytes that are not a ring of this version. Records caught mid-write are skipped.
// Header-only, so that the daemon and the tools read rings without the platform's internals.
inline bool read_ring(const void* bytes, size_t size, Ring* out, std::string* why) {
  *out = Ring{};
  if (bytes == nullptr || size < sizeof(RingHdr)) {
    *why = "shorter than a ring header";
    return false;
  }
  // The file is mapped, so its words are read in place, through atomics where the writer
  // stores them while the reader looks.
  const auto* h = static_cast<const RingHdr*>(bytes);
  if (h->magic != kRingMagic || h->version != kRingVersion || h->rec_size != sizeof(RingRec)) {
    *why = "not a history ring of this version";
    return false;
  }
  if (h->cap == 0 || h->cap > (1u << 20) || size < ring_file_size(h->cap)) {
    *why = "ring size " + std::to_string(h->cap) + " does not fit the file's " + std::to_string(size) + " bytes";
    return false;
  }
  out->pid = h->pid;
  out->uuid = h->uuid.load(std::memory_order_acquire);
  auto text = [](const char* p, size_t n) { return std::string(p, strnlen(p, n)); };
  for (uint32_t i = 1; i <= kRingMaxIndex; ++i) {
    const RingDb& d = h->db[i];
    DbTotals& t = out->db[i];
    t.sent_msgs = d.sent_msgs.load(std::memory_order_relaxed);
    t.sent_bytes = d.sent_bytes.load(std::memory_order_relaxed);
    t.applied_msgs = d.applied_msgs.load(std::memory_order_relaxed);
    t.applied_bytes = d.applied_bytes.load(std::memory_order_relaxed);
    t.last_sent_ns = d.last_sent_ns.load(std::memory_order_relaxed);
    t.last_applied_ns = d.last_applied_ns.load(std::memory_order_relaxed);
    t.name = text(h->names[i], sizeof h->names[i]);
    t.uri = text(h->uris[i], sizeof h->uris[i]);
  }
  const uint64_t next = h->next.load(std::memory_order_acquire);
  const uint64_t held = next < h->cap ? next : h->cap;
  const auto* recs = reinterpret_cast<const RingRec*>(static_cast<const char*>(bytes) + sizeof(RingHdr));
  out->entries.reserve(static_cast<size_t>(held));
  for (uint64_t s = next - held; s < next; ++s) {
    const RingRec& r = recs[s % h->cap];
    const uint64_t g = r.guard.load(std::memory_order_acquire);
    if (g != s + 1) continue;  // being written, or already overwritten by a later record
    Entry e;
    e.seq = s;
    e.time_ns = r.time_ns, e.ha_seqno = r.ha_seqno, e.digest = r.digest;
    e.kind = r.kind, e.sap = r.sap, e.epoch = r.epoch, e.opcode = r.opcode, e.uuid = r.uuid, e.len = r.len;
    e.index = r.index;
    e.text = text(r.text, sizeof r.text);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (r.guard.load(std::memory_order_relaxed) != g) continue;
    if (e.kind < kSent || e.kind > kEvent) continue;
    out->entries.push_back(std::move(e));
  }
  return true;
}

}  // namespace hadra::plat::hist

namespace hadra::plat::hist {
// Records one sync message of the stream on SAP sap: kSent to the peer, or kApplied. Called
// by the transport and the receive loop; a no-op outside a pair's service process.
void note_sync(uint32_t kind, uint32_t sap, uint32_t epoch, uint64_t ha_seqno, uint32_t opcode, const void* payload,
               uint32_t len) noexcept;
}  // namespace hadra::plat::hist
