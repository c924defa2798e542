// Rate limiter of error reports.
//
// A report is keyed by its descriptor and its parameters, rendered with the descriptor's
// param_format: the same failure on the same object is one key, the same failure on
// another object another. Each key may log `burst` lines per window of `interval`; the
// window starts with the first line of the key and a new one starts with the first line
// after it has passed. Lines beyond the burst are suppressed and counted; when the key logs
// again in a later window, a line saying how many were dropped goes out first.
//
// The table is bounded (kSlots keys). When it is full, the key used least recently makes
// room; if it had suppressed lines, their count is logged then, so no suppression goes
// unmentioned. Time is the platform clock, so tests can freeze and move it.
//
// Counts are never left waiting for the next line of their key: a flusher thread, started
// when a line is first suppressed and ending when nothing is pending, says each count once its
// window has passed (at most a window plus kFlushEvery later), and what is still pending at
// exit or when the library is unloaded is said then.
//
// A burst or interval of 0 turns the limiter off.
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "common/call.h"
#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "hadra_platform_testing.h"
#include "log/log_internal.h"

namespace {

constexpr size_t kSlots = 256;
constexpr size_t kKeyMax = 256;
constexpr unsigned kDefaultBurst = 3;
constexpr long kDefaultIntervalMs = 1000;
// The flusher looks at the table at least this often (real time), and at least every window.
constexpr auto kFlushEvery = std::chrono::milliseconds(200);

struct Slot {
  const syslog_msg_desc* desc = nullptr;  // null: free
  uint64_t hash = 0;
  uint64_t window_start = 0;
  uint64_t last_used = 0;  // tick of the last lookup, for eviction
  uint32_t in_window = 0;
  uint32_t suppressed = 0;
  char key[kKeyMax] = {};
};

struct Limiter {
  std::mutex mu;
  std::condition_variable cv;
  Slot slots[kSlots];
  uint64_t tick = 0;
  bool configured = false;  // burst and interval read from configuration or set by a test
  unsigned burst = kDefaultBurst;
  uint64_t interval_ns = kDefaultIntervalMs * 1000000ull;
  uint32_t pending = 0;    // keys with suppressed lines not yet said
  bool flusher = false;    // a flusher thread of this process is running
  bool stop = false;       // exit or unload: the flusher ends
  bool joinable = false;   // thread is a flusher that ended or runs, not yet joined
  pthread_t thread{};
  Limiter* parent = nullptr;  // in a child of fork(): the parent's table, kept reachable
};

// Never destroyed: reports may come during exit. A child of fork() replaces it (below).
Limiter*& limiter_ptr() {
  static Limiter* l = new Limiter();
  return l;
}
Limiter& limiter() { return *limiter_ptr(); }

// A count of dropped lines to be said, with what it is about.
struct Dropped {
  uint32_t count = 0;
  const syslog_msg_desc* desc = nullptr;
  char key[kKeyMax] = {};
};

struct Decision {
  bool allowed = true;
  Dropped evicted;  // of the key that made room
  Dropped resumed;  // of this key, now allowed again
};

uint64_t hash_of(const syslog_msg_desc* desc, const char* key) {
  uint64_t h = 1469598103934665603ull ^ reinterpret_cast<uintptr_t>(desc);
  for (const char* p = key; *p != '\0'; ++p) h = (h ^ static_cast<unsigned char>(*p)) * 1099511628211ull;
  return h;
}

void configure_locked(Limiter& l) {
  if (l.configured) return;
  long burst = plat_config_get_long("RATE_BURST", kDefaultBurst);
  long ms = plat_config_get_long("RATE_INTERVAL_MS", kDefaultIntervalMs);
  l.burst = burst < 0 ? 0 : static_cast<unsigned>(burst);
  l.interval_ns = ms < 0 ? 0 : static_cast<uint64_t>(ms) * 1000000ull;
  l.configured = true;
}

void take_dropped(Limiter& l, Slot& s, Dropped& out) {
  out.count = s.suppressed;
  out.desc = s.desc;
  std::memcpy(out.key, s.key, sizeof out.key);
  if (s.suppressed > 0) --l.pending;
  s.suppressed = 0;
}

void* flusher_main(void*);

// Called with the lock held when a key suppressed its first line. The thread is a plain
// joinable one, so that unloading the library can wait until none of its code runs.
void start_flusher_locked(Limiter& l) {
  ++l.pending;
  if (l.flusher || l.stop) return;
  if (l.joinable) {
    pthread_join(l.thread, nullptr);  // one that found nothing left to say: already on its way out
    l.joinable = false;
  }
  // Without a thread the count is said with the key's next line, or at exit.
  if (pthread_create(&l.thread, nullptr, &flusher_main, &l) == 0) l.flusher = l.joinable = true;
}

// The slot of (desc, key): found, free, or taken from the least recently used key.
Slot& slot_for(Limiter& l, const syslog_msg_desc* desc, const char* key, uint64_t now, Decision& d) {
  uint64_t h = hash_of(desc, key);
  Slot* victim = &l.slots[0];
  for (Slot& s : l.slots) {
    if (s.desc == desc && s.hash == h && std::strcmp(s.key, key) == 0) return s;
    if (victim->desc != nullptr && (s.desc == nullptr || s.last_used < victim->last_used)) victim = &s;
  }
  if (victim->desc != nullptr && victim->suppressed > 0) take_dropped(l, *victim, d.evicted);
  *victim = Slot{};
  victim->desc = desc;
  victim->hash = h;
  victim->window_start = now;
  std::snprintf(victim->key, sizeof victim->key, "%s", key);
  return *victim;
}

Decision decide(const syslog_msg_desc* desc, const char* key, uint64_t now) {
  Decision d;
  Limiter& l = limiter();
  std::lock_guard<std::mutex> lock(l.mu);
  configure_locked(l);
  if (l.burst == 0 || l.interval_ns == 0) return d;
  Slot& s = slot_for(l, desc, key, now, d);
  s.last_used = ++l.tick;
  if (now - s.window_start >= l.interval_ns) {
    s.window_start = now;
    s.in_window = 0;
  }
  if (s.in_window < l.burst) {
    ++s.in_window;
    if (s.suppressed > 0) take_dropped(l, s, d.resumed);
  } else {
    if (s.suppressed++ == 0) start_flusher_locked(l);
    d.allowed = false;
  }
  return d;
}

void say_dropped(const Dropped& x) {
  if (x.count == 0) return;
  const syslog_msg_format* f = x.desc->fmt;
  hadra::plat::log::writef(f != nullptr ? f->level : static_cast<int>(PLAT_LOG_WARNING), "%s: %u similar message%s suppressed (%s)",
                           f != nullptr ? f->mnemonic : x.desc->name, x.count, x.count == 1 ? "" : "s", x.key);
}

// The counts whose window has passed (all of them when everything), taken from the table.
std::vector<Dropped> take_due(Limiter& l, bool everything) {
  std::vector<Dropped> out;
  if (l.pending == 0) return out;
  const uint64_t now = plat_now_ns();
  for (Slot& s : l.slots) {
    if (s.desc == nullptr || s.suppressed == 0) continue;
    if (!everything && now - s.window_start < l.interval_ns) continue;
    out.emplace_back();
    take_dropped(l, s, out.back());
  }
  return out;
}

void* flusher_main(void* arg) {
  auto& l = *static_cast<Limiter*>(arg);
  for (;;) {
    std::vector<Dropped> due;
    {
      std::unique_lock<std::mutex> lock(l.mu);
      auto wait = std::chrono::nanoseconds(l.interval_ns);
      if (wait > kFlushEvery || wait.count() == 0) wait = kFlushEvery;
      if (!l.stop) l.cv.wait_for(lock, wait);
      if (!l.stop) due = take_due(l, false);
      if (l.stop || (due.empty() && l.pending == 0)) {
        l.flusher = false;
        return nullptr;
      }
    }
    for (const Dropped& x : due) say_dropped(x);
  }
}

// At exit and when the library is unloaded: nothing suppressed goes unmentioned, and the
// flusher has ended before the code it runs goes away.
__attribute__((destructor)) void flush_at_exit() {
  Limiter& l = limiter();
  std::vector<Dropped> due;
  bool join = false;
  {
    std::lock_guard<std::mutex> lock(l.mu);
    due = take_due(l, true);
    l.stop = true;
    join = l.joinable;
    l.joinable = false;
    l.cv.notify_all();
  }
  for (const Dropped& x : due) say_dropped(x);
  if (join) pthread_join(l.thread, nullptr);
}

// A child of fork() has no flusher, and the parent's lock may have been held by a thread that
// is not there: the child starts from a fresh table with the same settings (its parent's
// counts are its parent's to say).
void after_fork_child() {
  Limiter*& p = limiter_ptr();
  auto* fresh = new Limiter();
  fresh->configured = p->configured;
  fresh->burst = p->burst;
  fresh->interval_ns = p->interval_ns;
  fresh->parent = p;
  p = fresh;  // the old one is left as it is: its lock may never be free again
}

void reset() {
  Limiter& l = limiter();
  std::lock_guard<std::mutex> lock(l.mu);
  for (Slot& s : l.slots) s = Slot{};
  l.tick = 0;
  l.pending = 0;
  l.configured = false;
}

const bool g_registered = (hadra::plat::register_reset(&reset), pthread_atfork(nullptr, nullptr, &after_fork_child), true);

}  // namespace

namespace hadra::plat::log {
namespace {

// The platform's own lines that may repeat (a store that keeps failing, refused frames): one
// descriptor, keyed by what the caller names.
const syslog_msg_format kPlatformFormat = {"platform", "%s", PLAT_LOG_ERR, {}};
const syslog_msg_desc kPlatformLine = {0, 0, "platform", "%s", "a platform line that may repeat", PLAT_LOG_ERR, 0,
                                       {}, &kPlatformFormat};

}  // namespace

void limited_writef(const char* key, int level, const char* fmt, ...) noexcept {
  if (fmt == nullptr || !wanted()) return;
  Decision d = decide(&kPlatformLine, key != nullptr ? key : "", plat_now_ns());
  say_dropped(d.evicted);
  say_dropped(d.resumed);
  if (!d.allowed) return;
  va_list ap;
  va_start(ap, fmt);
  vwritef(level, fmt, ap);
  va_end(ap);
}

}  // namespace hadra::plat::log

extern "C" {

HADRA_PLAT_API int syslog_msg_rate_limit(const syslog_msg_desc* desc, ...) noexcept {
  hadra::plat::Call c("log", "syslog_msg_rate_limit", 0);
  c.args("msg=%s", desc != nullptr && desc->name != nullptr ? desc->name : "null");
  if (c.faulted()) return c.fail<int>();
  if (desc == nullptr) return c.ret(0);
  // The reporter reads the facility name right after this answer: make it the final one.
  hadra::plat::log::facility_settle();
  char key[kKeyMax] = "";
  if (desc->param_format != nullptr) {
    va_list ap;
    va_start(ap, desc);
    std::vsnprintf(key, sizeof key, desc->param_format, ap);
    va_end(ap);
  }
  Decision d = decide(desc, key, plat_now_ns());
  say_dropped(d.evicted);
  say_dropped(d.resumed);
  return c.ret(d.allowed ? 1 : 0);
}

HADRA_PLAT_API void plat_test_log_set_rate_limit(unsigned burst, uint64_t interval_ns) noexcept {
  Limiter& l = limiter();
  std::lock_guard<std::mutex> lock(l.mu);
  for (Slot& s : l.slots) s = Slot{};
  l.pending = 0;
  l.burst = burst;
  l.interval_ns = interval_ns;
  l.configured = true;
}

}  // extern "C"
