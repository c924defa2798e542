// End-to-end throughput of two supervisors on one host: an active that writes, a standby
// that applies, each a process with its own root, over the ZeroMQ transport (ipc).
//
//   bench_pair --mode pss|sdb|sdb_batch|msdb_batch|gsync [--records N]
//
// Records have 16-byte random keys and 100-byte random values, made before the clock starts.
//   pss, sdb      one library update per record (hadra_pss_update, hadra_sdb_update)
//   sdb_batch     hadra_sdb_update_batch of 1000 records
//   msdb_batch    hadra_msdb_update_batch of 1000 records, one secondary key each
//                 (from the active's first update to the standby's receipt of the done message
//                 that follows the last one: every change replicated end to end)
//   gsync         an SDB of N records on the active: gsync snapshot, the area shipped to the
//                 standby's root (the driver plays the system manager, as tools/pairkit does),
//                 gsync ready on the standby; MB/s of record payload
// One line on stdout, "key=value" pairs: records, seconds, rate (records/s), mb_per_s,
// active_cpu_us and standby_cpu_us (CPU per record of each process, all threads); for the
// update modes active_heap_kib and standby_heap_kib, the heap the process gained from the
// library's initialisation to the end of the run (the library's and what the platform holds
// for it: stores, queues, buffers; the transport's own start-up is before); for gsync
// snapshot_s and ready_s, the two sides' calls. The standby runs the service's receive loop
// (sysmgr_client_next). Exit 0 only when the standby's stores hold every record.
#include <malloc.h>
#include <sys/resource.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "hadra_platform/sdb.h"

#include "hadra/hadra.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform/sysmgr_client.h"
#include "hadra_mts_testing.h"
#include "hadra_platform_testing.h"
#include "pairkit/store_dump.h"
#include "pairkit/two_sup.h"

namespace {

namespace kit = hadra::pairkit;

constexpr uint32_t kSap = 3501;
constexpr uint32_t kDoneOpc = 6402;
constexpr int kWaitMs = 120000;
constexpr size_t kKey = 16, kValue = 100, kBatch = 1000;
constexpr const char* kArea = "snap:/gsync-1";
enum : uint8_t { kPss = 1, kSdb = 2, kMsdb = 3 };

std::string g_mode;
size_t g_records = 0;
std::string g_base;

double now_s() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}
double cpu_s() {
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  auto tv = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; };
  return tv(ru.ru_utime) + tv(ru.ru_stime);
}

// What a child measured, for the driver: "name value" lines in <base>/<role>.out.
void report(const char* role, const std::map<std::string, double>& values) {
  std::ofstream out(g_base + "/" + role + ".out");
  out.precision(17);
  for (const auto& [k, v] : values) out << k << " " << v << "\n";
}
std::map<std::string, double> read_report(const char* role) {
  std::map<std::string, double> m;
  std::ifstream in(g_base + "/" + role + ".out");
  std::string k;
  double v;
  while (in >> k >> v) m[k] = v;
  return m;
}

// Keys and values: xorshift bytes, the same on every run.
struct Records {
  std::vector<uint8_t> keys, values;
  explicit Records(size_t n) : keys(n * kKey), values(n * kValue) {
    uint64_t x = 0x9e3779b97f4a7c15ull;
    for (auto* v : {&keys, &values})
      for (auto& b : *v) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        b = static_cast<uint8_t>(x);
      }
  }
  uint8_t* key(size_t i) { return &keys[i * kKey]; }
  uint8_t* value(size_t i) { return &values[i * kValue]; }
};

// Heap in use by the process (every arena, mapped chunks included).
double heap_bytes() {
  const struct mallinfo2 mi = mallinfo2();
  return static_cast<double>(mi.uordblks + mi.hblkhd);
}
double g_heap_before_library = 0;

bool start_client() {
  if (mts_bind(kSap) != 0) return false;
  // From here on what the heap gains is the library's and what the platform does for it.
  g_heap_before_library = heap_bytes();
  if (hadra_ha_register_pss(kPss, "bench_pss") == nullptr ||
      hadra_ha_register_sdb(kSdb, "bench_sdb", 6501, 6502) == nullptr ||
      hadra_ha_register_msdb(kMsdb, "bench_msdb", 6503, 6504) == nullptr)
    return false;
  hadra_ha_handle_t rec{};
  rec.uuid = 0x4e1;
  rec.sap = kSap;
  rec.opcode = 6401;
  std::snprintf(rec.name, sizeof rec.name, "bench");
  return hadra_ha_api_init(&rec) == 1;
}

hadra_ha_pss_entry* e(uint8_t index) { return &hadra_ha_pss[index]; }

// The library creates PSS files with its own small limit; the larger runs need more.
bool raise_pss_limit() { return pss2_set_max_dbsize(e(kPss)->pss_handle, uint64_t{4} << 30) == 0; }

bool answered(int kind) {
  plat_test_sysmgr_answer a{};
  const size_t n = plat_test_sysmgr_answer_count();
  return n > 0 && plat_test_sysmgr_answer_get(n - 1, &a) == 0 && a.kind == kind && a.value == 0;
}

// ---- Replicated updates ----

bool write_all(Records& r) {
  const size_t n = g_records;
  if (g_mode == "pss") {
    for (size_t i = 0; i < n; ++i)
      if (hadra_pss_update(e(kPss), r.key(i), kKey, r.value(i), kValue) != 1) return false;
  } else if (g_mode == "sdb") {
    for (size_t i = 0; i < n; ++i)
      if (hadra_sdb_update(e(kSdb), r.key(i), kKey, r.value(i), kValue, 0) != 1) return false;
  } else {
    std::vector<datum> kd(kBatch), vd(kBatch), sd(kBatch);
    std::vector<sdb_list_op> ops(kBatch);
    std::vector<sdb_skey> sk(kBatch);
    std::vector<sdb_mkey_op> mops(kBatch);
    for (size_t at = 0; at < n; at += kBatch) {
      const size_t m = n - at < kBatch ? n - at : kBatch;
      for (size_t j = 0; j < m; ++j) {
        kd[j] = datum{r.key(at + j), kKey};
        vd[j] = datum{r.value(at + j), kValue};
        sd[j] = datum{r.value(at + j), 8};  // the secondary key: the value's first bytes
        ops[j] = sdb_list_op{SDB_OP_WRITE, &kd[j], &vd[j]};
        sk[j] = sdb_skey{&sd[j], 1};
        mops[j] = sdb_mkey_op{&kd[j], &vd[j], &sk[j], 1, SDB_OP_WRITE};
      }
      int ok = g_mode == "sdb_batch" ? hadra_sdb_update_batch(e(kSdb), ops.data(), static_cast<uint32_t>(m), 0)
                                     : hadra_msdb_update_batch(e(kMsdb), mops.data(), static_cast<uint32_t>(m), 0);
      if (ok != 1) return false;
    }
  }
  return true;
}

int active_updates(kit::Signal& ready, kit::Signal& finished) {
  Records r(g_records);
  if (!ready.wait(kWaitMs) || !start_client() || !raise_pss_limit()) return kit::log("active", "start failed"), 10;
  const double t0 = now_s(), c0 = cpu_s();
  if (!write_all(r)) return kit::log("active", "an update failed"), 11;
  const double heap = heap_bytes() - g_heap_before_library;
  if (mts_send(kSap, MTS_ADDR_PEER, MTS_SAP_SAME, kDoneOpc, &t0, sizeof t0, nullptr, 0, nullptr) != 0) return 12;
  report("active", {{"cpu", cpu_s() - c0}, {"start", t0}, {"heap", heap}});
  return finished.wait(kWaitMs) ? 0 : 13;
}

int standby_updates(kit::Signal& ready, kit::Signal& finished) {
  if (!start_client()) return kit::log("standby", "start failed"), 20;
  for (uint8_t i : {kPss, kSdb, kMsdb}) {  // copies up empty, as after a gsync of nothing
    if (hadra_ha_db_start(e(i)) != 1) return 21;
    e(i)->state = HADRA_HA_STANDBY;
  }
  if (!raise_pss_limit()) return 23;
  const double c0 = cpu_s();
  ready.raise();
  // The service's own receive loop, as a real service runs it: it applies a run of queued
  // changes in one store transaction. What arrived is counted in the standby's stores at the end.
  // A standby that fell behind far enough to lose frames is out of sync and drops what follows
  // (the done message too) until a resync, which no daemon runs here: the run has failed, and
  // says so at once instead of at the end of its wait.
  int rc = 22;
  for (int waited = 0; waited < kWaitMs;) {
    mts_msg_ref other;
    const int kind = sysmgr_client_next(kSap, 200, &other);
    if (kind == SYSMGR_RX_OTHER) {
      const bool done = mts_opc_get(&other) == kDoneOpc;
      mts_drop(kSap, &other);
      if (done) {
        rc = 0;
        break;
      }
    } else if (kind < 0) {
      kit::log("standby", "%s", std::strerror(errno));
      break;
    } else if (kind == SYSMGR_RX_NONE) {
      waited += 200;
      mts_test_counters c{};
      if (mts_test_counters_get(kSap, &c) == 0 && (c.overflows != 0 || c.gaps != 0)) {
        kit::log("standby", "fell behind: %llu frames dropped at its queue's bound, %llu gaps; out of sync",
                 static_cast<unsigned long long>(c.overflows), static_cast<unsigned long long>(c.gaps));
        break;
      }
    }
  }
  const double t1 = now_s();
  report("standby", {{"cpu", cpu_s() - c0},
                     {"end", t1},
                     {"heap", heap_bytes() - g_heap_before_library}});
  finished.raise();
  return rc == 0 ? 0 : 22;
}

// ---- Gsync ----

int active_gsync(kit::Signal& ready, kit::Signal& snapped, kit::Signal& finished) {
  Records r(g_records);
  if (!ready.wait(kWaitMs) || !start_client()) return kit::log("active", "start failed"), 30;
  // Loaded straight into the store (no sync messages: the standby is not yet in sync).
  std::vector<sdb_kv> list(kBatch);
  std::vector<datum> kd(kBatch), vd(kBatch);
  for (size_t at = 0; at < g_records; at += kBatch) {
    const size_t m = g_records - at < kBatch ? g_records - at : kBatch;
    for (size_t j = 0; j < m; ++j) {
      kd[j] = datum{r.key(at + j), kKey};
      vd[j] = datum{r.value(at + j), kValue};
      list[j] = sdb_kv{&kd[j], &vd[j]};
    }
    if (sdb_write_list(e(kSdb)->uri, list.data(), static_cast<uint32_t>(m)) != 0) return 31;
  }
  const double t0 = now_s(), c0 = cpu_s();
  sysmgr_req_ctx ctx;
  plat_test_sysmgr_ctx_init(&ctx, 0);
  if (sysmgrcb_gsync_snapshot(&ctx, kArea, nullptr) != 0 || !answered(PLAT_TEST_SYSMGR_GSYNC_SNAPSHOT_DONE))
    return kit::log("active", "snapshot failed"), 32;
  report("active", {{"cpu", cpu_s() - c0}, {"start", t0}, {"phase", now_s() - t0}});
  snapped.raise();
  return finished.wait(kWaitMs) ? 0 : 33;
}

int standby_gsync(kit::Signal& ready, kit::Signal& shipped, kit::Signal& finished) {
  if (!start_client()) return kit::log("standby", "start failed"), 40;
  ready.raise();
  if (!shipped.wait(kWaitMs)) return 41;
  const double c0 = cpu_s(), t0 = now_s();
  sysmgr_req_ctx ctx;
  plat_test_sysmgr_ctx_init(&ctx, 0);
  if (sysmgrcb_gsync_ready(&ctx, kArea, nullptr) != 0 || !answered(PLAT_TEST_SYSMGR_GSYNC_READY_DONE))
    return kit::log("standby", "gsync ready failed"), 42;
  const double t1 = now_s();
  report("standby", {{"cpu", cpu_s() - c0}, {"end", t1}, {"phase", t1 - t0}});
  finished.raise();
  return 0;
}

int usage() {
  std::fprintf(stderr, "usage: bench_pair --mode pss|sdb|sdb_batch|msdb_batch|gsync [--records N]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  g_records = 100000;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--mode") == 0) g_mode = argv[i + 1];
    else if (std::strcmp(argv[i], "--records") == 0) g_records = std::strtoul(argv[i + 1], nullptr, 10);
    else return usage();
  }
  const bool gsync = g_mode == "gsync";
  if (g_records == 0 || (!gsync && g_mode != "pss" && g_mode != "sdb" && g_mode != "sdb_batch" && g_mode != "msdb_batch"))
    return usage();
  kit::BaseDir base("/tmp/hadra-bench-XXXXXX");
  if (base.path().empty()) return std::fprintf(stderr, "bench_pair: no scratch directory\n"), 1;
  g_base = base.path();
  // The durability setting and the rest come from the caller's environment; the limits of
  // the stores are raised for the larger runs.
  // The queues between the two hold the whole run: the rate is that of replication end to
  // end (the active's writes until the standby applied the last), also where the active writes
  // faster for a while than the standby applies. A standby that falls behind leaves frames in
  // the active's queue (MTS_RX_HOLD), so that queue holds as many messages as the run has
  // changes, and the standby's as many frames. With the defaults such a standby is marked out
  // of sync and brought back by its daemon, which this driver does not run; the run would
  // fail instead of measuring.
  const std::string whole_run = std::to_string(g_records + 20000);
  std::vector<std::pair<std::string, std::string>> extra = {
      {"SDB_MAP_SIZE", std::to_string(8L << 30)}, {"MTS_RX_QUEUE_MAX", whole_run}, {"MTS_HWM", whole_run}};
  kit::Signal ready, shipped, snapped, finished;
  pid_t standby = kit::spawn({g_base, 2, "standby", extra}, [&] {
    return gsync ? standby_gsync(ready, shipped, finished) : standby_updates(ready, finished);
  });
  pid_t active = kit::spawn({g_base, 1, "active", extra}, [&] {
    return gsync ? active_gsync(ready, snapped, finished) : active_updates(ready, finished);
  });
  if (standby <= 0 || active <= 0) return 1;
  double ship_s = 0;
  if (gsync && snapped.wait(kWaitMs)) {
    const double t = now_s();
    std::string why;
    if (kit::ship_area(g_base, 1, 2, "snap/gsync-1", &why) < 0) std::fprintf(stderr, "bench_pair: %s\n", why.c_str());
    ship_s = now_s() - t;
    shipped.raise();
  }
  std::string why;
  if (!kit::wait_children({standby, active}, 3 * kWaitMs, &why)) return std::fprintf(stderr, "bench_pair: %s\n", why.c_str()), 1;
  auto a = read_report("active"), s = read_report("standby");
  {  // every record arrived: counted in the standby's stores (the keys are all different)
    const kit::RootDump d = kit::dump_root(kit::root_of(g_base, 2));
    s["sync"] = static_cast<double>(kit::record_count(d));
  }
  const double secs = s["end"] - a["start"], n = static_cast<double>(g_records);
  const double want = n;
  std::printf("mode=%s records=%zu seconds=%.4f rate=%.0f mb_per_s=%.2f active_cpu_us=%.3f standby_cpu_us=%.3f ship_s=%.4f",
              g_mode.c_str(), g_records, secs, n / secs, n * (kKey + kValue) / secs / 1e6, a["cpu"] * 1e6 / n,
              s["cpu"] * 1e6 / n, ship_s);
  if (gsync) std::printf(" snapshot_s=%.4f ready_s=%.4f", a["phase"], s["phase"]);
  else std::printf(" active_heap_kib=%.1f standby_heap_kib=%.1f", a["heap"] / 1024, s["heap"] / 1024);
  std::printf("\n");
  if (s["sync"] < want) return std::fprintf(stderr, "bench_pair: the standby saw %.0f of %.0f\n", s["sync"], want), 1;
  return 0;
}
