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
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "common/call.h"
#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "hadra_platform_testing.h"

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
