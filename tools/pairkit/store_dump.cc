#include "pairkit/store_dump.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>

#include "hadra_platform/pss.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform_testing.h"

namespace hadra::pairkit {
namespace fs = std::filesystem;
namespace {

Bytes copy(const datum* d) {
  if (d == nullptr || d->dptr == nullptr) return {};
  const auto* p = static_cast<const uint8_t*>(d->dptr);
  return Bytes(p, p + d->dsize);
}

std::string hex(const Bytes& b, size_t max = 24) {
  std::string s;
  char two[3];
  for (size_t i = 0; i < b.size() && i < max; ++i) {
    std::snprintf(two, sizeof two, "%02x", b[i]);
    s += two;
  }
  if (b.size() > max) s += "...(" + std::to_string(b.size()) + " bytes)";
  return s;
}

std::string code(uint32_t rc) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", rc);
  return text;
}

StoreDump dump_pss(const std::string& uri) {
  StoreDump out{"pss", {}};
  uint32_t err = 0;
  uint32_t h = pss2_open(uri.c_str(), PSS2_OPEN_READ | PSS2_OPEN_CURSOR, 0, 0, nullptr, &err);
  if (h == 0) return {"unreadable: pss2_open " + code(err), {}};
  uint32_t st = 0;
  pss2_move2location(&h, PSS2_MOVE_MODE, PSS2_LOC_FIRST, &st);
  while (st == 0) {
    uint32_t st_key = 0, st_value = 0;
    Record r;
    r.key = copy(pss2_getkey(h, &st_key));
    r.value = copy(pss2_getvalue(h, &st_value));
    if (st_key != 0 || st_value != 0) {
      out.kind = "unreadable: record " + code(st_key | st_value);
      break;
    }
    out.records.push_back(std::move(r));
    pss2_move2location(&h, PSS2_MOVE_MODE, PSS2_LOC_NEXT, &st);
  }
  if (st != 0 && st != PLAT_ERR_PSS_NO_RECORD) out.kind = "unreadable: walk " + code(st);
  pss2_close(h);
  return out;
}

// The secondary keys of one record; a plain SDB has none (its answer is not 0).
std::vector<std::pair<uint32_t, Bytes>> skeys_of(const std::string& uri, const Bytes& key) {
  std::vector<std::pair<uint32_t, Bytes>> out;
  datum k{const_cast<uint8_t*>(key.data()), static_cast<uint32_t>(key.size())};
  const sdb_skey* list = nullptr;
  uint32_t n = 0;
  if (sdb_get_skeys(uri.c_str(), &k, &list, &n) != 0) return out;
  for (uint32_t i = 0; i < n; ++i) out.emplace_back(list[i].tag & 0xffffu, copy(list[i].skey));
  std::sort(out.begin(), out.end());
  return out;
}

StoreDump dump_sdb(const std::string& uri) {
  StoreDump out{"sdb", {}};
  const uint32_t open_rc = sdb_open(uri.c_str(), SDB_OPEN_READ, 0, 0, 0);
  if (open_rc != 0 && open_rc != PLAT_ERR_SDB_ALREADY_OPEN) return {"unreadable: sdb_open " + code(open_rc), {}};
  sdb_iterator_init(uri.c_str(), SDB_ITER_FIRST);
  datum* k = nullptr;
  datum* d = nullptr;
  uint32_t rc = sdb_getkey(uri.c_str(), &k, &d);
  while (rc == 0) {
    Record r{copy(k), copy(d), {}};
    // Reading the secondary keys moves the per-SDB read buffers, not the iterator.
    r.skeys = skeys_of(uri, r.key);
    out.records.push_back(std::move(r));
    rc = sdb_getnext(uri.c_str(), &k, &d);
  }
  if (rc != PLAT_ERR_SDB_NO_ITER) out.kind = "unreadable: walk " + code(rc);
  if (open_rc == 0) sdb_close(uri.c_str());
  return out;
}

bool wanted_area(const std::string& area, const std::vector<std::string>& areas) {
  if (areas.empty()) return area != "sock" && area != "log";
  return std::find(areas.begin(), areas.end(), area) != areas.end();
}

bool is_lmdb_side_file(const std::string& name) {
  return name == "data.mdb" || name == "lock.mdb" || (name.size() > 5 && name.ends_with("-lock"));
}

// Walks one area and dumps every store in it: a directory holding data.mdb is an SDB, any
// other file a PSS file candidate (the platform decides what it really is).
void dump_area(const fs::path& dir, const std::string& area, RootDump* out) {
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    const fs::path& p = it->path();
    const std::string uri = area + ":/" + fs::relative(p, dir).generic_string();
    if (it->is_directory()) {
      if (!fs::exists(p / "data.mdb")) continue;
      it.disable_recursion_pending();
      if (sdb_exists(uri.c_str()) == 1) (*out)[uri] = dump_sdb(uri);
    } else if (it->is_regular_file() && !is_lmdb_side_file(p.filename().string())) {
      uint32_t rc = 0;
      if (pss2_get_psstype(uri.c_str(), nullptr, &rc) == PSS2_TYPE_PSS2 && rc == 0) (*out)[uri] = dump_pss(uri);
    }
  }
}

void describe_store(std::ostringstream& os, const std::string& uri, const StoreDump& a, const StoreDump& b,
                    const char* na, const char* nb) {
  if (a.kind != b.kind) {
    os << uri << ": kind " << na << " " << a.kind << ", " << nb << " " << b.kind << "\n";
    return;
  }
  size_t shown = 0;
  auto ia = a.records.begin();
  auto ib = b.records.begin();
  while ((ia != a.records.end() || ib != b.records.end()) && shown < 5) {
    if (ib == b.records.end() || (ia != a.records.end() && ia->key < ib->key)) {
      os << uri << ": key " << hex(ia->key) << " only on " << na << "\n";
      ++ia, ++shown;
    } else if (ia == a.records.end() || ib->key < ia->key) {
      os << uri << ": key " << hex(ib->key) << " only on " << nb << "\n";
      ++ib, ++shown;
    } else {
      if (ia->value != ib->value)
        os << uri << ": key " << hex(ia->key) << " value " << hex(ia->value) << " vs " << hex(ib->value) << "\n", ++shown;
      else if (ia->skeys != ib->skeys)
        os << uri << ": key " << hex(ia->key) << " has " << ia->skeys.size() << " vs " << ib->skeys.size()
           << " differing secondary keys\n",
            ++shown;
      ++ia, ++ib;
    }
  }
}

}  // namespace

RootDump dump_root(const std::string& root, const std::vector<std::string>& areas) {
  RootDump out;
  plat_test_reset();
  plat_test_set_root(root.c_str());
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(root, ec)) {
    const std::string area = entry.path().filename().string();
    if (entry.is_directory() && wanted_area(area, areas)) dump_area(entry.path(), area, &out);
  }
  plat_test_reset();
  plat_test_set_root(nullptr);  // children forked later find their root from their settings
  return out;
}

std::string compare_dumps(const RootDump& a, const RootDump& b, const char* name_a, const char* name_b) {
  std::ostringstream os;
  for (const auto& [uri, store] : a) {
    auto other = b.find(uri);
    if (other == b.end())
      os << uri << ": only on " << name_a << " (" << store.records.size() << " records)\n";
    else if (!(store == other->second))
      describe_store(os, uri, store, other->second, name_a, name_b);
  }
  for (const auto& [uri, store] : b)
    if (a.find(uri) == a.end()) os << uri << ": only on " << name_b << " (" << store.records.size() << " records)\n";
  return os.str();
}

size_t record_count(const RootDump& d) {
  size_t n = 0;
  for (const auto& [uri, store] : d) n += store.records.size();
  return n;
}

}  // namespace hadra::pairkit
