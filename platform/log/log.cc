// Logging calls of the platform: the log lines, the debug print, the traceback, and the
// process's facility with the records an error report fills.
//
// The facility record is exported and read by layout (name pointer at 0, level at 9), so it
// must hold a valid name from the moment the library is loaded: a constructor fills it with
// the program name, and the first report or line afterwards replaces that with the
// configured identity (LOG_IDENT), unless a test has chosen a facility of its own. Its level
// starts at debug (7): every report passes the threshold test until someone lowers it.
#include <execinfo.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "common/call.h"
#include "hadra_platform/log.h"
#include "hadra_platform_testing.h"
#include "log/log_internal.h"

namespace {

constexpr uint8_t kFacilityId = 1;
constexpr int kMaxFrames = 64;

char g_fac_name[256];  // room for long names: reporters cut them, not the platform
sdwrap_facility g_facility = {g_fac_name, kFacilityId, PLAT_LOG_DEBUG, {}};

struct FacilityState {
  std::mutex mu;
  bool settled = false;  // name taken from the configured identity
  bool custom = false;   // a test chose name and level
};

FacilityState& fac_state() {
  static auto* s = new FacilityState();
  return *s;
}

void fill_preamble(const char* name) {
  char host[64] = "localhost";
  if (gethostname(host, sizeof host) != 0) std::snprintf(host, sizeof host, "localhost");
  host[sizeof host - 1] = '\0';
  std::snprintf(syslog_preamble, sizeof syslog_preamble, "%.23s %.39s", host, name);
}

__attribute__((constructor)) void early_names() {
  const char* prog = program_invocation_short_name;
  std::snprintf(g_fac_name, sizeof g_fac_name, "%s", prog != nullptr && *prog != '\0' ? prog : "hadra");
  fill_preamble(g_fac_name);
}

int clamp_level(int level) { return level < PLAT_LOG_EMERG ? PLAT_LOG_EMERG : level > PLAT_LOG_DEBUG ? PLAT_LOG_DEBUG : level; }

void reset() {
  FacilityState& s = fac_state();
  std::lock_guard<std::mutex> lock(s.mu);
  s.settled = false;
  s.custom = false;
  early_names();
  g_facility.level = PLAT_LOG_DEBUG;
  sdwrap_sys_facility = &g_facility;
}

const bool g_registered = (hadra::plat::register_reset(&reset), true);

}  // namespace

namespace hadra::plat::log {

void facility_settle() noexcept {
  FacilityState& s = fac_state();
  std::lock_guard<std::mutex> lock(s.mu);
  if (s.settled) return;
  s.settled = true;
  if (s.custom) return;
  std::snprintf(g_fac_name, sizeof g_fac_name, "%s", ident());
  fill_preamble(g_fac_name);
}

namespace {

// The two exported line writers differ only in their names.
void log_call(const char* call, int level, const char* format, va_list ap) noexcept {
  Call c("log", call, 0);
  c.args("level=%d", level);
  if (c.faulted()) return (void)c.fail<int>();
  facility_settle();
  vwritef(level, format, ap);
  c.ret_void();
}

}  // namespace

}  // namespace hadra::plat::log

namespace lg = hadra::plat::log;

extern "C" {

HADRA_PLAT_API sdwrap_facility* sdwrap_sys_facility = &g_facility;
HADRA_PLAT_API unsigned char syslog_vmsg_params[1024];
HADRA_PLAT_API char syslog_preamble[64];
extern const char sdwrap_dbg_modname[] = "hadra_sysmgr";  // exported by its declaration

HADRA_PLAT_API void plat_syslog(int level, const char* format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  lg::log_call("plat_syslog", level, format, ap);
  va_end(ap);
}

HADRA_PLAT_API void syslog_log(int level, const char* format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  lg::log_call("syslog_log", level, format, ap);
  va_end(ap);
}

// A debug print is a debug-level line naming the module and the print level it came with.
HADRA_PLAT_API void dbgout(int level, const char* module, int flags, const char* format, ...) noexcept {
  hadra::plat::Call c("log", "dbgout", 0);
  c.args("level=%d flags=%d", level, flags);
  if (c.faulted()) return (void)c.fail<int>();
  if (format == nullptr || !lg::wanted()) return c.ret_void();
  char text[lg::kMaxLineText + 1];
  va_list ap;
  va_start(ap, format);
  int n = std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  if (n >= 0) lg::writef(PLAT_LOG_DEBUG, "dbg%d %s: %s", level, module != nullptr ? module : "-", text);
  c.ret_void();
}

HADRA_PLAT_API void syslog_traceback(int flags, const char* facility, int level, uint32_t word) noexcept {
  hadra::plat::Call c("log", "syslog_traceback", 0);
  c.args("flags=%d level=%d word=0x%08x", flags, level, word);
  if (c.faulted()) return (void)c.fail<int>();
  if (!lg::wanted()) return c.ret_void();
  const char* fac = facility != nullptr ? facility : "";
  level = clamp_level(level);
  void* frames[kMaxFrames];
  int n = backtrace(frames, kMaxFrames);
  char** syms = backtrace_symbols(frames, n);
  lg::writef(level, "%s: traceback 0x%08x, %d frames", fac, word, n > 0 ? n - 1 : 0);
  // Frame 0 is this function; the caller's frames follow.
  for (int i = 1; i < n; ++i) {
    if (syms != nullptr)
      lg::writef(level, "%s:   #%d %s", fac, i - 1, syms[i]);
    else
      lg::writef(level, "%s:   #%d %p", fac, i - 1, frames[i]);
  }
  std::free(syms);
  c.ret_void();
}

HADRA_PLAT_API void plat_test_log_set_facility(const char* name, int level) noexcept {
  FacilityState& s = fac_state();
  std::lock_guard<std::mutex> lock(s.mu);
  s.settled = true;
  s.custom = true;
  if (name == nullptr) {
    sdwrap_sys_facility = nullptr;
    return;
  }
  std::snprintf(g_fac_name, sizeof g_fac_name, "%s", name);
  g_facility.level = static_cast<uint8_t>(level < 0 ? 0 : level > 255 ? 255 : level);
  sdwrap_sys_facility = &g_facility;
}

}  // extern "C"
