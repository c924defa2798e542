// Online verify on two copies of one store: how long it takes and how many bytes cross the
// peer link, against a full copy of the store.
//
//   verify_bench [records] [differences]        (default 1000000 and 10)
//
// Two PSS-format LMDB files are filled with the same records, then the second gets the
// differences (values changed, records removed, records added). One side drives the
// comparison (verify_core.h) and the other answers, as the two daemons do; every request and
// answer is encoded as it would travel and its bytes counted. The goal: under 1% of the bytes
// of a full copy and under 2 s. Exit status 1 when the differences found are not exactly the
// ones made, or a goal is missed.
#include <lmdb.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

#include "daemon/verify_core.h"

namespace {

namespace vc = hadra::sysmgrd::verify;
namespace proto = hadra::plat::sysmgr::proto;

std::string key(uint64_t i) {
  char k[32];
  std::snprintf(k, sizeof k, "route/%010llu", static_cast<unsigned long long>(i));
  return k;
}
std::string value(uint64_t i, int gen) {
  char v[64];
  std::snprintf(v, sizeof v, "next-hop 10.%llu.%llu.1 metric %d weight 100", static_cast<unsigned long long>(i % 250),
                static_cast<unsigned long long>(i / 250 % 250), gen);
  return v;
}

bool check(int rc, const char* what) {
  if (rc == 0) return true;
  std::fprintf(stderr, "verify_bench: %s: %s\n", what, mdb_strerror(rc));
  return false;
}

// Fills path with records 0..n-1 in one write transaction (appended in key order); the
// differences, when asked, follow: every n/diffs-th record changed, removed or added.
bool fill(const std::string& path, uint64_t n, uint64_t diffs, std::set<std::string>* changed) {
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi dbi;
  if (!check(mdb_env_create(&env), "env") || !check(mdb_env_set_maxdbs(env, 4), "maxdbs") ||
      !check(mdb_env_set_mapsize(env, size_t{4} << 30), "mapsize") ||
      !check(mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0644), path.c_str()) ||
      !check(mdb_txn_begin(env, nullptr, 0, &txn), "txn") ||
      !check(mdb_dbi_open(txn, "records", MDB_CREATE, &dbi), "records"))
    return false;
  for (uint64_t i = 0; i < n; ++i) {
    const std::string k = key(i), v = value(i, 0);
    MDB_val kv{k.size(), const_cast<char*>(k.data())}, vv{v.size(), const_cast<char*>(v.data())};
    if (!check(mdb_put(txn, dbi, &kv, &vv, MDB_APPEND), "put")) return false;
  }
  for (uint64_t d = 0; d < diffs; ++d) {
    const uint64_t i = (d * 2 + 1) * (n / (2 * diffs));
    std::string k = key(i);
    const std::string v = value(i, 1);
    MDB_val kv{k.size(), k.data()}, vv{v.size(), const_cast<char*>(v.data())};
    if (d % 3 == 1) {
      if (!check(mdb_del(txn, dbi, &kv, nullptr), "del")) return false;
    } else {
      if (d % 3 == 2) k += "+new", kv = MDB_val{k.size(), k.data()};
      if (!check(mdb_put(txn, dbi, &kv, &vv, 0), "put")) return false;
    }
    changed->insert(k);
  }
  const bool ok = check(mdb_txn_commit(txn), "commit");
  mdb_env_close(env);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  const uint64_t n = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
  const uint64_t diffs = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 10;
  if (n < 2 * diffs || diffs == 0) {
    std::fprintf(stderr, "verify_bench: give at least twice as many records as differences\n");
    return 2;
  }
  char tmpl[] = "/tmp/hadra-verify-bench-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 2;
  const std::string dir = tmpl, a = dir + "/active", b = dir + "/standby";
  std::set<std::string> made, none;
  int rc = 1;
  if (fill(a, n, 0, &none) && fill(b, n, diffs, &made)) {
    std::string why;
    const auto t0 = std::chrono::steady_clock::now();
    auto va = vc::StoreView::open(a, &why);
    auto vb = vc::StoreView::open(b, &why);
    if (!va || !vb) {
      std::fprintf(stderr, "verify_bench: %s\n", why.c_str());
    } else {
      vc::Verifier v(*va, "run:/active");
      uint64_t bytes = 0, rounds = 0;
      proto::VerifyReq req;
      bool ok = true;
      while (ok && v.next(&req)) {
        const std::vector<uint8_t> out = encode(req);
        proto::VerifyReq got;
        ok = proto::decode(out.data(), out.size(), &got);
        const std::vector<uint8_t> back = encode(vc::answer_request(*vb, got));
        proto::VerifyAns ans;
        ok = ok && proto::decode(back.data(), back.size(), &ans) && v.on_answer(ans, &why);
        bytes += out.size() + back.size();
        ++rounds;
      }
      const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      struct stat st {};
      ::stat(a.c_str(), &st);
      uint64_t payload = 0;
      va->walk("", "", [&](std::string_view k, std::string_view val, std::string_view) {
        payload += k.size() + val.size();
        return true;
      });
      std::set<std::string> found;
      for (const vc::Difference& d : v.differences()) found.insert(d.key);
      const double share = 100.0 * static_cast<double>(bytes) / static_cast<double>(payload);
      std::printf("records            %llu per copy, %llu differences made\n", static_cast<unsigned long long>(n),
                  static_cast<unsigned long long>(diffs));
      std::printf("full copy          %llu bytes of keys and values (%lld bytes of store file)\n",
                  static_cast<unsigned long long>(payload), static_cast<long long>(st.st_size));
      std::printf("verify             %.3f s, %llu round trips, %llu bytes over the link (%.3f%% of a full copy)\n",
                  secs, static_cast<unsigned long long>(rounds), static_cast<unsigned long long>(bytes), share);
      std::printf("differences found  %zu, %s\n", found.size(), found == made ? "exactly those made" : "NOT those made");
      const bool goals = ok && found == made && share < 1.0 && secs < 2.0;
      std::printf("goal (< 1%% of the bytes, < 2 s): %s\n", goals ? "met" : "MISSED");
      if (!ok) std::fprintf(stderr, "verify_bench: %s\n", why.c_str());
      rc = goals ? 0 : 1;
    }
  }
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  return rc;
}
