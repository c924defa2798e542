// What the history rings tell status and metrics, and what the daemon watches for them:
//   - per database of a live service: its name and URI, messages and bytes sent and applied
//     (the totals in the ring's header), and the lag in milliseconds: on the active, the age
//     of the oldest sync message it sent that the standby has not applied (the standby's
//     last applied number comes with the peer's hello); on the standby, the same figure as
//     the active's last ping carried it;
//   - how long gsyncs and switchovers took. The procedures keep their own records; their start
//     is their deadline less the timeout they were given, and their end is seen at the next
//     tick after it (the loop ticks every 20 ms), so no procedure needs to report to metrics.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "daemon.h"
#include "hadra_platform/log.h"
#include "history_core.h"
#include "history_state.h"

namespace hadra::sysmgrd {

namespace hist = hadra::plat::hist;

namespace {

uint64_t wall_ns() {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// The ring of one process; false when it keeps none (or it cannot be read).
bool ring_of(const std::string& root, uint32_t pid, hist::Ring* out) {
  const std::string path = root + "/log/hist-" + std::to_string(pid) + ".ring";
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  bool ok = false;
  if (::fstat(fd, &st) == 0 && st.st_size > 0) {
    const size_t size = static_cast<size_t>(st.st_size);
    void* map = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    if (map != MAP_FAILED) {
      std::string why;
      ok = hist::read_ring(map, size, out, &why);
      ::munmap(map, size);
    }
  }
  ::close(fd);
  return ok;
}

}  // namespace

std::map<std::pair<uint32_t, uint8_t>, DbView> Daemon::db_views() const {
  std::map<std::pair<uint32_t, uint8_t>, DbView> out;
  const HistoryState& hs = history_state();
  // The standby's last applied numbers, for the active's lag.
  std::map<std::pair<uint32_t, uint8_t>, uint64_t> standby_applied;
  if (role_ == 1 && peer_ && peer_up())
    for (const proto::ServiceSeq& s : peer_->services)
      for (const proto::DbSeq& d : s.dbs) standby_applied[{s.uuid, d.index}] = d.applied_seqno;
  const uint64_t now = wall_ns();
  for (const auto& [uuid, c] : clients_) {
    hist::Ring r;
    if (!ring_of(o_.root, c.pid, &r)) continue;
    for (uint8_t i = 1; i <= hist::kRingMaxIndex; ++i) {
      const hist::DbTotals& t = r.db[i];
      if (t.name.empty() && t.sent_msgs == 0 && t.applied_msgs == 0) continue;
      DbView& v = out[{uuid, i}];
      v.name = history::printable(t.name), v.uri = history::printable(t.uri);
      v.sent_msgs = t.sent_msgs, v.sent_bytes = t.sent_bytes;
      v.applied_msgs = t.applied_msgs, v.applied_bytes = t.applied_bytes;
      if (role_ == 1) {
        const auto a = standby_applied.find({uuid, i});
        if (a == standby_applied.end()) continue;  // no standby to lag behind
        v.lag_ms = 0;
        for (const hist::Entry& e : r.entries)  // oldest first: the first one not applied
          if (e.kind == hist::kSent && e.index == i && e.ha_seqno > a->second) {
            v.lag_ms = static_cast<int64_t>(now > e.time_ns ? (now - e.time_ns) / 1000000ull : 0);
            break;
          }
      }
    }
  }
  if (role_ == 2 && peer_up() && hs.lags_at_ns + 5000000000ull > now_ns())
    for (const proto::DbLag& l : hs.peer_lags) {
      DbView& v = out[{l.uuid, l.index}];
      v.lag_ms = static_cast<int64_t>(l.lag_ms);
      if (v.name.empty()) v.name = history::printable(l.name);
    }
  return out;
}

void Daemon::watch_procedures(uint64_t now) {
  HistoryState& h = history_state();
  // gsyncs of this supervisor as the standby: from the request to the service's answer.
  for (const auto& [xfer, in] : incoming_)
    h.gsync_started.emplace(xfer, in.deadline_ns - static_cast<uint64_t>(o_.gsync_timeout_ms) * 1000000ull);
  for (auto it = h.gsync_started.begin(); it != h.gsync_started.end();) {
    if (incoming_.count(it->first) != 0) {
      ++it;
      continue;
    }
    // Ended since the last tick: done or failed, as the counters moved.
    const bool failed = gsyncs_failed_ > h.seen_failed;
    Durations& d = failed ? h.gsync_failed : h.gsync_done;
    d.sum_s += static_cast<double>(now - it->second) / 1e9;
    ++d.count;
    if (failed) ++h.seen_failed;
    it = h.gsync_started.erase(it);
  }
  h.seen_failed = gsyncs_failed_;
  // Switchovers and takeovers: from the role change to the last service's answer.
  if (switchovers_ != h.seen_switchovers) {
    h.seen_switchovers = switchovers_;
    h.swo_started_ns = swo_.deadline_ns - static_cast<uint64_t>(o_.switchover_timeout_ms) * 1000000ull;
    h.swo_open = true;
  }
  if (h.swo_open && !swo_.running) {
    h.swo_open = false;
    h.switchover.sum_s += static_cast<double>(now - h.swo_started_ns) / 1e9;
    ++h.switchover.count;
  }
}

std::vector<proto::DbLag> Daemon::own_lags() const {
  std::vector<proto::DbLag> out;
  if (role_ != 1) return out;
  for (const auto& [id, v] : db_views())
    if (v.lag_ms >= 0) out.push_back({id.first, id.second, static_cast<uint64_t>(v.lag_ms), v.name.substr(0, 64)});
  return out;
}

// Every process that ever kept a ring left its file; those of live processes stay, and of
// the ended ones the newest few (a crash is best read soon after), the rest are removed,
// each with a line in the log.
void Daemon::prune_rings() {
  constexpr size_t kKeepEnded = 4;
  const std::string dir = o_.root + "/log";
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return;
  std::vector<std::pair<int64_t, std::string>> ended;  // mtime, name
  while (const dirent* e = ::readdir(d)) {
    const std::string name = e->d_name;
    if (!name.starts_with("hist-") || !name.ends_with(".ring")) continue;
    const long pid = std::strtol(name.c_str() + 5, nullptr, 10);
    if (pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM)) continue;
    struct stat st {};
    if (::stat((dir + "/" + name).c_str(), &st) == 0) ended.emplace_back(st.st_mtim.tv_sec, name);
  }
  ::closedir(d);
  if (ended.size() <= kKeepEnded) return;
  std::sort(ended.begin(), ended.end());
  for (size_t i = 0; i + kKeepEnded < ended.size(); ++i) {
    const std::string path = dir + "/" + ended[i].second;
    if (::unlink(path.c_str()) == 0)
      plat_syslog(PLAT_LOG_INFO, "sysmgrd: history ring %s of an ended process removed (the newest %zu are kept)",
                  path.c_str(), kKeepEnded);
    else
      plat_syslog(PLAT_LOG_WARNING, "sysmgrd: history ring %s not removed: %s", path.c_str(), std::strerror(errno));
  }
}

}  // namespace hadra::sysmgrd
