// Whole PSS files as the library handles them: probe, create, open, close, copy, destroy.
//
// The exported calls are declared in include/hadra/lifecycle.h; this header adds what other
// parts of the library share with them. Every file the library creates is limited to
// HADRA_PSS_MAX_DBSIZE, and a copy is created with its source's parameter record, so that a
// file rebuilt from a snapshot or a startup configuration behaves like its source.
//
// Handles: a handle given to a caller is the caller's to close. Handles opened only for the
// length of an operation (probe, the destination of a copy, a startup file) are closed before
// the operation returns, whatever its outcome: the platform keeps an LMDB environment and its
// file descriptors open for as long as one handle on the file is.
#pragma once

#include <cstdint>

#include "hadra/lifecycle.h"
#include "hadra_platform/pss.h"

namespace hadra {

// The record a copy starts from before pss2_get_params fills it from the source: version 8,
// 32, chunk 30, no flags, no size. Only what the platform writes over it matters in the
// end; the starting values are kept so that a platform which fills less still gets a
// well-formed record.
inline pss2_params initial_copy_params() noexcept {
  pss2_params p{};
  p.version = PSS2_PARAMS_VERSION;
  p.max_key_len = 32;
  p.snapshot_chunk = 30;
  p.flags = 0;
  p.max_dbsize_mib = 0;
  return p;
}

// Close a handle that may already have been closed behind the library's back (a destroyed
// file's handles are closed by the platform), without a report; sets it to 0. For handles
// the library holds but whose fate it cannot know, never instead of hadra_pss_close().
void pss_release_handle(uint32_t &handle) noexcept;

// Text for a URI argument in debug lines: the URI, or "(null)".
inline const char *uri_text(const char *uri) noexcept { return uri != nullptr ? uri : "(null)"; }

}  // namespace hadra
