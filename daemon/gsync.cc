// Gsync between the daemons: the standby's service asks, the active's service writes its
// snapshot area, the area's files travel over the peer link, and the standby's daemon checks
// them before its service hears gsync ready.
//
//   standby daemon                          active daemon
//   client's GSYNC_GET
//     -> GSYNC_REQ(uuid, xfer) ----------->  event gsync snapshot -> client writes the area
//                                            client's snapshot answer (stream point)
//      <----------- FILE_DATA pieces ------  each file of the area, in order
//      <----------- MANIFEST (written last)  name, size, XXH3-64 of every file; stream point
//   files checked against the manifest,
//   fsynced, the area renamed into place;
//   event gsync ready (with the point) -> client rebuilds, answers
//      <----------- GSYNC_FAIL ------------  any failure on the active's side, with a reason
//
// Files arrive in <root>/snap/.incoming-<uuid>-<xfer>; only a complete, verified area is
// renamed to <root>/snap/gsync-<uuid>. A failure or the deadline (GSYNC_TIMEOUT_MS) removes
// the temporary directory and delivers gsync failed to the service with a reason naming the
// file. A daemon that starts removes what an earlier one left half received.
//
// A checksum proves a file arrived as it left, not that it was sound when it left. Store
// files of the area (SDB snapshots, PSS copies: LMDB files) are also walked for structural
// damage before gsync ready: the library restores a snapshot it cannot read as an empty
// database, so a listed file that is not a sound store must fail the gsync here, by name,
// instead of leaving the standby with an empty copy that looks in sync.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "common/lmdb_check.h"
#include "daemon.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/log.h"

namespace hadra::sysmgrd {
namespace {

namespace fs = std::filesystem;

std::string area_uri(uint32_t uuid) {
  char text[64];
  std::snprintf(text, sizeof text, "snap:/gsync-%x", uuid);
  return text;
}

std::string area_dir(const std::string& root, uint32_t uuid) {
  char text[64];
  std::snprintf(text, sizeof text, "snap/gsync-%x", uuid);
  return files::root_path(root, text);
}

// Null when the arrived file name at path may be restored from; else what is wrong with it. An
// SDB snapshot (".snap") must be an LMDB file; any LMDB file must be sound.
const char* store_fault(const std::string& name, const std::string& path) {
  switch (hadra::plat::lmdb_file_check(path)) {
    case hadra::plat::LmdbFile::kSound:
      return nullptr;
    case hadra::plat::LmdbFile::kDamaged:
      return "a damaged store file (its pages do not hold together)";
    case hadra::plat::LmdbFile::kForeign:
      return name.ends_with(".snap") ? "not a store file (an SDB snapshot must be one)" : nullptr;
  }
  return nullptr;
}

// Tests only (FAULT_SHIP=zeros): 4 KiB of zeros into the first SDB snapshot of the area before
// its checksum is taken, as a disk that lost a block would leave it.
void zero_first_snapshot(const std::string& dir, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (!name.ends_with(".snap")) continue;
    const int fd = ::open((fs::path(dir) / name).c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return;
    static const std::vector<uint8_t> zeros(4096, 0);
    (void)!::pwrite(fd, zeros.data(), zeros.size(), 0);
    ::close(fd);
    return;
  }
}

bool write_all(int fd, const uint8_t* p, size_t n) {
  while (n > 0) {
    const ssize_t w = ::write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

// fsync of every file and directory under dir, then dir itself.
bool sync_tree(const std::string& dir) {
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec))
    if (!files::sync_path(it->path().string())) return false;
  return !ec && files::sync_path(dir);
}

}  // namespace

void Daemon::clean_leftovers() {
  std::error_code ec;
  for (const char* area : {"snap", "stage"}) {
    for (const auto& e : fs::directory_iterator(files::root_path(o_.root, area), ec)) {
      const std::string name = e.path().filename().string();
      if (!name.starts_with(".incoming-") && !name.starts_with(".old-") && !name.starts_with("cfg-")) continue;
      plat_syslog(PLAT_LOG_WARNING, "sysmgrd: removing %s left by an earlier run", e.path().c_str());
      fs::remove_all(e.path(), ec);
    }
  }
}

// ---- Standby side ------------------------------------------------------------------------------

void Daemon::gsync_request(uint32_t uuid, std::string* why) {
  const Client* c = client(uuid);
  if (c == nullptr) return;
  for (const auto& [xfer, in] : incoming_)
    if (in.uuid == uuid) {
      gsync_fail_incoming(xfer, ECANCELED, "superseded by a new request of the service");
      break;
    }
  const uint32_t xfer = next_xfer_++;
  Incoming in;
  in.xfer = xfer;
  in.uuid = uuid;
  in.deadline_ns = now_ns() + static_cast<uint64_t>(o_.gsync_timeout_ms) * 1000000ull;
  char dir[96];
  std::snprintf(dir, sizeof dir, "snap/.incoming-%x-%u", uuid, xfer);
  in.dir = files::root_path(o_.root, dir);
  incoming_[xfer] = in;
  if (role_ != 2) {
    *why = "this supervisor is not the standby";
    return gsync_fail_incoming(xfer, EPERM, *why);
  }
  std::error_code ec;
  fs::create_directories(in.dir, ec);
  if (ec) return gsync_fail_incoming(xfer, static_cast<uint32_t>(ec.value()), in.dir + ": " + ec.message());
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: gsync %u of service %s asked of the active", xfer, c->name.c_str());
  if (!send_peer(proto::kGsyncReq, encode(proto::GsyncReq{uuid, xfer})))
    gsync_fail_incoming(xfer, EHOSTUNREACH, "the request could not be sent to the peer");
}

void Daemon::gsync_fail_incoming(uint32_t xfer, uint32_t status, const std::string& reason) {
  auto it = incoming_.find(xfer);
  if (it == incoming_.end()) return;
  const Incoming in = it->second;
  incoming_.erase(it);
  std::error_code ec;
  fs::remove_all(in.dir, ec);
  ++gsyncs_failed_;
  resync_gsync_ended(in.uuid, false);
  const Client* c = client(in.uuid);
  const std::string name = c != nullptr ? c->name : "uuid " + std::to_string(in.uuid);
  last_gsync_error_ = "gsync " + std::to_string(xfer) + " of " + name + ": " + reason;
  plat_syslog(PLAT_LOG_ERR, "sysmgrd: gsync %u of service %s failed: %s", xfer, name.c_str(), reason.c_str());
  if (c == nullptr || in.delivered) return;
  proto::Event ev;
  ev.kind = proto::EventKind::kGsyncFailed;
  ev.req_id = xfer;
  ev.status = status;
  (void)send_event(*c, ev);
}

void Daemon::gsync_on_file(const proto::FileData& f) {
  auto it = incoming_.find(f.xfer);
  if (it == incoming_.end() || it->second.delivered) {
    plat_syslog(PLAT_LOG_WARNING, "sysmgrd: piece of %s for no running gsync (%u); dropped", f.name.c_str(), f.xfer);
    return;
  }
  Incoming& in = it->second;
  const std::string path = (fs::path(in.dir) / f.name).string();
  auto [pos, added] = in.files.try_emplace(f.name, 0);
  if (f.offset != pos->second)
    return gsync_fail_incoming(f.xfer, EPROTO,
                               "file " + f.name + ": piece at offset " + std::to_string(f.offset) + ", expected " +
                                   std::to_string(pos->second));
  std::error_code ec;
  fs::create_directories(fs::path(path).parent_path(), ec);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | (added ? O_CREAT | O_EXCL : O_APPEND), 0600);
  const bool ok = fd >= 0 && write_all(fd, f.data.data(), f.data.size());
  const int err = errno;
  if (fd >= 0) ::close(fd);
  if (!ok) return gsync_fail_incoming(f.xfer, static_cast<uint32_t>(err), "file " + f.name + ": " + std::strerror(err));
  pos->second += f.data.size();
}

void Daemon::gsync_on_manifest(const proto::Manifest& m) {
  auto it = incoming_.find(m.xfer);
  if (it == incoming_.end() || it->second.delivered) return;
  Incoming& in = it->second;
  if (m.uuid != in.uuid) return gsync_fail_incoming(m.xfer, EPROTO, "the manifest names another service");
  if (m.files.size() != in.files.size())
    return gsync_fail_incoming(m.xfer, EBADMSG,
                               "the manifest lists " + std::to_string(m.files.size()) + " files, " +
                                   std::to_string(in.files.size()) + " arrived");
  for (const proto::ManifestEntry& e : m.files) {
    uint64_t hash = 0, size = 0;
    const std::string path = (fs::path(in.dir) / e.name).string();
    if (in.files.find(e.name) == in.files.end() || !files::hash_file(path, &hash, &size))
      return gsync_fail_incoming(m.xfer, ENOENT, "file " + e.name + " is listed in the manifest but did not arrive");
    if (size != e.size)
      return gsync_fail_incoming(m.xfer, EBADMSG,
                                 "file " + e.name + ": " + std::to_string(size) + " bytes, the manifest says " +
                                     std::to_string(e.size));
    if (hash != e.xxh3) {
      char text[96];
      std::snprintf(text, sizeof text, ": checksum %016llx, the manifest says %016llx",
                    static_cast<unsigned long long>(hash), static_cast<unsigned long long>(e.xxh3));
      return gsync_fail_incoming(m.xfer, EBADMSG, "file " + e.name + text);
    }
    if (const char* fault = store_fault(e.name, path))
      return gsync_fail_incoming(m.xfer, EBADMSG, "file " + e.name + ": " + fault);
  }
  // Whole and verified: on disk, then under its final name in one rename.
  const std::string final_dir = area_dir(o_.root, in.uuid);
  const std::string old = final_dir.substr(0, final_dir.rfind('/')) + "/.old-" + std::to_string(m.xfer);
  std::error_code ec;
  if (!sync_tree(in.dir)) return gsync_fail_incoming(m.xfer, EIO, in.dir + ": cannot be synced to disk");
  if (fs::exists(final_dir, ec)) fs::rename(final_dir, old, ec);
  if (!ec) fs::rename(in.dir, final_dir, ec);
  if (ec) return gsync_fail_incoming(m.xfer, static_cast<uint32_t>(ec.value()), final_dir + ": " + ec.message());
  (void)files::sync_path(fs::path(final_dir).parent_path().string());
  fs::remove_all(old, ec);
  in.dir = final_dir;
  in.delivered = true;
  const Client* c = client(in.uuid);
  if (c == nullptr) return gsync_fail_incoming(m.xfer, ESRCH, "the service went away");
  proto::Event ev;
  ev.kind = proto::EventKind::kGsyncReady;
  ev.req_id = m.xfer;
  ev.uri = area_uri(in.uuid);
  ev.point = m.point;
  ev.epoch = m.epoch;
  for (uint32_t i = 0; i <= proto::kMaxIndex; ++i) ev.at_point[i] = m.at_point[i];
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: gsync %u of service %s: %zu files verified, gsync ready delivered", m.xfer,
              c->name.c_str(), m.files.size());
  if (!send_event(*c, ev)) {
    in.delivered = false;
    gsync_fail_incoming(m.xfer, EIO, "gsync ready could not be delivered");
  }
}

void Daemon::gsync_on_fail(const proto::GsyncFail& f) {
  gsync_fail_incoming(f.xfer, f.status, "the active supervisor says: " + f.reason);
}

void Daemon::gsync_on_ready_answer(const Client& c, const proto::Answer& a) {
  auto it = incoming_.find(a.req_id);
  if (it == incoming_.end()) return;
  incoming_.erase(it);
  resync_gsync_ended(c.uuid, a.value == 0);
  if (a.value == 0) {
    ++gsyncs_done_;
    plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: gsync %u of service %s complete", a.req_id, c.name.c_str());
  } else {
    ++gsyncs_failed_;
    last_gsync_error_ = "gsync " + std::to_string(a.req_id) + " of " + c.name + ": the service could not rebuild";
    plat_syslog(PLAT_LOG_ERR, "sysmgrd: %s", last_gsync_error_.c_str());
  }
}

// ---- Active side -------------------------------------------------------------------------------

void Daemon::gsync_on_req(const proto::GsyncReq& r) {
  auto refuse = [&](uint32_t status, const std::string& reason) {
    plat_syslog(PLAT_LOG_WARNING, "sysmgrd: gsync %u for service uuid 0x%x refused: %s", r.xfer, r.uuid, reason.c_str());
    (void)send_peer(proto::kGsyncFail, encode(proto::GsyncFail{r.xfer, r.uuid, status, reason}));
  };
  if (role_ != 1) return refuse(EPERM, "this supervisor is not active");
  const Client* c = client(r.uuid);
  if (c == nullptr) return refuse(PLAT_ERR_SYSMGR_SRV_NOT_ON_ACTIVE, "the service does not run on the active");
  const std::string dir = area_dir(o_.root, r.uuid);
  std::error_code ec;
  fs::remove_all(dir, ec);
  fs::create_directories(dir, ec);
  if (ec) return refuse(EIO, dir + ": " + ec.message());
  Outgoing& o = outgoing_[r.xfer];
  o = Outgoing();
  o.xfer = r.xfer;
  o.uuid = r.uuid;
  o.deadline_ns = now_ns() + static_cast<uint64_t>(o_.gsync_timeout_ms) * 1000000ull;
  proto::Event ev;
  ev.kind = proto::EventKind::kGsyncSnapshot;
  ev.req_id = r.xfer;
  ev.uri = area_uri(r.uuid);
  if (!send_event(*c, ev)) gsync_fail_outgoing(r.xfer, EIO, "the snapshot event could not be delivered");
}

void Daemon::gsync_fail_outgoing(uint32_t xfer, uint32_t status, const std::string& reason) {
  auto it = outgoing_.find(xfer);
  if (it == outgoing_.end()) return;
  const uint32_t uuid = it->second.uuid;
  outgoing_.erase(it);
  plat_syslog(PLAT_LOG_ERR, "sysmgrd: gsync %u (service uuid 0x%x) failed on the active: %s", xfer, uuid,
              reason.c_str());
  (void)send_peer(proto::kGsyncFail, encode(proto::GsyncFail{xfer, uuid, status, reason}));
}

void Daemon::gsync_on_snapshot_answer(const Client& c, const proto::Answer& a) {
  auto it = outgoing_.find(a.req_id);
  if (it == outgoing_.end() || it->second.shipping) return;
  if (a.value != 0) return gsync_fail_outgoing(a.req_id, EIO, "service " + c.name + " could not write its snapshot");
  std::string why;
  if (!prepare_shipment(it->second, a, &why) || !ship_some(it->second, &why))
    return gsync_fail_outgoing(a.req_id, EIO, why);
  if (it->second.file > it->second.manifest.files.size()) outgoing_.erase(it);  // all sent already
}

// The manifest first, from the files as the service left them: a file that changes later no
// longer matches it, and the standby refuses the area.
bool Daemon::prepare_shipment(Outgoing& o, const proto::Answer& a, std::string* why) {
  const std::string dir = area_dir(o_.root, o.uuid);
  proto::Manifest& m = o.manifest;
  m.xfer = o.xfer;
  m.uuid = o.uuid;
  m.point = a.point;
  m.epoch = a.epoch;
  for (uint32_t i = 0; i <= proto::kMaxIndex; ++i) m.at_point[i] = a.at_point[i];
  const std::vector<std::string> names = files::area_files(dir);
  if (o_.ship_fault == "zeros") zero_first_snapshot(dir, names);
  for (const std::string& name : names) {
    if (m.files.size() == proto::kMaxManifestFiles) return *why = "the area holds too many files", false;
    proto::ManifestEntry e{name, 0, 0};
    if (!files::hash_file((fs::path(dir) / name).string(), &e.xxh3, &e.size))
      return *why = "file " + name + ": cannot be read", false;
    m.files.push_back(e);
  }
  o.shipping = true;
  o.file = 0;
  o.offset = 0;
  return true;
}

bool Daemon::ship_some(Outgoing& o, std::string* why) {
  const std::string dir = area_dir(o_.root, o.uuid);
  static thread_local std::vector<uint8_t> buf(proto::kFileChunk);
  auto send = [&](uint32_t opcode, const std::vector<uint8_t>& pl) {
    return mts_send(SYSMGR_SAP, MTS_ADDR_PEER, SYSMGR_SAP, opcode, pl.data(), static_cast<uint32_t>(pl.size()), nullptr,
                    MTS_SEND_NONBLOCK, nullptr) == 0;
  };
  while (o.file < o.manifest.files.size()) {
    const proto::ManifestEntry& e = o.manifest.files[o.file];
    const int fd = ::open((fs::path(dir) / e.name).c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t n = fd >= 0 ? ::pread(fd, buf.data(), buf.size(), static_cast<off_t>(o.offset)) : -1;
    const int err = errno;
    if (fd >= 0) ::close(fd);
    if (n < 0) return *why = "file " + e.name + ": " + std::strerror(err), false;
    if (o_.ship_fault == "corrupt" && o.file == 0 && o.offset == 0 && n > 0) buf[0] ^= 0x5a;
    const proto::FileData f{o.xfer, e.name, o.offset, std::span<const uint8_t>(buf.data(), static_cast<size_t>(n))};
    if (!send(proto::kFileData, encode(f))) {
      if (errno == EAGAIN) return true;  // the link is full: the next tick goes on from here
      return *why = "file " + e.name + ": " + std::strerror(errno), false;
    }
    o.offset += static_cast<uint64_t>(n);
    if (n == 0 || o.offset >= e.size) o.file++, o.offset = 0;
  }
  if (o.file == o.manifest.files.size()) {
    if (o_.ship_fault == "stall") return true;
    if (!send(proto::kManifest, encode(o.manifest))) {
      if (errno == EAGAIN) return true;
      return *why = std::string("the manifest: ") + std::strerror(errno), false;
    }
    plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: gsync %u: %zu files of %s shipped, manifest sent", o.xfer,
                o.manifest.files.size(), dir.c_str());
    o.file++;  // past the end: done
  }
  return true;
}

// ---- Deadlines and departures ----------------------------------------------------------------

void Daemon::gsync_tick(uint64_t now) {
  std::vector<std::pair<uint32_t, std::string>> broken;
  for (auto it = outgoing_.begin(); it != outgoing_.end();) {
    std::string why;
    if (it->second.shipping && !ship_some(it->second, &why)) broken.emplace_back(it->first, why);
    if (it->second.shipping && it->second.file > it->second.manifest.files.size())
      it = outgoing_.erase(it);
    else
      ++it;
  }
  for (const auto& [xfer, why] : broken) gsync_fail_outgoing(xfer, EIO, why);
  std::vector<uint32_t> late_in, late_out;
  for (const auto& [xfer, in] : incoming_)
    if (now > in.deadline_ns) late_in.push_back(xfer);
  for (const auto& [xfer, out] : outgoing_)
    if (now > out.deadline_ns) late_out.push_back(xfer);
  const std::string limit = std::to_string(o_.gsync_timeout_ms) + " ms";
  for (uint32_t x : late_in) {
    auto it = incoming_.find(x);
    std::string waiting = "no answer from the active";
    if (it->second.delivered) waiting = "the service did not answer gsync ready";
    else if (!it->second.files.empty()) waiting = "the area's manifest never arrived (" +
                                                  std::to_string(it->second.files.size()) + " files begun, last " +
                                                  it->second.files.rbegin()->first + ")";
    gsync_fail_incoming(x, ETIMEDOUT, waiting + " within " + limit);
  }
  for (uint32_t x : late_out)
    gsync_fail_outgoing(x, ETIMEDOUT,
                        outgoing_[x].shipping ? "the area could not be shipped within " + limit
                                              : "the service did not write its snapshot within " + limit);
}

void Daemon::gsync_client_gone(uint32_t uuid) {
  std::vector<uint32_t> in, out;
  for (const auto& [xfer, i] : incoming_)
    if (i.uuid == uuid) in.push_back(xfer);
  for (const auto& [xfer, o] : outgoing_)
    if (o.uuid == uuid) out.push_back(xfer);
  for (uint32_t x : in) gsync_fail_incoming(x, ESRCH, "the service went away during the gsync");
  for (uint32_t x : out) gsync_fail_outgoing(x, ESRCH, "the service went away while writing its snapshot");
}

}  // namespace hadra::sysmgrd
