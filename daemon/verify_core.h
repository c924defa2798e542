// Online comparison of two copies of one store without copying it: digests over key ranges,
// narrowed down to the differing records.
//
// One side (the one an operator asked) drives a Verifier over its own copy, opened as a
// StoreView (one LMDB read transaction: a consistent view for the whole run). It sends the
// other side requests (VerifyReq) that name key ranges; the other side answers each from its
// own fresh view (answer_request) with a count and a digest per range, or with the keys and
// record digests of a range. Ranges whose digests differ are split by the driver's own keys
// until they are small, then listed: what stays is the list of differing records.
//
// The record digest covers the value and, for an MSDB, its secondary keys; the range digest
// is XXH3-64 over (key length, key, record digest) in key order, so equal ranges give equal
// digests on both sides whatever write history led there.
//
// Used by the daemon (verify.cc), by the benchmark and by the tests, with no transport: the
// driver produces requests and consumes answers, whoever carries them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sysmgr/proto.h"

namespace hadra::sysmgrd::verify {

namespace proto = hadra::plat::sysmgr::proto;

// A read-only view of one store: a PSS file (one LMDB file) or an SDB/MSDB (a directory).
class StoreView {
 public:
  // path: the store's file or directory. nullptr with *why naming the store and the cause.
  static std::unique_ptr<StoreView> open(const std::string& path, std::string* why);
  ~StoreView();
  StoreView(const StoreView&) = delete;
  StoreView& operator=(const StoreView&) = delete;

  // Every record with lo <= key < hi (hi empty: no upper bound), in key order; f's false
  // stops the walk. f gets the key, the value and the MSDB secondary-key record ("" if none).
  void walk(std::string_view lo, std::string_view hi,
            const std::function<bool(std::string_view key, std::string_view value, std::string_view mkeys)>& f) const;
  uint64_t count() const;
  bool is_sdb() const { return sdb_; }

 private:
  StoreView() = default;
  struct Impl;
  std::unique_ptr<Impl> impl_;
  bool sdb_ = false;
};

// Every store under root, as URIs: PSS files (LMDB files) and SDB directories in the areas
// that hold services' stores (not sockets, logs, the daemon's own, gsync or configuration
// areas), sorted.
std::vector<std::string> list_stores(const std::string& root);
// The file or directory of a store URI ("<area>:/<path>") under root; "" for a malformed one.
std::string store_path(const std::string& root, const std::string& uri);

uint64_t record_digest(std::string_view value, std::string_view mkeys);

// Answers one request from view (the side that is asked). Never fails on a well-formed
// request; the answer's entries stop at kMaxListEntries (truncated set).
proto::VerifyAns answer_request(const StoreView& view, const proto::VerifyReq& req);
constexpr size_t kMaxListEntries = 20000;
// Bytes of keys in one request or answer: well inside a transport message (MTS_PAYLOAD_MAX).
constexpr size_t kMaxKeyBytes = 640 * 1024;

struct Difference {
  std::string key;
  bool local = false, peer = false;  // present on that side
  uint64_t local_digest = 0, peer_digest = 0;
};

// Online, a record written while a comparison ran may differ only because the standby had not
// applied it yet when it was read. A second look settles it: a request for exactly the keys
// found (point ranges), answered from the peer's fresh view, and recheck() against a fresh
// view of this side keeps those that still differ, with their current digests.
proto::VerifyReq point_request(uint32_t id, const std::string& uri, const std::vector<Difference>& diffs);
std::vector<Difference> recheck(const StoreView& fresh, const std::vector<Difference>& diffs,
                                const proto::VerifyAns& peer);

class Verifier {
 public:
  struct Settings {
    size_t fanout = 512;   // ranges a range is split into
    size_t leaf = 48;      // at most this many records on each side: list instead of split
    size_t max_ranges = 4096;  // ranges in one request
  };
  Verifier(const StoreView& local, std::string uri, Settings s);
  Verifier(const StoreView& local, std::string uri) : Verifier(local, std::move(uri), Settings{}) {}
  // The next request to send; false when the comparison is complete.
  bool next(proto::VerifyReq* req);
  // The answer to the last request; false (with *why) when it does not fit it.
  bool on_answer(const proto::VerifyAns& a, std::string* why);
  const std::vector<Difference>& differences() const { return diffs_; }
  uint64_t local_records() const { return local_count_; }
  uint64_t requests() const { return requests_; }
  bool truncated() const { return truncated_; }

 private:
  struct Range {
    std::string lo, hi;
    uint64_t count = 0, digest = 0;  // local
  };
  Range summarise(std::string lo, std::string hi) const;
  void split(const Range& r);
  void compare_list(const Range& r, const std::vector<proto::VerifyEntry>& peer);

  const StoreView& local_;
  std::string uri_;
  Settings s_;
  uint64_t local_count_ = 0;
  std::vector<Range> to_digest_, to_list_;
  std::vector<Range> sent_;
  uint8_t sent_op_ = 0;
  std::vector<Difference> diffs_;
  uint64_t requests_ = 0;
  bool truncated_ = false;
};

}  // namespace hadra::sysmgrd::verify
