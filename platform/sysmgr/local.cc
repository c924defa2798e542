// The local view of the supervisor: what the read-only system-manager calls answer.
//
// Values come from configuration (SUPSTATE, RUNNING_URI, STARTUP_URI, FILE_PREFIX,
// STATEFUL, UUID; see config.h), read the first time any of them is asked for after start
// or a reset. A value of "none" or an empty value means "none" (the getter returns null).
// Test setters override single values. The view is one small record under a mutex; strings
// handed out point into it and stay valid until the value is set again.
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "common/call.h"
#include "hadra_platform/config.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/log.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform_testing.h"
#include "log/log_internal.h"
#include "sysmgr/sysmgr_internal.h"

namespace {

// A string value that may be "none".
struct Text {
  bool set = false;
  char value[SYSMGR_URI_MAX] = {};
};

struct View {
  std::mutex mu;
  bool loaded = false;
  int supstate = 1;
  Text running, startup, prefix;
  int stateful = 0;
  uint32_t uuid = 0;
};

View& view() {
  static auto* v = new View();
  return *v;
}

void assign(Text& t, const char* v) {
  t.set = v != nullptr && *v != '\0' && std::strcmp(v, "none") != 0;
  std::snprintf(t.value, sizeof t.value, "%s", t.set ? v : "");
}

// "active", "standby", "none", or the number itself.
int parse_supstate(const char* v) {
  if (strcasecmp(v, "active") == 0) return 1;
  if (strcasecmp(v, "standby") == 0) return 2;
  if (strcasecmp(v, "none") == 0) return 0;
  char* end = nullptr;
  long n = std::strtol(v, &end, 0);
  if (end != v && *end == '\0') return static_cast<int>(n);
  hadra::plat::log::writef(PLAT_LOG_WARNING, "sysmgr: SUPSTATE '%s' is not active, standby or none; using none", v);
  return 0;
}

void load_locked(View& v) {
  if (v.loaded) return;
  v.loaded = true;
  v.supstate = parse_supstate(plat_config_get("SUPSTATE", "active"));
  assign(v.running, plat_config_get("RUNNING_URI", "run:/"));
  assign(v.startup, plat_config_get("STARTUP_URI", nullptr));
  assign(v.prefix, plat_config_get("FILE_PREFIX", nullptr));
  v.stateful = plat_config_get_long("STATEFUL", 0) != 0 ? 1 : 0;
  v.uuid = static_cast<uint32_t>(plat_config_get_long("UUID", 0));
}

View& loaded() {
  View& v = view();
  std::lock_guard<std::mutex> lock(v.mu);
  load_locked(v);
  return v;
}

const char* text_of(const Text& t) { return t.set ? t.value : nullptr; }

// Run fn on the loaded view under its lock (for setters).
template <class F>
void update(F fn) {
  View& v = view();
  std::lock_guard<std::mutex> lock(v.mu);
  load_locked(v);
  fn(v);
}

void reset() {
  View& v = view();
  std::lock_guard<std::mutex> lock(v.mu);
  v.loaded = false;
}

const bool g_registered = (hadra::plat::register_reset(&reset), true);

}  // namespace

namespace hadra::plat::sysmgr {

uint32_t local_uuid() noexcept { return loaded().uuid; }

void set_local_supstate(int state) noexcept {
  update([&](View& v) { v.supstate = state; });
}

int local_supstate() noexcept { return loaded().supstate; }

}  // namespace hadra::plat::sysmgr

extern "C" {

HADRA_PLAT_API int sysmgr_supstate_get(void) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_supstate_get", 0);
  if (c.faulted()) return c.fail<int>();
  return c.ret(loaded().supstate);
}

HADRA_PLAT_API const char* sysmgr_running_cfg_uri_get(void) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_running_cfg_uri_get", 0);
  if (c.faulted()) return c.fail<const char*>();
  return c.ret(text_of(loaded().running));
}

HADRA_PLAT_API const char* sysmgr_startup_cfg_uri_get(void) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_startup_cfg_uri_get", 0);
  if (c.faulted()) return c.fail<const char*>();
  return c.ret(text_of(loaded().startup));
}

HADRA_PLAT_API const char* sysmgr_file_prefix_get(void) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_file_prefix_get", 0);
  if (c.faulted()) return c.fail<const char*>();
  return c.ret(text_of(loaded().prefix));
}

HADRA_PLAT_API int sysmgr_is_stateful_restart(void) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_is_stateful_restart", 0);
  if (c.faulted()) return c.fail<int>();
  return c.ret(loaded().stateful);
}

HADRA_PLAT_API uint32_t sysmgr_uuid_get_before_handshake(void) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_uuid_get_before_handshake", 0);
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(loaded().uuid);
}

HADRA_PLAT_API uint32_t sysmgr_uuid_get(void) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_uuid_get", 0);
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(loaded().uuid);
}

HADRA_PLAT_API void plat_test_sysmgr_set_supstate(int state) noexcept {
  update([&](View& v) { v.supstate = state; });
}

HADRA_PLAT_API void plat_test_sysmgr_set_running_cfg_uri(const char* uri) noexcept {
  update([&](View& v) { assign(v.running, uri); });
}

HADRA_PLAT_API void plat_test_sysmgr_set_startup_cfg_uri(const char* uri) noexcept {
  update([&](View& v) { assign(v.startup, uri); });
}

HADRA_PLAT_API void plat_test_sysmgr_set_file_prefix(const char* prefix) noexcept {
  update([&](View& v) { assign(v.prefix, prefix); });
}

HADRA_PLAT_API void plat_test_sysmgr_set_stateful_restart(int stateful) noexcept {
  update([&](View& v) { v.stateful = stateful != 0 ? 1 : 0; });
}

HADRA_PLAT_API void plat_test_sysmgr_set_uuid(uint32_t uuid) noexcept {
  update([&](View& v) { v.uuid = uuid; });
}

}  // extern "C"
