#include "verify_core.h"

#include <lmdb.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace hadra::sysmgrd::verify {

namespace fs = std::filesystem;

struct StoreView::Impl {
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi records = 0, mkeys = 0;
  bool has_mkeys = false;
  ~Impl() {
    if (txn != nullptr) mdb_txn_abort(txn);
    if (env != nullptr) mdb_env_close(env);
  }
};

namespace {

std::string_view sv(const MDB_val& v) { return {static_cast<const char*>(v.mv_data), v.mv_size}; }
MDB_val val(std::string_view s) { return MDB_val{s.size(), const_cast<char*>(s.data())}; }

}  // namespace

std::unique_ptr<StoreView> StoreView::open(const std::string& path, std::string* why) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    *why = "store " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  // LMDB trusts the file it maps. A store no process has opened yet (no lock file beside it,
  // such as a copy just shipped) has its structure checked by the platform at its first
  // opening; reading it here first would skip that check, so it is left alone.
  const std::string lock = S_ISDIR(st.st_mode) ? path + "/lock.mdb" : path + "-lock";
  if (::access(lock.c_str(), F_OK) != 0) {
    *why = "store " + path + " was never opened by its service (no lock file): not read unchecked";
    return nullptr;
  }
  std::unique_ptr<StoreView> v(new StoreView);
  v->impl_ = std::make_unique<Impl>();
  v->sdb_ = S_ISDIR(st.st_mode);
  Impl& m = *v->impl_;
  auto fail = [&](const char* what, int rc) {
    *why = "store " + path + ": " + what + ": " + mdb_strerror(rc);
    return nullptr;
  };
  int rc = mdb_env_create(&m.env);
  if (rc != 0) return fail("mdb_env_create", rc);
  (void)mdb_env_set_maxdbs(m.env, 8);
  (void)mdb_env_set_maxreaders(m.env, 126);
  // Read-only, and without thread-local reader slots: the owner may be any thread.
  const unsigned flags = MDB_RDONLY | MDB_NOTLS | (v->sdb_ ? 0u : MDB_NOSUBDIR);
  if ((rc = mdb_env_open(m.env, path.c_str(), flags, 0644)) != 0) return fail("open", rc);
  if ((rc = mdb_txn_begin(m.env, nullptr, MDB_RDONLY, &m.txn)) != 0) return fail("read transaction", rc);
  if ((rc = mdb_dbi_open(m.txn, "records", 0, &m.records)) != 0) return fail("records", rc);
  m.has_mkeys = v->sdb_ && mdb_dbi_open(m.txn, "mkeys", 0, &m.mkeys) == 0;
  return v;
}

StoreView::~StoreView() = default;

uint64_t StoreView::count() const {
  MDB_stat st{};
  return mdb_stat(impl_->txn, impl_->records, &st) == 0 ? st.ms_entries : 0;
}

void StoreView::walk(std::string_view lo, std::string_view hi,
                     const std::function<bool(std::string_view, std::string_view, std::string_view)>& f) const {
  MDB_cursor* c = nullptr;
  if (mdb_cursor_open(impl_->txn, impl_->records, &c) != 0) return;
  MDB_val k = val(lo), d{};
  int rc = lo.empty() ? mdb_cursor_get(c, &k, &d, MDB_FIRST) : mdb_cursor_get(c, &k, &d, MDB_SET_RANGE);
  while (rc == 0) {
    const std::string_view key = sv(k);
    if (!hi.empty() && key >= hi) break;
    std::string_view mk;
    if (impl_->has_mkeys) {
      MDB_val mkv = k, md{};
      if (mdb_get(impl_->txn, impl_->mkeys, &mkv, &md) == 0) mk = sv(md);
    }
    if (!f(key, sv(d), mk)) break;
    rc = mdb_cursor_get(c, &k, &d, MDB_NEXT);
  }
  mdb_cursor_close(c);
}

uint64_t record_digest(std::string_view value, std::string_view mkeys) {
  const uint64_t h = XXH3_64bits(value.data(), value.size());
  return mkeys.empty() ? h : XXH3_64bits_withSeed(mkeys.data(), mkeys.size(), h);
}

namespace {

// Streams (key length, key, record digest) of a range into one digest.
class RangeHash {
 public:
  RangeHash() : st_(XXH3_createState()) { XXH3_64bits_reset(st_); }
  ~RangeHash() { XXH3_freeState(st_); }
  RangeHash(const RangeHash&) = delete;
  RangeHash& operator=(const RangeHash&) = delete;
  void add(std::string_view key, uint64_t rec) {
    const uint32_t n = static_cast<uint32_t>(key.size());
    XXH3_64bits_update(st_, &n, sizeof n);
    XXH3_64bits_update(st_, key.data(), key.size());
    XXH3_64bits_update(st_, &rec, sizeof rec);
    ++count_;
  }
  uint64_t digest() const { return XXH3_64bits_digest(st_); }
  uint64_t count() const { return count_; }

 private:
  XXH3_state_t* st_;
  uint64_t count_ = 0;
};

}  // namespace

proto::VerifyAns answer_request(const StoreView& view, const proto::VerifyReq& req) {
  proto::VerifyAns a;
  a.id = req.id;
  a.records = view.count();
  size_t key_bytes = 0;
  for (uint32_t i = 0; i < req.ranges.size(); ++i) {
    const proto::VerifyRange& r = req.ranges[i];
    if (req.op == proto::kVerifyDigest) {
      RangeHash h;
      view.walk(r.lo, r.hi, [&](std::string_view k, std::string_view v, std::string_view mk) {
        h.add(k, record_digest(v, mk));
        return true;
      });
      a.sums.push_back({h.count(), h.digest()});
      continue;
    }
    view.walk(r.lo, r.hi, [&](std::string_view k, std::string_view v, std::string_view mk) {
      if (a.entries.size() >= kMaxListEntries || key_bytes + k.size() > kMaxKeyBytes) {
        a.truncated = 1;
        return false;
      }
      key_bytes += k.size();
      a.entries.push_back({i, std::string(k), record_digest(v, mk)});
      return true;
    });
  }
  return a;
}

proto::VerifyReq point_request(uint32_t id, const std::string& uri, const std::vector<Difference>& diffs) {
  proto::VerifyReq r;
  r.id = id;
  r.op = proto::kVerifyList;
  r.uri = uri;
  // [key, key + NUL) holds exactly key: nothing sorts between a key and its extension by NUL.
  for (const Difference& d : diffs) r.ranges.push_back({d.key, d.key + std::string(1, '\0')});
  return r;
}

std::vector<Difference> recheck(const StoreView& fresh, const std::vector<Difference>& diffs,
                                const proto::VerifyAns& peer) {
  std::vector<Difference> out;
  for (size_t i = 0; i < diffs.size(); ++i) {
    Difference d{diffs[i].key, false, false, 0, 0};
    fresh.walk(d.key, "", [&](std::string_view k, std::string_view v, std::string_view mk) {
      if (k == d.key) d.local = true, d.local_digest = record_digest(v, mk);
      return false;
    });
    for (const proto::VerifyEntry& e : peer.entries)
      if (e.range == i && e.key == d.key) d.peer = true, d.peer_digest = e.digest;
    if (d.local != d.peer || d.local_digest != d.peer_digest) out.push_back(std::move(d));
  }
  return out;
}

Verifier::Verifier(const StoreView& local, std::string uri, Settings s)
    : local_(local), uri_(std::move(uri)), s_(s) {
  local_count_ = local_.count();
  split(summarise("", ""));
}

Verifier::Range Verifier::summarise(std::string lo, std::string hi) const {
  Range r{std::move(lo), std::move(hi), 0, 0};
  RangeHash h;
  local_.walk(r.lo, r.hi, [&](std::string_view k, std::string_view v, std::string_view mk) {
    h.add(k, record_digest(v, mk));
    return true;
  });
  r.count = h.count(), r.digest = h.digest();
  return r;
}

// Cuts r into at most fanout ranges holding about as many of the local records each, and
// queues them for digests. The first starts where r starts and the last ends where r ends, so
// keys only the peer has are still covered.
void Verifier::split(const Range& r) {
  const uint64_t n = r.count;
  const uint64_t parts = std::max<uint64_t>(1, std::min<uint64_t>(s_.fanout, n));
  std::vector<std::string> cuts;
  std::vector<RangeHash> hashes(parts);
  uint64_t i = 0;
  size_t part = 0;
  local_.walk(r.lo, r.hi, [&](std::string_view k, std::string_view v, std::string_view mk) {
    const size_t want = static_cast<size_t>(i * parts / std::max<uint64_t>(n, 1));
    if (want != part && want < parts) {
      part = want;
      cuts.emplace_back(k);
    }
    hashes[part].add(k, record_digest(v, mk));
    ++i;
    return true;
  });
  std::string lo = r.lo;
  for (size_t p = 0; p <= cuts.size(); ++p) {
    std::string hi = p < cuts.size() ? cuts[p] : r.hi;
    to_digest_.push_back({lo, hi, hashes[p].count(), hashes[p].digest()});
    lo = std::move(hi);
  }
}

bool Verifier::next(proto::VerifyReq* req) {
  std::vector<Range>* from = !to_list_.empty() ? &to_list_ : &to_digest_;
  if (from->empty()) return false;
  size_t take = 0, key_bytes = 0;
  while (take < from->size() && take < s_.max_ranges &&
         (take == 0 || key_bytes + (*from)[take].lo.size() + (*from)[take].hi.size() <= kMaxKeyBytes))
    key_bytes += (*from)[take].lo.size() + (*from)[take].hi.size(), ++take;
  sent_.assign(from->begin(), from->begin() + static_cast<std::ptrdiff_t>(take));
  from->erase(from->begin(), from->begin() + static_cast<std::ptrdiff_t>(take));
  sent_op_ = from == &to_list_ ? proto::kVerifyList : proto::kVerifyDigest;
  req->id = static_cast<uint32_t>(++requests_);
  req->op = sent_op_;
  req->uri = uri_;
  req->ranges.clear();
  for (const Range& r : sent_) req->ranges.push_back({r.lo, r.hi});
  return true;
}

bool Verifier::on_answer(const proto::VerifyAns& a, std::string* why) {
  if (a.id != requests_) {
    *why = "answer " + std::to_string(a.id) + " to request " + std::to_string(requests_);
    return false;
  }
  if (a.status != 0) {
    *why = a.error.empty() ? std::strerror(a.status) : a.error;
    return false;
  }
  if (sent_op_ == proto::kVerifyDigest) {
    if (a.sums.size() != sent_.size()) {
      *why = "answer with " + std::to_string(a.sums.size()) + " digests for " + std::to_string(sent_.size()) + " ranges";
      return false;
    }
    for (size_t i = 0; i < sent_.size(); ++i) {
      const Range& r = sent_[i];
      if (a.sums[i].count == r.count && a.sums[i].digest == r.digest) continue;
      // Few records on both sides, or too few here to split by: list the range.
      if ((r.count <= s_.leaf && a.sums[i].count <= s_.leaf) || r.count < 2)
        to_list_.push_back(r);
      else
        split(r);
    }
  } else {
    std::vector<std::vector<proto::VerifyEntry>> per(sent_.size());
    for (const proto::VerifyEntry& e : a.entries) {
      if (e.range >= sent_.size()) {
        *why = "answer names range " + std::to_string(e.range) + " of " + std::to_string(sent_.size());
        return false;
      }
      per[e.range].push_back(e);
    }
    if (a.truncated != 0) truncated_ = true;
    for (size_t i = 0; i < sent_.size(); ++i) compare_list(sent_[i], per[i]);
  }
  sent_.clear();
  return true;
}

void Verifier::compare_list(const Range& r, const std::vector<proto::VerifyEntry>& peer) {
  std::vector<std::pair<std::string, uint64_t>> mine;
  local_.walk(r.lo, r.hi, [&](std::string_view k, std::string_view v, std::string_view mk) {
    mine.emplace_back(std::string(k), record_digest(v, mk));
    return true;
  });
  size_t i = 0, j = 0;
  while (i < mine.size() || j < peer.size()) {
    if (j == peer.size() || (i < mine.size() && mine[i].first < peer[j].key)) {
      diffs_.push_back({mine[i].first, true, false, mine[i].second, 0});
      ++i;
    } else if (i == mine.size() || peer[j].key < mine[i].first) {
      diffs_.push_back({peer[j].key, false, true, 0, peer[j].digest});
      ++j;
    } else {
      if (mine[i].second != peer[j].digest) diffs_.push_back({mine[i].first, true, true, mine[i].second, peer[j].digest});
      ++i, ++j;
    }
  }
}

namespace {

bool lmdb_file(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  unsigned char b[20] = {};
  if (!in.read(reinterpret_cast<char*>(b), sizeof b)) return false;
  const uint32_t magic = uint32_t{b[16]} | uint32_t{b[17]} << 8 | uint32_t{b[18]} << 16 | uint32_t{b[19]} << 24;
  return magic == 0xBEEFC0DEu;
}

// The areas that hold the services' stores: not the daemon's own, not gsync or configuration
// areas in passing, not sockets and logs.
bool store_area(const std::string& a) {
  return !a.empty() && a[0] != '.' && a != "sock" && a != "log" && a != "sysmgr" && a != "snap" && a != "stage" &&
         a != "startup";
}

}  // namespace

// Every store under root: "<area>:/<path>" for PSS files (LMDB files) and SDB directories.
std::vector<std::string> list_stores(const std::string& root) {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& area : fs::directory_iterator(root, ec)) {
    const std::string a = area.path().filename().string();
    if (!area.is_directory() || !store_area(a)) continue;
    for (auto it = fs::recursive_directory_iterator(area.path(), ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
      const fs::path& p = it->path();
      const std::string name = p.filename().string();
      const std::string uri = a + ":/" + fs::relative(p, area.path()).generic_string();
      if (it->is_directory()) {
        if (name.find(".new-") != std::string::npos) {
          it.disable_recursion_pending();
        } else if (fs::exists(p / "data.mdb")) {
          it.disable_recursion_pending();
          out.push_back(uri);
        }
      } else if (it->is_regular_file() && !name.ends_with("-lock") && name.find(".tmp-") == std::string::npos &&
                 lmdb_file(p)) {
        out.push_back(uri);
      }
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::string store_path(const std::string& root, const std::string& uri) {
  const size_t colon = uri.find(":/");
  if (colon == std::string::npos || colon == 0) return "";
  const std::string rel = uri.substr(0, colon) + "/" + uri.substr(colon + 2);
  if (!proto::valid_file_name(rel)) return "";
  return root + "/" + rel;
}

}  // namespace hadra::sysmgrd::verify
