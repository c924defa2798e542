#include "pairkit/daemons.h"

#include <fcntl.h>
#include <sched.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "pairkit/two_sup.h"

namespace hadra::pairkit {
namespace {

using Clock = std::chrono::steady_clock;

std::string g_netns[3];
std::vector<std::pair<std::string, std::string>> g_settings[3];

// Forks and execs the daemon binary with args and the supervisor's environment; stdout to
// out_fd when it is not -1.
pid_t exec_daemon(const std::string& base, int slot, const std::vector<std::string>& args,
                  const std::vector<std::pair<std::string, std::string>>& env, int out_fd) {
  const std::string bin = sysmgrd_path();
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (!enter_netns(slot)) _exit(126);
  setenv("HADRA_ROOT", root_of(base, slot).c_str(), 1);
  setenv("HADRA_SLOT", std::to_string(slot).c_str(), 1);
  setenv("HADRA_TRANSPORT", "zmq", 1);
  // The kit drives roles by command unless a run asks for a role source.
  setenv("HADRA_ROLE_SOURCE", "manual", 1);
  for (const auto& [k, v] : g_settings[slot]) setenv(("HADRA_" + k).c_str(), v.c_str(), 1);
  for (const auto& [k, v] : env) setenv(("HADRA_" + k).c_str(), v.c_str(), 1);
  if (out_fd >= 0) {
    // A command: its JSON on out_fd; its complaints are in the JSON too ("error").
    dup2(out_fd, STDOUT_FILENO);
    const int null_fd = open("/dev/null", O_WRONLY);
    if (null_fd >= 0) dup2(null_fd, STDERR_FILENO);
  }
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(bin.c_str()));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  execv(bin.c_str(), argv.data());
  std::fprintf(stderr, "cannot run %s: %s\n", bin.c_str(), std::strerror(errno));
  _exit(127);
}

// Waits for pid at most timeout_ms; its wait status, or -1 (still running).
int wait_for(pid_t pid, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  int status = 0;
  while (true) {
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return status;
    if (r < 0 || Clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace

void use_netns(int slot, const std::string& name, const std::vector<std::pair<std::string, std::string>>& settings) {
  if (slot < 1 || slot > 2) return;
  g_netns[slot] = name;
  g_settings[slot] = settings;
}

bool enter_netns(int slot) {
  if (slot < 1 || slot > 2 || g_netns[slot].empty()) return true;
  const std::string path = "/var/run/netns/" + g_netns[slot];
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const bool ok = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
  if (!ok) std::fprintf(stderr, "cannot enter network namespace %s: %s\n", path.c_str(), std::strerror(errno));
  if (fd >= 0) close(fd);
  return ok;
}

std::string sysmgrd_path() {
  if (const char* p = std::getenv("HADRA_SYSMGRD")) return p;
  return HADRA_SYSMGRD_PATH;
}

int daemon_command(const std::string& base, int slot, const std::string& command, nlohmann::json* out,
                   const std::string& arg) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  std::vector<std::string> args = {"--root", root_of(base, slot), "--command", command, "--timeout", "5000"};
  if (!arg.empty()) args.insert(args.end(), {"--arg", arg});
  const pid_t pid = exec_daemon(base, slot, args, {}, fds[1]);
  close(fds[1]);
  std::string text;
  char buf[4096];
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    pollfd p{fds[0], POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    const ssize_t n = read(fds[0], buf, sizeof buf);
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  close(fds[0]);
  int status = wait_for(pid, 5000);
  if (status < 0) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return -1;
  }
  if (out != nullptr) {
    *out = nlohmann::json::parse(text, nullptr, false);
    if (out->is_discarded()) *out = nlohmann::json::object();
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

pid_t start_daemon(const std::string& base, int slot, const std::string& supstate,
                   const std::vector<std::pair<std::string, std::string>>& extra, int timeout_ms, std::string* why) {
  auto env = extra;
  env.emplace_back("SUPSTATE", supstate);
  const pid_t pid = exec_daemon(base, slot, {"--root", root_of(base, slot)}, env, -1);
  if (pid < 0) return *why = std::string("fork: ") + std::strerror(errno), -1;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (Clock::now() < deadline) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      *why = "the daemon of slot " + std::to_string(slot) + " ended at start (status " + std::to_string(status) + ")";
      return -1;
    }
    nlohmann::json st;
    if (daemon_command(base, slot, "status", &st) == 0 && st.value("pid", 0) == pid) return pid;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  *why = "the daemon of slot " + std::to_string(slot) + " did not answer within " + std::to_string(timeout_ms) + " ms";
  return -1;
}

bool wait_status(const std::string& base, int slot, const std::function<bool(const nlohmann::json&)>& pred,
                 int timeout_ms, nlohmann::json* last) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  nlohmann::json j;
  do {
    if (daemon_command(base, slot, "status", &j) == 0 && pred(j)) {
      if (last != nullptr) *last = j;
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
  } while (Clock::now() < deadline);
  if (last != nullptr) *last = j;
  return false;
}

int stop_daemon(pid_t pid, int timeout_ms) {
  if (pid <= 0) return -1;
  kill(pid, SIGTERM);
  const int status = wait_for(pid, timeout_ms);
  if (status >= 0) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

}  // namespace hadra::pairkit
