// Pieces shared by the PSS record operations: the HA-state gate, the reports of bad
// arguments and refused states, and bounded views of the entry's texts.
//
// Every report helper here is cold and out of line: the operations call them only on their
// failure paths, and the success path stays a few loads and branches around the platform
// call. Texts are formatted only when the report would get past the facility checks.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "hadra/pss.h"

namespace hadra::pss {

// The writers as the library calls them, with every check of their exported forms
// (hadra_pss_update, hadra_pss_delete, hadra_pss_delete_range, hadra_pss_purge).
int update(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len, const void *data,
           uint32_t data_len) noexcept;
int remove(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len) noexcept;
int remove_range(hadra_ha_pss_entry *entry, const void *prefix, uint32_t prefix_len) noexcept;
int purge(hadra_ha_pss_entry *entry) noexcept;

// One argument as a bad-argument report shows it: a pointer as "present"/"missing", a length
// as its number. Raw pointers never reach a text.
struct ShownArg {
  const char *name;
  bool is_len;
  bool present;  // pointers
  uint32_t len;  // lengths
};
inline ShownArg ptr_arg(const char *name, const void *p) noexcept { return {name, false, p != nullptr, 0}; }
inline ShownArg len_arg(const char *name, uint32_t n) noexcept { return {name, true, false, n}; }

// msg_error_HADRA_INVALID_ARG with "<fn>: Arguments - entry present, key missing, ..." .
[[gnu::cold, gnu::noinline]] void report_bad_args(const char *fn, std::initializer_list<ShownArg> args) noexcept;

// msg_error_HADRA_INVALID_ARG with a free text (fn and what was wrong).
[[gnu::cold, gnu::noinline]] void report_bad_arg_text(const char *fn, const char *what, uint32_t value,
                                                      uint32_t limit) noexcept;

// msg_error_HADRA_API_FAILED_HA: (state text, fn, entry name, entry URI).
[[gnu::cold, gnu::noinline]] void report_disabled(const hadra_ha_pss_entry *e, const char *fn) noexcept;

// msg_error_HADRA_PSS_HA: a read call of the PSS layer failed with status.
[[gnu::cold, gnu::noinline]] void report_read_failure(const char *call, uint32_t status) noexcept;

// A text field of the entry as a C string. The entry is an exported record that clients may
// write; a field without its terminator shows as "?" instead of being read past its end.
template <size_t N>
inline const char *field_text(const char (&field)[N]) noexcept {
  return std::memchr(field, '\0', N) != nullptr ? field : "?";
}

inline bool is_disabled(const hadra_ha_pss_entry *e) noexcept { return e->state == HADRA_HA_DISABLE; }

// Whether a change of this entry goes to the standby at all.
inline bool is_synced(const hadra_ha_pss_entry *e) noexcept { return e->no_sync == 0 && e->local_only == 0; }

// A datum over caller's bytes. The platform's datum has a mutable pointer for historical
// reasons; neither the store nor the sync sender writes through it.
inline datum as_datum(const void *p, uint32_t n) noexcept { return datum{const_cast<void *>(p), n}; }

}  // namespace hadra::pss
