// Fixture of the PSS operation tests: database 3 ("routes") open on a real PSS file, the
// supervisor active with the loopback transport, log lines captured.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "hadra/hadra.h"
#include "hadra_mts_testing.h"
#include "hadra_platform/pss.h"
#include "support/fixture.h"

namespace hadra::test {

using Bytes = std::vector<uint8_t>;
using Records = std::map<std::string, std::string>;

class PssOpsTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    hadra_ha_handle.sap = 0x2200;
    hadra_ha_handle.opcode = 0x2201;
    plat_test_sysmgr_set_supstate(HADRA_SUP_ACTIVE);
    plat_test_log_set_facility("hadra", 7);
    plat_test_log_capture(1);
    e_ = hadra_ha_register_pss(3, "routes");
    ASSERT_NE(e_, nullptr);
    uint32_t err = 1;
    e_->pss_handle = pss2_open(e_->uri, PSS2_OPEN_FLAGS_CREATE, 0, 0, nullptr, &err);
    ASSERT_EQ(err, 0u);
    e_->state = HADRA_HA_ACTIVE;
  }

  // Replaces the file's records, straight through the platform.
  void fill(const Records &recs) {
    ASSERT_EQ(pss2_purge(e_->pss_handle, nullptr), 0u);
    for (const auto &[k, v] : recs) {
      datum kd = D(k), vd = D(v);
      ASSERT_EQ(pss2_store(e_->pss_handle, &kd, &vd), 0u);
    }
  }

  // Every record of the file, read through a handle of its own.
  Records stored() {
    Records out;
    uint32_t st = 0, h = pss2_open(e_->uri, PSS2_OPEN_FLAGS_OPEN, 0, 0, nullptr, &st);
    for (pss2_move2location(&h, 1, PSS2_LOC_FIRST, &st); st == 0; pss2_move2location(&h, 1, PSS2_LOC_NEXT, &st))
      out[S(pss2_getkey(h, &st))] = S(pss2_getvalue(h, &st));
    pss2_close(h);
    return out;
  }

  // Payload of the oldest sync message sent to the peer, taken off the outbox; empty if none.
  static Bytes take_payload() {
    auto f = take_sent(1);
    return f.empty() ? Bytes() : f[0].payload;
  }

  hadra_ha_pss_entry *e_ = nullptr;
};

}  // namespace hadra::test
