// Helpers shared by the SDB store tests: datums from strings, and reads that copy out.
#pragma once

#include <string>
#include <vector>

#include "hadra_platform/sdb.h"
#include "support/fixture.h"

namespace hadra::test {

class SdbTest : public PlatformTest {
 protected:
  static constexpr const char* kUri = "run:/svc/routes";
  static constexpr uint32_t kUuid = 300;

  void create_open(const char* uri = kUri, uint32_t flags = SDB_CREATE_SDB) {
    ASSERT_EQ(sdb_create(uri, flags, kUuid, 0), 0u);
    ASSERT_EQ(sdb_open(uri, SDB_OPEN_RW, kUuid, 0, 0), 0u);
  }
  uint32_t put(const std::string& k, const std::string& v, const char* uri = kUri) {
    datum kd = D(k), vd = D(v);
    return sdb_write(uri, &kd, &vd);
  }
  // The value at k, or "<none>".
  std::string get(const std::string& k, const char* uri = kUri) {
    datum kd = D(k);
    uint32_t rc = 1;
    datum* v = sdb_read(uri, &kd, &rc);
    return rc == 0 ? S(v) : "<none>";
  }
  // Every "key=value" in iteration order.
  std::vector<std::string> all(const char* uri = kUri) {
    std::vector<std::string> out;
    datum *k = nullptr, *v = nullptr;
    if (sdb_iterator_init(uri, SDB_ITER_FIRST) != 0) return {"<init failed>"};
    for (uint32_t rc = sdb_getkey(uri, &k, &v); rc == 0; rc = sdb_getnext(uri, &k, &v))
      out.push_back(S(k) + "=" + S(v));
    return out;
  }
  // MSDB: write key with value and secondary keys given as (tag, bytes).
  uint32_t put_mkey(const std::string& k, const std::string& v, std::vector<std::pair<uint32_t, std::string>> sk,
                    const char* uri = kUri) {
    datum kd = D(k), vd = D(v);
    std::vector<datum> sd;
    for (auto& [tag, bytes] : sk) sd.push_back(D(bytes));
    std::vector<sdb_skey> skeys;
    for (size_t i = 0; i < sk.size(); ++i) skeys.push_back(sdb_skey{&sd[i], sk[i].first});
    sdb_mkey_op op{&kd, &vd, skeys.data(), static_cast<int32_t>(skeys.size()), SDB_OP_WRITE};
    return sdb_write_mkey_list(uri, &op, 1);
  }
  // MSDB: the primary key found under (tag, bytes), or "<none>".
  std::string by_skey(uint32_t tag, const std::string& bytes, const char* uri = kUri) {
    datum sd = D(bytes);
    sdb_skey s{&sd, tag};
    datum *k = nullptr, *v = nullptr;
    return sdb_read_skey(uri, &s, &k, &v) == 0 ? S(k) + "=" + S(v) : "<none>";
  }
  // MSDB: the record's stored secondary keys as "tag:bytes".
  std::vector<std::string> skeys_of(const std::string& k, const char* uri = kUri) {
    datum kd = D(k);
    const sdb_skey* sk = nullptr;
    uint32_t n = 0;
    if (sdb_get_skeys(uri, &kd, &sk, &n) != 0) return {"<error>"};
    std::vector<std::string> out;
    for (uint32_t i = 0; i < n; ++i) out.push_back(std::to_string(sk[i].tag) + ":" + S(sk[i].skey));
    return out;
  }
};

}  // namespace hadra::test
