// Whole PSS files as the library handles them: probe, create, open, close, copy, destroy.
//
// The exported calls (include/hadra/lifecycle.h) are thin faces of the functions below, which
// the rest of the library calls directly. Every file the library creates is limited to
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

namespace hadra::pss {

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

// As hadra_pss_exist, hadra_pss_create, hadra_pss_open, hadra_pss_close and
// hadra_pss_snapshot_to_uri (include/hadra/lifecycle.h).
int exist(const char *uri, uint32_t uuid) noexcept;
int create(const char *uri, const pss2_params *params, uint32_t *out_handle) noexcept;
int open(const char *uri, uint32_t *out_handle) noexcept;
int close(uint32_t handle) noexcept;
int snapshot_to_uri(uint32_t source_handle, const char *dest_uri) noexcept;

// Destroy whatever is stored at uri, a PSS file or an SDB, as hadra_sdb_uri_destroy: the PSS
// layer's type query tells which, so this lives with the PSS files. 1 when destroyed.
int destroy_uri(const char *uri) noexcept;
// The same with a debug line when something was destroyed, as hadra_destroy_uri.
void destroy_uri_told(const char *uri) noexcept;

// Close a handle that may already have been closed behind the library's back (a destroyed
// file's handles are closed by the platform), without a report; sets it to 0. For handles
// the library holds but whose fate it cannot know, never instead of close().
void release_handle(uint32_t &handle) noexcept;

}  // namespace hadra::pss
