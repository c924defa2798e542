// Role sources: who decides that this supervisor is the active one, and fencing: what a
// supervisor does when it loses the role (docs/roles.md).
//
//   lease       a POSIX record lock on a file both daemons of the pair reach (LEASE_FILE).
//               The holder is the active; the kernel drops the lock when the holder dies,
//               so one host never has two actives. A standby tries the lock every
//               LEASE_POLL_MS and takes over when it gets it.
//   keepalived  the role follows <root>/sysmgr/role-request, which keepalived's notify script
//   pacemaker   (dist/keepalived) or the resource agent (dist/ocf) writes through
//               `hadra-sysmgrd --set-role`: "active" makes this supervisor active, anything
//               else (standby, fault, no file) standby. The daemon follows the file's level.
//   manual      only commands change the role; a request written by --set-role is taken once
//               and removed.
//
// The peer's heartbeat never moves the role: it only feeds status and the loss report.
//
// Fencing: a supervisor that loses the role stops every service of its own at once
// (SIGTERM, SIGKILL after FENCE_MS) before the peer may take over; services come back under
// their service manager as standbys (the state file says so) and are rebuilt by gsync. A
// daemon that takes the lease from a holder that died stops that holder's services too (they
// are on this host, and their daemon is no longer there to do it).
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "daemon.h"
#include "role_parse.h"
#include "hadra_platform/log.h"

namespace hadra::sysmgrd {
namespace {

namespace fs = std::filesystem;

constexpr int kRequestPollMs = 50;  // how often the role request file is read

bool is_lease(const Options& o) { return o.role_source == "lease"; }
bool follows_file(const Options& o) { return o.role_source == "keepalived" || o.role_source == "pacemaker"; }

// Gone: no such process, or one that already exited and waits to be reaped.
bool process_gone(pid_t pid) {
  if (::kill(pid, 0) != 0 && errno == ESRCH) return true;
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(in, line)) return true;
  const size_t close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'Z';
}

// In the middle of exiting: its files (and so its lock on the lease) are already released
// while it is not a zombie yet.
bool process_exiting(pid_t pid) {
  constexpr unsigned long kPfExiting = 0x4;
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(in, line)) return false;
  const size_t close = line.rfind(')');
  if (close == std::string::npos) return false;
  std::istringstream fields(line.substr(close + 1));
  std::string f;
  for (int i = 3; i <= 9 && fields >> f; ++i)
    if (i == 9) return (std::strtoul(f.c_str(), nullptr, 10) & kPfExiting) != 0;
  return false;
}

// Stops pids: SIGTERM, then SIGKILL for those still there after term_ms; waits (bounded) until
// they are gone. The pids that survived everything.
std::vector<pid_t> stop_pids(const std::vector<pid_t>& pids, int term_ms) {
  using Clock = std::chrono::steady_clock;
  auto wait_gone = [](std::vector<pid_t> left, int ms) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(ms);
    while (!left.empty()) {
      std::erase_if(left, process_gone);
      if (left.empty() || Clock::now() >= deadline) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return left;
  };
  for (pid_t p : pids) (void)::kill(p, SIGTERM);
  std::vector<pid_t> left = wait_gone(pids, term_ms);
  for (pid_t p : left) (void)::kill(p, SIGKILL);
  return wait_gone(left, 500);
}

// The services that left their hello under a root (those whose daemon may be gone).
std::vector<pid_t> hello_pids(const std::string& root) {
  std::vector<pid_t> out;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(files::root_path(root, "sysmgr"), ec)) {
    const std::string name = e.path().filename().string();
    if (!name.starts_with("client-") || !name.ends_with(".hello")) continue;
    std::ifstream in(e.path(), std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    proto::Hello h;
    if (proto::decode(bytes.data(), bytes.size(), &h) && h.pid != 0 && !process_gone(static_cast<pid_t>(h.pid)))
      out.push_back(static_cast<pid_t>(h.pid));
  }
  return out;
}

std::string read_request(const std::string& path) {
  std::ifstream in(path);
  char buf[64] = {};
  in.read(buf, sizeof buf);
  return role_parse::parse_request(std::string_view(buf, static_cast<size_t>(in.gcount())));
}

}  // namespace

// ---- The lease -------------------------------------------------------------------------------

// A POSIX record lock, not flock: its holder's pid can be read by anyone (F_GETLK), which the
// status and the tests use. Such a lock is dropped when this process closes any descriptor of
// the file, so the file is opened once, here, and read and written only through lease_fd_.
bool Daemon::lease_try(std::string* why) {
  if (lease_held_) return true;
  if (lease_fd_ < 0) {
    lease_fd_ = ::open(o_.lease_file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lease_fd_ < 0) return *why = "lease file " + o_.lease_file + ": " + std::strerror(errno), false;
  }
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  if (::fcntl(lease_fd_, F_SETLK, &fl) != 0) {
    if (errno != EACCES && errno != EAGAIN) return *why = "lease file " + o_.lease_file + ": " + std::strerror(errno), false;
    struct flock q {};
    q.l_type = F_WRLCK;
    q.l_whence = SEEK_SET;
    const pid_t holder = ::fcntl(lease_fd_, F_GETLK, &q) == 0 && q.l_type != F_UNLCK ? q.l_pid : 0;
    return *why = "the lease " + o_.lease_file + " is held by pid " + std::to_string(holder), false;
  }
  // The previous holder's record: "<pid> <root>". One that died leaves its services behind.
  char buf[4200] = {};
  const ssize_t n = ::pread(lease_fd_, buf, sizeof buf - 1, 0);
  role_parse::LeaseRecord prev;
  const bool known = role_parse::parse_lease(std::string_view(buf, n > 0 ? static_cast<size_t>(n) : 0), &prev);
  const long old_pid = prev.pid;
  const std::string& old_root = prev.root;
  if (known && old_root != o_.root && !process_gone(static_cast<pid_t>(old_pid)) &&
      process_exiting(static_cast<pid_t>(old_pid))) {
    // A holder killed a moment ago frees its lock before it is gone: it is dying, not handing
    // over, and its services must be stopped as for a dead one. Wait (bounded) for its end.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(o_.fence_ms + 500);
    while (!process_gone(static_cast<pid_t>(old_pid)) && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    if (!process_gone(static_cast<pid_t>(old_pid))) {
      fl.l_type = F_UNLCK;
      (void)::fcntl(lease_fd_, F_SETLK, &fl);
      return *why = "the lease's last holder (pid " + std::to_string(old_pid) + ") is still exiting", false;
    }
  }
  if (known && old_root != o_.root && process_gone(static_cast<pid_t>(old_pid))) {
    const std::vector<pid_t> pids = hello_pids(old_root);
    if (!pids.empty()) {
      plat_syslog(PLAT_LOG_WARNING, "sysmgrd: the lease's last holder (pid %ld, root %s) died; stopping its %zu "
                  "service(s) before taking over", old_pid, old_root.c_str(), pids.size());
      const std::vector<pid_t> left = stop_pids(pids, o_.fence_ms);
      if (!left.empty()) {
        // Two writers are worse than no active: give the lease back and try again later.
        fl.l_type = F_UNLCK;
        (void)::fcntl(lease_fd_, F_SETLK, &fl);
        return *why = "service pid " + std::to_string(left.front()) + " of the dead holder's root " + old_root +
                      " cannot be stopped", false;
      }
      fenced_ += pids.size();
    }
  }
  const std::string me = role_parse::format_lease(::getpid(), o_.root);
  if (::ftruncate(lease_fd_, 0) != 0 || ::pwrite(lease_fd_, me.data(), me.size(), 0) < 0)
    plat_syslog(PLAT_LOG_WARNING, "sysmgrd: cannot write the holder into %s: %s", o_.lease_file.c_str(),
                std::strerror(errno));
  lease_held_ = true;
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: slot %d holds the lease %s", o_.slot, o_.lease_file.c_str());
  return true;
}

void Daemon::lease_release() {
  if (!lease_held_) return;
  struct flock fl {};
  fl.l_type = F_UNLCK;
  fl.l_whence = SEEK_SET;
  (void)::fcntl(lease_fd_, F_SETLK, &fl);
  lease_held_ = false;
  // The peer takes it first; this daemon tries again only if nobody did meanwhile.
  lease_holdoff_ns_ = now_ns() + static_cast<uint64_t>(std::max(3000, 3 * o_.peer_dead_ms)) * 1000000ull;
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: slot %d gave the lease %s up", o_.slot, o_.lease_file.c_str());
}

// ---- Start, tick ------------------------------------------------------------------------------

bool Daemon::role_start(std::string* why) {
  const int before = role_;  // the role kept in the state file
  if (is_lease(o_)) {
    std::string busy;
    if (lease_try(&busy)) {
      // Standby services already running are made active by the takeover of the first tick.
      role_ = before == 2 && !clients_.empty() ? 2 : 1;
    } else if (lease_fd_ < 0) {
      return *why = busy, false;
    } else {
      role_ = 2;
      plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: slot %d starts as standby: %s", o_.slot, busy.c_str());
    }
  } else if (follows_file(o_)) {
    role_request_ = read_request(files::root_path(o_.root, "sysmgr/role-request"));
    role_ = role_request_ != "active" ? 2 : before == 2 && !clients_.empty() ? 2 : 1;
  }
  // Services that ran as actives under a daemon that now starts as standby stop.
  if (before == 1 && role_ == 2 && !clients_.empty()) fence_clients("this supervisor was active and starts as standby");
  last_role_change_ = std::string("started as ") + proto::role_name(role_) + " (" + o_.role_source + ")";
  return true;
}

void Daemon::role_tick(uint64_t now) {
  if (now < next_role_ns_) return;
  std::string why;
  if (is_lease(o_)) {
    next_role_ns_ = now + static_cast<uint64_t>(o_.lease_poll_ms) * 1000000ull;
    if (role_ == 1 || now < lease_holdoff_ns_ || swo_.running) return;
    if (!lease_try(&why)) return;
    last_role_change_ = "took the lease";
    if (takeover(false, &why, true) != 0) {
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: holding the lease but the takeover was refused: %s", why.c_str());
      lease_release();
    }
    return;
  }
  next_role_ns_ = now + kRequestPollMs * 1000000ull;
  const std::string path = files::root_path(o_.root, "sysmgr/role-request");
  std::string req = read_request(path);
  if (o_.role_source == "manual") {
    if (req.empty()) return;
    std::error_code ec;
    fs::remove(path, ec);  // taken once
  } else if (req.empty()) {
    req = "standby";
  }
  if (req != role_request_)
    plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: role source %s asks for %s", o_.role_source.c_str(), req.c_str());
  role_request_ = req;
  if (req == "active" && role_ == 2 && !swo_.running) {
    last_role_change_ = o_.role_source + " asked for active";
    if (takeover(false, &why, true) != 0)
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: %s asked for active: %s", o_.role_source.c_str(), why.c_str());
  } else if (req != "active" && role_ == 1) {
    role_step_down(o_.role_source + " asked for " + req);
  }
}

// ---- Hooks of the procedures ------------------------------------------------------------------

bool Daemon::role_may_take(bool planned, std::string* why) {
  if (!is_lease(o_)) return true;
  // The peer gave the lease up just before asking (planned): allow it a moment to be free.
  const int tries = planned ? 50 : 1;
  for (int i = 0; i < tries; ++i) {
    if (lease_try(why)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

bool Daemon::role_refuses_planned(std::string* why) const {
  if (!follows_file(o_)) return false;
  *why = "roles follow " + o_.role_source + " here; move the role there (docs/roles.md)";
  return true;
}

void Daemon::role_step_down(const std::string& reason) {
  if (role_ != 1) return;
  plat_syslog(PLAT_LOG_WARNING, "sysmgrd: slot %d steps down: %s", o_.slot, reason.c_str());
  fence_clients(reason);
  send_peer_hello();  // the last numbers, as the active, for the peer's loss report
  set_role(2);
  lease_release();
  swo_.running = false;
  last_role_change_ = "stepped down: " + reason;
}

void Daemon::role_on_client_crash(uint32_t uuid) {
  if (!is_lease(o_) || !o_.failover_on_crash || role_ != 1) return;
  role_step_down("active service uuid 0x" + [&] {
    char b[16];
    std::snprintf(b, sizeof b, "%x", uuid);
    return std::string(b);
  }() + " died");
}

void Daemon::fence_clients(const std::string& reason) {
  if (clients_.empty()) return;
  std::vector<pid_t> pids;
  for (const auto& [uuid, c] : clients_)
    if (c.pid != 0) pids.push_back(static_cast<pid_t>(c.pid));
  plat_syslog(PLAT_LOG_WARNING, "sysmgrd: stopping %zu service(s) of slot %d: %s", pids.size(), o_.slot,
              reason.c_str());
  const std::vector<pid_t> left = stop_pids(pids, o_.fence_ms);
  for (pid_t p : left)
    plat_syslog(PLAT_LOG_CRIT, "sysmgrd: service pid %d survived SIGKILL for %d ms", static_cast<int>(p), 500);
  for (auto it = clients_.begin(); it != clients_.end();) {
    const uint32_t uuid = it->first;
    std::error_code ec;
    fs::remove(files::root_path(o_.root, "sysmgr/client-" + std::to_string(it->second.pid) + ".hello"), ec);
    facts_of(uuid).last_stop = "stopped";
    gsync_client_gone(uuid);
    switchover_finish_client(uuid, "stopped");
    it = clients_.erase(it);
    ++fenced_;
  }
  (void)save_state();
}

void Daemon::role_status(nlohmann::json* j) const {
  nlohmann::json r;
  r["source"] = o_.role_source;
  r["last_change"] = last_role_change_;
  r["services_stopped"] = fenced_;
  if (is_lease(o_)) {
    r["lease_file"] = o_.lease_file;
    r["lease_held"] = lease_held_;
  } else {
    r["request"] = role_request_;
  }
  (*j)["role_source"] = r;
}

}  // namespace hadra::sysmgrd
