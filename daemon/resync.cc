// Bringing a standby that fell behind back in step, and showing how far the stream is from it.
//
// The services' receive loops notice most holes themselves: a sync message after a gap, a
// repeat, a reordered frame or frames their queue had to drop puts the standby out of sync
// and asks for a gsync. What they cannot notice is a hole at the end of the stream: frames
// the active could not hand over while its standby was stopped, followed by no further
// change. The standby's daemon sees it by comparing, per service, the last HA number the
// active reported (its hellos) with the last one applied here: behind, with no progress for
// RESYNC_STALL_MS, is a standby that will not catch up by itself, and the daemon starts a
// gsync for it. A service whose applied table says out of sync with no gsync running for as
// long (its own request was lost) is started the same way, at most once per GSYNC_TIMEOUT_MS.
// A gsync that failed is retried by the daemon alone (the service waits for it), after a
// wait that doubles with each failure in a row (RESYNC_RETRY_MS .. RESYNC_RETRY_MAX_MS).
//
// Status shows, per service, the stream's health as both sides publish it in their tables
// (seqno_table.h): on the active whether frames for the standby fail to leave and how many
// did not; on the standby whether it is out of sync, why, and how many changes it knows it
// missed.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "daemon.h"
#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "sysmgr/seqno_table.h"

namespace hadra::sysmgrd {
namespace {

using hadra::plat::sysmgr::SeqnoTable;

struct Health {
  bool known = false;
  uint32_t out_of_sync = 0;
  uint32_t missed = 0;
  uint32_t resyncs = 0;
  uint32_t failed = 0;  // changes the store refused, all indexes
};

// The stream fields of a service's table (sent or applied), read from its shared file.
Health read_health(const std::string& path, uint32_t magic) {
  Health h;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return h;
  struct stat st {};
  void* m = ::fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(sizeof(SeqnoTable))
                ? ::mmap(nullptr, sizeof(SeqnoTable), PROT_READ, MAP_SHARED, fd, 0)
                : MAP_FAILED;
  ::close(fd);
  if (m == MAP_FAILED) return h;
  const auto* t = static_cast<const SeqnoTable*>(m);
  if (__atomic_load_n(&t->magic, __ATOMIC_ACQUIRE) == magic) {
    h.known = true;
    h.out_of_sync = __atomic_load_n(&t->out_of_sync, __ATOMIC_ACQUIRE);
    h.missed = __atomic_load_n(&t->missed, __ATOMIC_RELAXED);
    h.resyncs = __atomic_load_n(&t->resyncs, __ATOMIC_RELAXED);
    for (uint32_t i = 1; i <= plat::sysmgr::kSeqnoMaxIndex; ++i) h.failed += __atomic_load_n(&t->slot[i].failed, __ATOMIC_ACQUIRE);
  }
  ::munmap(m, sizeof(SeqnoTable));
  return h;
}

uint64_t last_number(const proto::ServiceSeq& s, bool sent) {
  uint64_t n = 0;
  for (const proto::DbSeq& d : s.dbs) n = std::max(n, sent ? d.sent_seqno : d.applied_seqno);
  return n;
}

long stall_ms() { return plat_config_get_long("RESYNC_STALL_MS", 1000); }

// The wait before the gsync after the n-th failure in a row: RESYNC_RETRY_MS, doubled each
// time, at most RESYNC_RETRY_MAX_MS.
uint64_t retry_delay_ms(uint32_t n) {
  const auto first = static_cast<uint64_t>(std::max(1L, plat_config_get_long("RESYNC_RETRY_MS", 1000)));
  const auto most = static_cast<uint64_t>(std::max(1L, plat_config_get_long("RESYNC_RETRY_MAX_MS", 30000)));
  uint64_t d = first;
  for (uint32_t i = 1; i < n && d < most; ++i) d *= 2;
  return std::min(d, most);
}

}  // namespace

std::string Daemon::table_path(const char* kind, uint32_t pid) const {
  return files::root_path(o_.root, "sysmgr/") + kind + "-" + std::to_string(pid) + ".tbl";
}

nlohmann::json Daemon::stream_json(uint32_t pid) const {
  const Health sent = read_health(table_path("seqno", pid), plat::sysmgr::kSeqnoMagic);
  const Health applied = read_health(table_path("applied", pid), plat::sysmgr::kAppliedMagic);
  nlohmann::json j;
  // Active side: frames for the standby that did not leave.
  j["standby_behind"] = sent.out_of_sync != 0;
  j["sends_missed"] = sent.missed;
  // Standby side: this copy's own view.
  j["out_of_sync"] = applied.out_of_sync != 0;
  j["reason"] = plat::sysmgr::out_of_sync_name(applied.out_of_sync);
  j["missed"] = applied.missed;
  j["resyncs"] = applied.resyncs;
  j["apply_failed"] = applied.failed;
  // The daemon's own retries of a gsync that keeps failing.
  for (const auto& [uuid, w] : resync_) {
    const Client* c = client(uuid);
    if (c == nullptr || c->pid != pid) continue;
    j["gsyncs_failed_in_row"] = w.failed_in_row;
    const uint64_t now = now_ns();
    j["next_gsync_in_ms"] = w.failed_in_row != 0 && w.next_try_ns > now ? (w.next_try_ns - now) / 1000000ull : 0;
  }
  return j;
}

// A gsync of the service ended. One that failed is not tried again at once (a shipment that
// keeps failing, a standby whose disk is full, would otherwise run them back to back): the
// wait doubles with each failure in a row, up to RESYNC_RETRY_MAX_MS; one that worked starts
// the watch afresh.
void Daemon::resync_gsync_ended(uint32_t uuid, bool ok) {
  ResyncWatch& w = resync_[uuid];
  const uint64_t now = now_ns();
  w.since_ns = now;
  if (ok) {
    w.failed_in_row = 0;
    w.next_try_ns = 0;
    return;
  }
  ++w.failed_in_row;
  const uint64_t wait = retry_delay_ms(w.failed_in_row);
  w.next_try_ns = now + wait * 1000000ull;
  const Client* c = client(uuid);
  plat_syslog(PLAT_LOG_WARNING, "sysmgrd: service %s: gsync failed (%u in a row); the next one in %llu ms",
              c != nullptr ? c->name.c_str() : "?", w.failed_in_row, static_cast<unsigned long long>(wait));
}

void Daemon::resync_tick(uint64_t now) {
  if (role_ != 2 || !peer_up()) return;
  for (const proto::ServiceSeq& mine : own_sequences()) {
    const Client* c = client(mine.uuid);
    if (c == nullptr) continue;
    ResyncWatch& w = resync_[mine.uuid];
    const uint64_t applied = last_number(mine, false);
    if (applied != w.applied || w.since_ns == 0) w.applied = applied, w.since_ns = now;
    const bool busy = std::any_of(incoming_.begin(), incoming_.end(),
                                  [&](const auto& in) { return in.second.uuid == mine.uuid; });
    if (busy || now < w.next_try_ns) continue;
    const Health h = read_health(table_path("applied", c->pid), plat::sysmgr::kAppliedMagic);
    // After a failed gsync the service waits for this daemon: the back-off alone decides.
    const bool retry = w.failed_in_row != 0 && h.out_of_sync != 0;
    const auto peer = peer_active_seq_.find(mine.uuid);
    const uint64_t reported = peer != peer_active_seq_.end() ? last_number(peer->second, true) : 0;
    if (!retry && now - w.since_ns < static_cast<uint64_t>(stall_ms()) * 1000000ull) continue;
    if (!retry && reported <= applied && h.out_of_sync == 0) continue;
    if (h.out_of_sync == 0)
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: service %s: standby out of sync: applied HA number %llu, the active "
                  "reported %llu, no progress for %ld ms; starting a gsync", c->name.c_str(),
                  static_cast<unsigned long long>(applied), static_cast<unsigned long long>(reported), stall_ms());
    else
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: service %s: standby out of sync (%s, %u changes missed); starting a gsync",
                  c->name.c_str(), plat::sysmgr::out_of_sync_name(h.out_of_sync), h.missed);
    proto::Event ev;
    ev.kind = proto::EventKind::kGsyncStart;
    (void)send_event(*c, ev);
    // The gsync shows as running once the service's request arrives; until then no second.
    w.next_try_ns = now + static_cast<uint64_t>(o_.gsync_timeout_ms) * 1000000ull;
    w.since_ns = now;
  }
}

}  // namespace hadra::sysmgrd
