// Diagnostics of the library: debug log, history trace and error reports.
//
// Every subsystem reports through these three channels:
//
//   HADRA_DBG("Disabling PSS %s\n", name);
//       The debug log and the history trace. The format is the debug form: while
//       hadra_debug_ha is set it goes to plat_syslog() at level 6 as it stands. While
//       hadra_sdwrap_dbg_elem is set, the trace form "%s: " + debug form is formatted with the
//       calling thread's tag "[tid]" into a 200-byte text and recorded in the history buffer
//       hadra_sdwrap_dbg_buf under the client's uuid and event HADRA_HA_HIST_EVENT.
//
//   HADRA_DUMP("key %s\n", printable_key);
//       A record dump (PSS writers, for each key they change): the same debug line, but the
//       history record has a 512-byte text without thread tag, goes through the platform's
//       event filter into the default history buffer, and is echoed through dbgout() when
//       the element asks for debug printing.
//
//   hadra::report(msg_error_HADRA_INVALID_ARG, 0, "hadra_pss_update: ...");
//       A numbered, rate-limited platform message, written whatever the switches. The
//       parameters must match the descriptor's parameter format in the platform catalogue;
//       only int, unsigned and C strings are accepted (a compile-time check). A caller that
//       must build a text parameter first asks hadra::report_wanted(desc) so that it formats
//       nothing when the report would be dropped anyway.
//
// Cost while the switches are off: HADRA_DBG and HADRA_DUMP are two loads and a not-taken
// branch; their arguments are not even evaluated, nothing is formatted and no platform call
// is made. Format strings are checked by the compiler at each call site (string-literal
// concatenation into printf-attributed calls), so both macros take a string literal only.
//
// Nothing here locks: the history record and the report's facility buffer and parameter
// record are shared by the whole process, like the rest of the library's state.
#pragma once

#include <cstdint>
#include <type_traits>

#include "hadra/diag.h"
#include "hadra/handle.h"
#include "hadra_platform/log.h"

namespace hadra {

// Trace record handed to the platform: element word, then the NUL-terminated text.
struct TraceRecord {
  uint32_t elem;
  char text[200];
};
static_assert(sizeof(TraceRecord) == 204 && offsetof(TraceRecord, text) == 4, "trace record layout");

// Record-dump record: as the trace record with a larger text and no thread tag.
struct DumpRecord {
  uint32_t elem;
  char text[512];
};
static_assert(sizeof(DumpRecord) == 516 && offsetof(DumpRecord, text) == 4, "dump record layout");

// Out-of-line halves of HADRA_DBG / HADRA_DUMP; call them through the macros only.
//
// trace_fmt is the trace form and must begin with "%s: "; the first argument after it is
// the one for that "%s" (the macros pass ""; the thread tag takes its place).
[[gnu::cold, gnu::noinline]] void diag_trace(const char *trace_fmt, ...) noexcept
    __attribute__((format(printf, 1, 2)));
// Records the dump text in the default history buffer (unless the event is filtered out);
// returns true when the element also wants the text through dbgout().
[[gnu::cold, gnu::noinline]] bool diag_dump_hist(const char *fmt, ...) noexcept __attribute__((format(printf, 1, 2)));

}  // namespace hadra

// The arguments are evaluated once, and only when a switch is on: they go through a generic
// lambda, inside which the printf-attributed calls are still checked against the literal.
#define HADRA_DBG(fmt, ...)                                                                   \
  do {                                                                                        \
    if (__builtin_expect((hadra_debug_ha | hadra_sdwrap_dbg_elem) != 0, 0))                   \
      [](auto... hadra_dbg_a_) {                                                              \
        if (hadra_debug_ha != 0) plat_syslog(PLAT_LOG_INFO, fmt, hadra_dbg_a_...);            \
        if (hadra_sdwrap_dbg_elem != 0) ::hadra::diag_trace("%s: " fmt, "", hadra_dbg_a_...); \
      }(__VA_ARGS__);                                                                         \
  } while (0)

#define HADRA_DUMP(fmt, ...)                                                                  \
  do {                                                                                        \
    if (__builtin_expect((hadra_debug_ha | hadra_sdwrap_dbg_elem) != 0, 0))                   \
      [](auto... hadra_dbg_a_) {                                                              \
        if (hadra_debug_ha != 0) plat_syslog(PLAT_LOG_INFO, fmt, hadra_dbg_a_...);            \
        if (hadra_sdwrap_dbg_elem != 0 && ::hadra::diag_dump_hist(fmt, hadra_dbg_a_...))      \
          dbgout(1, sdwrap_dbg_modname, 0, fmt, hadra_dbg_a_...);                             \
      }(__VA_ARGS__);                                                                         \
  } while (0)

namespace hadra {

// Text for a URI argument in debug lines: the URI, or "(null)".
inline const char *uri_text(const char *uri) noexcept { return uri != nullptr ? uri : "(null)"; }

// True when a report of d would get past the facility checks (a facility is set up and its
// level reaches d's threshold). The rate limiter may still refuse it.
inline bool report_wanted(const syslog_msg_desc &d) noexcept {
  const sdwrap_facility *f = sdwrap_sys_facility;
  return f != nullptr && f->level >= d.severity;
}

// Upper-case copy of the facility name, at most 99 characters, in the library's static
// buffer (rewritten by every report). Null facility or name gives "".
const char *facility_name_upper() noexcept;

// Fills the platform's message-parameter record for the report about to be written.
void report_fill_params() noexcept;

template <class T>
inline constexpr bool is_report_param_v =
    std::is_same_v<T, int> || std::is_same_v<T, unsigned> || std::is_same_v<T, const char *> ||
    std::is_same_v<T, char *>;

// Error report of descriptor d with its parameters: facility checks, rate limiter, the
// parameter record, the line at the level of d's format record, and a traceback when d
// asks for one. Never fails; the caller returns its own failure result afterwards. Kept out
// of line: reports sit on failure paths, and one copy per parameter signature is enough.
template <class... P>
[[gnu::cold, gnu::noinline]] void report(const syslog_msg_desc &d, P... params) noexcept {
  static_assert(sizeof...(P) >= 1, "a report carries at least one parameter");
  static_assert((is_report_param_v<P> && ...), "report parameters are int, unsigned or C strings");
  if (!report_wanted(d)) return;
  if (syslog_msg_rate_limit(&d, params...) != 1) return;
  const syslog_msg_format *fmt = d.fmt;
  if (fmt == nullptr || fmt->format == nullptr) return;  // a descriptor without text has no line
  report_fill_params();
  const char *facility = facility_name_upper();
  const int level = fmt->level;
  plat_syslog(level, fmt->format, facility, level, params...);
  if ((d.flags & SYSLOG_MSG_FLAG_TRACEBACK) != 0) syslog_traceback(0, facility, level, d.traceback_word);
}

}  // namespace hadra
