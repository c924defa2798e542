// hadra_pair: two supervisors on this host with a sample service, whose state is shown to
// survive a gsync, live changes and a switchover.
//
// Three processes: this driver and one child per supervisor (pairkit::spawn), each child
// with its own platform root under the base directory and the ZeroMQ transport between
// them. The children run the sample service (service.h) and publish their status in a
// shared page; the driver moves them from step to step with pairkit signals, prints a
// status table after each step, and compares the two roots' stores record by record.
//
// Until a system-manager daemon exists the driver and the children play its part: the
// events reach the service through the platform's testing interface, and the driver ships
// the gsync snapshot area from one root to the other. Every wait is bounded by kStepMs and
// watches the children, so a supervisor that dies ends the run at once with its reason.
#include <sys/mman.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "hadra/registry.h"
#include "pairkit/store_dump.h"
#include "pairkit/two_sup.h"
#include "service.h"

namespace hadra::pair {
namespace {

namespace fs = std::filesystem;
using pairkit::RootDump;

constexpr const char* kHelp =
    R"(usage: hadra_pair [--dir D] [--records N] [--keep] [--transport zmq]

Runs two supervisors on this host, each a process with its own platform root, with a
sample service that keeps its state in a PSS file "routes", an SDB "peers" and an MSDB
"sessions" (two secondary keys per record), and shows that state surviving a switchover:

  a. supervisor 1 starts as active; the service writes N records of each kind;
  b. supervisor 2 starts as a fresh standby and is brought up by gsync: a snapshot on the
     active, the snapshot area shipped, gsync ready on the standby (every database
     HADRA_HA_STANDBY); both copies are compared record by record;
  c. live changes on the active (updates, deletes, an SDB batch, an MSDB batch) reach the
     standby's receive loop and dispatcher as sync messages; compared again;
  d. supervisor 1 is killed; switchover on supervisor 2 (databases HADRA_HA_RECOVER, the
     service's switchover hook, hadra_ha_recovery_done, databases HADRA_HA_ACTIVE); the
     new active must hold every record the old one had.

A status table follows each step: per supervisor its role, each database's HA state and
record count (read from its stores), and the sync messages it sent and applied. The last
line is the verdict; the exit status is 0 only when every check held, 1 otherwise.

Real: the processes, the LMDB stores, the ZeroMQ transport between the supervisors, the
library and the platform. Stood in for: the system-manager daemon, which does not exist
yet. The tool plays its part through the platform's testing interface: it hands the gsync
and switchover events to the service, ships the snapshot area from one root to the other,
and reads back the service's answers.

options:
  --dir D        put the supervisor roots in D/sup1 and D/sup2, which must not exist yet;
                 default: a fresh directory under /tmp
  --records N    records of each kind written first, 1 to 10000; default 200
  --keep         keep the roots at the end and say where they are
  --transport T  transport between the supervisors; zmq (the default) is the one that
                 links two processes
  --help         this text
)";

struct Options {
  std::string dir;
  int records = 200;
  bool keep = false;
};

// 0: go on; otherwise the exit status (0 after --help, 2 for a usage error).
int parse(int argc, char** argv, Options* o, bool* stop) {
  *stop = true;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
    if (arg == "--help" || arg == "-h") return std::fputs(kHelp, stdout), 0;
    if (arg == "--keep") {
      o->keep = true;
      continue;
    }
    if (next == nullptr || (arg != "--dir" && arg != "--records" && arg != "--transport"))
      return std::fprintf(stderr, "hadra_pair: %s: unknown option or missing value (see --help)\n", arg.c_str()), 2;
    ++i;
    if (arg == "--dir") {
      o->dir = next;
    } else if (arg == "--transport") {
      if (std::strcmp(next, "zmq") != 0)
        return std::fprintf(stderr, "hadra_pair: transport %s: only zmq links two processes\n", next), 2;
    } else {
      char* end = nullptr;
      errno = 0;
      const long n = std::strtol(next, &end, 10);
      if (errno != 0 || end == next || *end != '\0' || n < 1 || n > 10000)
        return std::fprintf(stderr, "hadra_pair: --records %s: give a number from 1 to 10000\n", next), 2;
      o->records = static_cast<int>(n);
    }
  }
  *stop = false;
  return 0;
}

struct Run {
  Options opt;
  std::string base;
  SupStatus* sup = nullptr;  // [2], in a page shared with the children
  Steps steps;
  pid_t pid[2] = {-1, -1};
  bool gone[2] = {false, false};  // taken down on purpose
  std::vector<std::string> failed;
};

void heading(const char* text) {
  std::printf("\n== %s\n", text);
  std::fflush(stdout);
}

void check(Run& r, bool ok, const std::string& what, const std::string& detail = "") {
  std::printf("   %s %s%s%s\n", ok ? "ok  " : "FAIL", what.c_str(), detail.empty() ? "" : ": ", detail.c_str());
  std::fflush(stdout);
  if (ok) return;
  // The verdict names the first failure in one line: the detail's first line at most.
  const size_t from = detail.find_first_not_of('\n');
  const std::string line = from == std::string::npos ? "" : detail.substr(from, detail.find('\n', from) - from);
  r.failed.push_back(what + (line.empty() ? "" : ": " + line));
}

// The stores of both running configurations.
struct Dumps {
  RootDump sup[2];
};

Dumps dump_both(const Run& r) {
  Dumps d;
  for (int s = 0; s < 2; ++s) d.sup[s] = pairkit::dump_root(pairkit::root_of(r.base, s + 1), {"run"});
  return d;
}

const pairkit::StoreDump* store_of(const RootDump& d, const char* name) {
  for (const auto& [uri, store] : d)
    if (uri.ends_with(std::string("/") + name)) return &store;
  return nullptr;
}

const char* role_of(const Run& r, int s) {
  if (r.gone[s]) return "gone";
  if (r.pid[s] <= 0 || r.sup[s].up == 0) return "-";
  return r.sup[s].supstate == 1 ? "active" : r.sup[s].supstate == 2 ? "standby" : "none";
}

void table(const Run& r, const Dumps& d) {
  std::printf("\n   %-4s %-8s", "sup", "role");
  for (const char* name : kDbNames) std::printf(" | %-18s", name);
  std::printf(" | %9s %9s\n", "sync sent", "applied");
  for (int s = 0; s < 2; ++s) {
    const SupStatus& st = r.sup[s];
    const bool running = r.pid[s] > 0 && st.up != 0 && !r.gone[s];
    std::printf("   %-4d %-8s", s + 1, role_of(r, s));
    for (int i = 0; i < kDatabases; ++i) {
      const char* state = running && st.ha_state[i] < 4 ? hadra_ha_pss_state2str[st.ha_state[i]] + 9 : "-";
      const pairkit::StoreDump* store = store_of(d.sup[s], kDbNames[i]);
      const std::string count = store != nullptr ? std::to_string(store->records.size()) : "-";
      std::printf(" | %-8s %9s", state, count.c_str());
    }
    std::printf(" | %9llu %9llu\n", static_cast<unsigned long long>(st.sent),
                static_cast<unsigned long long>(st.applied));
  }
  std::fflush(stdout);
}

// Supervisor 1 holds what the service wrote, and supervisor 2 the same records, secondary
// keys included.
void compare(Run& r, const Dumps& d, bool after_live, const char* when) {
  uint64_t want[kDatabases];
  expected_counts(r.opt.records, after_live, want);
  std::string held, wrong;
  for (int i = 0; i < kDatabases; ++i) {
    const pairkit::StoreDump* store = store_of(d.sup[0], kDbNames[i]);
    const std::string have = store != nullptr ? std::to_string(store->records.size()) : "no";
    held += (i == 0 ? "" : ", ") + have + " " + kDbNames[i];
    if (store == nullptr || store->records.size() != want[i])
      wrong += std::string(kDbNames[i]) + " should have " + std::to_string(want[i]) + "; ";
  }
  check(r, wrong.empty() && d.sup[0].size() == kDatabases, "supervisor 1 holds what the service wrote (" + held + ")",
        wrong.empty() ? "" : wrong + std::to_string(d.sup[0].size()) + " stores");
  const std::string diff = pairkit::compare_dumps(d.sup[0], d.sup[1], "sup1", "sup2");
  check(r, diff.empty(), std::string(when) + ", supervisor 2 holds the same records, secondary keys included",
        diff.empty() ? "" : "\n" + diff);
}

// "" while pid runs; otherwise how it ended. The child is left for wait_children to reap.
std::string ended(pid_t pid) {
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != pid) return "";
  if (info.si_code == CLD_EXITED) return "exit status " + std::to_string(info.si_status);
  return "killed by signal " + std::to_string(info.si_status);
}

// Waits for sig, watching the children: false (and a failed check) when one ends first or
// the step takes longer than kStepMs.
bool await(Run& r, pairkit::Signal& sig, const char* what) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStepMs);
  while (std::chrono::steady_clock::now() < deadline) {
    if (sig.wait(100)) return true;
    for (int s = 0; s < 2; ++s) {
      const std::string how = r.pid[s] > 0 && !r.gone[s] ? ended(r.pid[s]) : "";
      if (how.empty()) continue;
      const std::string why = r.sup[s].failure[0] != '\0' ? r.sup[s].failure : how;
      check(r, false, std::string("supervisor ") + std::to_string(s + 1) + " ended while waiting for " + what, why);
      return false;
    }
  }
  check(r, false, std::string("waiting for ") + what, "no answer within " + std::to_string(kStepMs) + " ms");
  return false;
}

pid_t start(Run& r, int slot) {
  const char* supstate = slot == 1 ? "active" : "standby";
  // Supervisor 1 sends its first records before supervisor 2 listens: room to queue them
  // all (five messages a record: three sync messages and two SDB update notifications),
  // or each send beyond the queue's room would wait out the send timeout and fail.
  const std::string hwm = std::to_string(8 * r.opt.records + 1000);
  pairkit::Supervisor sup{r.base, slot, supstate, {{"MTS_HWM", hwm}}};
  SupStatus* status = &r.sup[slot - 1];
  Run* run = &r;
  r.pid[slot - 1] = pairkit::spawn(sup, [run, slot, status] {
    return slot == 1 ? run_active(run->opt.records, run->steps, status) : run_standby(run->steps, status);
  });
  if (r.pid[slot - 1] <= 0) check(r, false, "starting supervisor " + std::to_string(slot), std::strerror(errno));
  return r.pid[slot - 1];
}

bool step_a(Run& r) {
  heading("a. supervisor 1 starts as active; the service writes its first records");
  if (start(r, 1) <= 0 || !await(r, r.steps.written, "the first records")) return false;
  table(r, dump_both(r));
  return true;
}

bool step_b(Run& r) {
  heading("b. supervisor 2 starts as a fresh standby and is brought up by gsync");
  if (start(r, 2) <= 0 || !await(r, r.steps.standby_up, "the standby to start")) return false;
  r.steps.snapshot.raise();
  if (!await(r, r.steps.covered, "the gsync snapshot")) return false;
  std::string why;
  const long files = pairkit::ship_area(r.base, 1, 2, kAreaDir, &why);
  check(r, files >= kDatabases, std::string("snapshot area ") + kAreaDir + " shipped from sup1 to sup2",
        files < 0 ? why : std::to_string(files) + " files");
  if (files < kDatabases) return false;
  r.steps.shipped.raise();
  if (!await(r, r.steps.synced, "gsync ready")) return false;
  const Dumps d = dump_both(r);
  table(r, d);
  compare(r, d, false, "after gsync");
  return true;
}

bool step_c(Run& r) {
  heading("c. live changes on the active reach the standby as sync messages");
  r.steps.live.raise();
  if (!await(r, r.steps.live_sent, "the live changes") || !await(r, r.steps.applied, "the standby to apply them"))
    return false;
  const Dumps d = dump_both(r);
  table(r, d);
  const uint64_t live = r.sup[0].sent - r.sup[0].sent_at_snapshot;
  check(r, live > 0 && r.sup[1].applied == live, "every sync message sent after the snapshot was applied",
        std::to_string(live) + " sent, " + std::to_string(r.sup[1].applied) + " applied");
  compare(r, d, true, "after the live changes");
  return true;
}

bool step_d(Run& r) {
  heading("d. supervisor 1 goes away; supervisor 2 takes over by switchover");
  kill(r.pid[0], SIGKILL);
  waitpid(r.pid[0], nullptr, 0);
  r.gone[0] = true;
  std::printf("   [driver] supervisor 1 killed (SIGKILL)\n");
  std::fflush(stdout);
  r.steps.takeover.raise();
  if (!await(r, r.steps.switched, "the switchover")) return false;
  const Dumps d = dump_both(r);
  table(r, d);
  bool active = r.sup[1].supstate == 1;
  for (uint32_t state : r.sup[1].ha_state) active &= state == HADRA_HA_ACTIVE;
  check(r, active, "supervisor 2 is active with every database HADRA_HA_ACTIVE");
  compare(r, d, true, "after the switchover");
  r.steps.finish.raise();
  std::string why;
  check(r, pairkit::wait_children({r.pid[1]}, kStepMs, &why), "supervisor 2 ended cleanly", why);
  r.gone[1] = true;
  return true;
}

// The base directory: D given by the user (its sup1 and sup2 must not exist yet), or a
// fresh one under /tmp. Either way only what the run made is removed at the end.
bool prepare(Run& r, std::unique_ptr<pairkit::BaseDir>* made) {
  std::error_code ec;
  if (r.opt.dir.empty()) {
    *made = std::make_unique<pairkit::BaseDir>("/tmp/hadra-pair-XXXXXX");
    if (r.opt.keep) (*made)->keep();
    r.base = (*made)->path();
  } else {
    r.base = fs::absolute(r.opt.dir, ec).lexically_normal().string();
    while (r.base.size() > 1 && r.base.ends_with('/')) r.base.pop_back();
    fs::create_directories(r.base, ec);
  }
  const char* problem = r.base.empty() || ec ? "cannot be made"
                        : r.base.size() > pairkit::kMaxBaseLen ? "is too long for the supervisors' ipc socket paths"
                        : fs::exists(pairkit::root_of(r.base, 1)) || fs::exists(pairkit::root_of(r.base, 2))
                            ? "already holds supervisor roots (sup1, sup2)"
                            : nullptr;
  if (problem != nullptr) std::fprintf(stderr, "hadra_pair: directory %s %s\n", r.base.c_str(), problem);
  return problem == nullptr;
}

void finish(Run& r) {
  std::vector<pid_t> left;
  for (int s = 0; s < 2; ++s)
    if (r.pid[s] > 0 && !r.gone[s]) left.push_back(r.pid[s]);
  if (!left.empty()) pairkit::wait_children(left, 0, nullptr);  // a failed run: end them now
  if (r.opt.keep) {
    std::printf("\nroots kept: %s and %s (stores under run/, the snapshot under snap/, logs in log/)\n",
                pairkit::root_of(r.base, 1).c_str(), pairkit::root_of(r.base, 2).c_str());
  } else if (!r.opt.dir.empty()) {
    std::error_code ec;
    for (int slot = 1; slot <= 2; ++slot) fs::remove_all(pairkit::root_of(r.base, slot), ec);
  }
}

int run(const Options& opt) {
  Run r;
  r.opt = opt;
  std::unique_ptr<pairkit::BaseDir> made;
  if (!prepare(r, &made)) return 1;
  void* page = mmap(nullptr, 2 * sizeof(SupStatus), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return std::perror("hadra_pair: mmap"), 1;
  r.sup = static_cast<SupStatus*>(page);  // zero-filled: nobody up yet
  std::printf("hadra_pair: %d records of each kind, supervisors under %s\n", opt.records, r.base.c_str());
  const bool completed = step_a(r) && step_b(r) && step_c(r) && step_d(r);
  finish(r);
  munmap(page, 2 * sizeof(SupStatus));
  if (completed && r.failed.empty()) {
    std::printf("\nPASS: the service's state survived gsync, live changes and a switchover\n");
    return 0;
  }
  std::printf("\nFAIL: %s%s\n", r.failed.empty() ? "the run stopped early" : r.failed.front().c_str(),
              opt.keep ? "" : " (run again with --keep to inspect the roots and their logs)");
  return 1;
}

}  // namespace
}  // namespace hadra::pair

int main(int argc, char** argv) {
  hadra::pair::Options opt;
  bool stop = false;
  const int rc = hadra::pair::parse(argc, argv, &opt, &stop);
  return stop ? rc : hadra::pair::run(opt);
}
