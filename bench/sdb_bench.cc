// Per-record cost of the SDB writers and of the standby's batch apply.
//
// Setting: a real SDB under a scratch platform root, the supervisor active, the loopback
// transport (every write really sends its sync message and its update notification and
// reports its sequence number; the outbox keeps the newest frames), debug switches off.
//
//   BM_hadra_sdb_update/1             one record per call: write, notification, SDB_UPDATE
//   BM_hadra_sdb_update_batch/N       N records per call: one local list write, one
//                                     notification, SDB_BATCH_UPDATE messages of up to 60000 bytes
//   BM_sdb_standby_apply/N            the standby applying the messages of such a batch
//
// "per_record" is the time of one record (seconds, shown in the unit the library picks).
// Keys cycle over kKeys records of the same size, so the SDB does not grow while measuring.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "hadra/hadra.h"
#include "hadra_mts_testing.h"
#include "hadra_platform/sdb.h"
#include "sdb/batch.h"

namespace {

constexpr uint32_t kKeys = 10000;
constexpr uint32_t kKeyLen = 8;
constexpr uint32_t kValueLen = 64;

// A scratch platform root with an SDB registered at index 1 (active side) and one at
// index 2 (the standby's copy), both open, for one benchmark run.
class Bench {
 public:
  Bench() {
    active_ = open(1, "bench_active");
    standby_ = open(2, "bench_standby");
    keys_.resize(kKeys);
    std::string value(kValueLen, 'v');
    for (uint32_t i = 0; i < kKeys; ++i) {
      char k[kKeyLen + 1];
      std::snprintf(k, sizeof k, "k%07u", i);
      keys_[i].assign(k, kKeyLen);
    }
    value_ = value;
    key_datums_.resize(kKeys);
    for (uint32_t i = 0; i < kKeys; ++i) key_datums_[i] = {keys_[i].data(), kKeyLen};
    value_datum_ = {value_.data(), kValueLen};
  }
  bool ok() const { return active_ != nullptr && standby_ != nullptr; }

  // A list of n writes starting at key first (mod kKeys).
  std::vector<sdb_list_op> list(uint32_t first, uint32_t n) {
    std::vector<sdb_list_op> out(n);
    for (uint32_t i = 0; i < n; ++i) out[i] = {0, &key_datums_[(first + i) % kKeys], &value_datum_};
    return out;
  }

  // The batch messages an update of n records sends, as payloads.
  std::vector<std::vector<uint8_t>> batch_messages(uint32_t n) {
    std::vector<uint8_t> frame(MTS_TEST_WIRE_HDR_SIZE + 70000);
    while (mts_test_peer_read(frame.data(), frame.size(), 1) >= 0) {
    }
    auto l = list(0, n);
    hadra_sdb_update_batch(active_, l.data(), n, 0);
    std::vector<std::vector<uint8_t>> out;
    long len;
    while ((len = mts_test_peer_read(frame.data(), frame.size(), 1)) >= MTS_TEST_WIRE_HDR_SIZE)
      out.emplace_back(frame.begin() + MTS_TEST_WIRE_HDR_SIZE, frame.begin() + len);
    return out;
  }

  hadra::bench::ScratchRoot root_{0x3200, 0x3201};  // first: set up before, gone after the rest
  hadra_ha_pss_entry* active_ = nullptr;
  hadra_ha_pss_entry* standby_ = nullptr;
  std::vector<std::string> keys_;
  std::string value_;
  std::vector<datum> key_datums_;
  datum value_datum_{};

 private:
  static hadra_ha_pss_entry* open(uint8_t index, const char* name) {
    hadra_ha_pss_entry* e = hadra_ha_register_sdb(index, name, 0x3300, 0x3301);
    if (e == nullptr || sdb_create(e->uri, SDB_CREATE_SDB, 1, 0) != 0 || sdb_open(e->uri, SDB_OPEN_RW, 1, 0, 0) != 0)
      return nullptr;
    return e;
  }
};

void per_record(benchmark::State& state, double records) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * records));
  state.counters["per_record"] =
      benchmark::Counter(records, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_hadra_sdb_update(benchmark::State& state) {
  Bench b;
  if (!b.ok()) return state.SkipWithError("setup failed");
  uint32_t i = 0;
  for (auto _ : state) {
    const std::string& k = b.keys_[i++ % kKeys];
    benchmark::DoNotOptimize(hadra_sdb_update(b.active_, k.data(), kKeyLen, b.value_.data(), kValueLen, 1));
  }
  per_record(state, 1);
}
BENCHMARK(BM_hadra_sdb_update)->Arg(1);

void BM_hadra_sdb_update_batch(benchmark::State& state) {
  Bench b;
  if (!b.ok()) return state.SkipWithError("setup failed");
  const auto n = static_cast<uint32_t>(state.range(0));
  uint32_t first = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto l = b.list(first, n);
    first += n;
    state.ResumeTiming();
    benchmark::DoNotOptimize(hadra_sdb_update_batch(b.active_, l.data(), n, 1));
  }
  per_record(state, n);
}
BENCHMARK(BM_hadra_sdb_update_batch)->Arg(1)->Arg(100)->Arg(10000);

void BM_sdb_standby_apply(benchmark::State& state) {
  Bench b;
  if (!b.ok()) return state.SkipWithError("setup failed");
  const auto n = static_cast<uint32_t>(state.range(0));
  const auto msgs = b.batch_messages(n);
  if (msgs.empty()) return state.SkipWithError("no batch was sent");
  plat_test_sysmgr_set_supstate(HADRA_SUP_STANDBY);
  for (auto _ : state)
    for (const auto& m : msgs)
      benchmark::DoNotOptimize(hadra::sdb::apply_sdb_batch(b.standby_, m.data() + HADRA_SYNC_HDR_LEN,
                                                           static_cast<uint32_t>(m.size() - HADRA_SYNC_HDR_LEN)));
  per_record(state, n);
}
BENCHMARK(BM_sdb_standby_apply)->Arg(1)->Arg(100)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
