// The sequence-number table: layout shared with the system-manager daemon.
//
// Every sync message a client sends is reported with sysmgr_seqno_sync(index, seqno). That
// happens once per change, so it must not cost a round trip: the client writes the number
// into a small table in a shared file, <root>/sysmgr/seqno-<pid>.tbl, mapped into its
// memory, and the daemon maps the same file read-only when it needs the numbers (at a
// switchover it compares them with those the standby has seen). The daemon learns the pid
// of each client at the handshake; the header also names the uuid.
//
// Writers and readers share no lock. The client stores seqno, then increments reports,
// both with release ordering; a reader loads reports, then seqno, with acquire ordering.
// A reader may see a newer seqno with the older count, never an older seqno with a newer
// count. The header is written before magic, so a reader that sees kSeqnoMagic sees it
// whole.
//
// The layout below must not change without a new version number.
#pragma once

#include <cstddef>
#include <cstdint>

namespace hadra::plat::sysmgr {

constexpr uint32_t kSeqnoMagic = 0x48535154u;  // "HSQT"
// The same layout serves the standby's table of what it applied, <root>/sysmgr/applied-<pid>.tbl:
// per index the last HA number applied (seqno) and the messages applied (reports), counted
// from the gsync's snapshot, whose own counts it starts with. Written by the service's receive
// loop, read by the daemon at a takeover.
constexpr uint32_t kAppliedMagic = 0x48535141u;  // "HSQA"
constexpr uint16_t kSeqnoVersion = 1;
constexpr uint32_t kSeqnoMaxIndex = 10;  // registry indexes 1..10

// Bits of SeqnoTable::mode.
constexpr uint32_t kSeqnoModeTable = 1u;   // sysmgr_seqno_table_alloc() was called
constexpr uint32_t kSeqnoModeStatus = 2u;  // sysmgr_seqno_status_register() was called

// Values of SeqnoTable::out_of_sync in an applied table.
constexpr uint32_t kOutOfSyncGap = 1;        // sequence numbers skipped (lost or out of order)
constexpr uint32_t kOutOfSyncRepeat = 2;     // a number already passed came again
constexpr uint32_t kOutOfSyncOverflow = 3;   // the receive queue was full and dropped frames
constexpr uint32_t kOutOfSyncGsyncFailed = 4;  // the resync itself failed; the next one is due
constexpr uint32_t kOutOfSyncApplyFailed = 5;  // the store refused a change (disk full, I/O error)

inline const char* out_of_sync_name(uint32_t v) {
  switch (v) {
    case 0: return "";
    case kOutOfSyncGap: return "gap";
    case kOutOfSyncRepeat: return "repeated or reordered message";
    case kOutOfSyncOverflow: return "receive queue full";
    case kOutOfSyncGsyncFailed: return "gsync failed";
    case kOutOfSyncApplyFailed: return "apply failed";
    default: return "unknown";
  }
}

struct SeqnoSlot {
  uint64_t seqno;    // last MTS HA sequence number reported for the index
  uint32_t reports;  // number of reports since the table was (re)prepared
  uint32_t failed;   // applied table: changes of the index the store refused, since the start
                     // (zero in the sent table, and in earlier writers)
};

struct SeqnoTable {
  uint32_t magic;    // kSeqnoMagic once the header is complete
  uint16_t version;  // kSeqnoVersion
  uint16_t entries;  // usable indexes: 1..entries
  uint32_t pid;      // client process
  uint32_t uuid;     // client service
  uint32_t mode;     // kSeqnoMode* bits
  // Whether the sync stream is in step (these were reserved, zero, in earlier writers):
  //  - sent table (active): 1 while frames for the standby do not leave (MTS stream broken);
  //    missed: frames that took a number and did not leave, since the process started.
  //  - applied table (standby): a kOutOfSync* reason while the copy is out of step and a
  //    resync is due, 0 from the gsync that brought it back; missed: changes known to be
  //    skipped; resyncs: times it went out of step.
  uint32_t out_of_sync;
  uint32_t missed;
  uint32_t resyncs;
  SeqnoSlot slot[kSeqnoMaxIndex + 1];  // slot[0] unused
};

static_assert(sizeof(SeqnoSlot) == 16 && offsetof(SeqnoSlot, reports) == 8, "seqno slot layout");
static_assert(offsetof(SeqnoTable, out_of_sync) == 20 && offsetof(SeqnoTable, resyncs) == 28, "stream state");
static_assert(offsetof(SeqnoTable, entries) == 6 && offsetof(SeqnoTable, mode) == 16 &&
                  offsetof(SeqnoTable, slot) == 32 && sizeof(SeqnoTable) == 32 + 16 * 11,
              "seqno table layout");

}  // namespace hadra::plat::sysmgr
