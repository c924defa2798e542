// Whole PSS files: probe, create, open, close, copy into a new file, and destroying whatever
// is stored at a URI.
//
// These are the building blocks of start-up, disabling, the gsync snapshot and the
// configuration write. Each failure is told where it happens: a debug line (only while a
// debug switch is on) and, where the operator must know, an error report with the URI and
// the platform's text for the error.
#include "pss/file.h"

#include "core/diag.h"
#include "core/handle.h"
#include "hadra_platform/strutil.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform/tsp.h"

namespace hadra::pss {
namespace {

// Platform text of an error code; never null, so that it can go to a "%s" whatever the
// string table answers.
const char *err_text(uint32_t code) noexcept {
  const char *t = hadra_syserr2str(code, 0);
  return t != nullptr ? t : "unknown error";
}

// The SDB layer's text, as the SDB code words its destroy failures.
const char *sdb_err_text(uint32_t code) noexcept {
  const char *t = syserr2str(code);
  return t != nullptr ? t : "unknown error";
}

// A file whose size limit cannot be set is taken away again: left behind it would be an
// unlimited file that later start-ups keep using.
int undo_create(const char *uri, uint32_t handle, uint32_t error) noexcept {
  HADRA_DBG("pss hadra_pss_create pss2_set_max_dbsize failed: %s\n", err_text(error));
  if (report_wanted(msg_error_HADRA_PSS_SET_DBSIZE))
    report(msg_error_HADRA_PSS_SET_DBSIZE, HADRA_PSS_MAX_DBSIZE, uri, err_text(error));
  close(handle);
  destroy_uri_told(uri);
  return 0;
}

uint32_t timed_snapshot(uint32_t source_handle, uint32_t dest_handle) noexcept {
  const bool yield = handle_flag(HADRA_HA_FLAG_SNAPSHOT_YIELD);
  if (yield) tsp_before_yield();
  const uint32_t error = pss2_snapshot(source_handle, dest_handle);
  if (yield) tsp_after_yield();
  return error;
}

}  // namespace

int open(const char *uri, uint32_t *out_handle) noexcept {
  if (uri == nullptr || out_handle == nullptr) return 0;
  uint32_t error = 0;
  *out_handle = pss2_open(uri, PSS2_OPEN_FLAGS_OPEN, hadra_ha_handle.uuid, 0, nullptr, &error);
  if (error == 0) return 1;
  if (report_wanted(msg_error_HADRA_PSS_OPEN)) report(msg_error_HADRA_PSS_OPEN, uri, err_text(error));
  return 0;
}

int close(uint32_t handle) noexcept {
  if (handle == 0) return 0;
  const uint32_t error = pss2_close(handle);
  if (error == 0) return 1;
  HADRA_DBG("pss hadra_pss_close failed : %s\n", err_text(error));
  if (report_wanted(msg_error_HADRA_PSS_CLOSE)) report(msg_error_HADRA_PSS_CLOSE, err_text(error));
  return 0;
}

int create(const char *uri, const pss2_params *params, uint32_t *out_handle) noexcept {
  if (uri == nullptr || out_handle == nullptr) {
    HADRA_DBG("pss hadra_pss_create invalid handle: %d, uri: %s\n",
              out_handle != nullptr ? static_cast<int>(*out_handle) : 0, uri_text(uri));
    return 0;
  }
  uint32_t error = 0;
  *out_handle = pss2_open(uri, PSS2_OPEN_FLAGS_CREATE, hadra_ha_handle.uuid, 0, params, &error);
  if (error != 0) {
    HADRA_DBG("pss hadra_pss_create pss2_open failed: %s\n", err_text(error));
    if (report_wanted(msg_error_HADRA_PSS_CREATE)) report(msg_error_HADRA_PSS_CREATE, uri, err_text(error));
    return 0;
  }
  error = pss2_set_max_dbsize(*out_handle, HADRA_PSS_MAX_DBSIZE);
  if (error != 0) return undo_create(uri, *out_handle, error);
  HADRA_DBG("PSS %s created\n", uri);
  return 1;
}

int snapshot_to_uri(uint32_t source_handle, const char *dest_uri) noexcept {
  pss2_params params = initial_copy_params();
  if (source_handle == 0 || dest_uri == nullptr) {
    HADRA_DBG("pss invalid handle: %d, dest_uri: %s\n", static_cast<int>(source_handle), uri_text(dest_uri));
    return 0;
  }
  uint32_t error = pss2_get_params(source_handle, &params);
  if (error != 0) {
    HADRA_DBG("pss pss2_get_param failed : %s\n", err_text(error));
    if (report_wanted(msg_error_HADRA_PSS_GETPARAM)) report(msg_error_HADRA_PSS_GETPARAM, err_text(error));
    return 0;
  }
  uint32_t dest_handle = 0;
  if (create(dest_uri, &params, &dest_handle) == 0) {
    HADRA_DBG("pss hadra_pss_create failed: dest_uri: %s, dest_handle: %d\n", dest_uri,
              static_cast<int>(dest_handle));
    return 0;
  }
  error = timed_snapshot(source_handle, dest_handle);
  if (error == 0) {
    close(dest_handle);
    return 1;
  }
  HADRA_DBG("pss pss2_snapshot failed : %s\n", err_text(error));
  if (report_wanted(msg_error_HADRA_PSS_SNAPSHOT)) report(msg_error_HADRA_PSS_SNAPSHOT, dest_uri, err_text(error));
  // Closed on failure too: the handle is known only here, and an open handle would keep
  // the file's environment open for the life of the process.
  close(dest_handle);
  return 0;
}

int exist(const char *uri, uint32_t uuid) noexcept {
  if (uri == nullptr) return 0;
  uint32_t error = 0;
  const uint32_t handle = pss2_open(uri, PSS2_OPEN_FLAGS_PROBE, uuid, 0, nullptr, &error);
  // Closed whatever the open said: a failed open gives handle 0, which the platform refuses
  // harmlessly.
  (void)pss2_close(handle);
  return error == 0 ? 1 : 0;
}

int destroy_uri(const char *uri) noexcept {
  if (uri == nullptr) {
    HADRA_DBG("ERROR: hadra sdb destroy uri is null");
    return 0;
  }
  uint32_t other = 0;
  uint32_t rc = 0;
  const uint32_t type = pss2_get_psstype(uri, &other, &rc);
  if (rc != 0) {
    HADRA_DBG("ERROR: pss get type failed for %s uri with rc=%s\n", uri, sdb_err_text(rc));
    return 0;
  }
  if (type == PSS2_TYPE_PSS2) {
    rc = pss2_destroy(uri);
    if (rc != 0) {
      HADRA_DBG("ERROR: pss2(type %d) %s destroy failed with rc=%s\n", static_cast<int>(PSS2_TYPE_PSS2), uri,
                sdb_err_text(rc));
      return 0;
    }
    return 1;
  }
  rc = sdb_destroy(uri);
  if (rc != 0) {
    HADRA_DBG("ERROR: sdb(type %d) %s destroy failed with rc=%s\n", static_cast<int>(type), uri, sdb_err_text(rc));
    return 0;
  }
  return 1;
}

void destroy_uri_told(const char *uri) noexcept {
  if (uri != nullptr && destroy_uri(uri) != 0) HADRA_DBG("Destroyed %s\n", uri);
}

void release_handle(uint32_t &handle) noexcept {
  if (handle != 0) (void)pss2_close(handle);
  handle = 0;
}

}  // namespace hadra::pss

extern "C" {

HADRA_API int hadra_pss_exist(const char *uri, uint32_t uuid) noexcept { return hadra::pss::exist(uri, uuid); }

HADRA_API int hadra_pss_create(const char *uri, const pss2_params *params, uint32_t *out_handle) noexcept {
  return hadra::pss::create(uri, params, out_handle);
}

HADRA_API int hadra_pss_open(const char *uri, uint32_t *out_handle) noexcept {
  return hadra::pss::open(uri, out_handle);
}

HADRA_API int hadra_pss_close(uint32_t handle) noexcept { return hadra::pss::close(handle); }

HADRA_API int hadra_pss_snapshot_to_uri(uint32_t source_handle, const char *dest_uri) noexcept {
  return hadra::pss::snapshot_to_uri(source_handle, dest_uri);
}

HADRA_API void hadra_destroy_uri(const char *uri) noexcept { hadra::pss::destroy_uri_told(uri); }

HADRA_API int hadra_sdb_uri_destroy(const char *uri) noexcept { return hadra::pss::destroy_uri(uri); }

}  // extern "C"
