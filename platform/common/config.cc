// Platform configuration, the supervisor root, URI-to-path mapping, the platform clock, and
// the testing interface's reset and root/clock setters.
#include "hadra_platform/config.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <mutex>
#include <string>

#include "common/call.h"
#include "hadra_platform_testing.h"

namespace {

struct Config {
  std::mutex mu;
  bool file_loaded = false;
  std::map<std::string, std::string> file;    // key = value lines of the configuration file
  std::map<std::string, std::string> cache;   // values handed out; stable until reload
  std::string root;                           // empty until first use
  std::string root_override;                  // set by tests
  bool root_conf_loaded = false;              // <root>/platform.conf read
};

Config& cfg() {
  static auto* c = new Config();  // never destroyed: used during exit
  return *c;
}

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

void load_file(Config& c, const std::string& path) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    line = trim(line);
    if (line.empty() || line[0] == '#') continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    c.file[trim(line.substr(0, eq))] = trim(line.substr(eq + 1));
  }
}

// Value from the environment, then the file named by HADRA_CONFIG; no root-relative file
// here (the root itself is looked up this way).
const char* lookup_early(Config& c, const std::string& key) {
  std::string env = "HADRA_" + key;
  if (const char* v = std::getenv(env.c_str())) return v;
  if (!c.file_loaded) {
    c.file_loaded = true;
    if (const char* path = std::getenv("HADRA_CONFIG")) load_file(c, path);
  }
  auto it = c.file.find(key);
  return it == c.file.end() ? nullptr : it->second.c_str();
}

// The directories made here (the root and what lies under it) are the owner's alone, or its
// group's too when ROOT_GROUP names one: the root holds the stores, the locks and the sockets
// that let a process change them. Set explicitly, so the umask plays no part.
void restrict_new_dir(const std::string& dir) {
  const char* group = std::getenv("HADRA_ROOT_GROUP");
  struct group* gr = group != nullptr && *group != '\0' ? ::getgrnam(group) : nullptr;
  if (::chmod(dir.c_str(), gr != nullptr ? 0750 : 0700) == 0 && gr != nullptr)
    (void)!::chown(dir.c_str(), static_cast<uid_t>(-1), gr->gr_gid);
}

int mkdirs_for(const std::string& dir) {
  std::string cur;
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = dir.find('/', pos + 1);
    cur = dir.substr(0, pos);
    if (cur.empty()) continue;
    if (::mkdir(cur.c_str(), 0700) == 0)
      restrict_new_dir(cur);
    else if (errno != EEXIST)
      return -1;
  }
  return 0;
}

const std::string& root_locked(Config& c) {
  if (c.root.empty()) {
    if (!c.root_override.empty()) {
      c.root = c.root_override;
    } else if (const char* r = lookup_early(c, "ROOT")) {
      c.root = r;
    } else {
      const char* tmp = std::getenv("TMPDIR");
      const char* slot = lookup_early(c, "SLOT");
      c.root = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/hadra-" +
               std::to_string(::getuid()) + "/sup" + (slot != nullptr ? slot : "1");
    }
    while (c.root.size() > 1 && c.root.back() == '/') c.root.pop_back();
    mkdirs_for(c.root);
  }
  if (!c.root_conf_loaded) {
    c.root_conf_loaded = true;
    std::string conf = c.root + "/platform.conf";
    if (std::getenv("HADRA_CONFIG") == nullptr && ::access(conf.c_str(), R_OK) == 0) load_file(c, conf);
  }
  return c.root;
}

bool valid_area(const char* b, const char* e) {
  if (b == e) return false;
  for (const char* p = b; p != e; ++p)
    if (!((*p >= 'a' && *p <= 'z') || (*p >= '0' && *p <= '9') || *p == '_' || *p == '-')) return false;
  return true;
}

// Path part of a URI: segments separated by '/', none empty (a leading or trailing '/' is
// allowed), none "." or "..".
bool valid_path(const char* p) {
  if (*p == '/') ++p;
  while (*p != '\0') {
    const char* end = std::strchr(p, '/');
    size_t len = end != nullptr ? static_cast<size_t>(end - p) : std::strlen(p);
    if (len == 0) return false;
    if ((len == 1 && p[0] == '.') || (len == 2 && p[0] == '.' && p[1] == '.')) return false;
    if (end == nullptr) break;
    p = end + 1;
  }
  return true;
}

std::atomic<bool> g_clock_frozen{false};
std::atomic<uint64_t> g_clock_ns{0};

}  // namespace

extern "C" {

HADRA_PLAT_API const char* plat_config_get(const char* key, const char* dflt) noexcept {
  if (key == nullptr) return dflt;
  Config& c = cfg();
  std::lock_guard<std::mutex> lock(c.mu);
  root_locked(c);  // loads <root>/platform.conf when present
  const char* v = lookup_early(c, key);
  if (v == nullptr) return dflt;
  auto& slot = c.cache[key];
  slot = v;
  return slot.c_str();
}

HADRA_PLAT_API long plat_config_get_long(const char* key, long dflt) noexcept {
  const char* v = plat_config_get(key, nullptr);
  if (v == nullptr || *v == '\0') return dflt;
  char* end = nullptr;
  errno = 0;
  long n = std::strtol(v, &end, 0);
  return (errno != 0 || *end != '\0') ? dflt : n;
}

HADRA_PLAT_API void plat_config_reload(void) noexcept {
  Config& c = cfg();
  std::lock_guard<std::mutex> lock(c.mu);
  c.file.clear();
  c.file_loaded = false;
  c.root_conf_loaded = false;
  c.root.clear();
  // Values handed out earlier stay in the cache: callers may still hold them.
}

HADRA_PLAT_API const char* plat_root(void) noexcept {
  Config& c = cfg();
  std::lock_guard<std::mutex> lock(c.mu);
  return root_locked(c).c_str();
}

HADRA_PLAT_API int plat_uri_to_path(const char* uri, char* out, size_t out_size, int mkdirs) noexcept {
  const char* colon = uri != nullptr ? std::strchr(uri, ':') : nullptr;
  if (colon == nullptr || out == nullptr || !valid_area(uri, colon) || !valid_path(colon + 1)) {
    errno = EINVAL;
    return -1;
  }
  std::string path;
  {
    Config& c = cfg();
    std::lock_guard<std::mutex> lock(c.mu);
    path = root_locked(c);
  }
  path += '/';
  path.append(uri, colon);
  const char* rest = colon + 1;
  if (*rest == '/') ++rest;
  if (*rest != '\0') {
    path += '/';
    path += rest;
  }
  while (path.back() == '/') path.pop_back();
  if (path.size() + 1 > out_size) {
    errno = ENAMETOOLONG;
    return -1;
  }
  if (mkdirs != 0) {
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && mkdirs_for(path.substr(0, slash)) != 0) return -1;
  }
  std::memcpy(out, path.c_str(), path.size() + 1);
  return 0;
}

HADRA_PLAT_API uint64_t plat_now_ns(void) noexcept {
  if (g_clock_frozen.load(std::memory_order_relaxed)) return g_clock_ns.load();
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

HADRA_PLAT_API void plat_test_clock_set(uint64_t ns) noexcept {
  g_clock_ns.store(ns);
  g_clock_frozen.store(true);
}

HADRA_PLAT_API void plat_test_clock_advance(uint64_t ns) noexcept {
  if (!g_clock_frozen.load()) plat_test_clock_set(plat_now_ns());
  g_clock_ns.fetch_add(ns);
}

HADRA_PLAT_API void plat_test_clock_real(void) noexcept { g_clock_frozen.store(false); }

HADRA_PLAT_API void plat_test_set_root(const char* dir) noexcept {
  Config& c = cfg();
  std::lock_guard<std::mutex> lock(c.mu);
  c.root_override = dir != nullptr ? dir : "";
  while (c.root_override.size() > 1 && c.root_override.back() == '/') c.root_override.pop_back();
  if (!c.root_override.empty()) mkdirs_for(c.root_override);
  c.root.clear();
  c.file.clear();
  c.file_loaded = false;
  c.root_conf_loaded = false;
}

HADRA_PLAT_API void plat_test_reset(void) noexcept {
  plat_trace_stop();
  plat_trace_clear();
  plat_fault_clear();
  plat_test_clock_real();
  // Services first (they may still need the configuration to close their stores).
  hadra::plat::run_resets();
  plat_config_reload();
}

}  // extern "C"
