// Where the platform's log lines go.
//
// One sink per process, chosen by the configuration key LOG the first time a line is
// written after start-up or a reset:
//   (unset)       the file log/platform.log under the supervisor root
//   file:<path>   that file, appended to and created when missing (a file that cannot be
//                 opened is reported once on stderr, and the lines then go to stderr)
//   stderr        standard error
//   syslog        the system log, under the line identity, with the pid
//   none          nowhere
// A file line reads "<UTC time> <level name> <ident>[<pid>]: <text>" and is written with
// one write() on a descriptor opened for appending, so that lines of several threads and
// processes sharing the file never interleave. The default file follows the root: when a
// test moves the root, the next line opens the file under the new one.
//
// Tests may also capture lines in memory (text and level only), whatever the sink.
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>
#include <string>

#include "common/call.h"
#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "hadra_platform_testing.h"
#include "log/log_internal.h"

namespace hadra::plat::log {

namespace {

enum class Kind { kUnset, kDefaultFile, kFile, kStderr, kSyslog, kNone };

constexpr size_t kCaptureCap = 10000;
constexpr const char* kLevelNames[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};

struct Captured {
  int level;
  std::string text;
};

struct Sink {
  std::mutex mu;
  Kind kind = Kind::kUnset;
  int fd = -1;
  char path[PATH_MAX] = {};
  char ident[64] = {};
  bool ident_set = false;
  bool capture = false;
  bool file_failing = false;  // the file refused the last line: lines go to stderr
  std::deque<Captured> lines;
};

Sink& sink() {
  static auto* s = new Sink();  // never destroyed: lines may be written during exit
  return *s;
}

int clamp_level(int level) { return level < PLAT_LOG_EMERG ? PLAT_LOG_EMERG : level > PLAT_LOG_DEBUG ? PLAT_LOG_DEBUG : level; }

void ident_locked(Sink& s) {
  if (s.ident_set) return;
  const char* v = plat_config_get("LOG_IDENT", program_invocation_short_name);
  std::snprintf(s.ident, sizeof s.ident, "%s", v != nullptr && *v != '\0' ? v : "hadra");
  s.ident_set = true;
}

void close_locked(Sink& s) {
  if (s.fd >= 0) ::close(s.fd);
  if (s.kind == Kind::kSyslog) closelog();
  s.fd = -1;
  s.kind = Kind::kUnset;
  s.path[0] = '\0';
  s.file_failing = false;
}

// Open path for appending; on failure say so once on stderr and fall back to it.
void open_file_locked(Sink& s, const char* path, Kind kind) {
  s.kind = kind;
  std::snprintf(s.path, sizeof s.path, "%s", path);
  s.fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (s.fd < 0) {
    std::fprintf(stderr, "%s[%d]: cannot open log file %s (%s); logging to stderr\n", s.ident,
                 static_cast<int>(::getpid()), path, std::strerror(errno));
    s.kind = Kind::kStderr;
  }
}

void open_default_locked(Sink& s) {
  char path[PATH_MAX];
  if (plat_uri_to_path("log:/platform.log", path, sizeof path, 1) != 0) {
    s.kind = Kind::kStderr;
    return;
  }
  open_file_locked(s, path, Kind::kDefaultFile);
}

void open_locked(Sink& s) {
  ident_locked(s);
  const char* v = plat_config_get("LOG", nullptr);
  if (v == nullptr || *v == '\0') {
    open_default_locked(s);
  } else if (std::strcmp(v, "none") == 0) {
    s.kind = Kind::kNone;
  } else if (std::strcmp(v, "stderr") == 0) {
    s.kind = Kind::kStderr;
  } else if (std::strcmp(v, "syslog") == 0) {
    openlog(s.ident, LOG_PID | LOG_NDELAY, LOG_USER);
    s.kind = Kind::kSyslog;
  } else if (std::strncmp(v, "file:", 5) == 0 && v[5] != '\0') {
    open_file_locked(s, v + 5, Kind::kFile);
  } else {
    std::fprintf(stderr, "%s[%d]: unknown LOG sink '%s'; logging to stderr\n", s.ident,
                 static_cast<int>(::getpid()), v);
    s.kind = Kind::kStderr;
  }
}

// The sink, opened if needed; the default file is reopened when the root has moved.
Kind ready_locked(Sink& s) {
  if (s.kind == Kind::kDefaultFile) {
    char path[PATH_MAX];
    if (plat_uri_to_path("log:/platform.log", path, sizeof path, 0) == 0 && std::strcmp(path, s.path) != 0)
      close_locked(s);
  }
  if (s.kind == Kind::kUnset) open_locked(s);
  return s.kind;
}

size_t format_prefix(char* out, size_t size, int level, const char* ident) {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  tm t;
  gmtime_r(&ts.tv_sec, &t);
  int n = std::snprintf(out, size, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ %s %s[%d]: ", t.tm_year + 1900,
                        t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, ts.tv_nsec / 1000,
                        kLevelNames[level], ident, static_cast<int>(::getpid()));
  return n < 0 ? 0 : static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
}

// False with errno when fd took less than the whole line.
bool write_all(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t w = ::write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0) return false;
    if (w == 0) {
      errno = EIO;
      return false;
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

// A log file that cannot take a line (a full disk, an I/O error) must not swallow it: the
// line goes to stderr instead, after one line that says why; once the file takes lines again
// a line says so there.
void write_file_line(Sink& s, const char* line, size_t n) {
  if (write_all(s.fd, line, n)) {
    if (s.file_failing) {
      s.file_failing = false;
      static const char kBack[] = "platform log: lines went to stderr while this file could not be written\n";
      (void)write_all(s.fd, kBack, sizeof kBack - 1);
    }
    return;
  }
  const int err = errno;
  if (!s.file_failing) {
    s.file_failing = true;
    char note[PATH_MAX + 128];
    const int k = std::snprintf(note, sizeof note, "platform log: %s cannot be written (%s); lines go to stderr\n",
                                s.path[0] != '\0' ? s.path : "the log file", std::strerror(err));
    if (k > 0) (void)write_all(STDERR_FILENO, note, std::min(static_cast<size_t>(k), sizeof note - 1));
  }
  (void)write_all(STDERR_FILENO, line, n);
}

void emit_locked(Sink& s, int level, const char* text, size_t len) {
  Kind k = ready_locked(s);
  if (k == Kind::kNone) return;
  if (k == Kind::kSyslog) {
    syslog(level, "%.*s", static_cast<int>(len), text);
    return;
  }
  char line[kMaxLineText + 256];
  size_t n = format_prefix(line, sizeof line - kMaxLineText - 1, level, s.ident);
  std::memcpy(line + n, text, len);
  n += len;
  line[n++] = '\n';
  if (k == Kind::kStderr)
    (void)write_all(STDERR_FILENO, line, n);
  else
    write_file_line(s, line, n);
}

void reset() {
  Sink& s = sink();
  std::lock_guard<std::mutex> lock(s.mu);
  close_locked(s);
  s.ident_set = false;
  s.capture = false;
  s.lines.clear();
}

const bool g_registered = (register_reset(&reset), true);

}  // namespace

bool wanted() noexcept {
  Sink& s = sink();
  std::lock_guard<std::mutex> lock(s.mu);
  return s.capture || ready_locked(s) != Kind::kNone;
}

void write_line(int level, const char* text, size_t len) noexcept {
  if (text == nullptr) return;
  while (len > 0 && (text[len - 1] == '\n' || text[len - 1] == '\r')) --len;
  if (len > kMaxLineText) len = kMaxLineText;
  level = clamp_level(level);
  Sink& s = sink();
  std::lock_guard<std::mutex> lock(s.mu);
  if (s.capture) {
    if (s.lines.size() == kCaptureCap) s.lines.pop_front();
    s.lines.push_back({level, std::string(text, len)});
  }
  emit_locked(s, level, text, len);
}

void vwritef(int level, const char* fmt, va_list ap) noexcept {
  if (fmt == nullptr || !wanted()) return;
  char buf[kMaxLineText + 1];
  int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  if (n < 0) return;
  write_line(level, buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
}

void writef(int level, const char* fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  vwritef(level, fmt, ap);
  va_end(ap);
}

const char* ident() noexcept {
  Sink& s = sink();
  std::lock_guard<std::mutex> lock(s.mu);
  ident_locked(s);
  return s.ident;
}

}  // namespace hadra::plat::log

using hadra::plat::log::sink;

extern "C" {

HADRA_PLAT_API void plat_test_log_capture(int on) noexcept {
  auto& s = sink();
  std::lock_guard<std::mutex> lock(s.mu);
  if (on != 0) s.lines.clear();
  s.capture = on != 0;
}

HADRA_PLAT_API size_t plat_test_log_count(void) noexcept {
  auto& s = sink();
  std::lock_guard<std::mutex> lock(s.mu);
  return s.lines.size();
}

HADRA_PLAT_API int plat_test_log_get(size_t i, int* level, char* out, size_t out_size) noexcept {
  auto& s = sink();
  std::lock_guard<std::mutex> lock(s.mu);
  if (i >= s.lines.size()) return -1;
  const auto& l = s.lines[i];
  if (level != nullptr) *level = l.level;
  if (out != nullptr && out_size > 0) std::snprintf(out, out_size, "%s", l.text.c_str());
  return 0;
}

}  // extern "C"
