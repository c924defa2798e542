// The daemon's loop, its clients, the peer's hello, the state file and the command interface.
#include "daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>

#include "hadra_platform/errors.h"
#include "hadra_platform/log.h"
#include "sysmgr/seqno_table.h"

namespace hadra::sysmgrd {
namespace {

namespace fs = std::filesystem;
using hadra::plat::sysmgr::SeqnoTable;

constexpr int kCheckMs = 200;  // how often clients' pids are checked

// Reads a client's shared table (sequence numbers sent, or applied) into slots.
bool read_table(const std::string& path, uint32_t magic, SeqnoTable* out) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  // A table is made by truncating a new file to size: one caught in between is too short to
  // map (touching its pages would fault), so it is taken as not there yet.
  struct stat st {};
  void* m = ::fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(sizeof(SeqnoTable))
                ? ::mmap(nullptr, sizeof(SeqnoTable), PROT_READ, MAP_SHARED, fd, 0)
                : MAP_FAILED;
  ::close(fd);
  if (m == MAP_FAILED) return false;
  const auto* t = static_cast<const SeqnoTable*>(m);
  const bool ok = __atomic_load_n(&t->magic, __ATOMIC_ACQUIRE) == magic;
  if (ok) {
    std::memcpy(out, t, sizeof *out);
    for (uint32_t i = 0; i <= hadra::plat::sysmgr::kSeqnoMaxIndex; ++i) {
      out->slot[i].reports = __atomic_load_n(&t->slot[i].reports, __ATOMIC_ACQUIRE);
      out->slot[i].seqno = __atomic_load_n(&t->slot[i].seqno, __ATOMIC_ACQUIRE);
    }
  }
  ::munmap(m, sizeof(SeqnoTable));
  return ok;
}

bool pid_alive(uint32_t pid) { return pid != 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM); }

// The pid of a running client of uuid, found from the sequence-number tables under the root
// (a daemon that restarted meets its clients again by their messages).
uint32_t find_client_pid(const std::string& root, uint32_t uuid) {
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(files::root_path(root, "sysmgr"), ec)) {
    const std::string name = e.path().filename().string();
    if (!name.starts_with("seqno-")) continue;
    SeqnoTable t;
    if (read_table(e.path().string(), hadra::plat::sysmgr::kSeqnoMagic, &t) && t.uuid == uuid && pid_alive(t.pid))
      return t.pid;
  }
  return 0;
}

}  // namespace

Daemon::Daemon(Options o) : o_(std::move(o)), role_(o_.role) {}

const Client* Daemon::client(uint32_t uuid) const {
  auto it = clients_.find(uuid);
  return it == clients_.end() ? nullptr : &it->second;
}

bool Daemon::peer_up() const {
  return peer_.has_value() && now_ns() - peer_seen_ns_ < static_cast<uint64_t>(o_.peer_dead_ms) * 1000000ull;
}

proto::SvcFacts& Daemon::facts_of(uint32_t uuid) {
  auto [it, added] = facts_.try_emplace(uuid);
  if (added) it->second.uuid = uuid;
  return it->second;
}

// ---- State file ------------------------------------------------------------------------------

void Daemon::load_state() {
  const std::string path = files::root_path(o_.root, "sysmgr/state");
  FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) return;
  std::string text;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && text.size() < (1u << 20)) text.append(buf, n);
  std::fclose(f);
  proto::StateFile sf;
  if (!proto::parse_state(text, &sf)) {
    plat_syslog(PLAT_LOG_ERR, "sysmgrd: state file %s is malformed; starting from configuration", path.c_str());
    return;
  }
  if (sf.role != 0) role_ = sf.role;
  for (const proto::SvcFacts& s : sf.services) facts_[s.uuid] = s;
}

bool Daemon::save_state() {
  proto::StateFile sf;
  sf.role = role_;
  for (const auto& [uuid, f] : facts_) sf.services.push_back(f);
  std::string why;
  if (files::write_atomic(files::root_path(o_.root, "sysmgr/state"), proto::format_state(sf), &why)) return true;
  plat_syslog(PLAT_LOG_ERR, "sysmgrd: cannot write the state file: %s", why.c_str());
  return false;
}

void Daemon::set_role(int role) {
  if (role == role_) return;
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: slot %d: role %s -> %s", o_.slot, proto::role_name(role_),
              proto::role_name(role));
  role_ = role;
  (void)save_state();
  send_peer_hello();
}

// ---- Start and stop --------------------------------------------------------------------------

bool Daemon::start(std::string* why) {
  std::error_code ec;
  fs::create_directories(files::root_path(o_.root, "sysmgr"), ec);
  const std::string lock = files::root_path(o_.root, "sysmgr/daemon.lock");
  lock_fd_ = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock_fd_ < 0) return *why = lock + ": " + std::strerror(errno), false;
  // Commands and probes take a shared lock for an instant to see whether a daemon runs: one
  // caught at that instant is not another daemon, so the lock is tried for up to 250 ms.
  int lock_rc = ::flock(lock_fd_, LOCK_EX | LOCK_NB);
  for (int i = 0; i < 50 && lock_rc != 0 && errno == EWOULDBLOCK; ++i) {
    ::usleep(5000);
    lock_rc = ::flock(lock_fd_, LOCK_EX | LOCK_NB);
  }
  if (lock_rc != 0) {
    char pid[32] = {};
    (void)!::pread(lock_fd_, pid, sizeof pid - 1, 0);
    *why = "another hadra-sysmgrd (pid " + std::string(pid[0] != '\0' ? pid : "?") + ") already runs on root " +
           o_.root;
    return false;
  }
  const std::string me = std::to_string(::getpid());
  if (::ftruncate(lock_fd_, 0) != 0 || ::pwrite(lock_fd_, me.data(), me.size(), 0) < 0)
    plat_syslog(PLAT_LOG_WARNING, "sysmgrd: cannot write the pid into %s: %s", lock.c_str(), std::strerror(errno));
  load_state();
  clean_leftovers();
  rediscover_clients();
  if (!role_start(why)) return false;
  if (mts_bind(SYSMGR_SAP) != 0) return *why = "binding SAP " + std::to_string(SYSMGR_SAP) + ": " + std::strerror(errno), false;
  // Blocked in every thread (main blocks them before the transport's threads start): the
  // loop takes them from a descriptor.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  signal_fd_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signal_fd_ < 0) return *why = std::string("signalfd: ") + std::strerror(errno), false;
  std::random_device rd;
  boot_id_ = (static_cast<uint64_t>(rd()) << 32) ^ rd() ^ now_ns();
  if (!save_state()) return *why = "the state file under " + o_.root + "/sysmgr cannot be written", false;
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: slot %d started as %s on root %s (pid %d)", o_.slot, proto::role_name(role_),
              o_.root.c_str(), static_cast<int>(::getpid()));
  send_peer_hello();
  (void)sd_notify(0, "READY=1");
  return true;
}

void Daemon::stop() {
  (void)sd_notify(0, "STOPPING=1");
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: slot %d stopping", o_.slot);
  for (auto& [xfer, in] : incoming_) {
    std::error_code ec;
    fs::remove_all(in.dir, ec);
  }
  (void)save_state();
  send_peer_hello();  // the peer keeps this supervisor's last numbers
  // What is queued for the peer and the clients leaves first, within a bound.
  mts_flush(1000);
  if (signal_fd_ >= 0) ::close(signal_fd_);
  if (lock_fd_ >= 0) ::close(lock_fd_);
}

int Daemon::run() {
  std::string why;
  if (!start(&why)) {
    plat_syslog(PLAT_LOG_ERR, "sysmgrd: cannot start: %s", why.c_str());
    std::fprintf(stderr, "hadra-sysmgrd: cannot start: %s\n", why.c_str());
    return 1;
  }
  const int mts_fd = mts_fd_get(SYSMGR_SAP);
  for (;;) {
    pollfd fds[2] = {{signal_fd_, POLLIN, 0}, {mts_fd, POLLIN, 0}};
    (void)::poll(fds, mts_fd >= 0 ? 2 : 1, 20);
    if ((fds[0].revents & POLLIN) != 0) break;
    mts_msg_ref ref;
    for (int i = 0; i < 1000 && mts_recv(SYSMGR_SAP, &ref, nullptr) == 0; ++i) on_message(ref);
    tick();
  }
  stop();
  return 0;
}

// ---- Messages --------------------------------------------------------------------------------

void Daemon::on_message(const mts_msg_ref& ref) {
  const uint32_t opcode = mts_opc_get(&ref);
  const void* p = mts_payload_get(&ref);
  const uint32_t n = mts_payload_size(&ref);
  bool keep = false;
  if (mts_sync_event_get(&ref) == MTS_SYNC_EVENT_UPDATE) {
    on_peer_message(opcode, p, n);
  } else if (opcode == proto::kCommand) {
    on_command(ref, p, n);
    keep = (cfg_.command.has_value() && cfg_.command->gen == ref.gen) || verify_keeps(ref) || history_keeps(ref);
  } else if (opcode == SYSMGR_OPC_HS_QUERY) {
    on_hs_query(ref, p, n);
  } else {
    on_client_message(ref, opcode, p, n);
  }
  if (!keep) (void)mts_drop(SYSMGR_SAP, &ref);
}

void Daemon::on_client_message(const mts_msg_ref& ref, uint32_t opcode, const void* p, uint32_t n) {
  const uint32_t src = mts_src_sap_get(&ref);
  auto bad = [&](const char* what) {
    plat_syslog(PLAT_LOG_ERR, "sysmgrd: malformed %s (%u bytes) from SAP %u; dropped", what, n, src);
  };
  if (opcode == proto::kHello) {
    proto::Hello h;
    if (!proto::decode(p, n, &h)) return bad("hello");
    return on_hello(h);
  }
  if (opcode == proto::kBye) {
    proto::Bye b;
    if (!proto::decode(p, n, &b)) return bad("bye");
    return on_bye(b);
  }
  // Any other message names its service; one not known yet (the daemon restarted while it
  // ran) is known from now on.
  uint32_t uuid = 0;
  proto::GsyncGet g;
  proto::Answer a;
  const bool is_get = opcode == proto::kGsyncGet && proto::decode(p, n, &g);
  const bool is_answer = opcode == proto::kAnswer && proto::decode(p, n, &a);
  if (!is_get && !is_answer) {
    plat_syslog(PLAT_LOG_ERR, "sysmgrd: unexpected or malformed message opcode 0x%x (%u bytes) from SAP %u; dropped",
                opcode, n, src);
    return;
  }
  uuid = is_get ? g.uuid : a.uuid;
  if (clients_.find(uuid) == clients_.end()) {
    // Known again only when a running process of that service is found under the root: a
    // client that cannot be watched would never be noticed gone.
    const Client c{uuid, src, find_client_pid(o_.root, uuid), "uuid-" + std::to_string(uuid)};
    if (c.pid == 0) {
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: message opcode 0x%x from SAP %u names service uuid 0x%x, which never said "
                  "hello and runs no process here; dropped", opcode, src, uuid);
      return;
    }
    clients_[uuid] = c;
    plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: service uuid 0x%x on SAP %u known again (pid %u)", uuid, src, c.pid);
  }
  const Client& c = clients_[uuid];
  if (is_get) {
    std::string why;
    gsync_request(uuid, &why);
    if (!why.empty()) plat_syslog(PLAT_LOG_ERR, "sysmgrd: gsync of %s: %s", c.name.c_str(), why.c_str());
    return;
  }
  switch (a.kind) {
    case proto::AnswerKind::kGsyncSnapshot: return gsync_on_snapshot_answer(c, a);
    case proto::AnswerKind::kGsyncReady: return gsync_on_ready_answer(c, a);
    case proto::AnswerKind::kSwitchover: return switchover_on_answer(c, a);
    case proto::AnswerKind::kCfgWrite: return cfg_on_answer(c, a);
  }
}

void Daemon::on_hello(const proto::Hello& h) {
  if (!proto::version_compatible(h.version)) {
    plat_syslog(PLAT_LOG_ERR, "sysmgrd: service %s (SAP %u) speaks version 0x%x, this daemon 0x%x; refused",
                h.name.c_str(), h.sap, h.version, proto::kProtoVersion);
    return;
  }
  clients_[h.uuid] = Client{h.uuid, h.sap, h.pid, h.name.empty() ? "uuid-" + std::to_string(h.uuid) : h.name};
  // The service read its facts before saying hello; from now on a disappearance is a crash
  // unless it says bye, and the first start after a switchover has happened.
  proto::SvcFacts& f = facts_of(h.uuid);
  f.handshake_seen = 1;
  f.swover_first = 0;
  f.last_stop = "crash";
  (void)save_state();
  proto::Welcome w;
  w.role = static_cast<uint8_t>(role_);
  const std::vector<uint8_t> pl = encode(w);
  (void)mts_send(SYSMGR_SAP, MTS_ADDR_LOCAL, h.sap, proto::kWelcome, pl.data(), static_cast<uint32_t>(pl.size()),
                 nullptr, MTS_SEND_NONBLOCK, nullptr);
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: service %s (uuid 0x%x, SAP %u, pid %u) attached", h.name.c_str(), h.uuid,
              h.sap, h.pid);
}

void Daemon::on_bye(const proto::Bye& b) {
  auto it = clients_.find(b.uuid);
  if (it == clients_.end()) return;
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: service %s stopped (controlled)", it->second.name.c_str());
  proto::SvcFacts& f = facts_of(b.uuid);
  f.handshake_seen = 0;
  f.last_stop = "controlled";
  (void)save_state();
  gsync_client_gone(b.uuid);
  switchover_finish_client(b.uuid, "stopped");
  clients_.erase(it);
}

void Daemon::on_hs_query(const mts_msg_ref& ref, const void* p, uint32_t n) {
  if (p == nullptr || n != 4) {
    plat_syslog(PLAT_LOG_ERR, "sysmgrd: malformed handshake query (%u bytes); dropped", n);
    return;
  }
  const auto* b = static_cast<const uint8_t*>(p);
  const uint32_t uuid = (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
  const uint32_t running = client(uuid) != nullptr ? 1 : 0;
  uint8_t out[8];
  for (int i = 0; i < 4; ++i) {
    out[i] = static_cast<uint8_t>(uuid >> (24 - 8 * i));
    out[4 + i] = static_cast<uint8_t>(running >> (24 - 8 * i));
  }
  (void)mts_reply(SYSMGR_SAP, &ref, SYSMGR_OPC_HS_RESPONSE, out, sizeof out, nullptr, MTS_SEND_NONBLOCK, nullptr);
}

// Services that ran while no daemon did (a restart of the daemon) left their hello under the
// root; the live ones are served again at once, without waiting for their next message.
void Daemon::rediscover_clients() {
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(files::root_path(o_.root, "sysmgr"), ec)) {
    const std::string name = e.path().filename().string();
    if (!name.starts_with("client-") || !name.ends_with(".hello")) continue;
    std::string bytes;
    if (FILE* f = std::fopen(e.path().c_str(), "rb")) {
      char buf[1024];
      size_t n;
      while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && bytes.size() < 4096) bytes.append(buf, n);
      std::fclose(f);
    }
    proto::Hello h;
    if (!proto::decode(bytes.data(), bytes.size(), &h) || !pid_alive(h.pid)) {
      fs::remove(e.path(), ec);
      continue;
    }
    clients_[h.uuid] = Client{h.uuid, h.sap, h.pid, h.name.empty() ? "uuid-" + std::to_string(h.uuid) : h.name};
    plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: service %s (uuid 0x%x, SAP %u, pid %u) still runs: served again",
                h.name.c_str(), h.uuid, h.sap, h.pid);
  }
}

void Daemon::check_clients() {
  std::vector<uint32_t> died;
  for (auto it = clients_.begin(); it != clients_.end();) {
    if (it->second.pid == 0 || pid_alive(it->second.pid)) {
      ++it;
      continue;
    }
    plat_syslog(PLAT_LOG_ERR, "sysmgrd: service %s (pid %u) went away without a bye: counted as a crash",
                it->second.name.c_str(), it->second.pid);
    std::error_code ec;
    fs::remove(files::root_path(o_.root, "sysmgr/client-" + std::to_string(it->second.pid) + ".hello"), ec);
    const uint32_t uuid = it->first;
    gsync_client_gone(uuid);
    switchover_finish_client(uuid, "died");
    it = clients_.erase(it);
    died.push_back(uuid);
  }
  for (uint32_t uuid : died) role_on_client_crash(uuid);
}

// ---- The peer --------------------------------------------------------------------------------

bool Daemon::send_peer(uint32_t opcode, const std::vector<uint8_t>& payload, bool wait) {
  // The peer never holds this daemon up: only file shipping waits (bounded) for queue room.
  if (mts_send(SYSMGR_SAP, MTS_ADDR_PEER, SYSMGR_SAP, opcode, payload.data(), static_cast<uint32_t>(payload.size()),
               nullptr, wait ? 0 : MTS_SEND_NONBLOCK, nullptr) == 0)
    return true;
  plat_syslog(PLAT_LOG_WARNING, "sysmgrd: message 0x%x to the peer not sent: %s", opcode, std::strerror(errno));
  return false;
}

std::vector<proto::ServiceSeq> Daemon::own_sequences() const {
  std::vector<proto::ServiceSeq> out;
  for (const auto& [uuid, c] : clients_) {
    proto::ServiceSeq s;
    s.uuid = uuid;
    s.name = c.name;
    SeqnoTable sent{}, applied{};
    const std::string base = files::root_path(o_.root, "sysmgr/");
    const bool have_sent = read_table(base + "seqno-" + std::to_string(c.pid) + ".tbl", plat::sysmgr::kSeqnoMagic, &sent);
    const bool have_applied =
        read_table(base + "applied-" + std::to_string(c.pid) + ".tbl", plat::sysmgr::kAppliedMagic, &applied);
    for (uint8_t i = 1; i <= proto::kMaxIndex; ++i) {
      proto::DbSeq d;
      d.index = i;
      if (have_sent) d.sent_seqno = sent.slot[i].seqno, d.sent_count = sent.slot[i].reports;
      if (have_applied) d.applied_seqno = applied.slot[i].seqno, d.applied_count = applied.slot[i].reports;
      if (d.sent_count != 0 || d.applied_count != 0) s.dbs.push_back(d);
    }
    out.push_back(std::move(s));
  }
  return out;
}

void Daemon::send_peer_hello() {
  proto::PeerHello h;
  h.slot = static_cast<uint8_t>(o_.slot);
  h.role = static_cast<uint8_t>(role_);
  h.boot_id = boot_id_;
  h.services = own_sequences();
  (void)send_peer(proto::kPeerHello, encode(h));
  next_hello_ns_ = now_ns() + static_cast<uint64_t>(o_.heartbeat_ms) * 1000000ull;
}

void Daemon::on_peer_message(uint32_t opcode, const void* p, uint32_t n) {
  auto bad = [&](const char* what) {
    plat_syslog(PLAT_LOG_ERR, "sysmgrd: malformed %s (%u bytes) from the peer; dropped", what, n);
  };
  switch (opcode) {
    case proto::kPeerHello: {
      proto::PeerHello h;
      if (!proto::decode(p, n, &h)) return bad("peer hello");
      if (!proto::version_compatible(h.version)) {
        plat_syslog(PLAT_LOG_ERR, "sysmgrd: the peer speaks version 0x%x, this daemon 0x%x; ignored", h.version,
                    proto::kProtoVersion);
        return;
      }
      const bool was_up = peer_up() && peer_->role == h.role;
      if (!peer_up()) plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: peer slot %u (%s) is up", h.slot, proto::role_name(h.role));
      if (h.role == 1 && role_ == 1 && (!peer_ || peer_->role != 1))
        plat_syslog(PLAT_LOG_CRIT, "sysmgrd: both supervisors claim the active role (peer slot %u)", h.slot);
      if (h.role == 1)
        for (const proto::ServiceSeq& s : h.services) peer_active_seq_[s.uuid] = s;
      peer_ = std::move(h);
      peer_seen_ns_ = now_ns();
      if (!was_up) send_left_behind();  // an active peer newly seen: what died here had sent
      return;
    }
    case proto::kPeerLeftBehind: {
      proto::PeerHello h;
      if (!proto::decode(p, n, &h)) return bad("report of what the peer's stopped services sent");
      return on_left_behind(h);
    }
    case proto::kGsyncReq: {
      proto::GsyncReq r;
      if (!proto::decode(p, n, &r)) return bad("gsync request");
      return gsync_on_req(r);
    }
    case proto::kFileData: {
      proto::FileData f;
      if (!proto::decode(p, n, &f)) return bad("file piece");
      return gsync_on_file(f);
    }
    case proto::kManifest: {
      proto::Manifest m;
      if (!proto::decode(p, n, &m)) return bad("manifest");
      return gsync_on_manifest(m);
    }
    case proto::kGsyncFail: {
      proto::GsyncFail f;
      if (!proto::decode(p, n, &f)) return bad("gsync failure");
      return gsync_on_fail(f);
    }
    case proto::kTakeOver: {
      proto::TakeOver t;
      if (!proto::decode(p, n, &t)) return bad("takeover request");
      std::string why;
      if (takeover(true, &why) != 0) plat_syslog(PLAT_LOG_ERR, "sysmgrd: planned switchover refused: %s", why.c_str());
      return;
    }
    default:
      if (verify_on_peer(opcode, p, n) || history_on_peer(opcode, p, n)) return;
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: unexpected opcode 0x%x (%u bytes) from the peer; dropped", opcode, n);
  }
}

bool Daemon::send_event(const Client& c, const proto::Event& ev) {
  const std::vector<uint8_t> pl = encode(ev);
  if (mts_send(SYSMGR_SAP, MTS_ADDR_LOCAL, c.sap, proto::kEvent, pl.data(), static_cast<uint32_t>(pl.size()), nullptr,
               MTS_SEND_NONBLOCK, nullptr) == 0)
    return true;
  plat_syslog(PLAT_LOG_ERR, "sysmgrd: event %u for service %s (SAP %u) not delivered: %s",
              static_cast<unsigned>(ev.kind), c.name.c_str(), c.sap, std::strerror(errno));
  return false;
}

// ---- Timers ----------------------------------------------------------------------------------

void Daemon::tick() {
  const uint64_t now = now_ns();
  if (now >= next_check_ns_) {
    check_clients();
    next_check_ns_ = now + kCheckMs * 1000000ull;
  }
  if (now >= next_hello_ns_) send_peer_hello();
  role_tick(now);
  gsync_tick(now);
  switchover_tick(now);
  cfg_tick(now);
  resync_tick(now);
  verify_tick(now);
  history_tick(now);
  metrics_tick(now);
}

// ---- Commands --------------------------------------------------------------------------------

void Daemon::reply(const mts_msg_ref& cmd, int32_t status, const std::string& json) {
  proto::CommandReply r{status, json};
  const std::vector<uint8_t> pl = encode(r);
  if (mts_reply(SYSMGR_SAP, &cmd, proto::kCommandReply, pl.data(), static_cast<uint32_t>(pl.size()), nullptr,
                MTS_SEND_NONBLOCK, nullptr) != 0)
    plat_syslog(PLAT_LOG_WARNING, "sysmgrd: command reply to SAP %u not sent: %s", mts_src_sap_get(&cmd),
                std::strerror(errno));
}

void Daemon::on_command(const mts_msg_ref& ref, const void* p, uint32_t n) {
  proto::Command c;
  if (!proto::decode(p, n, &c)) {
    plat_syslog(PLAT_LOG_ERR, "sysmgrd: malformed command (%u bytes) from SAP %u; dropped", n, mts_src_sap_get(&ref));
    return;
  }
  std::string why;
  int rc = 0;
  switch (c.cmd) {
    case proto::Cmd::kStatus: return reply(ref, 0, status_json());
    case proto::Cmd::kSwitchover: rc = planned_switchover(&why); break;
    case proto::Cmd::kTakeover: rc = takeover(false, &why); break;
    case proto::Cmd::kGsync: {
      const uint32_t only = c.arg.empty() ? 0 : static_cast<uint32_t>(std::strtoul(c.arg.c_str(), nullptr, 0));
      if (role_ != 2) {
        rc = EPERM, why = "this supervisor is not the standby";
        break;
      }
      int started = 0;
      for (const auto& [uuid, cl] : clients_) {
        if (only != 0 && uuid != only) continue;
        proto::Event ev;
        ev.kind = proto::EventKind::kGsyncStart;
        started += send_event(cl, ev) ? 1 : 0;
      }
      if (started == 0) rc = ENOENT, why = only != 0 ? "no such service attached" : "no service attached";
      break;
    }
    case proto::Cmd::kConfigSave:
      rc = cfg_save(ref, &why);
      if (rc == 0) return;  // answered when every service has written
      break;
    case proto::Cmd::kVerify:
      rc = verify_start(ref, c.arg, &why);
      if (rc == 0) return;  // answered when the comparison ends
      break;
    case proto::Cmd::kHistory:
      rc = history_start(ref, c.arg, &why);
      if (rc == 0) return;  // answered now, or when the peer's records arrive
      break;
  }
  nlohmann::json j = nlohmann::json::parse(status_json());
  if (rc != 0) j["error"] = why;
  reply(ref, rc, j.dump());
}

std::string Daemon::status_json() const {
  using nlohmann::json;
  json j;
  j["slot"] = o_.slot;
  j["role"] = proto::role_name(role_);
  j["pid"] = ::getpid();
  j["root"] = o_.root;
  json peer;
  peer["up"] = peer_up();
  if (peer_) {
    peer["slot"] = peer_->slot;
    peer["role"] = proto::role_name(peer_->role);
    peer["last_seen_ms"] = (now_ns() - peer_seen_ns_) / 1000000ull;
  }
  j["peer"] = peer;
  json services = json::array();
  for (const proto::ServiceSeq& s : own_sequences()) {
    const Client* c = client(s.uuid);
    json sj;
    sj["uuid"] = s.uuid;
    sj["name"] = s.name;
    sj["sap"] = c != nullptr ? c->sap : 0;
    sj["pid"] = c != nullptr ? c->pid : 0;
    json dbs = json::array();
    for (const proto::DbSeq& d : s.dbs)
      dbs.push_back({{"index", d.index}, {"sent_seqno", d.sent_seqno}, {"sent", d.sent_count},
                     {"applied_seqno", d.applied_seqno}, {"applied", d.applied_count}});
    sj["databases"] = dbs;
    if (c != nullptr) sj["stream"] = stream_json(c->pid);
    services.push_back(sj);
  }
  j["services"] = services;
  json peer_reported = json::array();
  for (const auto& [uuid, s] : peer_active_seq_) {
    uint64_t sent = 0;
    for (const proto::DbSeq& d : s.dbs) sent += d.sent_count;
    peer_reported.push_back({{"uuid", uuid}, {"name", s.name}, {"sent", sent}});
  }
  j["peer_reported"] = peer_reported;
  j["gsync"] = {{"in_progress", incoming_.size() + outgoing_.size()}, {"done", gsyncs_done_},
                {"failed", gsyncs_failed_}, {"last_error", last_gsync_error_}};
  j["switchover"] = {{"running", swo_.running}, {"count", switchovers_}, {"notes", swo_.notes}, {"took_us", swo_.took_us}};
  json rows = json::array();
  uint64_t lost = 0;
  for (const LossRow& r : loss_) {
    rows.push_back({{"service", r.service}, {"uuid", r.uuid}, {"database", r.index}, {"last_reported", r.last_reported},
                    {"last_applied", r.last_applied}, {"missing", r.missing}, {"after_report", r.after_report}});
    lost += r.missing;
  }
  j["loss_report"] = {{"known", loss_known_}, {"lost", lost}, {"databases", rows}, {"amended", loss_amended_}};
  json facts = json::array();
  for (const auto& [uuid, f] : facts_)
    facts.push_back({{"uuid", uuid}, {"handshake_seen", f.handshake_seen}, {"swover_first_start", f.swover_first},
                     {"last_stop", f.last_stop}});
  j["restart_facts"] = facts;
  role_status(&j);
  status_more(&j);
  return j.dump();
}

}  // namespace hadra::sysmgrd
