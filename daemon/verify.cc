// The verify command: this daemon's copies of the stores against the peer's, online, and the
// repair of exactly the records that differ (verify_core.h does the comparing).
//
// The loop never waits for the peer: a verify is a job advanced by the peer's answers and by
// the timer tick, with one deadline for the whole run. The command is answered at the end.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "daemon.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/log.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/sdb.h"
#include "verify_core.h"

namespace hadra::sysmgrd {

namespace fs = std::filesystem;
namespace vc = verify;
using vc::list_stores;
using vc::store_path;

struct VerifyStore {
  std::string uri;
  std::unique_ptr<vc::StoreView> view;
  std::unique_ptr<vc::Verifier> verifier;
  std::string error;
  size_t repaired = 0;
  std::vector<vc::Difference> diffs;  // found, then as the second look left them
  bool confirm_sent = false;
  bool confirmed = false;             // the differences are final
};

struct VerifyJob {
  mts_msg_ref command{};
  bool repair = false;
  uint64_t deadline_ns = 0;
  uint64_t started_ns = 0;
  std::vector<VerifyStore> stores;
  size_t current = 0;
  uint32_t wait_id = 0;        // the answer awaited
  size_t repair_sent = 0;      // records of the current store sent for repair
  bool repairing = false;
  bool begun = false;           // the first request went out
  uint64_t confirm_at_ns = 0;   // when the second look at the current store's differences goes out
  uint64_t bytes_sent = 0, bytes_received = 0;
};

namespace {

constexpr uint32_t kConfirmIdBase = 0x40000000u;  // answers to the second look
constexpr uint32_t kRepairIdBase = 0x80000000u;   // repair answers, apart from verify answers
// The second look waits this long, so that what the active wrote while the comparison ran has
// reached the standby.
constexpr uint64_t kConfirmDelayNs = 300000000ull;
constexpr size_t kRepairBatch = 256;
// A batch ends once it holds this many bytes, so that it fits one transport message; a single
// record larger than a message cannot be repaired this way and fails with the send.
constexpr size_t kRepairBytes = 512 * 1024;

std::string hex64(uint64_t v) {
  char t[20];
  std::snprintf(t, sizeof t, "%016llx", static_cast<unsigned long long>(v));
  return t;
}

// A key as text when it is printable, else as hex with a 0x prefix.
std::string show_key(const std::string& k) {
  bool printable = true;
  for (unsigned char c : k) printable = printable && c >= 0x20 && c < 0x7f;
  if (printable) return k;
  std::string s = "0x";
  char t[3];
  for (unsigned char c : k) std::snprintf(t, sizeof t, "%02x", c), s += t;
  return s;
}

}  // namespace

int Daemon::verify_start(const mts_msg_ref& ref, const std::string& arg, std::string* why) {
  if (verify_) return *why = "a verify already runs", EBUSY;
  if (!peer_up()) return *why = "the peer is down: nothing to compare with", EHOSTUNREACH;
  const nlohmann::json a = nlohmann::json::parse(arg.empty() ? "{}" : arg, nullptr, false);
  if (!a.is_object()) return *why = "malformed verify settings (a JSON object expected)", EINVAL;
  const std::string service = a.value("service", ""), db = a.value("db", "");
  auto job = std::make_shared<VerifyJob>();
  job->repair = a.value("repair", false);
  const int timeout_ms = a.value("timeout_ms", 60000);
  if (job->repair && role_ != 1)
    return *why = "repair sends the active's records: run it on the active supervisor", EPERM;
  std::string svc_key;
  if (!service.empty()) {
    for (const auto& [uuid, c] : clients_)
      if (c.name == service || std::to_string(uuid) == service) svc_key = c.name;
    if (svc_key.empty() && peer_)
      for (const proto::ServiceSeq& s : peer_->services)
        if (s.name == service) svc_key = s.name;
    if (svc_key.empty()) return *why = "no service " + service + " on either supervisor", ENOENT;
  }
  for (const std::string& uri : list_stores(o_.root)) {
    // A store belongs to a service whose name is part of its path; DB names the store by
    // its URI or by the last part of its path.
    if (!svc_key.empty() && uri.find(svc_key) == std::string::npos) continue;
    if (!db.empty() && uri != db && fs::path(uri.substr(uri.find(":/") + 2)).filename() != db &&
        !fs::path(uri).filename().string().ends_with("_" + db))
      continue;
    job->stores.emplace_back();
    job->stores.back().uri = uri;
  }
  if (job->stores.empty())
    return *why = db.empty() ? "no store to verify" : "no database " + db + (service.empty() ? "" : " of " + service),
           ENOENT;
  job->command = ref;
  job->started_ns = now_ns();
  job->deadline_ns = job->started_ns + static_cast<uint64_t>(timeout_ms) * 1000000ull;
  verify_ = job;
  plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: verify of %zu store(s)%s started", job->stores.size(),
              job->repair ? " with repair" : "");
  return 0;  // the first request leaves at the next tick, once the command is kept
}

bool Daemon::verify_keeps(const mts_msg_ref& ref) const { return verify_ && verify_->command.gen == ref.gen; }

// Sends the next request of the current store, opening it first; moves on to the next store
// when one is done; answers the command when all are.
void Daemon::verify_advance() {
  VerifyJob& j = *verify_;
  while (j.current < j.stores.size()) {
    VerifyStore& s = j.stores[j.current];
    if (!s.view && s.error.empty()) {
      s.view = vc::StoreView::open(store_path(o_.root, s.uri), &s.error);
      if (s.view) s.verifier = std::make_unique<vc::Verifier>(*s.view, s.uri);
    }
    if (s.error.empty() && !j.repairing && !s.confirmed) {
      proto::VerifyReq req;
      if (!s.confirm_sent && s.verifier->next(&req)) {
        j.wait_id = req.id;
        const std::vector<uint8_t> pl = encode(req);
        j.bytes_sent += pl.size();
        if (send_peer(proto::kVerifyReq, pl, true)) return;
        s.error = "request to the peer not sent";
      } else if (!s.confirm_sent) {
        s.diffs = s.verifier->differences();
        size_t key_bytes = 0;
        for (const vc::Difference& d : s.diffs) key_bytes += 2 * d.key.size() + 1;
        if (s.diffs.empty() || s.diffs.size() > proto::kMaxVerifyRanges || key_bytes > vc::kMaxKeyBytes) {
          s.confirmed = true;  // nothing to look at again, or too much for one look
        } else if (j.confirm_at_ns == 0) {
          j.confirm_at_ns = now_ns() + kConfirmDelayNs;
          return;  // the tick sends it
        } else if (now_ns() >= j.confirm_at_ns) {
          j.confirm_at_ns = 0;
          s.confirm_sent = true;
          req = vc::point_request(kConfirmIdBase + static_cast<uint32_t>(j.current), s.uri, s.diffs);
          j.wait_id = req.id;
          const std::vector<uint8_t> pl = encode(req);
          j.bytes_sent += pl.size();
          if (send_peer(proto::kVerifyReq, pl, true)) return;
          s.error = "request to the peer not sent";
        } else {
          return;
        }
      } else {
        return;  // the second look's answer is awaited
      }
      if (s.error.empty() && s.confirmed && j.repair && !s.diffs.empty()) {
        j.repairing = true;
        j.repair_sent = 0;
      }
    }
    if (s.error.empty() && j.repairing && j.repair_sent < s.diffs.size()) {
      proto::Repair r;
      r.id = kRepairIdBase + static_cast<uint32_t>(j.repair_sent);
      r.uri = s.uri;
      const auto& diffs = s.diffs;
      size_t bytes = 0;
      for (size_t i = j.repair_sent; i < diffs.size() && r.records.size() < kRepairBatch && bytes < kRepairBytes; ++i) {
        proto::RepairRecord rec;
        rec.key = diffs[i].key;
        rec.present = 0;
        // The view is the one the differences were found in: the record as it was compared.
        s.view->walk(rec.key, "", [&](std::string_view k, std::string_view v, std::string_view mk) {
          if (k == rec.key) rec.present = 1, rec.value = v, rec.mkeys = mk;
          return false;
        });
        bytes += rec.key.size() + rec.value.size() + rec.mkeys.size();
        r.records.push_back(std::move(rec));
      }
      j.repair_sent += r.records.size();
      j.wait_id = r.id;
      const std::vector<uint8_t> pl = encode(r);
      j.bytes_sent += pl.size();
      if (send_peer(proto::kRepair, pl, true)) return;
      s.error = "repair records not sent to the peer";
    }
    // This store is done: release its read transaction before the next one.
    if (s.error.empty()) s.repaired = j.repairing ? j.repair_sent : 0;
    s.view.reset();
    j.repairing = false;
    ++j.current;
  }
  verify_finish("");
}

void Daemon::verify_finish(const std::string& failure) {
  VerifyJob& j = *verify_;
  nlohmann::json out;
  out["slot"] = o_.slot;
  out["role"] = proto::role_name(role_);
  out["repair"] = j.repair;
  out["elapsed_ms"] = (now_ns() - j.started_ns) / 1000000ull;
  out["bytes_sent"] = j.bytes_sent;
  out["bytes_received"] = j.bytes_received;
  const std::string here = proto::role_name(role_);
  const std::string there = peer_ ? proto::role_name(peer_->role) : "peer";
  nlohmann::json stores = nlohmann::json::array();
  uint64_t total = 0;
  bool failed = !failure.empty();
  for (const VerifyStore& s : j.stores) {
    nlohmann::json sj{{"uri", s.uri}};
    if (!s.error.empty()) sj["error"] = s.error, failed = true;
    if (s.verifier) {
      sj["records"] = s.verifier->local_records();
      sj["requests"] = s.verifier->requests();
      sj["truncated"] = s.verifier->truncated();
      nlohmann::json diffs = nlohmann::json::array();
      for (const vc::Difference& d : s.confirmed ? s.diffs : s.verifier->differences()) {
        nlohmann::json dj{{"key", show_key(d.key)}};
        dj["only_on"] = d.local && d.peer ? "" : d.local ? here : there;
        if (d.local) dj[here + "_digest"] = hex64(d.local_digest);
        if (d.peer) dj[there + "_digest"] = hex64(d.peer_digest);
        diffs.push_back(dj);
      }
      total += diffs.size();
      sj["differences"] = diffs;
      sj["repaired"] = s.repaired;
    }
    stores.push_back(sj);
  }
  out["stores"] = stores;
  out["differences"] = total;
  if (failed) out["error"] = failure.empty() ? "some stores could not be compared" : failure;
  plat_syslog(failed ? PLAT_LOG_ERR : PLAT_LOG_NOTICE, "sysmgrd: verify ended: %llu difference(s)%s%s",
              static_cast<unsigned long long>(total), failed ? "; " : "", failed ? out["error"].get<std::string>().c_str() : "");
  mts_msg_ref cmd = j.command;
  verify_.reset();
  reply(cmd, failed ? EIO : 0, out.dump());
  (void)mts_drop(SYSMGR_SAP, &cmd);
}

void Daemon::verify_tick(uint64_t now) {
  if (!verify_) return;
  if (!verify_->begun) {
    verify_->begun = true;
    return verify_advance();
  }
  if (verify_->confirm_at_ns != 0 && now >= verify_->confirm_at_ns) verify_advance();
  if (!verify_) return;
  if (now < verify_->deadline_ns) return;
  if (verify_->current < verify_->stores.size())
    verify_->stores[verify_->current].error = "the peer did not answer in time";
  verify_finish("verify did not end within its deadline");
}

// The peer's side: answers requests from its own copies, and applies repairs.
bool Daemon::verify_on_peer(uint32_t opcode, const void* p, uint32_t n) {
  if (opcode == proto::kVerifyReq) {
    proto::VerifyReq req;
    if (!proto::decode(p, n, &req)) {
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: malformed verify request (%u bytes) from the peer; dropped", n);
      return true;
    }
    proto::VerifyAns ans;
    std::string why;
    const std::string path = store_path(o_.root, req.uri);
    std::unique_ptr<vc::StoreView> view = path.empty() ? nullptr : vc::StoreView::open(path, &why);
    if (view) {
      ans = vc::answer_request(*view, req);
    } else {
      ans.id = req.id;
      ans.status = ENOENT;
      ans.error = path.empty() ? "bad store URI " + req.uri : why;
    }
    (void)send_peer(proto::kVerifyAns, encode(ans), true);
    return true;
  }
  if (opcode == proto::kRepair) {
    proto::Repair r;
    if (!proto::decode(p, n, &r)) {
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: malformed repair (%u bytes) from the peer; dropped", n);
      return true;
    }
    proto::VerifyAns ans;
    ans.id = r.id;
    std::string why;
    if (role_ != 2) {
      ans.status = EPERM, ans.error = "repair refused: this supervisor is not the standby";
    } else if (!verify_apply_repair(r, &why)) {
      ans.status = EIO, ans.error = why;
    }
    (void)send_peer(proto::kVerifyAns, encode(ans), true);
    return true;
  }
  if (opcode == proto::kVerifyAns) {
    proto::VerifyAns a;
    if (!proto::decode(p, n, &a)) {
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: malformed verify answer (%u bytes) from the peer; dropped", n);
      return true;
    }
    if (!verify_ || a.id != verify_->wait_id) return true;  // late answer of an ended run
    VerifyJob& j = *verify_;
    j.bytes_received += n;
    VerifyStore& s = j.stores[j.current];
    std::string why;
    if (a.id >= kRepairIdBase) {
      if (a.status != 0) s.error = "repair on the peer: " + a.error, j.repairing = false;
    } else if (a.id >= kConfirmIdBase) {
      // The second look: both sides read afresh; what still differs is the result, and the
      // fresh view is the one a repair reads from.
      std::unique_ptr<vc::StoreView> fresh = vc::StoreView::open(store_path(o_.root, s.uri), &why);
      if (a.status != 0) {
        s.error = "peer: " + a.error;
      } else if (!fresh) {
        s.error = why;
      } else {
        s.diffs = vc::recheck(*fresh, s.diffs, a);
        s.view = std::move(fresh);
        s.confirmed = true;
        if (j.repair && !s.diffs.empty()) j.repairing = true, j.repair_sent = 0;
      }
    } else if (!s.verifier->on_answer(a, &why)) {
      s.error = "peer: " + why;
    }
    if (!s.error.empty()) {
      s.view.reset();
      ++j.current;
      j.repairing = false;
    }
    verify_advance();
    return true;
  }
  return false;
}

namespace {

// An MSDB's secondary-key record as stored: count (u32), then per key tag (u16), length (u16)
// and bytes, little-endian.
bool parse_mkeys(const std::string& m, std::vector<std::string>* keys, std::vector<uint32_t>* tags) {
  if (m.empty()) return true;
  auto u = [&](size_t at, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v |= uint32_t{static_cast<unsigned char>(m[at + i])} << (8 * i);
    return v;
  };
  if (m.size() < 4) return false;
  const uint32_t count = u(0, 4);
  size_t at = 4;
  for (uint32_t i = 0; i < count; ++i) {
    if (m.size() - at < 4) return false;
    const uint32_t tag = u(at, 2), len = u(at + 2, 2);
    at += 4;
    if (m.size() - at < len) return false;
    tags->push_back(tag);
    keys->push_back(m.substr(at, len));
    at += len;
  }
  return at == m.size() && count <= 0xffff;
}

datum dat(const std::string& s) { return datum{const_cast<char*>(s.data()), static_cast<uint32_t>(s.size())}; }

std::string code(uint32_t rc) {
  char t[16];
  std::snprintf(t, sizeof t, "0x%08x", rc);
  return t;
}

}  // namespace

// Writes the active's records into this standby's copy through the platform's own calls, so
// that the store's bookkeeping (secondary keys, generations) stays what the library expects.
bool Daemon::verify_apply_repair(const proto::Repair& r, std::string* why) {
  const std::string path = store_path(o_.root, r.uri);
  struct stat st {};
  if (path.empty() || ::stat(path.c_str(), &st) != 0) return *why = "no store " + r.uri + " here", false;
  if (S_ISDIR(st.st_mode)) {
    const uint32_t open_rc = sdb_open(r.uri.c_str(), SDB_OPEN_RW, 0, 0, 0);
    if (open_rc != 0 && open_rc != PLAT_ERR_SDB_ALREADY_OPEN)
      return *why = "sdb_open " + r.uri + ": " + code(open_rc), false;
    uint32_t rc = 0;
    for (const proto::RepairRecord& rec : r.records) {
      datum k = dat(rec.key), v = dat(rec.value);
      if (rec.present == 0) {
        rc = sdb_delete(r.uri.c_str(), &k);
        if (rc == PLAT_ERR_SDB_NOT_FOUND) rc = 0;
      } else if (!rec.mkeys.empty()) {
        std::vector<std::string> keys;
        std::vector<uint32_t> tags;
        if (!parse_mkeys(rec.mkeys, &keys, &tags)) {
          *why = "malformed secondary keys of " + show_key(rec.key);
          rc = PLAT_ERR_SDB_BAD_ARG;
          break;
        }
        std::vector<datum> kd;
        for (const std::string& s : keys) kd.push_back(dat(s));
        std::vector<sdb_skey> sk;
        for (size_t i = 0; i < keys.size(); ++i) sk.push_back(sdb_skey{&kd[i], tags[i]});
        sdb_mkey_op op{&k, &v, sk.data(), static_cast<int32_t>(sk.size()), SDB_OP_WRITE};
        rc = sdb_write_mkey_list(r.uri.c_str(), &op, 1);
      } else {
        rc = sdb_write(r.uri.c_str(), &k, &v);
      }
      if (rc != 0) {
        if (why->empty()) *why = "write of " + show_key(rec.key) + " in " + r.uri + ": " + code(rc);
        break;
      }
    }
    if (open_rc == 0) sdb_close(r.uri.c_str());
    if (rc == 0) plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: repair: %zu record(s) of %s rewritten from the active",
                             r.records.size(), r.uri.c_str());
    return rc == 0;
  }
  uint32_t err = 0;
  const uint32_t h = pss2_open(r.uri.c_str(), PSS2_OPEN_READ | PSS2_OPEN_WRITE, 0, 0, nullptr, &err);
  if (h == 0) return *why = "pss2_open " + r.uri + ": " + code(err), false;
  uint32_t rc = 0;
  for (const proto::RepairRecord& rec : r.records) {
    datum k = dat(rec.key), v = dat(rec.value);
    rc = rec.present != 0 ? pss2_store(h, &k, &v) : pss2_delete(h, &k, PSS2_DELETE_KEY);
    if (rec.present == 0 && rc == PLAT_ERR_PSS_NO_RECORD) rc = 0;
    if (rc != 0) {
      *why = "write of " + show_key(rec.key) + " in " + r.uri + ": " + code(rc);
      break;
    }
  }
  pss2_close(h);
  if (rc == 0) plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: repair: %zu record(s) of %s rewritten from the active",
                           r.records.size(), r.uri.c_str());
  return rc == 0;
}

}  // namespace hadra::sysmgrd

namespace hadra::sysmgrd {

// How far a running verify is, for the tool's progress bar: stores done of all, the records
// of the stores opened so far, and the bytes over the peer link.
nlohmann::json Daemon::verify_progress() const {
  if (!verify_) return nullptr;
  const VerifyJob& j = *verify_;
  uint64_t records = 0;
  for (const VerifyStore& s : j.stores)
    if (s.verifier) records += s.verifier->local_records();
  return {{"stores", j.stores.size()},
          {"stores_done", j.current},
          {"records_seen", records},
          {"bytes", j.bytes_sent + j.bytes_received},
          {"elapsed_ms", (now_ns() - j.started_ns) / 1000000ull}};
}

}  // namespace hadra::sysmgrd
