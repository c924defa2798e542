// Sequence-number calls: the client's side of the table in seqno_table.h.
//
// The table is made on first need (a report, a table allocation or a status registration):
// the active supervisor reports the numbers of the messages it sends without ever having
// allocated a table, since allocation is the standby's start-up step. When the shared file
// cannot be made, the table lives in process memory instead: reports still succeed, only
// the daemon cannot see them, which is said once in the log.
//
// A forked child must not write into its parent's table, so it drops the mapping and makes
// its own (its own pid, its own file) when it first reports.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "common/call.h"
#include "hadra_platform/config.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/log.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform_testing.h"
#include "log/log_internal.h"
#include "mts/core.h"
#include "sysmgr/seqno_table.h"
#include "sysmgr/sysmgr_internal.h"

namespace {

using hadra::plat::sysmgr::kSeqnoMaxIndex;
using hadra::plat::sysmgr::SeqnoTable;

struct State {
  std::mutex mu;
  std::atomic<SeqnoTable*> table{nullptr};
  SeqnoTable fallback{};
  void* map = nullptr;
  int fd = -1;
  char path[PATH_MAX] = {};
};

State& st() {
  static auto* s = new State();
  return *s;
}

// The table's blocks, on disk before the file is mapped: a mapped page the disk cannot hold
// kills the process with SIGBUS when it is first written (a full disk at the first sync
// send). posix_fallocate; where the file system cannot, zeros written out. A table that gets
// no blocks stays in memory (the fallback table), with a line that says why.
bool allocate(int fd, const char* path) {
  int rc = ::posix_fallocate(fd, 0, sizeof(SeqnoTable));
  if (rc == EOPNOTSUPP || rc == EINVAL) {
    static const SeqnoTable zeros{};
    const auto* p = reinterpret_cast<const char*>(&zeros);
    size_t left = sizeof zeros;
    rc = 0;
    while (left > 0) {
      const ssize_t w = ::pwrite(fd, p + (sizeof zeros - left), left, static_cast<off_t>(sizeof zeros - left));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) {
        rc = w < 0 ? errno : EIO;
        break;
      }
      left -= static_cast<size_t>(w);
    }
    if (rc == 0 && ::fsync(fd) != 0) rc = errno;
  }
  if (rc == 0) return true;
  hadra::plat::log::writef(PLAT_LOG_ERR, "sysmgr: sequence-number table %s: %s; the table is kept in memory only",
                           path, rc == ENOSPC ? "the disk is full" : std::strerror(rc));
  return false;
}

SeqnoTable* map_locked(State& s) {
  char uri[64];
  std::snprintf(uri, sizeof uri, "sysmgr:/seqno-%d.tbl", static_cast<int>(::getpid()));
  if (plat_uri_to_path(uri, s.path, sizeof s.path, 1) != 0) return nullptr;
  int fd = ::open(s.path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return nullptr;
  void* m = MAP_FAILED;
  if (allocate(fd, s.path))
    m = ::mmap(nullptr, sizeof(SeqnoTable), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (m == MAP_FAILED) {
    ::close(fd);
    ::unlink(s.path);
    return nullptr;
  }
  s.fd = fd;
  s.map = m;
  return static_cast<SeqnoTable*>(m);
}

void init_header(SeqnoTable* t) {
  std::memset(t, 0, sizeof *t);
  t->version = hadra::plat::sysmgr::kSeqnoVersion;
  t->entries = kSeqnoMaxIndex;
  t->pid = static_cast<uint32_t>(::getpid());
  t->uuid = hadra::plat::sysmgr::local_uuid();
  __atomic_store_n(&t->magic, hadra::plat::sysmgr::kSeqnoMagic, __ATOMIC_RELEASE);
}

SeqnoTable* table() {
  State& s = st();
  SeqnoTable* t = s.table.load(std::memory_order_acquire);
  if (t != nullptr) return t;
  std::lock_guard<std::mutex> lock(s.mu);
  t = s.table.load(std::memory_order_relaxed);
  if (t != nullptr) return t;
  t = map_locked(s);
  if (t == nullptr) {
    hadra::plat::log::writef(PLAT_LOG_WARNING,
                             "sysmgr: cannot share the sequence-number table (%s); keeping it in process memory",
                             s.path);
    t = &s.fallback;
  }
  init_header(t);
  s.table.store(t, std::memory_order_release);
  return t;
}

void drop_mapping(State& s, bool remove) {
  s.table.store(nullptr);
  if (s.map != nullptr) ::munmap(s.map, sizeof(SeqnoTable));
  if (s.fd >= 0) ::close(s.fd);
  if (remove && s.path[0] != '\0') ::unlink(s.path);
  s.map = nullptr;
  s.fd = -1;
  s.path[0] = '\0';
}

void reset() {
  State& s = st();
  std::lock_guard<std::mutex> lock(s.mu);
  drop_mapping(s, true);
}

// In a forked child: the file belongs to the parent, so leave it and let go of the mapping.
void after_fork_child() { drop_mapping(st(), false); }

const bool g_registered = (hadra::plat::register_reset(&reset), pthread_atfork(nullptr, nullptr, &after_fork_child), true);

// Every report also says whether the stream to the standby is in step, so the daemon shows
// an active whose standby is out of sync without asking the service.
void publish_stream_health(SeqnoTable* t) {
  uint64_t missed = 0;
  const bool broken = hadra::plat::mts::peer_health(&missed);
  __atomic_store_n(&t->out_of_sync, broken ? 1u : 0u, __ATOMIC_RELAXED);
  __atomic_store_n(&t->missed, static_cast<uint32_t>(missed > UINT32_MAX ? UINT32_MAX : missed), __ATOMIC_RELAXED);
}

void set_mode(SeqnoTable* t, uint32_t bit) { __atomic_fetch_or(&t->mode, bit, __ATOMIC_RELEASE); }

}  // namespace

namespace hadra::plat::sysmgr {

void own_seqnos(uint64_t seqno[kSeqnoMaxIndex + 1], uint32_t count[kSeqnoMaxIndex + 1]) noexcept {
  SeqnoTable* t = st().table.load(std::memory_order_acquire);
  for (uint32_t i = 0; i <= kSeqnoMaxIndex; ++i) {
    count[i] = t != nullptr ? __atomic_load_n(&t->slot[i].reports, __ATOMIC_ACQUIRE) : 0;
    seqno[i] = t != nullptr ? __atomic_load_n(&t->slot[i].seqno, __ATOMIC_ACQUIRE) : 0;
  }
}

}  // namespace hadra::plat::sysmgr

extern "C" {

HADRA_PLAT_API int sysmgr_seqno_sync(uint32_t index, uint64_t seqno) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_seqno_sync", static_cast<int>(PLAT_ERR_SYSMGR_NO_TABLE));
  c.args("index=%u seqno=%llu", index, static_cast<unsigned long long>(seqno));
  if (c.faulted()) return c.fail<int>();
  if (index < 1 || index > kSeqnoMaxIndex) return c.ret(static_cast<int>(PLAT_ERR_SYSMGR_BAD_INDEX));
  SeqnoTable* t = table();
  if (index > __atomic_load_n(&t->entries, __ATOMIC_RELAXED)) return c.ret(static_cast<int>(PLAT_ERR_SYSMGR_BAD_INDEX));
  __atomic_store_n(&t->slot[index].seqno, seqno, __ATOMIC_RELEASE);
  __atomic_fetch_add(&t->slot[index].reports, 1u, __ATOMIC_RELEASE);
  publish_stream_health(t);
  return c.ret(0);
}

// Prepares a fresh table of entries indexes (1..10): earlier reports are forgotten.
HADRA_PLAT_API int sysmgr_seqno_table_alloc(uint32_t entries) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_seqno_table_alloc", static_cast<int>(PLAT_ERR_SYSMGR_NO_TABLE));
  c.args("entries=%u", entries);
  if (c.faulted()) return c.fail<int>();
  if (entries < 1 || entries > kSeqnoMaxIndex) return c.ret(static_cast<int>(PLAT_ERR_SYSMGR_BAD_INDEX));
  SeqnoTable* t = table();
  std::lock_guard<std::mutex> lock(st().mu);
  for (uint32_t i = 0; i <= kSeqnoMaxIndex; ++i) {
    __atomic_store_n(&t->slot[i].reports, 0u, __ATOMIC_RELEASE);
    __atomic_store_n(&t->slot[i].seqno, 0u, __ATOMIC_RELEASE);
  }
  __atomic_store_n(&t->entries, static_cast<uint16_t>(entries), __ATOMIC_RELEASE);
  set_mode(t, hadra::plat::sysmgr::kSeqnoModeTable);
  return c.ret(0);
}

HADRA_PLAT_API int sysmgr_seqno_status_register(void) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_seqno_status_register", static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON));
  if (c.faulted()) return c.fail<int>();
  set_mode(table(), hadra::plat::sysmgr::kSeqnoModeStatus);
  return c.ret(0);
}

HADRA_PLAT_API int plat_test_sysmgr_seqno(uint32_t index, uint64_t* seqno, unsigned* reports) noexcept {
  SeqnoTable* t = st().table.load(std::memory_order_acquire);
  if (t == nullptr || index < 1 || index > kSeqnoMaxIndex) return -1;
  unsigned n = __atomic_load_n(&t->slot[index].reports, __ATOMIC_ACQUIRE);
  if (n == 0) return -1;
  if (seqno != nullptr) *seqno = __atomic_load_n(&t->slot[index].seqno, __ATOMIC_ACQUIRE);
  if (reports != nullptr) *reports = n;
  return 0;
}

HADRA_PLAT_API int plat_test_sysmgr_seqno_table_allocated(void) noexcept {
  SeqnoTable* t = st().table.load(std::memory_order_acquire);
  return t != nullptr && (__atomic_load_n(&t->mode, __ATOMIC_ACQUIRE) & hadra::plat::sysmgr::kSeqnoModeTable) != 0;
}

HADRA_PLAT_API int plat_test_sysmgr_seqno_status_registered(void) noexcept {
  SeqnoTable* t = st().table.load(std::memory_order_acquire);
  return t != nullptr && (__atomic_load_n(&t->mode, __ATOMIC_ACQUIRE) & hadra::plat::sysmgr::kSeqnoModeStatus) != 0;
}

}  // extern "C"
