// Fuzz target of the readers of files shipped from the other supervisor's root: SDB
// snapshots and PSS copies. Whatever lies in one must be refused clearly or read, never
// crash the reader or spoil the SDB it restores into.
//
// Input: a selector byte, then the snapshot file. Selector bit 0 picks the plain SDB (0) or
// the MSDB (1) as the destination; bit 1 closes the destination in this process first, so
// that the reader opens it for the call. The bytes are written where the reader looks for
// the destination's snapshot, and the reader runs:
//  - refused: the SDB must hold exactly what it held before;
//  - restored: every record (and every secondary key of an MSDB) is read back, a record is
//    written and read, and the SDB is restored from a good snapshot for the next input.
// Selector bit 2 makes the bytes a PSS copy instead, arriving without its lock file: it is
// opened, walked record by record and written to, or refused with a storage or URI error.
#include <cstdio>
#include <cstring>
#include <string>

#include "fuzz/fuzz_support.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform_testing.h"

namespace {

constexpr uint32_t kUuid = 7;
constexpr const char* kGoodArea = "snap:/good";  // the snapshots every input is undone from
constexpr const char* kFuzzArea = "snap:/fuzz";

struct Target {
  const char* uri;
  const char* snap_uri;  // where the reader looks for its snapshot in kFuzzArea
  bool multi;
  uint64_t good = 0;     // fingerprint of the good contents
};
Target g_targets[] = {
    {"run:/fz/table", "snap:/fuzz/sdb-snapshots/7/run/fz/table.snap", false},
    {"run:/fz/multi", "snap:/fuzz/sdb-snapshots/7/run/fz/multi.snap", true},
};

void fail(const char* what, const Target& t) {
  std::fprintf(stderr, "snapshot_fuzz: %s: %s\n", t.uri, what);
  abort();
}

datum d(const char* s) { return datum{const_cast<char*>(s), static_cast<uint32_t>(std::strlen(s))}; }

uint64_t mix(uint64_t h, const void* p, size_t n) {
  const auto* b = static_cast<const uint8_t*>(p);
  for (size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 0x100000001b3ull;
  return (h ^ n) * 0x100000001b3ull;
}

// Everything a reader can get out of the SDB, folded into one number. Reads every byte the
// platform hands out, so a record that points outside its buffer is seen.
uint64_t fingerprint(const Target& t) {
  uint64_t h = 0xcbf29ce484222325ull;
  if (sdb_iterator_init(t.uri, SDB_ITER_FIRST) != 0) fail("cannot position the iterator", t);
  datum *k = nullptr, *v = nullptr;
  for (uint32_t rc = sdb_getkey(t.uri, &k, &v); rc == 0; rc = sdb_getnext(t.uri, &k, &v)) {
    h = mix(mix(h, k->dptr, k->dsize), v->dptr, v->dsize);
    if (!t.multi) continue;
    const sdb_skey* skeys = nullptr;
    uint32_t count = 0;
    if (sdb_get_skeys(t.uri, k, &skeys, &count) != 0) {
      h = mix(h, "unreadable", 10);
      continue;
    }
    for (uint32_t i = 0; i < count; ++i) h = mix(mix(h, &skeys[i].tag, 4), skeys[i].skey->dptr, skeys[i].skey->dsize);
  }
  return h;
}

uint32_t restore(const Target& t, const char* area) {
  return t.multi ? mksdb_read_snapshot(t.uri, area, kUuid) : sdb_read_snapshot(t.uri, area, kUuid);
}

void fill(const Target& t) {
  if (sdb_create(t.uri, t.multi ? SDB_CREATE_MSDB : SDB_CREATE_SDB, kUuid, 0) != 0 ||
      sdb_open(t.uri, SDB_OPEN_RW, kUuid, 0, 0) != 0)
    fail("cannot create", t);
  datum k1 = d("alpha"), k2 = d("beta"), k3 = d("gamma"), v1 = d("1"), v2 = d("22"), v3 = d("333");
  datum s1 = d("red"), s2 = d("green");
  sdb_skey sk[] = {{&s1, 1}, {&s2, 2}};
  sdb_mkey_op ops[] = {{&k1, &v1, sk, 2, SDB_OP_WRITE}, {&k2, &v2, sk, 1, SDB_OP_WRITE}, {&k3, &v3, nullptr, 0, SDB_OP_WRITE}};
  sdb_kv kv[] = {{&k1, &v1}, {&k2, &v2}, {&k3, &v3}};
  uint32_t rc = t.multi ? sdb_write_mkey_list(t.uri, ops, 3) : sdb_write_list(t.uri, kv, 3);
  if (rc == 0) rc = t.multi ? mksdb_write_snapshot(t.uri, kGoodArea, kUuid) : sdb_write_snapshot(t.uri, kGoodArea, kUuid);
  if (rc != 0) fail("cannot fill", t);
}

void setup() {
  hadra::fuzz::make_root();
  for (Target& t : g_targets) {
    fill(t);
    t.good = fingerprint(t);
  }
}

// A restored SDB must stay usable: readable throughout, writable, and back to the good
// contents afterwards.
void check_restored(const Target& t) {
  fingerprint(t);
  datum k = d("written after restore"), v = d("x");
  uint32_t rc = 0;
  if (sdb_write(t.uri, &k, &v) != 0 || sdb_read(t.uri, &k, &rc) == nullptr) fail("not writable after a restore", t);
  if (restore(t, kGoodArea) != 0 || fingerprint(t) != t.good) fail("cannot go back to the good snapshot", t);
}

// ---- PSS copies -------------------------------------------------------------------------

constexpr const char* kPssCopy = "snap:/fuzz/routes";

void pss_fail(const char* what) {
  std::fprintf(stderr, "snapshot_fuzz: %s: %s\n", kPssCopy, what);
  abort();
}

// Every byte the store hands out is read, so a record that points outside the file is seen.
void walk_copy(uint32_t h) {
  uint64_t sink = 0;
  uint32_t st = 0;
  for (uint32_t rc = pss2_move2location(&h, 1, PSS2_LOC_FIRST, &st); rc == 0;
       rc = pss2_move2location(&h, 1, PSS2_LOC_NEXT, &st)) {
    uint32_t ks = 0, vs = 0;
    const datum* k = pss2_getkey(h, &ks);
    if (k != nullptr) sink = mix(sink, k->dptr, k->dsize);
    const datum* v = pss2_getvalue(h, &vs);
    if (v != nullptr) sink = mix(sink, v->dptr, v->dsize);
  }
  (void)sink;
}

void open_copy(const uint8_t* data, size_t size) {
  const std::string path = hadra::fuzz::path_of(kPssCopy);
  std::remove((path + "-lock").c_str());
  if (!hadra::fuzz::write_file(path, data, size)) pss_fail("cannot write");
  uint32_t err = 0;
  const uint32_t h = pss2_open(kPssCopy, PSS2_OPEN_FLAGS_OPEN, kUuid, 0, nullptr, &err);
  if (h == 0) {
    // An empty file is an unfinished creation: to an open without create it is not there.
    const bool unfinished = size == 0 && err == PLAT_ERR_PSS_NOT_FOUND;
    if (err != PLAT_ERR_PSS_IO && err != PLAT_ERR_PSS_BAD_URI && !unfinished) {
      std::fprintf(stderr, "snapshot_fuzz: %s: refused with 0x%x\n", kPssCopy, err);
      abort();
    }
    return;
  }
  walk_copy(h);
  datum k = d("written after arrival"), v = d("x");
  pss2_store(h, &k, &v);  // a damaged tree may refuse it; it must not crash
  if (pss2_close(h) != 0) pss_fail("cannot close");
  pss2_destroy(kPssCopy);
}

std::string good_pss_copy() {
  uint32_t err = 0;
  const uint32_t h = pss2_open("run:/fz/routes", PSS2_OPEN_FLAGS_CREATE, kUuid, 0, nullptr, &err);
  for (int i = 0; h != 0 && i < 300; ++i) {
    const std::string key = "route-" + std::to_string(i), value(i % 50 == 0 ? 3000 : 20, 'r');
    datum k{const_cast<char*>(key.data()), static_cast<uint32_t>(key.size())};
    datum v{const_cast<char*>(value.data()), static_cast<uint32_t>(value.size())};
    pss2_store(h, &k, &v);
  }
  if (h == 0 || pss2_close(h) != 0) pss_fail("cannot make a good copy");
  return hadra::fuzz::read_file(hadra::fuzz::path_of("run:/fz/routes"));
}

// ---- seeds ------------------------------------------------------------------------------

std::string good_snapshot(const Target& t) {
  char uri[256];
  std::snprintf(uri, sizeof uri, "%s/sdb-snapshots/7/run/fz/%s.snap", kGoodArea, t.multi ? "multi" : "table");
  std::string good = hadra::fuzz::read_file(hadra::fuzz::path_of(uri));
  if (good.empty()) fail("no good snapshot", t);
  return good;
}

// The other selector bits (the kind, the opening) are one mutation away.
void make_seeds(const std::string& dir) {
  using hadra::fuzz::write_seed;
  setup();
  std::string sdb = good_snapshot(g_targets[0]);
  write_seed(dir, "sdb", 0, sdb);
  write_seed(dir, "msdb", 1 | 2, good_snapshot(g_targets[1]));
  // Cut short, as an interrupted copy between the supervisors leaves it.
  write_seed(dir, "sdb-truncated", 0, sdb.substr(0, sdb.size() / 2));
  std::string pss = good_pss_copy();
  write_seed(dir, "pss-copy", 4, pss);
  write_seed(dir, "pss-copy-truncated", 4, pss.substr(0, pss.size() / 2));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  hadra::fuzz::maybe_write_seeds(make_seeds);
  setup();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return -1;
  if ((data[0] & 4) != 0) {
    open_copy(data + 1, size - 1);
    return 0;
  }
  const Target& t = g_targets[data[0] & 1];
  bool closed = (data[0] & 2) != 0;
  if (!hadra::fuzz::write_file(hadra::fuzz::path_of(t.snap_uri), data + 1, size - 1)) fail("cannot write", t);
  if (closed && sdb_close(t.uri) != 0) fail("cannot close", t);
  uint32_t rc = restore(t, kFuzzArea);
  if (closed && sdb_open(t.uri, SDB_OPEN_RW, kUuid, 0, 0) != 0) fail("cannot open again", t);
  if (rc == 0) {
    check_restored(t);
  } else if (rc != PLAT_ERR_SDB_IO && rc != PLAT_ERR_SDB_BAD_ARG) {
    fail("unexpected result", t);
  } else if (fingerprint(t) != t.good) {
    fail("a refused snapshot changed the SDB", t);
  }
  return 0;
}
