// Shared fixture of the system-manager procedure tests: a client with a PSS file, an SDB and
// an MSDB, initialised on either supervisor; records written and read through the platform's
// store calls; the answers the library gave to the system manager.
#pragma once

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "hadra/hadra.h"
#include "hadra_mts_testing.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/sdb.h"
#include "support/fixture.h"

namespace hadra::test {

class SysmgrcbTest : public PlatformTest {
 protected:
  static constexpr uint32_t kSap = 0x4400;
  static constexpr uint32_t kUuid = 0x1a2;
  static constexpr uint32_t kCreDelOpcode = 0x4402;

  hadra_ha_handle_t record() const {
    hadra_ha_handle_t r{};
    r.uuid = kUuid;
    r.sap = kSap;
    r.opcode = 0x4401;
    std::snprintf(r.name, sizeof r.name, "svc");
    return r;
  }

  // Entries 1 PSS "routes", 2 SDB "peers", 3 MSDB "nbrs".
  void register_databases() {
    pss_ = hadra_ha_register_pss(1, "routes");
    sdb_ = hadra_ha_register_sdb(2, "peers", kCreDelOpcode, 0x4403);
    msdb_ = hadra_ha_register_msdb(3, "nbrs", kCreDelOpcode, 0x4403);
    ASSERT_TRUE(pss_ != nullptr && sdb_ != nullptr && msdb_ != nullptr);
  }

  // Initialises the client on supervisor state sup (1 active, 2 standby).
  void init(int sup, const hadra_ha_handle_t& r) {
    plat_test_sysmgr_set_supstate(sup);
    plat_test_sysmgr_set_uuid(kUuid);
    ASSERT_EQ(hadra_ha_api_init(&r), 1);
  }
  void init(int sup) { init(sup, record()); }

  // The same process starts over as a new instance of the client; the root stays.
  void restart_process() {
    hadra_internal_reset();
    plat_test_reset();
    plat_test_set_root(root().c_str());
  }

  static void put(const hadra_ha_pss_entry* e, const std::string& k, const std::string& v) {
    datum kd = D(k), vd = D(v);
    ASSERT_EQ(e->db_type == HADRA_DB_PSS ? pss2_store(e->pss_handle, &kd, &vd) : sdb_write(e->uri, &kd, &vd), 0u);
  }
  // An MSDB record with one secondary key of tag 1.
  static void put_mkey(const hadra_ha_pss_entry* e, const std::string& k, const std::string& v, const std::string& s) {
    datum kd = D(k), vd = D(v), sd = D(s);
    sdb_skey sk{&sd, 1};
    sdb_mkey_op op{&kd, &vd, &sk, 1, SDB_OP_WRITE};
    ASSERT_EQ(sdb_write_mkey_list(e->uri, &op, 1), 0u);
  }
  // The value at k (of a PSS handle, or of an SDB), "<none>" when there is no record.
  static std::string get(const hadra_ha_pss_entry* e, const std::string& k, uint32_t handle = 0) {
    datum kd = D(k);
    uint32_t rc = 1;
    datum* v = nullptr;
    if (e == nullptr || e->db_type == HADRA_DB_PSS)
      v = pss2_fetch(e == nullptr ? handle : e->pss_handle, &kd, &rc);
    else
      v = sdb_read(e->uri, &kd, &rc);
    return rc == 0 && v != nullptr ? S(v) : "<none>";
  }

  static std::vector<plat_test_sysmgr_answer> answers() {
    std::vector<plat_test_sysmgr_answer> out(plat_test_sysmgr_answer_count());
    for (size_t i = 0; i < out.size(); ++i) plat_test_sysmgr_answer_get(i, &out[i]);
    return out;
  }

  static sysmgr_req_ctx event(uint32_t status = 0) {
    sysmgr_req_ctx c;
    plat_test_sysmgr_ctx_init(&c, status);
    return c;
  }

  void expect_states(uint32_t state) const {
    for (auto* e : {pss_, sdb_, msdb_}) EXPECT_EQ(e->state, state) << e->name;
  }

  hadra_ha_pss_entry* pss_ = nullptr;
  hadra_ha_pss_entry* sdb_ = nullptr;
  hadra_ha_pss_entry* msdb_ = nullptr;
};

}  // namespace hadra::test
