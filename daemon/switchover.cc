// Switchover, takeover, the loss report, and the configuration write.
//
// Takeover (this standby becomes active) runs on every attached service:
//   event switchover request, then YOU_ARE_ALMOST_ACTIVE and YOU_ARE_ACTIVE on its queue;
//   the service answers (at once, or later through hadra_ha_recovery_done);
//   events active marker and switchover done follow its answer.
// A service that does not answer within SWITCHOVER_TIMEOUT_MS, or dies, is logged and the
// switchover goes on without it. Before the first event the daemon compares, per service
// and database, the numbers the old active last reported with what this supervisor
// applied, and writes the loss report (log and status).
//
// A planned switchover is asked of the active: it stops its own services (they come back as
// standbys), takes the standby role, gives the lease up and tells its peer to take over. A
// takeover by command is refused while the peer is up and active, so the pair never has two
// actives by command; with a lease it also needs the lease (role.cc).
//
// Configuration write: every service copies its configuration files into a staging area;
// only when all of them succeeded is the staging area synced and exchanged with the startup
// area in one rename (all or nothing), otherwise it is removed.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "daemon.h"
#include "hadra_platform/log.h"
#include "sysmgr/seqno_table.h"

namespace hadra::sysmgrd {
namespace {

namespace fs = std::filesystem;

bool send_plain(uint32_t sap, uint32_t opcode) {
  return mts_send(SYSMGR_SAP, MTS_ADDR_LOCAL, sap, opcode, nullptr, 0, nullptr, MTS_SEND_NONBLOCK, nullptr) == 0;
}

// The part of a service's sequence-number table the loss report needs.
struct SeqnoTableView {
  uint32_t pid = 0;
  uint32_t uuid = 0;
  uint64_t seqno[proto::kMaxIndex + 1] = {};
  uint32_t count[proto::kMaxIndex + 1] = {};
};

bool read_seqno_table(const std::string& path, SeqnoTableView* out) {
  plat::sysmgr::SeqnoTable t{};
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool whole = ::pread(fd, &t, sizeof t, 0) == static_cast<ssize_t>(sizeof t);
  ::close(fd);
  if (!whole || t.magic != plat::sysmgr::kSeqnoMagic) return false;
  out->pid = t.pid;
  out->uuid = t.uuid;
  for (uint32_t i = 1; i <= proto::kMaxIndex; ++i) out->seqno[i] = t.slot[i].seqno, out->count[i] = t.slot[i].reports;
  return true;
}

bool pid_running(uint32_t pid) { return pid != 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM); }

bool sync_tree(const std::string& dir) {
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec))
    if (!files::sync_path(it->path().string())) return false;
  return !ec && files::sync_path(dir);
}

}  // namespace

void Daemon::loss_report() {
  loss_.clear();
  loss_amended_ = false;
  loss_known_ = !peer_active_seq_.empty();
  std::map<uint32_t, proto::ServiceSeq> mine;
  for (proto::ServiceSeq& s : own_sequences()) mine[s.uuid] = std::move(s);
  uint64_t total = 0;
  for (const auto& [uuid, theirs] : peer_active_seq_) {
    const auto own = mine.find(uuid);
    for (const proto::DbSeq& d : theirs.dbs) {
      LossRow r;
      r.uuid = uuid;
      r.service = theirs.name;
      r.index = d.index;
      r.last_reported = d.sent_seqno;
      uint32_t applied = 0;
      if (own != mine.end())
        for (const proto::DbSeq& o : own->second.dbs)
          if (o.index == d.index) r.last_applied = o.applied_seqno, applied = o.applied_count;
      r.missing = d.sent_count > applied ? d.sent_count - applied : 0;
      r.reported_count = d.sent_count;
      r.applied_count = applied;
      total += r.missing;
      plat_syslog(r.missing != 0 ? PLAT_LOG_ERR : PLAT_LOG_NOTICE,
                  "sysmgrd: loss report: service %s database %u: last reported %llu, last applied %llu, missing %llu%s",
                  r.service.c_str(), r.index, static_cast<unsigned long long>(r.last_reported),
                  static_cast<unsigned long long>(r.last_applied), static_cast<unsigned long long>(r.missing),
                  own == mine.end() ? " (the service does not run here)" : "");
      loss_.push_back(r);
    }
  }
  if (!loss_known_)
    plat_syslog(PLAT_LOG_WARNING, "sysmgrd: loss report: the old active never reported its sequence numbers");
  else
    plat_syslog(total != 0 ? PLAT_LOG_ERR : PLAT_LOG_NOTICE, "sysmgrd: loss report: %llu sync messages lost in all",
                static_cast<unsigned long long>(total));
}

// The loss report counts what the old active had reported (its hellos, every HEARTBEAT_MS)
// against what this supervisor applied: changes it committed after its last report are not
// in it. When the old active's daemon comes back, it finds the sequence-number tables its
// dead services left under its root and sends them here; the report is then amended with the
// real count. The tables are removed once sent, so an older life is never reported again.
void Daemon::send_left_behind() {
  if (!peer_ || peer_->role != 1) return;
  const std::string dir = files::root_path(o_.root, "sysmgr");
  struct Found {
    std::string path;
    SeqnoTableView t;
    int64_t mtime = 0;
  };
  std::map<uint32_t, Found> newest;
  std::vector<std::string> dead;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(dir, ec)) {
    const std::string name = e.path().filename().string();
    if (!name.starts_with("seqno-") || !name.ends_with(".tbl")) continue;
    Found f;
    f.path = e.path().string();
    if (!read_seqno_table(f.path, &f.t) || pid_running(f.t.pid)) continue;
    struct stat st {};
    if (::stat(f.path.c_str(), &st) == 0) f.mtime = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    dead.push_back(f.path);
    auto it = newest.find(f.t.uuid);
    if (it == newest.end() || f.mtime > it->second.mtime) newest[f.t.uuid] = f;
  }
  if (newest.empty()) return;
  proto::PeerHello h;
  h.slot = static_cast<uint8_t>(o_.slot);
  h.role = static_cast<uint8_t>(role_);
  h.boot_id = boot_id_;
  for (const auto& [uuid, f] : newest) {
    proto::ServiceSeq s;
    s.uuid = uuid;
    for (uint8_t i = 1; i <= proto::kMaxIndex; ++i)
      if (f.t.count[i] != 0) s.dbs.push_back(proto::DbSeq{i, f.t.seqno[i], f.t.count[i], 0, 0});
    if (!s.dbs.empty()) h.services.push_back(std::move(s));
  }
  if (h.services.empty() || !send_peer(proto::kPeerLeftBehind, encode(h))) return;
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: told the active peer how far %zu service(s) that stopped with this "
              "supervisor had sent", h.services.size());
  for (const std::string& p : dead) (void)::unlink(p.c_str());
}

void Daemon::on_left_behind(const proto::PeerHello& h) {
  if (role_ != 1 || !loss_known_) return;
  uint64_t more = 0;
  bool any = false;
  for (const proto::ServiceSeq& s : h.services)
    for (const proto::DbSeq& d : s.dbs)
      for (LossRow& r : loss_) {
        if (r.uuid != s.uuid || r.index != d.index || r.amended || d.sent_count < r.reported_count) continue;
        r.amended = any = true;
        r.after_report = d.sent_count - r.reported_count;
        r.last_reported = d.sent_seqno;
        r.missing = d.sent_count > r.applied_count ? d.sent_count - r.applied_count : 0;
        more += r.after_report;
        plat_syslog(r.after_report != 0 ? PLAT_LOG_ERR : PLAT_LOG_NOTICE,
                    "sysmgrd: loss report amended: service %s database %u: the old active sent %llu changes, %llu "
                    "after its last report; missing %llu",
                    r.service.c_str(), r.index, static_cast<unsigned long long>(d.sent_count),
                    static_cast<unsigned long long>(r.after_report), static_cast<unsigned long long>(r.missing));
      }
  if (!any) return;
  loss_amended_ = true;
  uint64_t total = 0;
  for (const LossRow& r : loss_) total += r.missing;
  plat_syslog(total != 0 ? PLAT_LOG_ERR : PLAT_LOG_NOTICE,
              "sysmgrd: loss report amended by the old active: %llu sync messages lost in all (%llu sent after its "
              "last report)", static_cast<unsigned long long>(total), static_cast<unsigned long long>(more));
}

int Daemon::takeover(bool planned, std::string* why, bool by_source) {
  if (role_ == 1) return *why = "this supervisor is already active", EALREADY;
  if (swo_.running) return *why = "a switchover is already running", EBUSY;
  if (!planned && !by_source && role_refuses_planned(why)) return EPERM;
  if (!by_source && !planned && peer_up() && peer_->role == 1)
    return *why = "the peer (slot " + std::to_string(peer_->slot) + ") is up and active; use a planned switchover",
           EBUSY;
  if (!role_may_take(planned, why)) return EBUSY;
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: %s: slot %d becomes active", planned ? "planned switchover" : "takeover",
              o_.slot);
  for (auto it = incoming_.begin(); it != incoming_.end();) gsync_fail_incoming((it++)->first, ECANCELED, "switchover");
  loss_report();
  set_role(1);
  ++switchovers_;
  swo_ = Switchover();
  swo_.running = true;
  swo_.planned = planned;
  swo_.req_base = next_xfer_;
  next_xfer_ += static_cast<uint32_t>(clients_.size()) + 1;
  swo_.deadline_ns = now_ns() + static_cast<uint64_t>(o_.switchover_timeout_ms) * 1000000ull;
  uint64_t lost = 0;
  for (const LossRow& r : loss_) lost += r.missing;
  uint32_t n = 0;
  swo_.started_ns = now_ns();
  for (const auto& [uuid, c] : clients_) {
    proto::Event ev;
    ev.kind = proto::EventKind::kSwitchover;
    ev.req_id = swo_.req_base + n++;
    ev.status = lost != 0 ? 1 : 0;  // the numbers are out of step
    if (send_event(c, ev) && send_plain(c.sap, MTS_OPC_YOU_ARE_ALMOST_ACTIVE) && send_plain(c.sap, MTS_OPC_YOU_ARE_ACTIVE))
      swo_.waiting.insert(uuid);
    else
      swo_.notes.push_back("service " + c.name + ": the switchover could not be delivered");
  }
  // Services that start from now on start after a switchover.
  for (auto& [uuid, f] : facts_) f.swover_first = 1;
  (void)save_state();
  if (swo_.waiting.empty()) swo_.running = false;
  return 0;
}

int Daemon::planned_switchover(std::string* why) {
  if (role_refuses_planned(why)) return EPERM;
  if (role_ != 1)
    return *why = "a planned switchover is asked of the active supervisor" +
                  (peer_ ? " (slot " + std::to_string(peer_->slot) + ")" : std::string()),
           EPERM;
  if (!peer_up() || peer_->role != 2) return *why = "no standby peer is up", EHOSTUNREACH;
  // This supervisor's services stop writing before the peer's become active: the pair never
  // has two writers. The peer hears the last numbers, as the active's, before the request.
  fence_clients("planned switchover");
  send_peer_hello();
  set_role(2);
  lease_release();
  if (!send_peer(proto::kTakeOver, encode(proto::TakeOver{next_xfer_++}))) {
    std::string busy;
    if (o_.role_source != "lease" || lease_try(&busy)) set_role(1);
    return *why = "the request could not be sent to the peer", EHOSTUNREACH;
  }
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: planned switchover: slot %d stepped down, the peer takes over", o_.slot);
  return 0;
}

void Daemon::switchover_finish_client(uint32_t uuid, const char* how) {
  if (!swo_.running || swo_.waiting.erase(uuid) == 0) return;
  const Client* c = client(uuid);
  const std::string note = "service " + (c != nullptr ? c->name : std::to_string(uuid)) + " " + how +
                           " during the switchover; going on without it";
  swo_.notes.push_back(note);
  plat_syslog(PLAT_LOG_ERR, "sysmgrd: %s", note.c_str());
  if (swo_.waiting.empty()) swo_.running = false;
}

void Daemon::switchover_on_answer(const Client& c, const proto::Answer& a) {
  if (!swo_.running || swo_.waiting.erase(c.uuid) == 0) {
    plat_syslog(PLAT_LOG_WARNING, "sysmgrd: switchover answer from %s with no switchover waiting for it",
                c.name.c_str());
    return;
  }
  plat_syslog(a.value == 0 ? PLAT_LOG_NOTICE : PLAT_LOG_ERR, "sysmgrd: service %s answered the switchover (status %d)",
              c.name.c_str(), a.value);
  for (proto::EventKind k : {proto::EventKind::kActiveMarker, proto::EventKind::kSwitchoverDone}) {
    proto::Event ev;
    ev.kind = k;
    ev.req_id = a.req_id;
    (void)send_event(c, ev);
  }
  if (swo_.waiting.empty()) {
    swo_.running = false;
    swo_.took_us = (now_ns() - swo_.started_ns) / 1000;
    plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: switchover complete on slot %d in %llu us", o_.slot,
                static_cast<unsigned long long>(swo_.took_us));
  }
}

void Daemon::switchover_tick(uint64_t now) {
  if (!swo_.running || now <= swo_.deadline_ns) return;
  const std::set<uint32_t> late = swo_.waiting;
  for (uint32_t uuid : late)
    switchover_finish_client(uuid, ("did not answer within " + std::to_string(o_.switchover_timeout_ms) + " ms").c_str());
}

// ---- Configuration write -----------------------------------------------------------------------

int Daemon::cfg_save(const mts_msg_ref& cmd, std::string* why) {
  if (cfg_.running) return *why = "a configuration write is already running", EBUSY;
  if (clients_.empty()) return *why = "no service attached", ENOENT;
  cfg_ = CfgWrite();
  cfg_.req_id = next_xfer_++;
  char rel[64];
  std::snprintf(rel, sizeof rel, "stage/cfg-%u", cfg_.req_id);
  cfg_.stage = files::root_path(o_.root, rel);
  std::error_code ec;
  fs::remove_all(cfg_.stage, ec);
  fs::create_directories(cfg_.stage, ec);
  if (ec) return *why = cfg_.stage + ": " + ec.message(), static_cast<int>(ec.value());
  cfg_.running = true;
  cfg_.deadline_ns = now_ns() + static_cast<uint64_t>(o_.cfg_timeout_ms) * 1000000ull;
  cfg_.command = cmd;
  for (const auto& [uuid, c] : clients_) {
    proto::Event ev;
    ev.kind = proto::EventKind::kCfgWrite;
    ev.req_id = cfg_.req_id;
    ev.uri = "stage:/cfg-" + std::to_string(cfg_.req_id);
    if (send_event(c, ev))
      cfg_.waiting.insert(uuid);
    else
      cfg_.failures.push_back("service " + c.name + ": the request could not be delivered");
  }
  if (cfg_.waiting.empty()) cfg_finish();
  return 0;
}

void Daemon::cfg_on_answer(const Client& c, const proto::Answer& a) {
  if (!cfg_.running || a.req_id != cfg_.req_id || cfg_.waiting.erase(c.uuid) == 0) return;
  if (a.value != 0) cfg_.failures.push_back("service " + c.name + ": write failed (status " + std::to_string(a.value) + ")");
  if (cfg_.waiting.empty()) cfg_finish();
}

void Daemon::cfg_tick(uint64_t now) {
  if (!cfg_.running) return;
  for (auto it = cfg_.waiting.begin(); it != cfg_.waiting.end();) {
    const Client* c = client(*it);
    if (c != nullptr && now <= cfg_.deadline_ns) {
      ++it;
      continue;
    }
    cfg_.failures.push_back("service " + (c != nullptr ? c->name : std::to_string(*it)) +
                            (c != nullptr ? ": no answer within " + std::to_string(o_.cfg_timeout_ms) + " ms"
                                          : ": went away"));
    it = cfg_.waiting.erase(it);
  }
  if (cfg_.waiting.empty()) cfg_finish();
}

void Daemon::cfg_finish() {
  const std::string startup = files::root_path(o_.root, "startup");
  std::error_code ec;
  if (cfg_.failures.empty() && !sync_tree(cfg_.stage)) cfg_.failures.push_back(cfg_.stage + ": cannot be synced");
  if (cfg_.failures.empty()) {
    // One rename replaces the whole startup area: an exchange when there is one already.
    int rc = ::renameat2(AT_FDCWD, cfg_.stage.c_str(), AT_FDCWD, startup.c_str(), RENAME_EXCHANGE);
    if (rc != 0 && errno == ENOENT) rc = ::rename(cfg_.stage.c_str(), startup.c_str());
    if (rc != 0) cfg_.failures.push_back(startup + ": " + std::strerror(errno));
    (void)files::sync_path(o_.root);
  }
  fs::remove_all(cfg_.stage, ec);  // the old startup area after an exchange, or the failed one
  nlohmann::json j;
  j["startup"] = startup;
  j["failures"] = cfg_.failures;
  const bool ok = cfg_.failures.empty();
  if (ok)
    plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: configuration written to %s", startup.c_str());
  else
    plat_syslog(PLAT_LOG_ERR, "sysmgrd: configuration write failed, startup area unchanged: %s",
                cfg_.failures.front().c_str());
  if (cfg_.command) {
    reply(*cfg_.command, ok ? 0 : EIO, j.dump());
    (void)mts_drop(SYSMGR_SAP, &*cfg_.command);
  }
  cfg_ = CfgWrite();
}

}  // namespace hadra::sysmgrd
