// Reports of the PSS record operations (see ops.h).
#include <cstdio>

#include "core/diag.h"
#include "core/registry.h"
#include "hadra_platform/strutil.h"
#include "pss/ops.h"

namespace hadra::pss {

namespace {

// Long enough for the widest call (five arguments, each name plus "missing" or a number).
constexpr size_t kArgTextSize = 256;

}  // namespace

void report_bad_args(const char *fn, std::initializer_list<ShownArg> args) noexcept {
  if (!report_wanted(msg_error_HADRA_INVALID_ARG)) return;
  char text[kArgTextSize];
  int n = std::snprintf(text, sizeof text, "%s: Arguments -", fn);
  const char *sep = " ";
  for (const ShownArg &a : args) {
    if (n < 0 || static_cast<size_t>(n) >= sizeof text) break;
    char *at = text + n;
    const size_t room = sizeof text - static_cast<size_t>(n);
    n += a.is_len ? std::snprintf(at, room, "%s%s %u", sep, a.name, a.len)
                  : std::snprintf(at, room, "%s%s %s", sep, a.name, a.present ? "present" : "missing");
    sep = ", ";
  }
  report(msg_error_HADRA_INVALID_ARG, 0, static_cast<const char *>(text));
}

void report_bad_arg_text(const char *fn, const char *what, uint32_t value, uint32_t limit) noexcept {
  if (!report_wanted(msg_error_HADRA_INVALID_ARG)) return;
  char text[kArgTextSize];
  std::snprintf(text, sizeof text, "%s: %s %u exceeds %u", fn, what, value, limit);
  report(msg_error_HADRA_INVALID_ARG, 0, static_cast<const char *>(text));
}

void report_disabled(const hadra_ha_pss_entry *e, const char *fn) noexcept {
  report(msg_error_HADRA_API_FAILED_HA, state_text(e), fn, field_text(e->name), field_text(e->uri));
}

void report_read_failure(const char *call, uint32_t status) noexcept {
  report(msg_error_HADRA_PSS_HA, call, hadra_syserr2str(status, 0));
}

}  // namespace hadra::pss
