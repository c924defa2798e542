// Cost of the PSS record operations next to the bare platform calls they wrap.
//
// Setting: a real PSS file under a scratch platform root, the supervisor active, the
// loopback transport (every update really builds and sends its sync message and reports
// its sequence number; the loopback outbox keeps the newest frames), debug switches off.
//
//   BM_pss2_store             the bare store
//   BM_hadra_pss_update       argument and state checks, the store, the sync message
//   BM_hadra_pss_update_local the same without the sync (entry local_only): the checks alone
//   BM_pss2_fetch             the bare lookup
//   BM_hadra_pss_fetch        argument and state checks, the lookup
//
// Keys cycle over kKeys records so that every update replaces a record of the same size and
// the file does not grow while the benchmark runs.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>

#include "bench/bench_support.h"
#include "hadra/hadra.h"
#include "hadra_platform/pss.h"

namespace {

constexpr uint32_t kKeys = 1024;
constexpr uint32_t kValueLen = 64;

// One scratch platform root with database 1 open and active, for one benchmark run.
class Bench {
 public:
  Bench() {
    entry_ = hadra_ha_register_pss(1, "bench");
    uint32_t err = 0;
    if (entry_ != nullptr) entry_->pss_handle = pss2_open(entry_->uri, PSS2_OPEN_FLAGS_CREATE, 0, 0, nullptr, &err);
    ok_ = entry_ != nullptr && err == 0 && entry_->pss_handle != 0;
    if (!ok_) return;
    entry_->state = HADRA_HA_ACTIVE;
    std::memset(value_, 'v', sizeof value_);
    for (uint32_t i = 0; i < kKeys; ++i) {
      datum k = key(i);
      datum v{value_, kValueLen};
      ok_ = ok_ && pss2_store(entry_->pss_handle, &k, &v) == 0;
    }
  }
  ~Bench() {
    if (entry_ != nullptr) {
      pss2_close(entry_->pss_handle);
      entry_->pss_handle = 0;
      entry_->state = HADRA_HA_DISABLE;
    }
  }
  Bench(const Bench &) = delete;
  Bench &operator=(const Bench &) = delete;

  bool ok(benchmark::State &state) {
    if (!ok_) state.SkipWithError("cannot set up the PSS file");
    return ok_;
  }
  // The key of record i: 8 bytes, fixed width so that keys sort in number order.
  datum key(uint32_t i) {
    std::snprintf(keys_[i % kKeys], sizeof keys_[0], "k%07u", i % kKeys);
    return datum{keys_[i % kKeys], 8};
  }
  hadra_ha_pss_entry *entry() { return entry_; }
  void *value() { return value_; }

 private:
  hadra::bench::ScratchRoot root_{0x3100, 0x3101};
  hadra_ha_pss_entry *entry_ = nullptr;
  bool ok_ = false;
  char value_[kValueLen];
  char keys_[kKeys][9];
};

void BM_pss2_store(benchmark::State &state) {
  Bench b;
  if (!b.ok(state)) return;
  datum v{b.value(), kValueLen};
  uint32_t i = 0;
  for (auto _ : state) {
    datum k = b.key(i++);
    benchmark::DoNotOptimize(pss2_store(b.entry()->pss_handle, &k, &v));
  }
}

void BM_hadra_pss_update(benchmark::State &state) {
  Bench b;
  if (!b.ok(state)) return;
  uint32_t i = 0;
  for (auto _ : state) {
    datum k = b.key(i++);
    benchmark::DoNotOptimize(hadra_pss_update(b.entry(), k.dptr, k.dsize, b.value(), kValueLen));
  }
}

void BM_hadra_pss_update_local(benchmark::State &state) {
  Bench b;
  if (!b.ok(state)) return;
  b.entry()->local_only = 1;
  uint32_t i = 0;
  for (auto _ : state) {
    datum k = b.key(i++);
    benchmark::DoNotOptimize(hadra_pss_update(b.entry(), k.dptr, k.dsize, b.value(), kValueLen));
  }
}

void BM_pss2_fetch(benchmark::State &state) {
  Bench b;
  if (!b.ok(state)) return;
  uint32_t i = 0;
  for (auto _ : state) {
    datum k = b.key(i++);
    uint32_t status = 0;
    benchmark::DoNotOptimize(pss2_fetch(b.entry()->pss_handle, &k, &status));
  }
}

void BM_hadra_pss_fetch(benchmark::State &state) {
  Bench b;
  if (!b.ok(state)) return;
  uint32_t i = 0;
  for (auto _ : state) {
    datum k = b.key(i++);
    void *v = nullptr;
    uint32_t n = 0;
    benchmark::DoNotOptimize(hadra_pss_fetch(b.entry(), k.dptr, k.dsize, &v, &n));
    benchmark::DoNotOptimize(v);
  }
}

BENCHMARK(BM_pss2_store);
BENCHMARK(BM_hadra_pss_update);
BENCHMARK(BM_hadra_pss_update_local);
BENCHMARK(BM_pss2_fetch);
BENCHMARK(BM_hadra_pss_fetch);

}  // namespace

BENCHMARK_MAIN();
