// The daemon client of a service process: attaching to the daemon, the link that sends the
// service's requests and answers to it, and the applied table.
//
// Nothing here waits for the daemon. Requests and answers are one-way messages sent without
// waiting for queue room; what the daemon has to say comes back as events through the
// receive loop (rx.cc). Whether a daemon runs is known at once from its lock on
// <root>/sysmgr/daemon.lock, so a process without one gets PLAT_ERR_SYSMGR_NO_DAEMON
// instead of a message that nobody will read.
#include "sysmgr/client.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <thread>

#include "common/call.h"
#include "hadra_platform/config.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/log.h"
#include "hadra_platform/sysmgr_client.h"
#include "hadra_platform_testing.h"
#include "log/log_internal.h"
#include "mts/core.h"
#include "sysmgr/procedures.h"
#include "sysmgr/seqno_table.h"
#include "sysmgr/sysmgr_internal.h"

namespace hadra::plat::sysmgr::client {
namespace {

struct Applied {
  std::mutex mu;
  SeqnoTable* table = nullptr;
  SeqnoTable fallback{};
  int pid = 0;
};

Applied& applied() {
  static auto* a = new Applied();
  return *a;
}

// The applied table of this process, made on first use (in memory when the file cannot be).
SeqnoTable* applied_table_locked(Applied& a) {
  if (a.table != nullptr && a.pid == ::getpid()) return a.table;
  a.pid = ::getpid();
  char uri[64], path[PATH_MAX];
  std::snprintf(uri, sizeof uri, "sysmgr:/applied-%d.tbl", a.pid);
  SeqnoTable* t = &a.fallback;
  if (plat_uri_to_path(uri, path, sizeof path, 1) == 0) {
    const int fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
      void* m = ::ftruncate(fd, sizeof(SeqnoTable)) == 0
                    ? ::mmap(nullptr, sizeof(SeqnoTable), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                    : MAP_FAILED;
      ::close(fd);
      if (m != MAP_FAILED) t = static_cast<SeqnoTable*>(m);
    }
    if (t == &a.fallback)
      log::writef(PLAT_LOG_WARNING, "sysmgr: cannot share the applied table %s (%s); the daemon will not see it", path,
                  std::strerror(errno));
  }
  std::memset(t, 0, sizeof *t);
  t->version = kSeqnoVersion;
  t->entries = kSeqnoMaxIndex;
  t->pid = static_cast<uint32_t>(a.pid);
  t->uuid = local_uuid();
  __atomic_store_n(&t->magic, kAppliedMagic, __ATOMIC_RELEASE);
  a.table = t;
  return t;
}

std::string root_path(const char* uri) {
  char path[PATH_MAX];
  if (plat_uri_to_path(uri, path, sizeof path, 0) != 0) return {};
  return path;
}

// The daemon's state file: role and restart facts. False when it cannot be read.
bool read_state(proto::StateFile* out) {
  const std::string path = root_path("sysmgr:/state");
  const int fd = path.empty() ? -1 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::string text;
  char buf[4096];
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof buf)) > 0 && text.size() < (1u << 20)) text.append(buf, static_cast<size_t>(n));
  ::close(fd);
  if (!proto::parse_state(text, out)) {
    log::writef(PLAT_LOG_ERR, "sysmgr: the daemon's state file %s is malformed; ignoring it", path.c_str());
    return false;
  }
  return true;
}

// The applied table belongs to the root it was made under: a reset (a test's new root)
// makes the next use map a new one.
void reset_applied() {
  Applied& a = applied();
  std::lock_guard<std::mutex> lock(a.mu);
  if (a.table != nullptr && a.table != &a.fallback) ::munmap(a.table, sizeof(SeqnoTable));
  a.table = nullptr;
  a.fallback = SeqnoTable{};
}

void reset() {
  reset_applied();
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  s.configured = false;
  s.attached = false;
  s.sap = 0;
  s.facts_known = false;
  s.gsync = GsyncView();
  s.held.clear();
  s.replay.clear();
}

const bool g_registered = (hadra::plat::register_reset(&reset), true);

// ---- The link to the daemon -----------------------------------------------------------------

int daemon_gsync_get(int arg) {
  State& s = state();
  proto::GsyncGet m;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    m.uuid = s.uuid != 0 ? s.uuid : local_uuid();
    m.arg = arg;
    // From now until gsync ready or failed, sync messages from the active wait in the loop.
    s.gsync = GsyncView();
    s.gsync.pending = true;
  }
  const int rc = send_to_daemon(proto::kGsyncGet, encode(m));
  if (rc != 0) {
    // No gsync will come: nothing may wait for one.
    std::lock_guard<std::mutex> lock(s.mu);
    s.gsync.pending = false;
  }
  return rc;
}

const Link kDaemonLink = {&daemon_gsync_get};

// The request number of a switchover answer: the request is the daemon's event message,
// still held by the service.
uint32_t event_req_id(const mts_msg_ref& ref) {
  proto::Event ev;
  const void* p = mts_payload_get(&ref);
  return p != nullptr && proto::decode(p, mts_payload_size(&ref), &ev) ? ev.req_id : 0;
}

int daemon_answer(const Answer& a) {
  proto::Answer m;
  m.uuid = state().uuid != 0 ? state().uuid : local_uuid();
  m.value = a.value;
  if (a.kind == AnswerKind::kSwitchoverDone) {
    m.kind = proto::AnswerKind::kSwitchover;
    m.req_id = event_req_id(a.msg);
  } else {
    m.kind = a.kind == AnswerKind::kGsyncSnapshotDone ? proto::AnswerKind::kGsyncSnapshot : proto::AnswerKind::kGsyncReady;
    m.req_id = a.req_id;
  }
  if (m.kind == proto::AnswerKind::kGsyncSnapshot) {
    // The snapshot was written on this thread, between two of the service's changes: every
    // sync message sent so far is in it, none sent later is.
    const uint32_t sap = state().sap;
    m.point = sap != 0 ? mts::last_sent(sap, sap, &m.epoch) : 0;
    uint64_t seq[kSeqnoMaxIndex + 1];
    uint32_t cnt[kSeqnoMaxIndex + 1];
    own_seqnos(seq, cnt);
    for (uint32_t i = 1; i <= kSeqnoMaxIndex; ++i) m.at_point[i] = {seq[i], cnt[i]};
  }
  return send_to_daemon(proto::kAnswer, encode(m));
}

int daemon_swover_first_start() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  return s.facts_known ? s.facts.swover_first : static_cast<int>(plat_config_get_long("SWOVER_FIRST_START", 0) != 0);
}

int daemon_handshake_done() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  return s.facts_known ? s.facts.handshake_seen : static_cast<int>(plat_config_get_long("HANDSHAKE_DONE", 0) != 0);
}

void put_be32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

int daemon_hs_query(uint32_t sap, uint32_t uuid, mts_msg_ref* out) {
  uint8_t payload[4];
  put_be32(payload, uuid);
  mts::Outgoing o;
  if (mts::resolve(sap, MTS_ADDR_LOCAL, SYSMGR_SAP, &o.route) != 0) return -1;
  o.src_sap = sap;
  o.opcode = SYSMGR_OPC_HS_QUERY;
  o.hdr = payload;
  o.hdr_len = sizeof payload;
  o.flags = MTS_SEND_NONBLOCK;
  return mts::send(o, out);
}

const ProcLink kDaemonProcLink = {&daemon_answer, &daemon_swover_first_start, &daemon_handshake_done,
                                  &daemon_hs_query};

}  // namespace

State& state() noexcept {
  static auto* s = new State();
  return *s;
}

bool daemon_mode() noexcept {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  if (!s.configured) {
    s.configured = true;
    const char* transport = plat_config_get("TRANSPORT", "loopback");
    const char* mode = plat_config_get("SYSMGR", strcasecmp(transport, "zmq") == 0 ? "daemon" : "local");
    s.daemon_mode = strcasecmp(mode, "daemon") == 0;
  }
  return s.daemon_mode;
}

bool daemon_running() noexcept {
  const std::string path = root_path("sysmgr:/daemon.lock");
  const int fd = path.empty() ? -1 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  // The daemon holds an exclusive lock for its life: a shared one is refused while it runs.
  const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd);
  return held;
}

int send_to_daemon(uint32_t opcode, const std::vector<uint8_t>& payload) noexcept {
  const uint32_t sap = state().sap;
  if (sap == 0) {
    log::writef(PLAT_LOG_ERR, "sysmgr: %s: no SAP attached (call sysmgr_client_attach first)",
                mts_opc_name_get(opcode));
    return static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON);
  }
  if (!daemon_running()) {
    log::writef(PLAT_LOG_ERR, "sysmgr: %s from SAP %u: no system-manager daemon runs on this supervisor",
                mts_opc_name_get(opcode), sap);
    return static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON);
  }
  if (mts_send(sap, MTS_ADDR_LOCAL, SYSMGR_SAP, opcode, payload.data(), static_cast<uint32_t>(payload.size()), nullptr,
               MTS_SEND_NONBLOCK, nullptr) != 0) {
    log::writef(PLAT_LOG_ERR, "sysmgr: %s from SAP %u to the daemon failed: %s", mts_opc_name_get(opcode), sap,
                std::strerror(errno));
    return static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON);
  }
  return 0;
}

void applied_reset(const proto::IndexCount (&at)[proto::kMaxIndex + 1]) noexcept {
  Applied& a = applied();
  std::lock_guard<std::mutex> lock(a.mu);
  SeqnoTable* t = applied_table_locked(a);
  for (uint32_t i = 1; i <= kSeqnoMaxIndex; ++i) {
    __atomic_store_n(&t->slot[i].seqno, at[i].seqno, __ATOMIC_RELEASE);
    __atomic_store_n(&t->slot[i].reports, at[i].count, __ATOMIC_RELEASE);
  }
  __atomic_store_n(&t->out_of_sync, 0u, __ATOMIC_RELEASE);
}

void applied_in_step() noexcept {
  Applied& a = applied();
  std::lock_guard<std::mutex> lock(a.mu);
  __atomic_store_n(&applied_table_locked(a)->out_of_sync, 0u, __ATOMIC_RELEASE);
}

void applied_out_of_sync(uint32_t why, uint64_t missed) noexcept {
  Applied& a = applied();
  std::lock_guard<std::mutex> lock(a.mu);
  SeqnoTable* t = applied_table_locked(a);
  if (__atomic_load_n(&t->out_of_sync, __ATOMIC_RELAXED) == 0) __atomic_fetch_add(&t->resyncs, 1u, __ATOMIC_RELAXED);
  const uint64_t sum = __atomic_load_n(&t->missed, __ATOMIC_RELAXED) + missed;
  __atomic_store_n(&t->missed, static_cast<uint32_t>(sum > UINT32_MAX ? UINT32_MAX : sum), __ATOMIC_RELAXED);
  __atomic_store_n(&t->out_of_sync, why, __ATOMIC_RELEASE);
}

void applied_note(uint32_t index, uint64_t seqno) noexcept {
  if (index < 1 || index > kSeqnoMaxIndex) return;
  Applied& a = applied();
  std::lock_guard<std::mutex> lock(a.mu);
  SeqnoTable* t = applied_table_locked(a);
  __atomic_store_n(&t->slot[index].seqno, seqno, __ATOMIC_RELEASE);
  __atomic_fetch_add(&t->slot[index].reports, 1u, __ATOMIC_RELEASE);
}

void applied_failed(uint32_t index) noexcept {
  if (index < 1 || index > kSeqnoMaxIndex) return;
  Applied& a = applied();
  std::lock_guard<std::mutex> lock(a.mu);
  __atomic_fetch_add(&applied_table_locked(a)->slot[index].failed, 1u, __ATOMIC_RELEASE);
}

void leave_hello(const std::vector<uint8_t>& hello) noexcept {
  char uri[64];
  std::snprintf(uri, sizeof uri, "sysmgr:/client-%d.hello", static_cast<int>(::getpid()));
  const std::string path = root_path(uri);
  if (path.empty()) return;
  if (hello.empty()) {
    (void)::unlink(path.c_str());
    return;
  }
  // Whole or absent under its name: a daemon may read it at any time.
  const std::string tmp = path + ".tmp";
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  bool ok = fd >= 0 && ::write(fd, hello.data(), hello.size()) == static_cast<ssize_t>(hello.size());
  if (fd >= 0) ::close(fd);
  ok = ok && ::rename(tmp.c_str(), path.c_str()) == 0;
  if (!ok) {
    (void)::unlink(tmp.c_str());
    log::writef(PLAT_LOG_WARNING, "sysmgr: cannot leave the hello in %s: %s; a restarted daemon will know this "
                "service only from its next message", path.c_str(), std::strerror(errno));
  }
}

}  // namespace hadra::plat::sysmgr::client

namespace hadra::plat::sysmgr {

const Link* daemon_link() noexcept { return client::daemon_mode() ? &client::kDaemonLink : nullptr; }
const ProcLink* daemon_proc_link() noexcept { return client::daemon_mode() ? &client::kDaemonProcLink : nullptr; }

}  // namespace hadra::plat::sysmgr

namespace cl = hadra::plat::sysmgr::client;
namespace proto = hadra::plat::sysmgr::proto;

extern "C" {

HADRA_PLAT_API int sysmgr_client_attach(uint32_t sap, const char* name) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_client_attach", static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON));
  c.args("sap=%u", sap);
  if (c.faulted()) return c.fail<int>();
  if (sap == 0) return c.ret(EINVAL);
  cl::State& s = cl::state();
  const uint32_t uuid = hadra::plat::sysmgr::local_uuid();
  {
    std::lock_guard<std::mutex> lock(s.mu);
    s.sap = sap;
    s.uuid = uuid;
    s.name = name != nullptr ? std::string(name).substr(0, 63) : std::string();
  }
  if (!cl::daemon_mode()) return c.ret(0);
  proto::Hello h;
  h.uuid = uuid;
  h.sap = sap;
  h.pid = static_cast<uint32_t>(::getpid());
  h.name = s.name;
  const std::vector<uint8_t> hello = encode(h);
  if (!cl::daemon_running()) {
    cl::leave_hello(hello);  // a daemon that starts later serves this service at once
    return c.ret(static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON));
  }
  // Facts first: the daemon updates them once it has seen the hello.
  proto::StateFile sf;
  if (cl::read_state(&sf)) {
    if (sf.role != 0) hadra::plat::sysmgr::set_local_supstate(sf.role);
    std::lock_guard<std::mutex> lock(s.mu);
    for (const proto::SvcFacts& f : sf.services)
      if (f.uuid == uuid) s.facts = f, s.facts_known = true;
    if (!s.facts_known) s.facts = proto::SvcFacts{uuid}, s.facts_known = true;
  }
  const int rc = cl::send_to_daemon(proto::kHello, hello);
  if (rc == 0) {
    std::lock_guard<std::mutex> lock(s.mu);
    s.attached = true;
  }
  cl::leave_hello(hello);
  return c.ret(rc);
}

HADRA_PLAT_API int sysmgr_client_detach(void) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_client_detach", static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON));
  if (c.faulted()) return c.fail<int>();
  cl::State& s = cl::state();
  if (!cl::daemon_mode()) return c.ret(0);
  cl::leave_hello({});
  if (!s.attached) return c.ret(0);
  const int rc = cl::send_to_daemon(proto::kBye, encode(proto::Bye{s.uuid}));
  {
    std::lock_guard<std::mutex> lock(s.mu);
    s.attached = false;
  }
  mts_flush(1000);
  return c.ret(rc);
}

HADRA_PLAT_API int sysmgr_client_fd(uint32_t sap) noexcept { return mts_fd_get(sap); }

}  // extern "C"
