// Fuzz target of what `hadra history` reads from outside the daemon: a service's history ring
// file (log/hist_ring.h), which its writer may be changing or a fault may have spoilt, and
// the peer's history answer, whose records go into the comparison of the two supervisors.
//
// The first byte picks: even, a ring file; odd, a history answer, whose records are split
// between two sides and compared. Neither may read past its input or crash; a ring that is
// accepted holds no more records than its size allows.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "daemon/history_core.h"
#include "fuzz/fuzz_support.h"

namespace {

namespace hist = hadra::plat::hist;
namespace hc = hadra::sysmgrd::history;
namespace proto = hadra::plat::sysmgr::proto;

void ring(const uint8_t* p, size_t n) {
  // The reader works on a mapped file: page-aligned, so 8-byte aligned here too.
  std::vector<uint64_t> aligned((n + 7) / 8);
  if (n > 0) std::memcpy(aligned.data(), p, n);
  hist::Ring r;
  std::string why;
  if (!hist::read_ring(aligned.empty() ? nullptr : aligned.data(), n, &r, &why)) return;
  if (r.entries.size() * sizeof(hist::RingRec) + sizeof(hist::RingHdr) > n) abort();
  (void)hc::newest({r}, 100, {});
}

void answer(const uint8_t* p, size_t n) {
  proto::HistAns a;
  if (!proto::decode(p, n, &a)) return;
  hc::Side one{1, {}}, two{2, {}};
  for (size_t i = 0; i < a.entries.size(); ++i) (i % 2 == 0 ? one : two).entries.push_back(a.entries[i]);
  uint64_t compared = 0, not_applied = 0;
  const auto d = hc::first_divergence(one, two, &compared, &not_applied);
  (void)hc::divergence_json(d, compared, not_applied);
  (void)hc::merged(one, two).dump();
}

void make_seeds(const std::string& dir) {
  std::vector<uint64_t> file(hist::ring_file_size(4) / 8);
  auto* h = reinterpret_cast<hist::RingHdr*>(file.data());
  h->magic = hist::kRingMagic, h->version = hist::kRingVersion, h->rec_size = sizeof(hist::RingRec);
  h->pid = 4242, h->cap = 4;
  h->next.store(5);
  auto* recs = reinterpret_cast<hist::RingRec*>(reinterpret_cast<char*>(file.data()) + sizeof(hist::RingHdr));
  for (uint64_t s = 1; s < 5; ++s) {
    hist::RingRec& r = recs[s % 4];
    r.kind = s == 4 ? hist::kEvent : hist::kSent, r.ha_seqno = 600 + s, r.sap = 3501, r.index = 1, r.len = 40;
    r.guard.store(s + 1);
  }
  hadra::fuzz::write_seed(dir, "ring", 0, std::string(reinterpret_cast<const char*>(file.data()), file.size() * 8));
  proto::HistAns a;
  a.entries.push_back({100, 1, 601, 0x11, 1, 1, 3501, 9, 6520, 0x5a1, 40, 1, "svc", ""});
  a.entries.push_back({101, 1, 601, 0x12, 2, 2, 3501, 9, 6520, 0x5a1, 40, 1, "svc", ""});
  a.entries.push_back({102, 2, 602, 0x13, 1, 1, 3501, 9, 6520, 0x5a1, 40, 1, "svc", ""});
  a.entries.push_back({103, 2, 603, 0x14, 2, 2, 3501, 9, 6520, 0x5a1, 40, 1, "svc", ""});
  const std::vector<uint8_t> b = encode(a);
  hadra::fuzz::write_seed(dir, "answer", 1, std::string(b.begin(), b.end()));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  hadra::fuzz::maybe_write_seeds(make_seeds);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::vector<uint8_t> input(data + 1, data + size);
  (data[0] % 2 == 0 ? ring : answer)(input.empty() ? nullptr : input.data(), input.size());
  return 0;
}
