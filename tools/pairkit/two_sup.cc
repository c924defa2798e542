#include "pairkit/two_sup.h"

#include "pairkit/daemons.h"

#include "hadra_platform_testing.h"

#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>

#include "hadra/sync.h"
#include "hadra_platform/config.h"

namespace hadra::pairkit {
namespace {

using Clock = std::chrono::steady_clock;

int ms_left(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

mts_recv_opts wait_opts(int timeout_ms) {
  mts_recv_opts o{};
  o.flags = MTS_RECV_BLOCK;
  o.timeout_s = static_cast<uint32_t>(timeout_ms / 1000);
  o.timeout_ms = static_cast<uint32_t>(timeout_ms % 1000);
  return o;
}

void setenv_key(const std::string& key, const std::string& value) {
  setenv(("HADRA_" + key).c_str(), value.c_str(), 1);
}

std::string describe_status(pid_t pid, int status) {
  char text[96];
  if (WIFEXITED(status))
    std::snprintf(text, sizeof text, "process %d exited with status %d", static_cast<int>(pid), WEXITSTATUS(status));
  else if (WIFSIGNALED(status))
    std::snprintf(text, sizeof text, "process %d killed by signal %d", static_cast<int>(pid), WTERMSIG(status));
  else
    std::snprintf(text, sizeof text, "process %d ended oddly (%d)", static_cast<int>(pid), status);
  return text;
}

}  // namespace

BaseDir::BaseDir(const char* tmpl) {
  std::string name = tmpl;
  if (mkdtemp(name.data()) != nullptr) path_ = name;
}

BaseDir::~BaseDir() {
  if (path_.empty() || keep_ || getenv("HADRA_KEEP_E2E") != nullptr) return;
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string root_of(const std::string& base, int slot) { return base + "/sup" + std::to_string(slot); }

void configure(const Supervisor& sup) {
  setenv_key("ROOT", root_of(sup.base, sup.slot));
  setenv_key("SLOT", std::to_string(sup.slot));
  setenv_key("SUPSTATE", sup.supstate);
  setenv_key("TRANSPORT", "zmq");
  // Without a daemon the driver plays the system manager through the testing interface,
  // which only the in-process stand-in serves.
  setenv_key("SYSMGR", sup.daemon ? "daemon" : "local");
  for (const auto& [key, value] : sup.extra) setenv_key(key, value);
  // What the driver's store dumps loaded into the platform (its view of a root, the system
  // manager's settings) must not leak into the child; the driver never sets up a transport,
  // so nothing here runs threads that the reset would need.
  plat_test_reset();
  plat_test_set_root(nullptr);
  plat_config_reload();
}

long ship_area(const std::string& base, int from_slot, int to_slot, const std::string& dir, std::string* why) {
  namespace fs = std::filesystem;
  const fs::path from = fs::path(root_of(base, from_slot)) / dir;
  const fs::path to = fs::path(root_of(base, to_slot)) / dir;
  std::error_code ec;
  long files = 0;
  for (auto it = fs::recursive_directory_iterator(from, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (!it->is_regular_file() || name == "lock.mdb" || name.ends_with("-lock")) continue;
    const fs::path dest = to / fs::relative(it->path(), from);
    fs::create_directories(dest.parent_path(), ec);
    if (ec || !fs::copy_file(it->path(), dest, fs::copy_options::overwrite_existing, ec)) break;
    ++files;
  }
  if (!ec) return files;
  if (why != nullptr) *why = "shipping " + from.string() + ": " + ec.message();
  return -1;
}

pid_t spawn(const Supervisor& sup, const std::function<int()>& role) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (!enter_netns(sup.slot)) _exit(126);
  configure(sup);
  const int rc = role();
  std::fflush(nullptr);
  // No destructors, no atexit handlers: the parent's objects are not this process's to
  // tear down, and the stores' writes are committed already.
  _exit(rc);
}

bool wait_children(const std::vector<pid_t>& pids, int timeout_ms, std::string* why) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  std::vector<bool> done(pids.size(), false);
  bool ok = true;
  size_t left = pids.size();
  auto fail = [&](const std::string& text) {
    if (ok && why != nullptr) *why = text;
    ok = false;
  };
  while (left > 0) {
    for (size_t i = 0; i < pids.size(); ++i) {
      int status = 0;
      if (done[i] || waitpid(pids[i], &status, WNOHANG) != pids[i]) continue;
      done[i] = true;
      --left;
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) fail(describe_status(pids[i], status));
    }
    if (left == 0) break;
    if (ms_left(deadline) == 0) {
      for (size_t i = 0; i < pids.size(); ++i) {
        if (done[i]) continue;
        kill(pids[i], SIGKILL);
        waitpid(pids[i], nullptr, 0);
        fail("process " + std::to_string(pids[i]) + " still running after " + std::to_string(timeout_ms) +
             " ms: killed");
      }
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return ok;
}

Signal::Signal() {
  if (pipe(fds_) != 0) fds_[0] = fds_[1] = -1;
}

Signal::~Signal() {
  for (int fd : fds_)
    if (fd >= 0) close(fd);
}

void Signal::raise() {
  const char byte = 1;
  while (write(fds_[1], &byte, 1) < 0 && errno == EINTR) {
  }
}

bool Signal::wait(int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    pollfd p{fds_[0], POLLIN, 0};
    const int n = poll(&p, 1, ms_left(deadline));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    char byte;
    return read(fds_[0], &byte, 1) == 1;
  }
}

void log(const char* who, const char* fmt, ...) {
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  std::fprintf(stderr, "[%s %d] %s\n", who, static_cast<int>(getpid()), text);
  std::fflush(stderr);
}

int receive_loop(uint32_t sap, int idle_timeout_ms, const std::function<bool(const mts_msg_ref&)>& on_other,
                 LoopStats* stats) {
  const mts_recv_opts opts = wait_opts(idle_timeout_ms);
  for (;;) {
    mts_msg_ref ref;
    if (mts_recv(sap, &ref, &opts) != 0) return -1;
    bool stop = false;
    if (hadra_ha_dispatch(&ref) == -1) {
      if (stats != nullptr) ++stats->other;
      stop = on_other(ref);
    } else if (stats != nullptr) {
      ++stats->sync;
    }
    mts_drop(sap, &ref);
    if (stop) return 0;
  }
}

int wait_for_opcode(uint32_t sap, uint32_t opcode, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const int left = ms_left(deadline);
    if (left == 0) return -1;
    const mts_recv_opts opts = wait_opts(left);
    mts_msg_ref ref;
    if (mts_recv(sap, &ref, &opts) != 0) return -1;
    const bool found = mts_opc_get(&ref) == opcode;
    mts_drop(sap, &ref);
    if (found) return 0;
  }
}

}  // namespace hadra::pairkit
