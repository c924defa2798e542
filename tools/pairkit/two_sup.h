// Two supervisors on one host as separate processes, for the end-to-end tests and the
// hadra_pair tool.
//
// A driver (a test, or the tool) makes a base directory, then forks one child per supervisor. Each child
// configures its own platform before touching it: root <base>/sup<slot>, its slot, its
// supervisor state and the ZeroMQ transport, so that the two reach each other over ipc://
// sockets under their roots with nothing else configured. The driver itself never uses the
// transport; after the children are gone it may inspect both roots (store_dump.h).
//
// Every wait is bounded: Signal::wait and receive_loop take timeouts, and wait_children kills
// whatever still runs at its deadline, so a broken peer fails the run instead of hanging it.
//
// Until a system-manager daemon exists the driver also stands in for it: it ships the gsync
// snapshot area from one root to the other (ship_area), and the children hand the library
// the system manager's events through the platform's testing interface.
//
// Typical use:
//
//   hadra::pairkit::BaseDir base;
//   hadra::pairkit::Signal ready, finished;
//   pid_t standby = spawn({base.path(), 2, "standby"}, [&] { ... ready.raise(); ... });
//   pid_t active = spawn({base.path(), 1, "active"}, [&] { ready.wait(10000); ... });
//   std::string why;
//   bool ok = wait_children({standby, active}, 60000, &why);
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "hadra_platform/mts.h"

namespace hadra::pairkit {

// A fresh directory made from a mkdtemp template (short, under /tmp, so ipc socket paths
// stay within their limit), removed with everything in it by the destructor unless keep()
// was called or HADRA_KEEP_E2E is set in the environment. path() is empty when it could not
// be made.
class BaseDir {
 public:
  explicit BaseDir(const char* tmpl = "/tmp/hadra-e2e-XXXXXX");
  ~BaseDir();
  BaseDir(const BaseDir&) = delete;
  BaseDir& operator=(const BaseDir&) = delete;
  const std::string& path() const { return path_; }
  void keep() { keep_ = true; }

 private:
  std::string path_;
  bool keep_ = false;
};

// Longest base directory for which every supervisor's ipc socket path still fits a socket
// address (the transport refuses longer ones with ENAMETOOLONG).
constexpr size_t kMaxBaseLen = 80;

// One supervisor's settings.
struct Supervisor {
  std::string base;      // the shared base directory
  int slot;              // 1 or 2
  std::string supstate;  // "active", "standby" or "none"
  // Further platform keys (without the HADRA_ prefix), e.g. {"MTS_HWM", "200"}.
  std::vector<std::pair<std::string, std::string>> extra = {};
  // true: served by the supervisor's hadra-sysmgrd (daemons.h); false: by the in-process
  // stand-in, with the driver playing the system manager.
  bool daemon = false;
};

// <base>/sup<slot>: the root a supervisor of that slot uses.
std::string root_of(const std::string& base, int slot);

// Sets the environment of this process for sup and makes the platform read it again. Call
// it before any platform call of the process.
void configure(const Supervisor& sup);

// Copies the files of snapshot area dir (a path under a root, e.g. "snap/gsync-1") from the
// root of from_slot to the root of to_slot, leaving LMDB's lock files behind: what the
// system manager does over the peer link between gsync snapshot and gsync ready. Returns
// the number of files copied, or -1 (with *why, may be null) when a copy failed.
long ship_area(const std::string& base, int from_slot, int to_slot, const std::string& dir, std::string* why);

// Forks a child that configures itself as sup, runs role and exits with its result (the
// child never returns into the caller). Output of the child goes to the inherited stderr,
// each line prefixed by the role name when it uses it::log(). -1 when fork fails.
pid_t spawn(const Supervisor& sup, const std::function<int()>& role);

// Waits for every child to end, at most timeout_ms in all; children still running then are
// killed. true when every child exited with status 0; otherwise *why (may be null) names
// the first that did not.
bool wait_children(const std::vector<pid_t>& pids, int timeout_ms, std::string* why);

// A one-shot signal between processes forked after its creation (a pipe): one raises it,
// another waits for it.
class Signal {
 public:
  Signal();
  ~Signal();
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  void raise();
  // true when raised within timeout_ms (every raise is seen by exactly one wait).
  bool wait(int timeout_ms);

 private:
  int fds_[2] = {-1, -1};
};

// Prints one line to stderr, "[<who>] <text>", for the children's progress and failures.
void log(const char* who, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// What a receive loop saw.
struct LoopStats {
  uint64_t sync = 0;   // messages hadra_ha_dispatch took as sync messages (result 0)
  uint64_t other = 0;  // messages it did not (result -1), handed to on_other
};

// The client's receive loop: takes each message of sap (bound by the caller), hands it to
// hadra_ha_dispatch and drops it. A message the dispatcher does not take goes first to
// on_other, whose true result ends the loop (after the message is dropped).
// 0 when on_other ended the loop; -1 when a receive failed or no message came within
// idle_timeout_ms.
int receive_loop(uint32_t sap, int idle_timeout_ms, const std::function<bool(const mts_msg_ref&)>& on_other,
                 LoopStats* stats);

// Receives on sap until a message with opcode arrives (others are dropped unseen), at most
// timeout_ms. 0, or -1 on timeout or a failed receive.
int wait_for_opcode(uint32_t sap, uint32_t opcode, int timeout_ms);

}  // namespace hadra::pairkit
