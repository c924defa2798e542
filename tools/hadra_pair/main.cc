// hadra_pair: two supervisors on this host with a sample service, whose state is shown to
// survive a gsync, live changes and a takeover after the active is killed.
//
// Five processes: this driver, and per supervisor its system-manager daemon (hadra-sysmgrd)
// and the sample service (service.h), each supervisor with its own platform root under the
// base directory and the ZeroMQ transport between them. The daemons run gsync and the
// takeover; the driver only starts and kills processes, sends the daemons commands, reads
// their status, shows `hadra status` after each step, and compares the two roots' stores record
// by record. Every wait is bounded by kStepMs and watches the processes, so a supervisor
// that dies ends the run at once with its reason.
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
#include <thread>
#include <vector>

#include "hadra/registry.h"
#include "pairkit/daemons.h"
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
  d. supervisor 1 (its daemon and its service) is killed with SIGKILL; supervisor 2's
     daemon sees the peer gone and is told to take over: it writes the loss report (sync
     messages the old active reported against those applied here; 0 lost) and drives the
     switchover on the service (databases HADRA_HA_RECOVER, the service's switchover hook,
     hadra_ha_recovery_done, databases HADRA_HA_ACTIVE); the new active must hold every
     record the old one had.

Each supervisor is a system-manager daemon (hadra-sysmgrd) and a service process, each with
its own platform root. Gsync goes through the daemons: the standby's service asks its
daemon, the active's daemon has its service write the snapshot, ships the area's files with
a checksum each and a manifest, and the standby's daemon checks them before gsync ready.

After each step, the operator's tool shows each running supervisor: `hadra status` (roles,
the peer link and its round trip, per database its name, sequence numbers sent and applied
and the lag); after the live changes `hadra verify` compares both copies online and must
find 0 differences. The last line is the verdict; the exit status is 0 only when every
check held.

Everything is real: the processes, the daemons, the LMDB stores, the ZeroMQ transport, the
library and the platform; no testing interface is used.

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
  pid_t daemon[2] = {-1, -1};
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

// What a supervisor's daemon says (empty when it is gone).
nlohmann::json daemon_status(const Run& r, int s) {
  nlohmann::json j;
  if (r.gone[s] || r.daemon[s] <= 0 || pairkit::daemon_command(r.base, s + 1, "status", &j) != 0) return {};
  return j;
}

// Sync messages the daemon's services sent (field "sent") or applied ("applied").
uint64_t sync_count(const nlohmann::json& st, const char* field) {
  uint64_t n = 0;
  if (st.contains("services"))
    for (const auto& svc : st["services"])
      for (const auto& d : svc["databases"]) n += d[field].get<uint64_t>();
  return n;
}

// The operator's tool on supervisor slot's root, as an operator runs it: its exit status,
// and its output (stdout and stderr) in *out, also printed indented after the command.
int hadra_tool(const Run& r, int slot, const std::string& args, std::string* out) {
  // The supervisor's slot as its daemon has it (the pair's roots keep it in the environment).
  const std::string cmd = "HADRA_SLOT=" + std::to_string(slot) + " " + HADRA_TOOL_PATH + " --root " +
                          pairkit::root_of(r.base, slot) + " " + args;
  out->clear();
  FILE* p = ::popen((cmd + " </dev/null 2>&1").c_str(), "r");
  if (p == nullptr) return -1;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out->append(buf, n);
  const int st = ::pclose(p);
  std::printf("\n   $ hadra --root sup%d %s\n", slot, args.c_str());
  for (size_t at = 0; at < out->size();) {
    const size_t nl = out->find('\n', at);
    const size_t end = nl == std::string::npos ? out->size() : nl;
    std::printf("   %s\n", out->substr(at, end - at).c_str());
    at = end + 1;
  }
  std::fflush(stdout);
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// The status table after a step is the operator's: `hadra status` on each supervisor whose
// daemon runs.
void table(const Run& r) {
  std::string out;
  for (int s = 0; s < 2; ++s)
    if (!r.gone[s] && r.daemon[s] > 0) (void)hadra_tool(r, s + 1, "status", &out);
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

// A supervisor process that ended although it should run: its description, else "".
std::string someone_ended(Run& r) {
  for (int s = 0; s < 2; ++s) {
    if (r.gone[s]) continue;
    for (pid_t p : {r.pid[s], r.daemon[s]}) {
      const std::string how = p > 0 ? ended(p) : "";
      if (how.empty()) continue;
      const bool service = p == r.pid[s];
      const std::string why = service && r.sup[s].failure[0] != '\0' ? r.sup[s].failure : how;
      return std::string(service ? "the service" : "the daemon") + " of supervisor " + std::to_string(s + 1) +
             " ended: " + why;
    }
  }
  return "";
}

// Waits until done() holds, watching the processes: false (and a failed check) when one ends
// first or the step takes longer than kStepMs.
template <class F>
bool await_cond(Run& r, const char* what, F done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStepMs);
  while (std::chrono::steady_clock::now() < deadline) {
    if (done()) return true;
    if (const std::string why = someone_ended(r); !why.empty()) {
      check(r, false, std::string("waiting for ") + what, why);
      return false;
    }
  }
  check(r, false, std::string("waiting for ") + what, "no answer within " + std::to_string(kStepMs) + " ms");
  return false;
}

bool await(Run& r, pairkit::Signal& sig, const char* what) {
  return await_cond(r, what, [&] { return sig.wait(100); });
}

// Polls supervisor s's daemon until pred holds on its status.
template <class F>
bool await_daemon(Run& r, int s, const char* what, F pred) {
  return await_cond(r, what, [&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const nlohmann::json st = daemon_status(r, s);
    return !st.empty() && pred(st);
  });
}

bool start_daemon(Run& r, int slot) {
  std::string why;
  r.daemon[slot - 1] = pairkit::start_daemon(r.base, slot, slot == 1 ? "active" : "standby", {}, 10000, &why);
  check(r, r.daemon[slot - 1] > 0, "the daemon of supervisor " + std::to_string(slot) + " runs", why);
  return r.daemon[slot - 1] > 0;
}

pid_t start(Run& r, int slot) {
  const char* supstate = slot == 1 ? "active" : "standby";
  // Supervisor 1 sends its first records before supervisor 2 listens: room to queue them
  // all (five messages a record: three sync messages and two SDB update notifications),
  // or each send beyond the queue's room would wait out the send timeout and fail.
  const std::string hwm = std::to_string(8 * r.opt.records + 1000);
  pairkit::Supervisor sup{r.base, slot, supstate, {{"MTS_HWM", hwm}, {"UUID", "1441"}}, true};
  SupStatus* status = &r.sup[slot - 1];
  Run* run = &r;
  r.pid[slot - 1] = pairkit::spawn(sup, [run, slot, status] {
    return slot == 1 ? run_active(run->opt.records, run->steps, status) : run_standby(run->steps, status);
  });
  if (r.pid[slot - 1] <= 0) check(r, false, "starting supervisor " + std::to_string(slot), std::strerror(errno));
  return r.pid[slot - 1];
}

bool all_in(const SupStatus& st, uint32_t state) {
  for (uint32_t s : st.ha_state)
    if (s != state) return false;
  return st.up != 0;
}

bool step_a(Run& r) {
  heading("a. supervisor 1 starts as active; the service writes its first records");
  if (!start_daemon(r, 1) || !start_daemon(r, 2)) return false;
  if (start(r, 1) <= 0 || !await(r, r.steps.written, "the first records")) return false;
  table(r);
  return true;
}

bool step_b(Run& r) {
  heading("b. supervisor 2 starts as a fresh standby and is brought up by gsync through the daemons");
  if (start(r, 2) <= 0) return false;
  if (!await_cond(r, "gsync ready", [&] { return all_in(r.sup[1], HADRA_HA_STANDBY); })) return false;
  const nlohmann::json st = daemon_status(r, 1);
  check(r, st["gsync"]["done"] == 1 && st["gsync"]["failed"] == 0,
        "the snapshot area was shipped, verified against its manifest and rebuilt on supervisor 2",
        st["gsync"]["last_error"].get<std::string>());
  const Dumps d = dump_both(r);
  table(r);
  compare(r, d, false, "after gsync");
  return true;
}

// The operator's view of the same moment, through the operator's tool (docs/hadra.md): its
// status table, and its online verify of both supervisors' copies finding no difference.
void operator_view(Run& r) {
  std::string out;
  const int rc = hadra_tool(r, 1, "verify", &out);
  check(r, rc == 0 && out.find("\n0 difference(s)") != std::string::npos, "hadra verify finds 0 differences",
        "exit " + std::to_string(rc));
}

bool step_c(Run& r) {
  heading("c. live changes on the active reach the standby as sync messages");
  r.steps.live.raise();
  if (!await(r, r.steps.live_sent, "the live changes")) return false;
  const uint64_t sent = sync_count(daemon_status(r, 0), "sent");
  // Everything supervisor 1 reported sending, supervisor 2 applied (the snapshot's share
  // counted in): the standby's daemon compares the two.
  const bool caught_up = await_daemon(r, 1, "the standby to apply them", [&](const nlohmann::json& st) {
    uint64_t reported = 0;
    for (const auto& svc : st["peer_reported"]) reported += svc["sent"].get<uint64_t>();
    return reported == sent && sync_count(st, "applied") == sent;
  });
  if (!caught_up) return false;
  const Dumps d = dump_both(r);
  table(r);
  check(r, true, "every sync message sent was applied or covered by the snapshot", std::to_string(sent) + " messages");
  compare(r, d, true, "after the live changes");
  operator_view(r);
  return true;
}

bool step_d(Run& r) {
  heading("d. supervisor 1 is killed; supervisor 2 takes over");
  kill(r.pid[0], SIGKILL), waitpid(r.pid[0], nullptr, 0);
  kill(r.daemon[0], SIGKILL), waitpid(r.daemon[0], nullptr, 0);
  r.gone[0] = true;
  std::printf("   [driver] supervisor 1 killed (SIGKILL to its daemon and its service)\n");
  std::fflush(stdout);
  if (!await_daemon(r, 1, "supervisor 2 to see its peer gone", [](const nlohmann::json& st) {
        return !st["peer"]["up"].get<bool>();
      }))
    return false;
  nlohmann::json out;
  const int rc = pairkit::daemon_command(r.base, 2, "takeover", &out);
  check(r, rc == 0, "supervisor 2's daemon took over", out.value("error", ""));
  if (rc != 0) return false;
  std::printf("   loss report (per database: last reported by the old active, last applied here, missing):\n");
  for (const auto& row : out["loss_report"]["databases"])
    std::printf("     %s #%d: %llu %llu %llu\n", row["service"].get<std::string>().c_str(), row["database"].get<int>(),
                row["last_reported"].get<unsigned long long>(), row["last_applied"].get<unsigned long long>(),
                row["missing"].get<unsigned long long>());
  const bool none_lost = out["loss_report"]["known"] && out["loss_report"]["lost"] == 0;
  check(r, none_lost, "the loss report says 0 lost", none_lost ? "" : out["loss_report"].dump());
  if (!await_cond(r, "the switchover", [&] { return all_in(r.sup[1], HADRA_HA_ACTIVE) && r.sup[1].switched != 0; }))
    return false;
  const Dumps d = dump_both(r);
  table(r);
  check(r, r.sup[1].supstate == 1, "supervisor 2 is active with every database HADRA_HA_ACTIVE");
  compare(r, d, true, "after the takeover");
  r.steps.finish.raise();
  std::string why;
  check(r, pairkit::wait_children({r.pid[1]}, kStepMs, &why), "supervisor 2's service ended cleanly", why);
  check(r, pairkit::stop_daemon(r.daemon[1], 5000) == 0, "supervisor 2's daemon stopped cleanly (SIGTERM)");
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
  for (int s = 0; s < 2; ++s)
    if (r.daemon[s] > 0 && !r.gone[s]) pairkit::stop_daemon(r.daemon[s], 3000);
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
    std::printf("\nPASS: the service's state survived gsync, live changes and a takeover after kill -9\n");
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
