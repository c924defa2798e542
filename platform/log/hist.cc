// History buffers: in-memory rings of event records.
//
// A buffer holds its records in a ring of fixed slots (PLAT_HIST_MAX_REC bytes of data
// each); when it is full the oldest record gives way. Every record gets the buffer's next
// sequence number and the platform time, so a dump shows order and gaps.
//
// Buffers are handed to callers as opaque pointers, and the library keeps one in an
// exported switch that any code may set. So every call first looks the pointer up among the
// live buffers: a stale or made-up pointer gets an error, never a write through it. One
// mutex guards the buffers and the lookup; records are only made while tracing is on.
#include <dlfcn.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <atomic>
#include <mutex>
#include <new>
#include <vector>

#include "common/call.h"
#include "hadra/registry.h"
#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform_testing.h"
#include "log/hist_ring.h"
#define XXH_INLINE_ALL
#include <xxhash.h>

struct sdwrap_hist_buf {
  char name[32];
  uint32_t cap;
  uint64_t next_seq;  // records ever made; the ring holds the last min(next_seq, cap)
  sdwrap_hist_rec* slots;
};

namespace {

constexpr uint32_t kDefaultRecords = 1024;
constexpr size_t kHexShown = 64;

struct Registry {
  std::mutex mu;
  std::vector<sdwrap_hist_buf*> live;
  sdwrap_hist_buf* dflt = nullptr;
  std::vector<uint32_t> debug_elems;      // sdwrap_chk_int answers non-zero for these
  std::vector<uint32_t> filtered_events;  // sdwrap_hist_event_subtype_check refuses these
};

Registry& reg() {
  static auto* r = new Registry();
  return *r;
}

sdwrap_hist_buf* make_locked(Registry& r, const char* name, uint32_t records) {
  auto* b = new (std::nothrow) sdwrap_hist_buf{};
  if (b == nullptr) return nullptr;
  b->slots = new (std::nothrow) sdwrap_hist_rec[records];
  if (b->slots == nullptr) {
    delete b;
    return nullptr;
  }
  std::snprintf(b->name, sizeof b->name, "%s", name != nullptr ? name : "");
  b->cap = records;
  r.live.push_back(b);
  return b;
}

void free_locked(Registry& r, sdwrap_hist_buf* b) {
  r.live.erase(std::remove(r.live.begin(), r.live.end(), b), r.live.end());
  if (r.dflt == b) r.dflt = nullptr;
  delete[] b->slots;
  delete b;
}

// The live buffer b, or the default one (made on first use) for null; null when b is not live.
sdwrap_hist_buf* resolve_locked(Registry& r, const void* b) {
  if (b == nullptr) {
    if (r.dflt == nullptr) r.dflt = make_locked(r, "default", kDefaultRecords);
    return r.dflt;
  }
  for (sdwrap_hist_buf* x : r.live)
    if (x == b) return x;
  return nullptr;
}

bool contains(const std::vector<uint32_t>& v, uint32_t x) { return std::find(v.begin(), v.end(), x) != v.end(); }

void set_member(std::vector<uint32_t>& v, uint32_t x, bool on) {
  v.erase(std::remove(v.begin(), v.end(), x), v.end());
  if (on) v.push_back(x);
}


bool is_text_record(const sdwrap_hist_rec& rec);

// ---- The history ring file (hist_ring.h) ------------------------------------------------------

namespace ring {

namespace h = hadra::plat::hist;

struct Writer {
  std::mutex mu;
  bool tried = false;
  // Set once the ring was tried and is not kept (not under a daemon, HIST_RING=0, no file):
  // the sync path then returns before hashing anything.
  std::atomic<bool> off{false};
  h::RingHdr* hdr = nullptr;
  h::RingRec* recs = nullptr;
  const hadra_ha_pss_entry* registry = nullptr;
  // The library's handle, hadra_ha_handle_t: its first word is the service's uuid, its third
  // the opcode of the service's sync messages.
  const uint32_t* handle = nullptr;
};

Writer& writer() {
  static auto* w = new Writer();
  return *w;
}

uint64_t wall_ns() {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// Only the services of a pair (their system manager is the supervisor's daemon) keep a ring,
// and HIST_RING=0 turns it off. A ring that cannot be made is said once and not tried again.
void open_locked(Writer& w) {
  w.tried = true;
  w.off.store(true, std::memory_order_relaxed);  // until the ring is made below
  const std::string transport = plat_config_get("TRANSPORT", "loopback");
  const std::string mode = plat_config_get("SYSMGR", strcasecmp(transport.c_str(), "zmq") == 0 ? "daemon" : "local");
  if (strcasecmp(mode.c_str(), "daemon") != 0 || plat_config_get_long("HIST_RING", 1) == 0) return;
  const char* root = plat_root();
  if (root == nullptr || *root == '\0') return;
  const std::string dir = std::string(root) + "/log";
  (void)::mkdir(dir.c_str(), 0755);
  const std::string path = dir + "/hist-" + std::to_string(::getpid()) + ".ring";
  const size_t size = h::ring_file_size(h::kRingRecords);
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  void* map = MAP_FAILED;
  if (fd >= 0 && ::ftruncate(fd, static_cast<off_t>(size)) == 0)
    map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  const int err = errno;
  if (fd >= 0) ::close(fd);
  if (map == MAP_FAILED) {
    plat_syslog(PLAT_LOG_WARNING, "history ring %s not kept: %s", path.c_str(), std::strerror(err));
    return;
  }
  auto* hdr = static_cast<h::RingHdr*>(map);
  hdr->version = h::kRingVersion;
  hdr->rec_size = sizeof(h::RingRec);
  hdr->pid = static_cast<uint32_t>(::getpid());
  hdr->cap = h::kRingRecords;
  std::atomic_thread_fence(std::memory_order_release);
  hdr->magic = h::kRingMagic;
  w.hdr = hdr;
  w.recs = reinterpret_cast<h::RingRec*>(static_cast<char*>(map) + sizeof(h::RingHdr));
  w.off.store(false, std::memory_order_relaxed);
  // The library, when this process loaded it, names the databases and the service.
  w.registry = static_cast<const hadra_ha_pss_entry*>(::dlsym(RTLD_DEFAULT, "hadra_ha_pss"));
  w.handle = static_cast<const uint32_t*>(::dlsym(RTLD_DEFAULT, "hadra_ha_handle"));
}

// The next record, its guard cleared; null when this process keeps no ring.
h::RingRec* begin_locked(Writer& w, uint64_t* seq) {
  if (!w.tried) open_locked(w);
  if (w.hdr == nullptr) return nullptr;
  *seq = w.hdr->next.load(std::memory_order_relaxed);
  h::RingRec* r = &w.recs[*seq % w.hdr->cap];
  r->guard.store(0, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  if (w.handle != nullptr && w.handle[0] != 0) w.hdr->uuid.store(w.handle[0], std::memory_order_relaxed);
  r->uuid = w.hdr->uuid.load(std::memory_order_relaxed);
  r->time_ns = wall_ns();
  return r;
}

void end_locked(Writer& w, h::RingRec* r, uint64_t seq) {
  r->guard.store(seq + 1, std::memory_order_release);
  w.hdr->next.store(seq + 1, std::memory_order_release);
}

void name_locked(Writer& w, uint8_t index) {
  if (w.registry == nullptr || index == 0 || index > h::kRingMaxIndex || w.hdr->names[index][0] != '\0') return;
  // The registry is an array indexed by the database's own number.
  const hadra_ha_pss_entry& e = w.registry[index];
  std::snprintf(w.hdr->uris[index], sizeof w.hdr->uris[index], "%.*s", static_cast<int>(strnlen(e.uri, sizeof e.uri)),
                e.uri);
  std::snprintf(w.hdr->names[index], sizeof w.hdr->names[index], "%.*s",
                static_cast<int>(strnlen(e.name, sizeof e.name)), e.name);
}

}  // namespace ring

// A copy of a history buffer's record in the ring file: its event, uuid and text.
void ring_event(const sdwrap_hist_rec& rec) {
  ring::Writer& w = ring::writer();
  std::lock_guard<std::mutex> lock(w.mu);
  uint64_t seq;
  hadra::plat::hist::RingRec* r = ring::begin_locked(w, &seq);
  if (r == nullptr) return;
  r->kind = hadra::plat::hist::kEvent;
  r->opcode = rec.event;
  if (rec.uuid != 0) r->uuid = rec.uuid;
  r->len = rec.length;
  r->ha_seqno = r->digest = 0;
  r->sap = r->epoch = 0;
  r->index = 0;
  if (is_text_record(rec)) {
    std::snprintf(r->text, sizeof r->text, "%s", reinterpret_cast<const char*>(rec.data + 4));
  } else {
    size_t at = 0;
    for (uint32_t i = 0; i < rec.length && at + 3 < sizeof r->text; ++i, at += 2)
      std::snprintf(r->text + at, sizeof r->text - at, "%02x", rec.data[i]);
    r->text[at] = '\0';
  }
  ring::end_locked(w, r, seq);
}

int append(const void* buf, uint32_t uuid, uint32_t event, uint32_t length, const void* record) {
  if (record == nullptr && length > 0) return -1;
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  sdwrap_hist_buf* b = resolve_locked(r, buf);
  if (b == nullptr) return -1;
  sdwrap_hist_rec& rec = b->slots[b->next_seq % b->cap];
  rec.seq = b->next_seq++;
  rec.time_ns = plat_now_ns();
  rec.uuid = uuid;
  rec.event = event;
  rec.length = std::min<uint32_t>(length, PLAT_HIST_MAX_REC);
  if (rec.length > 0) std::memcpy(rec.data, record, rec.length);
  ring_event(rec);
  return 0;
}

uint32_t held(const sdwrap_hist_buf* b) { return static_cast<uint32_t>(std::min<uint64_t>(b->next_seq, b->cap)); }

const sdwrap_hist_rec& nth(const sdwrap_hist_buf* b, uint32_t i) {
  return b->slots[(b->next_seq - held(b) + i) % b->cap];
}

// A record that is an element word followed by a terminated text of printable characters.
bool is_text_record(const sdwrap_hist_rec& rec) {
  if (rec.length < 5 || rec.data[rec.length - 1] != '\0') return false;
  for (uint32_t i = 4; i + 1 < rec.length; ++i) {
    unsigned char ch = rec.data[i];
    if (ch < 0x20 && ch != '\n' && ch != '\t') return false;
  }
  return true;
}

void dump_one(int fd, const sdwrap_hist_rec& rec) {
  dprintf(fd, "#%llu t=%llu uuid=0x%08x event=0x%06x len=%u ", static_cast<unsigned long long>(rec.seq),
          static_cast<unsigned long long>(rec.time_ns), rec.uuid, rec.event, rec.length);
  if (is_text_record(rec)) {
    uint32_t elem;
    std::memcpy(&elem, rec.data, sizeof elem);
    const char* text = reinterpret_cast<const char*>(rec.data + 4);
    size_t n = std::strlen(text);
    while (n > 0 && text[n - 1] == '\n') --n;
    dprintf(fd, "elem=%u %.*s\n", elem, static_cast<int>(n), text);
    return;
  }
  for (uint32_t i = 0; i < rec.length && i < kHexShown; ++i) dprintf(fd, "%02x", rec.data[i]);
  dprintf(fd, "%s\n", rec.length > kHexShown ? "..." : "");
}

void reset() {
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  while (!r.live.empty()) free_locked(r, r.live.back());
  r.debug_elems.clear();
  r.filtered_events.clear();
}

const bool g_registered = (hadra::plat::register_reset(&reset), true);

}  // namespace

extern "C" {

HADRA_PLAT_API sdwrap_hist_buf* sdwrap_hist_buf_create(const char* name, uint32_t records) noexcept {
  hadra::plat::Call c("log", "sdwrap_hist_buf_create", 0);
  c.args("name=%s records=%u", name != nullptr ? name : "null", records);
  if (c.faulted()) return c.fail<sdwrap_hist_buf*>();
  if (records == 0 || records > PLAT_HIST_MAX_RECORDS) {
    errno = EINVAL;
    return c.ret<sdwrap_hist_buf*>(nullptr);
  }
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  sdwrap_hist_buf* b = make_locked(r, name, records);
  if (b == nullptr) errno = ENOMEM;
  return c.ret(b);
}

HADRA_PLAT_API void sdwrap_hist_buf_destroy(sdwrap_hist_buf* buf) noexcept {
  hadra::plat::Call c("log", "sdwrap_hist_buf_destroy", 0);
  if (c.faulted()) return (void)c.fail<int>();
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  if (buf != nullptr && resolve_locked(r, buf) != nullptr) free_locked(r, buf);
  c.ret_void();
}

HADRA_PLAT_API sdwrap_hist_buf* sdwrap_hist_default_buf(void) noexcept {
  hadra::plat::Call c("log", "sdwrap_hist_default_buf", 0);
  if (c.faulted()) return c.fail<sdwrap_hist_buf*>();
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  return c.ret(resolve_locked(r, nullptr));
}

HADRA_PLAT_API int sdwrap_his_log_event_for_uuid_inst(uint32_t uuid, uint32_t event, void* buf, uint32_t inst,
                                                      uint32_t length, const void* record) noexcept {
  hadra::plat::Call c("log", "sdwrap_his_log_event_for_uuid_inst", -1);
  c.args("uuid=%u event=0x%x inst=%u len=%u", uuid, event, inst, length);
  if (c.faulted()) return c.fail<int>();
  return c.ret(append(buf, uuid, event, length, record));
}

HADRA_PLAT_API int sdwrap_hist_event(uint32_t event, uint32_t length, const void* record) noexcept {
  hadra::plat::Call c("log", "sdwrap_hist_event", -1);
  c.args("event=0x%x len=%u", event, length);
  if (c.faulted()) return c.fail<int>();
  return c.ret(append(nullptr, 0, event, length, record));
}

HADRA_PLAT_API int sdwrap_hist_event_subtype_check(uint32_t event, uint32_t elem) noexcept {
  hadra::plat::Call c("log", "sdwrap_hist_event_subtype_check", 1);
  c.args("event=0x%x elem=%u", event, elem);
  if (c.faulted()) return c.fail<int>();
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  return c.ret(contains(r.filtered_events, event) ? 1 : 0);
}

HADRA_PLAT_API int sdwrap_chk_int(uint32_t elem, int a, int b, int cc) noexcept {
  hadra::plat::Call c("log", "sdwrap_chk_int", 0);
  c.args("elem=%u", elem);
  (void)a, (void)b, (void)cc;
  if (c.faulted()) return c.fail<int>();
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  return c.ret(contains(r.debug_elems, elem) ? 1 : 0);
}

HADRA_PLAT_API uint32_t sdwrap_hist_count(const sdwrap_hist_buf* buf) noexcept {
  hadra::plat::Call c("log", "sdwrap_hist_count", 0);
  if (c.faulted()) return c.fail<uint32_t>();
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  const sdwrap_hist_buf* b = resolve_locked(r, buf);
  return c.ret(b != nullptr ? held(b) : 0u);
}

HADRA_PLAT_API int sdwrap_hist_get(const sdwrap_hist_buf* buf, uint32_t i, sdwrap_hist_rec* out) noexcept {
  hadra::plat::Call c("log", "sdwrap_hist_get", -1);
  c.args("i=%u", i);
  if (c.faulted()) return c.fail<int>();
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  const sdwrap_hist_buf* b = resolve_locked(r, buf);
  if (b == nullptr || out == nullptr || i >= held(b)) return c.ret(-1);
  *out = nth(b, i);
  return c.ret(0);
}

HADRA_PLAT_API int sdwrap_hist_dump(const sdwrap_hist_buf* buf, int fd) noexcept {
  hadra::plat::Call c("log", "sdwrap_hist_dump", -1);
  c.args("fd=%d", fd);
  if (c.faulted()) return c.fail<int>();
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  const sdwrap_hist_buf* b = resolve_locked(r, buf);
  if (b == nullptr || fd < 0) return c.ret(-1);
  uint32_t n = held(b);
  dprintf(fd, "history %s: %u of %llu records\n", b->name, n, static_cast<unsigned long long>(b->next_seq));
  for (uint32_t i = 0; i < n; ++i) dump_one(fd, nth(b, i));
  return c.ret(static_cast<int>(n));
}

HADRA_PLAT_API void plat_test_hist_set_debug_elem(uint32_t elem, int on) noexcept {
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  set_member(r.debug_elems, elem, on != 0);
}

HADRA_PLAT_API void plat_test_hist_filter_event(uint32_t event, int filtered) noexcept {
  Registry& r = reg();
  std::lock_guard<std::mutex> lock(r.mu);
  set_member(r.filtered_events, event, filtered != 0);
}

}  // extern "C"

namespace hadra::plat::hist {

void note_sync(uint32_t kind, uint32_t sap, uint32_t epoch, uint64_t ha_seqno, uint32_t opcode, const void* payload,
               uint32_t len) noexcept {
  if ((kind != kSent && kind != kApplied) || (payload == nullptr && len > 0)) return;
  // The daemons' own traffic on the peer link is not a service's sync stream.
  if (opcode >= SYSMGR_SAP && opcode <= SYSMGR_SAP + 0xff) return;
  ring::Writer& w = ring::writer();
  // The digest is taken before the lock: the payload is the caller's, and hashing it is the
  // only part of the note that grows with the message.
  if (w.off.load(std::memory_order_relaxed)) return;
  const uint64_t digest = XXH3_64bits(payload, len);
  std::lock_guard<std::mutex> lock(w.mu);
  if (!w.tried) ring::open_locked(w);
  // Of what the service sends on its stream, only its sync messages (the library's opcode);
  // the notifications of its SDBs travel there too. What the receive loop applied was one.
  if (w.hdr == nullptr || (kind == kSent && (w.handle == nullptr || w.handle[2] != opcode))) return;
  uint64_t seq;
  RingRec* r = ring::begin_locked(w, &seq);
  if (r == nullptr) return;
  const uint8_t index = len > 0 ? static_cast<const uint8_t*>(payload)[0] : 0;
  r->kind = kind, r->sap = sap, r->epoch = epoch, r->ha_seqno = ha_seqno, r->opcode = opcode, r->len = len;
  r->digest = digest, r->index = index, r->text[0] = '\0';
  if (index >= 1 && index <= kRingMaxIndex) {
    ring::name_locked(w, index);
    RingDb& d = w.hdr->db[index];
    std::atomic<uint64_t>& msgs = kind == kSent ? d.sent_msgs : d.applied_msgs;
    std::atomic<uint64_t>& bytes = kind == kSent ? d.sent_bytes : d.applied_bytes;
    msgs.store(msgs.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    bytes.store(bytes.load(std::memory_order_relaxed) + len, std::memory_order_relaxed);
    (kind == kSent ? d.last_sent_ns : d.last_applied_ns).store(r->time_ns, std::memory_order_relaxed);
  }
  ring::end_locked(w, r, seq);
}

}  // namespace hadra::plat::hist
