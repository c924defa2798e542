// The system manager's message set: clients <-> their daemon, daemon <-> peer daemon, and the
// daemon's command interface. Every message is an MTS message whose opcode is below and whose
// payload is encoded here, so both ends share one definition (docs/daemon.md lists them).
//
// Encoding: little-endian integers; a string is a 16-bit length and its bytes (no NUL); a
// blob is a 32-bit length and its bytes. Every decoder checks each length against what is
// left, refuses trailing bytes, and gives false for anything malformed: a receiver logs and
// drops such a message. Header-only so that the daemon, the client link and the fuzz target
// compile the same code.
//
// Versioning: HELLO, WELCOME and PEER_HELLO carry kProtoVersion. A daemon refuses a client or
// peer of another major version (the high byte) with a log line naming both versions.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "hadra_platform/sysmgr.h"

namespace hadra::plat::sysmgr::proto {

constexpr uint16_t kProtoVersion = 0x0100;  // major 1, minor 0
constexpr bool version_compatible(uint16_t v) { return (v >> 8) == (kProtoVersion >> 8); }

// Opcodes. All messages of the system manager use the range SYSMGR_SAP .. SYSMGR_SAP + 0xff,
// each opcode once, whichever link carries it.
enum Opcode : uint32_t {
  // client -> daemon
  kHello = SYSMGR_SAP + 0x10,
  kBye = SYSMGR_SAP + 0x11,
  kGsyncGet = SYSMGR_SAP + 0x12,
  kAnswer = SYSMGR_SAP + 0x13,
  // daemon -> client
  kWelcome = SYSMGR_SAP + 0x20,
  kEvent = SYSMGR_SAP + 0x21,
  // daemon <-> daemon
  kPeerHello = SYSMGR_SAP + 0x30,
  kGsyncReq = SYSMGR_SAP + 0x31,
  kFileData = SYSMGR_SAP + 0x32,
  kManifest = SYSMGR_SAP + 0x33,
  kGsyncFail = SYSMGR_SAP + 0x34,
  kTakeOver = SYSMGR_SAP + 0x35,
  // A daemon that finds sequence-number tables of services that died with it (a crash of the
  // old active) tells its active peer how far they had sent: a PeerHello payload whose
  // services carry those last numbers (sent_seqno, sent_count).
  kPeerLeftBehind = SYSMGR_SAP + 0x3c,
  // operator -> daemon, and the daemon's reply
  kCommand = SYSMGR_SAP + 0x40,
  kCommandReply = SYSMGR_SAP + 0x41,
  // service <-> the same service on the peer: a standby that missed part of the sync stream
  // asks for it again (ResendGet); the active's MTS closes the resend with kResendReply
  // (mts/core.h resend: numbered with the last frame resent, payload the result).
  kResendGet = SYSMGR_SAP + 0x60,
  kResendReply = SYSMGR_SAP + 0x61,
};

constexpr bool is_sysmgr_opcode(uint32_t opc) { return opc >= SYSMGR_SAP && opc <= SYSMGR_SAP + 0xff; }

// ---- Primitive writer / reader --------------------------------------------------------------

class Writer {
 public:
  void u8(uint8_t v) { b_.push_back(v); }
  void u16(uint16_t v) { put(v, 2); }
  void u32(uint32_t v) { put(v, 4); }
  void i32(int32_t v) { put(static_cast<uint32_t>(v), 4); }
  void u64(uint64_t v) { put(v, 8); }
  // Strings longer than 65535 bytes are cut: names and reasons never come close.
  void str(std::string_view s) {
    const size_t n = s.size() > 0xffff ? 0xffff : s.size();
    u16(static_cast<uint16_t>(n));
    append(s.data(), n);
  }
  void blob(std::span<const uint8_t> d) {
    u32(static_cast<uint32_t>(d.size()));
    append(d.data(), d.size());
  }
  const std::vector<uint8_t>& bytes() const { return b_; }

 private:
  void put(uint64_t v, int n) {
    for (int i = 0; i < n; ++i) b_.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  // Grown, then copied into: gcc 12 at -O3 sees an overflow that is not there in the
  // iterator insert after push_back.
  void append(const void* p, size_t n) {
    if (n == 0) return;
    const size_t at = b_.size();
    b_.resize(at + n);
    std::memcpy(b_.data() + at, p, n);
  }
  std::vector<uint8_t> b_;
};

class Reader {
 public:
  Reader(const void* p, size_t n) : p_(static_cast<const uint8_t*>(p)), n_(p == nullptr ? 0 : n) {}
  bool u8(uint8_t* v) {
    uint64_t x;
    if (!get(&x, 1)) return false;
    *v = static_cast<uint8_t>(x);
    return true;
  }
  bool u16(uint16_t* v) {
    uint64_t x;
    if (!get(&x, 2)) return false;
    *v = static_cast<uint16_t>(x);
    return true;
  }
  bool u32(uint32_t* v) {
    uint64_t x;
    if (!get(&x, 4)) return false;
    *v = static_cast<uint32_t>(x);
    return true;
  }
  bool i32(int32_t* v) {
    uint32_t x;
    if (!u32(&x)) return false;
    *v = static_cast<int32_t>(x);
    return true;
  }
  bool u64(uint64_t* v) { return get(v, 8); }
  bool str(std::string* s) {
    uint16_t n;
    if (!u16(&n) || n > left()) return false;
    s->assign(reinterpret_cast<const char*>(p_ + at_), n);
    at_ += n;
    return true;
  }
  bool blob(std::span<const uint8_t>* d) {
    uint32_t n;
    if (!u32(&n) || n > left()) return false;
    *d = std::span<const uint8_t>(p_ + at_, n);
    at_ += n;
    return true;
  }
  size_t left() const { return n_ - at_; }
  bool done() const { return at_ == n_; }

 private:
  bool get(uint64_t* v, int n) {
    if (left() < static_cast<size_t>(n)) return false;
    uint64_t x = 0;
    for (int i = 0; i < n; ++i) x |= static_cast<uint64_t>(p_[at_ + static_cast<size_t>(i)]) << (8 * i);
    at_ += static_cast<size_t>(n);
    *v = x;
    return true;
  }
  const uint8_t* p_;
  size_t n_;
  size_t at_ = 0;
};

// ---- Client <-> daemon ------------------------------------------------------------------------

// A client introduces itself once its SAP is bound (sysmgr_client_attach).
struct Hello {
  uint16_t version = kProtoVersion;
  uint32_t uuid = 0;
  uint32_t sap = 0;
  uint32_t pid = 0;
  std::string name;
};

// A client leaves on purpose (controlled stop).
struct Bye {
  uint32_t uuid = 0;
};

struct GsyncGet {
  uint32_t uuid = 0;
  int32_t arg = 0;
};

// What the client's answer answers.
enum class AnswerKind : uint8_t {
  kGsyncSnapshot = 1,
  kGsyncReady = 2,
  kSwitchover = 3,
  kCfgWrite = 4,
};

constexpr uint32_t kMaxIndex = 10;

// Sequence numbers of one registry index: the last HA number and the count of messages.
struct IndexCount {
  uint64_t seqno = 0;
  uint32_t count = 0;
};

struct Answer {
  uint32_t uuid = 0;
  AnswerKind kind = AnswerKind::kGsyncSnapshot;
  uint32_t req_id = 0;
  int32_t value = 0;  // 0 success; the failed flag or the client's status otherwise
  // Snapshot answers only: the client's sync stream up to here is in the snapshot (the last
  // HA number sent, the stream's epoch) and what each index had reported at that point.
  uint64_t point = 0;
  uint32_t epoch = 0;
  IndexCount at_point[kMaxIndex + 1] = {};
};

struct Welcome {
  uint16_t version = kProtoVersion;
  uint8_t role = 0;  // 1 active, 2 standby
};

enum class EventKind : uint8_t {
  kGsyncSnapshot = 1,
  kGsyncReady = 2,
  kGsyncFailed = 3,
  kSwitchover = 4,
  kActiveMarker = 5,
  kSwitchoverDone = 6,
  kCfgWrite = 7,
  kGsyncStart = 8,  // the daemon wants this service rebuilt: it asks for a gsync itself
};
constexpr bool valid_event(uint8_t k) { return k >= 1 && k <= 8; }

struct Event {
  EventKind kind = EventKind::kGsyncSnapshot;
  uint32_t req_id = 0;
  uint32_t status = 0;  // the platform status of the event (gsync failed: the reason)
  std::string uri;      // snapshot area, or configuration area
  // Gsync ready only: where the snapshot's stream ends, and what each index had then.
  uint64_t point = 0;
  uint32_t epoch = 0;
  IndexCount at_point[kMaxIndex + 1] = {};
};

// ---- Daemon <-> daemon ------------------------------------------------------------------------

// One registry index of one service: what the active sent and the standby applied.
struct DbSeq {
  uint8_t index = 0;
  uint64_t sent_seqno = 0;
  uint32_t sent_count = 0;
  uint64_t applied_seqno = 0;
  uint32_t applied_count = 0;
};

struct ServiceSeq {
  uint32_t uuid = 0;
  std::string name;
  std::vector<DbSeq> dbs;  // at most kMaxIndex
};

// Hello and heartbeat in one: sent at start and then periodically.
struct PeerHello {
  uint16_t version = kProtoVersion;
  uint8_t slot = 0;
  uint8_t role = 0;
  uint64_t boot_id = 0;  // changes when the daemon restarts
  std::vector<ServiceSeq> services;
};
constexpr size_t kMaxServices = 256;

// A standby's request for the part of the sync stream it missed: the stream's epoch and the
// first HA number it wants (the one after the last it applied).
struct ResendGet {
  uint32_t epoch = 0;
  uint64_t from = 0;
};

struct GsyncReq {
  uint32_t uuid = 0;
  uint32_t xfer = 0;  // the standby daemon's number of this gsync
};

// A piece of one file of the area. Pieces of a file come in order, each at the offset where the
// last ended.
struct FileData {
  uint32_t xfer = 0;
  std::string name;
  uint64_t offset = 0;
  std::span<const uint8_t> data;
};
constexpr size_t kFileChunk = 256 * 1024;

struct ManifestEntry {
  std::string name;
  uint64_t size = 0;
  uint64_t xxh3 = 0;
};

// Written last: what the area holds, and where the client's stream stood at the snapshot.
struct Manifest {
  uint32_t xfer = 0;
  uint32_t uuid = 0;
  uint64_t point = 0;
  uint32_t epoch = 0;
  IndexCount at_point[kMaxIndex + 1] = {};
  std::vector<ManifestEntry> files;
};
constexpr size_t kMaxManifestFiles = 64;

struct GsyncFail {
  uint32_t xfer = 0;
  uint32_t uuid = 0;
  uint32_t status = 0;
  std::string reason;
};

// The active asks its standby to take over (a planned switchover).
struct TakeOver {
  uint32_t req_id = 0;
};

// ---- Commands ---------------------------------------------------------------------------------

enum class Cmd : uint8_t { kStatus = 1, kSwitchover = 2, kTakeover = 3, kGsync = 4, kConfigSave = 5, kVerify = 6,
                           kHistory = 7 };
constexpr bool valid_cmd(uint8_t c) { return c >= 1 && c <= 7; }

struct Command {
  Cmd cmd = Cmd::kStatus;
  std::string arg;
};

struct CommandReply {
  int32_t status = 0;  // 0 done, else an errno value
  std::string json;    // the result, always a JSON object
};

// ---- Encoders ---------------------------------------------------------------------------------

inline void put_counts(Writer& w, const IndexCount (&c)[kMaxIndex + 1]) {
  for (uint32_t i = 1; i <= kMaxIndex; ++i) {
    w.u64(c[i].seqno);
    w.u32(c[i].count);
  }
}
inline bool get_counts(Reader& r, IndexCount (&c)[kMaxIndex + 1]) {
  for (uint32_t i = 1; i <= kMaxIndex; ++i)
    if (!r.u64(&c[i].seqno) || !r.u32(&c[i].count)) return false;
  return true;
}

inline std::vector<uint8_t> encode(const Hello& m) {
  Writer w;
  w.u16(m.version), w.u32(m.uuid), w.u32(m.sap), w.u32(m.pid), w.str(m.name);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, Hello* m) {
  Reader r(p, n);
  return r.u16(&m->version) && r.u32(&m->uuid) && r.u32(&m->sap) && r.u32(&m->pid) && r.str(&m->name) && r.done() &&
         m->sap != 0;
}

inline std::vector<uint8_t> encode(const Bye& m) {
  Writer w;
  w.u32(m.uuid);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, Bye* m) {
  Reader r(p, n);
  return r.u32(&m->uuid) && r.done();
}

inline std::vector<uint8_t> encode(const GsyncGet& m) {
  Writer w;
  w.u32(m.uuid), w.i32(m.arg);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, GsyncGet* m) {
  Reader r(p, n);
  return r.u32(&m->uuid) && r.i32(&m->arg) && r.done();
}

inline std::vector<uint8_t> encode(const Answer& m) {
  Writer w;
  w.u32(m.uuid), w.u8(static_cast<uint8_t>(m.kind)), w.u32(m.req_id), w.i32(m.value), w.u64(m.point), w.u32(m.epoch);
  put_counts(w, m.at_point);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, Answer* m) {
  Reader r(p, n);
  uint8_t kind;
  if (!r.u32(&m->uuid) || !r.u8(&kind) || kind < 1 || kind > 4) return false;
  m->kind = static_cast<AnswerKind>(kind);
  return r.u32(&m->req_id) && r.i32(&m->value) && r.u64(&m->point) && r.u32(&m->epoch) && get_counts(r, m->at_point) &&
         r.done();
}

inline std::vector<uint8_t> encode(const Welcome& m) {
  Writer w;
  w.u16(m.version), w.u8(m.role);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, Welcome* m) {
  Reader r(p, n);
  return r.u16(&m->version) && r.u8(&m->role) && r.done();
}

inline std::vector<uint8_t> encode(const Event& m) {
  Writer w;
  w.u8(static_cast<uint8_t>(m.kind)), w.u32(m.req_id), w.u32(m.status), w.str(m.uri), w.u64(m.point), w.u32(m.epoch);
  put_counts(w, m.at_point);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, Event* m) {
  Reader r(p, n);
  uint8_t kind;
  if (!r.u8(&kind) || !valid_event(kind)) return false;
  m->kind = static_cast<EventKind>(kind);
  return r.u32(&m->req_id) && r.u32(&m->status) && r.str(&m->uri) && m->uri.size() < SYSMGR_URI_MAX &&
         r.u64(&m->point) && r.u32(&m->epoch) && get_counts(r, m->at_point) && r.done();
}

inline std::vector<uint8_t> encode(const PeerHello& m) {
  Writer w;
  w.u16(m.version), w.u8(m.slot), w.u8(m.role), w.u64(m.boot_id);
  w.u16(static_cast<uint16_t>(m.services.size()));
  for (const ServiceSeq& s : m.services) {
    w.u32(s.uuid), w.str(s.name), w.u8(static_cast<uint8_t>(s.dbs.size()));
    for (const DbSeq& d : s.dbs) w.u8(d.index), w.u64(d.sent_seqno), w.u32(d.sent_count), w.u64(d.applied_seqno), w.u32(d.applied_count);
  }
  return w.bytes();
}
inline bool decode(const void* p, size_t n, PeerHello* m) {
  Reader r(p, n);
  uint16_t count;
  if (!r.u16(&m->version) || !r.u8(&m->slot) || !r.u8(&m->role) || !r.u64(&m->boot_id) || !r.u16(&count) ||
      count > kMaxServices)
    return false;
  m->services.assign(count, ServiceSeq{});
  for (ServiceSeq& s : m->services) {
    uint8_t dbs;
    if (!r.u32(&s.uuid) || !r.str(&s.name) || !r.u8(&dbs) || dbs > kMaxIndex) return false;
    s.dbs.assign(dbs, DbSeq{});
    for (DbSeq& d : s.dbs)
      if (!r.u8(&d.index) || d.index < 1 || d.index > kMaxIndex || !r.u64(&d.sent_seqno) || !r.u32(&d.sent_count) ||
          !r.u64(&d.applied_seqno) || !r.u32(&d.applied_count))
        return false;
  }
  return r.done();
}

inline std::vector<uint8_t> encode(const ResendGet& m) {
  Writer w;
  w.u32(m.epoch), w.u64(m.from);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, ResendGet* m) {
  Reader r(p, n);
  return r.u32(&m->epoch) && r.u64(&m->from) && r.done() && m->from != 0;
}

inline std::vector<uint8_t> encode(const GsyncReq& m) {
  Writer w;
  w.u32(m.uuid), w.u32(m.xfer);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, GsyncReq* m) {
  Reader r(p, n);
  return r.u32(&m->uuid) && r.u32(&m->xfer) && r.done();
}

// A file's path in an area, relative to it: segments of at most 200 bytes joined by '/',
// none empty, "." or "..", no NUL; at most 400 bytes in all.
inline bool valid_file_name(std::string_view s) {
  if (s.empty() || s.size() > 400) return false;
  while (true) {
    const size_t slash = s.find('/');
    const std::string_view seg = s.substr(0, slash);
    if (seg.empty() || seg.size() > 200 || seg == "." || seg == ".." || seg.find('\0') != std::string_view::npos)
      return false;
    if (slash == std::string_view::npos) return true;
    s = s.substr(slash + 1);
  }
}

inline std::vector<uint8_t> encode(const FileData& m) {
  Writer w;
  w.u32(m.xfer), w.str(m.name), w.u64(m.offset), w.blob(m.data);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, FileData* m) {
  Reader r(p, n);
  return r.u32(&m->xfer) && r.str(&m->name) && valid_file_name(m->name) && r.u64(&m->offset) && r.blob(&m->data) &&
         m->data.size() <= kFileChunk && r.done();
}

inline std::vector<uint8_t> encode(const Manifest& m) {
  Writer w;
  w.u32(m.xfer), w.u32(m.uuid), w.u64(m.point), w.u32(m.epoch);
  put_counts(w, m.at_point);
  w.u16(static_cast<uint16_t>(m.files.size()));
  for (const ManifestEntry& f : m.files) w.str(f.name), w.u64(f.size), w.u64(f.xxh3);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, Manifest* m) {
  Reader r(p, n);
  uint16_t count;
  if (!r.u32(&m->xfer) || !r.u32(&m->uuid) || !r.u64(&m->point) || !r.u32(&m->epoch) || !get_counts(r, m->at_point) ||
      !r.u16(&count) || count > kMaxManifestFiles)
    return false;
  m->files.assign(count, ManifestEntry{});
  for (ManifestEntry& f : m->files)
    if (!r.str(&f.name) || !valid_file_name(f.name) || !r.u64(&f.size) || !r.u64(&f.xxh3)) return false;
  return r.done();
}

inline std::vector<uint8_t> encode(const GsyncFail& m) {
  Writer w;
  w.u32(m.xfer), w.u32(m.uuid), w.u32(m.status), w.str(m.reason);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, GsyncFail* m) {
  Reader r(p, n);
  return r.u32(&m->xfer) && r.u32(&m->uuid) && r.u32(&m->status) && r.str(&m->reason) && r.done();
}

inline std::vector<uint8_t> encode(const TakeOver& m) {
  Writer w;
  w.u32(m.req_id);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, TakeOver* m) {
  Reader r(p, n);
  return r.u32(&m->req_id) && r.done();
}

inline std::vector<uint8_t> encode(const Command& m) {
  Writer w;
  w.u8(static_cast<uint8_t>(m.cmd)), w.str(m.arg);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, Command* m) {
  Reader r(p, n);
  uint8_t c;
  if (!r.u8(&c) || !valid_cmd(c)) return false;
  m->cmd = static_cast<Cmd>(c);
  return r.str(&m->arg) && r.done();
}

inline std::vector<uint8_t> encode(const CommandReply& m) {
  Writer w;
  w.i32(m.status);
  w.blob(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(m.json.data()), m.json.size()));
  return w.bytes();
}
inline bool decode(const void* p, size_t n, CommandReply* m) {
  Reader r(p, n);
  std::span<const uint8_t> d;
  if (!r.i32(&m->status) || !r.blob(&d) || !r.done()) return false;
  m->json.assign(reinterpret_cast<const char*>(d.data()), d.size());
  return true;
}

// ---- The daemon's state file ----------------------------------------------------------------
//
// <root>/sysmgr/state, written by the daemon (temporary file, fsync, rename) and read by its
// clients when they attach: the supervisor's role and, per service, the restart facts the
// start reason is decided from. Text, one item a line:
//
//   role <active|standby|none>
//   svc <uuid hex> <handshake seen 0|1> <first start after switchover 0|1> <last stop>
//
// Unknown lines are skipped (a newer daemon may add some); a malformed known line ends the
// parse with false.

struct SvcFacts {
  uint32_t uuid = 0;
  int handshake_seen = 0;
  int swover_first = 0;
  std::string last_stop = "none";  // none, crash, controlled, switchover
};

struct StateFile {
  int role = 0;  // 1 active, 2 standby, 0 none
  std::vector<SvcFacts> services;
};

inline const char* role_name(int role) { return role == 1 ? "active" : role == 2 ? "standby" : "none"; }

inline std::string format_state(const StateFile& s) {
  std::string out = std::string("role ") + role_name(s.role) + "\n";
  char line[128];
  for (const SvcFacts& f : s.services) {
    std::snprintf(line, sizeof line, "svc %x %d %d %s\n", f.uuid, f.handshake_seen != 0, f.swover_first != 0,
                  f.last_stop.c_str());
    out += line;
  }
  return out;
}

inline bool parse_state(std::string_view text, StateFile* out) {
  *out = StateFile{};
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    std::string line(text.substr(0, nl));
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
    if (line.rfind("role ", 0) == 0) {
      const std::string v = line.substr(5);
      if (v == "active") out->role = 1;
      else if (v == "standby") out->role = 2;
      else if (v == "none") out->role = 0;
      else return false;
    } else if (line.rfind("svc ", 0) == 0) {
      if (out->services.size() >= kMaxServices) return false;
      SvcFacts f;
      unsigned uuid = 0;
      int hs = 0, sw = 0, used = 0;
      char stop[16] = {};
      if (std::sscanf(line.c_str(), "svc %x %d %d %15s%n", &uuid, &hs, &sw, stop, &used) != 4 ||
          static_cast<size_t>(used) != line.size() || (hs != 0 && hs != 1) || (sw != 0 && sw != 1))
        return false;
      f.uuid = uuid, f.handshake_seen = hs, f.swover_first = sw, f.last_stop = stop;
      out->services.push_back(f);
    }
  }
  return true;
}

// ---- Verify and repair (daemon <-> daemon) ----------------------------------------------------
//
// The daemon an operator asks compares its copy of a store with the peer's: it asks for
// digests over key ranges (op 1) or for the keys and record digests of ranges (op 2), and may
// then send the peer exactly the records that differ (REPAIR). The peer answers each with a
// VERIFY_ANS of the same id. Command 6 (verify) carries its settings as a JSON object.

constexpr uint32_t kVerifyReq = SYSMGR_SAP + 0x50;
constexpr uint32_t kVerifyAns = SYSMGR_SAP + 0x51;
constexpr uint32_t kRepair = SYSMGR_SAP + 0x52;

constexpr size_t kMaxVerifyRanges = 4096;
constexpr size_t kMaxVerifyEntries = 20000;
constexpr size_t kMaxVerifyKey = 511;
constexpr size_t kMaxRepairRecords = 1024;

struct VerifyRange {
  std::string lo;  // first key of the range; "" from the start
  std::string hi;  // first key after it; "" to the end
};

enum : uint8_t { kVerifyDigest = 1, kVerifyList = 2 };

struct VerifyReq {
  uint32_t id = 0;
  uint8_t op = kVerifyDigest;
  std::string uri;
  std::vector<VerifyRange> ranges;
};

struct VerifySum {
  uint64_t count = 0;
  uint64_t digest = 0;
};

struct VerifyEntry {
  uint32_t range = 0;  // index in the request's ranges
  std::string key;
  uint64_t digest = 0;
};

struct VerifyAns {
  uint32_t id = 0;
  int32_t status = 0;  // 0, or an errno value with error naming the cause
  std::string error;
  uint64_t records = 0;           // records of the store on the answering side
  std::vector<VerifySum> sums;    // op 1: one per range
  std::vector<VerifyEntry> entries;  // op 2: in range and key order
  uint8_t truncated = 0;          // op 2: more entries than one answer carries
};

struct RepairRecord {
  std::string key;
  uint8_t present = 1;  // 0: the record does not exist on the sender: delete it
  std::string value;
  std::string mkeys;    // MSDB: the secondary-key record as stored; "" for none
};

struct Repair {
  uint32_t id = 0;
  std::string uri;
  std::vector<RepairRecord> records;
};

inline void put_bytes(Writer& w, const std::string& s) {
  w.blob(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(s.data()), s.size()));
}
inline bool get_bytes(Reader& r, std::string* s) {
  std::span<const uint8_t> d;
  if (!r.blob(&d)) return false;
  s->assign(reinterpret_cast<const char*>(d.data()), d.size());
  return true;
}
inline bool get_key(Reader& r, std::string* s, bool may_be_empty) {
  return r.str(s) && s->size() <= kMaxVerifyKey && (may_be_empty || !s->empty());
}

inline std::vector<uint8_t> encode(const VerifyReq& m) {
  Writer w;
  w.u32(m.id), w.u8(m.op), w.str(m.uri), w.u16(static_cast<uint16_t>(m.ranges.size()));
  for (const VerifyRange& r : m.ranges) w.str(r.lo), w.str(r.hi);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, VerifyReq* m) {
  Reader r(p, n);
  uint16_t count;
  if (!r.u32(&m->id) || !r.u8(&m->op) || (m->op != kVerifyDigest && m->op != kVerifyList) || !r.str(&m->uri) ||
      m->uri.size() >= SYSMGR_URI_MAX || !r.u16(&count) || count > kMaxVerifyRanges)
    return false;
  m->ranges.assign(count, VerifyRange{});
  for (VerifyRange& v : m->ranges)
    if (!get_key(r, &v.lo, true) || !get_key(r, &v.hi, true)) return false;
  return r.done();
}

inline std::vector<uint8_t> encode(const VerifyAns& m) {
  Writer w;
  w.u32(m.id), w.i32(m.status), w.str(m.error), w.u64(m.records), w.u16(static_cast<uint16_t>(m.sums.size()));
  for (const VerifySum& s : m.sums) w.u64(s.count), w.u64(s.digest);
  w.u32(static_cast<uint32_t>(m.entries.size()));
  for (const VerifyEntry& e : m.entries) w.u32(e.range), w.str(e.key), w.u64(e.digest);
  w.u8(m.truncated);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, VerifyAns* m) {
  Reader r(p, n);
  uint16_t sums;
  uint32_t entries;
  if (!r.u32(&m->id) || !r.i32(&m->status) || !r.str(&m->error) || !r.u64(&m->records) || !r.u16(&sums) ||
      sums > kMaxVerifyRanges)
    return false;
  m->sums.assign(sums, VerifySum{});
  for (VerifySum& s : m->sums)
    if (!r.u64(&s.count) || !r.u64(&s.digest)) return false;
  if (!r.u32(&entries) || entries > kMaxVerifyEntries) return false;
  m->entries.assign(entries, VerifyEntry{});
  for (VerifyEntry& e : m->entries)
    if (!r.u32(&e.range) || e.range >= kMaxVerifyRanges || !get_key(r, &e.key, false) || !r.u64(&e.digest))
      return false;
  return r.u8(&m->truncated) && m->truncated <= 1 && r.done();
}

inline std::vector<uint8_t> encode(const Repair& m) {
  Writer w;
  w.u32(m.id), w.str(m.uri), w.u16(static_cast<uint16_t>(m.records.size()));
  for (const RepairRecord& rec : m.records) {
    w.str(rec.key), w.u8(rec.present);
    put_bytes(w, rec.value), put_bytes(w, rec.mkeys);
  }
  return w.bytes();
}
inline bool decode(const void* p, size_t n, Repair* m) {
  Reader r(p, n);
  uint16_t count;
  if (!r.u32(&m->id) || !r.str(&m->uri) || m->uri.size() >= SYSMGR_URI_MAX || !r.u16(&count) ||
      count > kMaxRepairRecords)
    return false;
  m->records.assign(count, RepairRecord{});
  for (RepairRecord& rec : m->records)
    if (!get_key(r, &rec.key, false) || !r.u8(&rec.present) || rec.present > 1 || !get_bytes(r, &rec.value) ||
        !get_bytes(r, &rec.mkeys))
      return false;
  return r.done();
}

// ---- History and link round trip (daemon <-> daemon) -----------------------------------------
//
// HIST_REQ asks the peer's daemon for the newest records of its services' history rings
// (log/hist_ring.h); HIST_ANS carries them, oldest first, with the same id. PING is sent
// four times a second with the sender's own clock; PONG echoes it, and the difference on arrival is
// the link's round-trip time. Command 7 (history) carries its settings as a JSON object.

constexpr uint32_t kHistReq = SYSMGR_SAP + 0x53;
constexpr uint32_t kHistAns = SYSMGR_SAP + 0x54;
constexpr uint32_t kPing = SYSMGR_SAP + 0x55;
constexpr uint32_t kPong = SYSMGR_SAP + 0x56;

constexpr size_t kMaxHistEntries = 8192;
constexpr size_t kMaxHistText = 64;

struct HistReq {
  uint32_t id = 0;
  uint32_t max = 0;  // newest records wanted, at most kMaxHistEntries
};

struct HistEntry {
  uint64_t time_ns = 0;   // wall clock of the recording side
  uint64_t seq = 0;       // order in its ring
  uint64_t ha_seqno = 0;
  uint64_t digest = 0;
  uint32_t pid = 0;
  uint32_t kind = 0;      // 1 sent, 2 applied, 3 event
  uint32_t sap = 0, epoch = 0, opcode = 0, uuid = 0, len = 0;
  uint8_t index = 0;
  std::string service;    // the service's name as its daemon knows it; "" when unknown
  std::string text;
};

struct HistAns {
  uint32_t id = 0;
  int32_t status = 0;     // 0, or an errno value with error naming the cause
  std::string error;
  std::vector<HistEntry> entries;
};

// The active's lag per database as it sees it: the age of the oldest sync message the
// standby has not applied yet (0 when none), carried by the active's pings so that the
// standby's status shows it too.
struct DbLag {
  uint32_t uuid = 0;
  uint8_t index = 0;
  uint64_t lag_ms = 0;
  std::string name;  // the database's registered name, for a standby that has not seen it yet
};

struct Ping {
  uint64_t sent_ns = 0;   // the asking side's clock, echoed unchanged
  std::vector<DbLag> lags;  // a ping from the active; empty in a pong
};

inline std::vector<uint8_t> encode(const HistReq& m) {
  Writer w;
  w.u32(m.id), w.u32(m.max);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, HistReq* m) {
  Reader r(p, n);
  return r.u32(&m->id) && r.u32(&m->max) && m->max <= kMaxHistEntries && r.done();
}

inline std::vector<uint8_t> encode(const HistAns& m) {
  Writer w;
  w.u32(m.id), w.i32(m.status), w.str(m.error), w.u32(static_cast<uint32_t>(m.entries.size()));
  for (const HistEntry& e : m.entries) {
    w.u64(e.time_ns), w.u64(e.seq), w.u64(e.ha_seqno), w.u64(e.digest);
    w.u32(e.pid), w.u32(e.kind), w.u32(e.sap), w.u32(e.epoch), w.u32(e.opcode), w.u32(e.uuid), w.u32(e.len);
    w.u8(e.index), w.str(e.service), w.str(e.text);
  }
  return w.bytes();
}
inline bool decode(const void* p, size_t n, HistAns* m) {
  Reader r(p, n);
  uint32_t count;
  if (!r.u32(&m->id) || !r.i32(&m->status) || !r.str(&m->error) || !r.u32(&count) || count > kMaxHistEntries)
    return false;
  m->entries.assign(count, HistEntry{});
  for (HistEntry& e : m->entries)
    if (!r.u64(&e.time_ns) || !r.u64(&e.seq) || !r.u64(&e.ha_seqno) || !r.u64(&e.digest) || !r.u32(&e.pid) ||
        !r.u32(&e.kind) || e.kind < 1 || e.kind > 3 || !r.u32(&e.sap) || !r.u32(&e.epoch) || !r.u32(&e.opcode) ||
        !r.u32(&e.uuid) || !r.u32(&e.len) || !r.u8(&e.index) || !r.str(&e.service) || e.service.size() > 255 ||
        !r.str(&e.text) || e.text.size() > kMaxHistText)
      return false;
  return r.done();
}

inline std::vector<uint8_t> encode(const Ping& m) {
  Writer w;
  w.u64(m.sent_ns), w.u16(static_cast<uint16_t>(m.lags.size()));
  for (const DbLag& l : m.lags) w.u32(l.uuid), w.u8(l.index), w.u64(l.lag_ms), w.str(l.name);
  return w.bytes();
}
inline bool decode(const void* p, size_t n, Ping* m) {
  Reader r(p, n);
  uint16_t count;
  if (!r.u64(&m->sent_ns) || !r.u16(&count) || count > 64 * kMaxIndex) return false;
  m->lags.assign(count, DbLag{});
  for (DbLag& l : m->lags)
    if (!r.u32(&l.uuid) || !r.u8(&l.index) || l.index < 1 || l.index > kMaxIndex || !r.u64(&l.lag_ms) ||
        !r.str(&l.name) || l.name.size() > 64)
      return false;
  return r.done();
}

}  // namespace hadra::plat::sysmgr::proto
