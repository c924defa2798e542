// Diagnostics: the exported switches and the out-of-line halves of the three report
// channels (see diag.h for how callers use them).
#include "core/diag.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/reset.h"
#include "hadra_platform/strutil.h"

extern "C" {
HADRA_API uint32_t hadra_debug_ha = 0;
HADRA_API uint32_t hadra_sdwrap_dbg_elem = 0;
HADRA_API void *hadra_sdwrap_dbg_buf = nullptr;

// Upper-case facility name of the report being written; library-internal.
char hadra_facility_name_upper[100];

HADRA_API void hadra_ha_enable_debug(void) noexcept { hadra_debug_ha = 1; }

HADRA_API void hadra_ha_disable_debug(void) noexcept { hadra_debug_ha = 0; }

HADRA_API void hadra_sdwrap_dbg_elem_set(uint32_t elem, void *buf) noexcept {
  hadra_sdwrap_dbg_elem = elem;
  hadra_sdwrap_dbg_buf = buf;
}
}

namespace hadra {

namespace {

constexpr char kTraceTagPrefix[] = "%s: ";
constexpr size_t kTraceTagPrefixLen = sizeof(kTraceTagPrefix) - 1;

void reset_diag() noexcept {
  hadra_debug_ha = 0;
  hadra_sdwrap_dbg_elem = 0;
  hadra_sdwrap_dbg_buf = nullptr;
  std::memset(hadra_facility_name_upper, 0, sizeof hadra_facility_name_upper);
}
HADRA_RESET_HOOK(reset_diag);

// Record length as the platform expects it: element word, text and its NUL.
uint32_t record_length(const char *text) noexcept {
  return static_cast<uint32_t>(sizeof(uint32_t) + std::strlen(text) + 1);
}

}  // namespace

void diag_trace(const char *trace_fmt, ...) noexcept {
  TraceRecord rec;
  rec.elem = hadra_sdwrap_dbg_elem;
  char tag[16];
  std::snprintf(tag, sizeof tag, "[%u]", static_cast<unsigned>(hadra_get_thread_pid()));

  // The trace form's leading "%s: " takes the thread tag; the caller passed a placeholder
  // for it so that its own arguments follow and can be handed on as they are. Writing the
  // tag part here and formatting the rest gives the same text as formatting the whole form
  // with the tag, cut at the same 200 bytes.
  va_list ap;
  va_start(ap, trace_fmt);
  (void)va_arg(ap, const char *);
  const char *body = trace_fmt;
  if (std::strncmp(trace_fmt, kTraceTagPrefix, kTraceTagPrefixLen) == 0) body += kTraceTagPrefixLen;
  int n = std::snprintf(rec.text, sizeof rec.text, "%s: ", tag);
  if (n > 0 && static_cast<size_t>(n) < sizeof rec.text)
    std::vsnprintf(rec.text + n, sizeof rec.text - static_cast<size_t>(n), body, ap);
  va_end(ap);

  sdwrap_his_log_event_for_uuid_inst(hadra_ha_handle.uuid, HADRA_HA_HIST_EVENT, hadra_sdwrap_dbg_buf, 0,
                                     record_length(rec.text), &rec);
}

bool diag_dump_hist(const char *fmt, ...) noexcept {
  const uint32_t elem = hadra_sdwrap_dbg_elem;
  if (sdwrap_hist_event_subtype_check(HADRA_HA_HIST_EVENT, elem) == 0) {
    DumpRecord rec;
    rec.elem = elem;
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(rec.text, sizeof rec.text, fmt, ap);
    va_end(ap);
    sdwrap_hist_event(HADRA_HA_HIST_EVENT, record_length(rec.text), &rec);
  }
  return sdwrap_chk_int(elem, 0, 0, 1) != 0;
}

const char *facility_name_upper() noexcept {
  char *out = hadra_facility_name_upper;
  const sdwrap_facility *f = sdwrap_sys_facility;
  const char *name = f != nullptr ? f->name : nullptr;
  size_t len = name != nullptr ? std::strlen(name) : 0;
  if (len > sizeof hadra_facility_name_upper - 1) len = sizeof hadra_facility_name_upper - 1;
  const int32_t *upper = *__ctype_toupper_loc();
  out[len] = '\0';
  // From the last character back to the first, as the buffer has always been filled.
  for (size_t i = len; i-- > 0;) out[i] = static_cast<char>(upper[static_cast<unsigned char>(name[i])]);
  return out;
}

void report_fill_params() noexcept {
  unsigned char *p = syslog_vmsg_params;
  std::memset(p, 0, sizeof syslog_vmsg_params);
  const uint32_t one = 1;
  const uint32_t zero = 0;
  std::memcpy(p + 0, &one, sizeof one);
  std::memcpy(p + 16, &zero, sizeof zero);
  std::memcpy(p + 20, &zero, sizeof zero);
  // A bounded copy of 40 bytes that adds no terminator when the preamble fills them; the
  // rest of the field is already zero.
  std::memcpy(p + 24, syslog_preamble, strnlen(syslog_preamble, 40));
  std::memcpy(p + 64, &one, sizeof one);
  p[72] = ' ';
  p[73] = ' ';
}

}  // namespace hadra
