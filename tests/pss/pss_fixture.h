// Fixture of the PSS operation tests: database 3 ("routes") registered and open on a real
// PSS file, the supervisor active with the loopback transport, reports and debug lines
// captured. Helpers read stored records and sent sync payloads back.
#pragma once

#include <cstring>
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

inline Bytes bytes(const std::string &s) { return Bytes(s.begin(), s.end()); }

class PssOpsTest : public PlatformTest {
 protected:
  static constexpr uint32_t kSap = 0x2200;
  static constexpr uint32_t kSyncOpcode = 0x2201;

  void SetUp() override {
    PlatformTest::SetUp();
    hadra_ha_handle.sap = kSap;
    hadra_ha_handle.opcode = kSyncOpcode;
    plat_test_sysmgr_set_supstate(HADRA_SUP_ACTIVE);
    plat_test_log_set_facility("hadra", 7);
    plat_test_log_capture(1);
    e_ = hadra_ha_register_pss(3, "routes");
    ASSERT_NE(e_, nullptr);
    uint32_t err = 1;
    e_->pss_handle = pss2_open(e_->uri, PSS2_OPEN_FLAGS_CREATE, 0, 0, nullptr, &err);
    ASSERT_EQ(err, 0u);
    ASSERT_NE(e_->pss_handle, 0u);
    e_->state = HADRA_HA_ACTIVE;
  }

  // Stores a record straight through the platform (no library, no sync).
  void put(const std::string &k, const std::string &v) {
    datum kd{const_cast<char *>(k.data()), static_cast<uint32_t>(k.size())};
    datum vd{const_cast<char *>(v.data()), static_cast<uint32_t>(v.size())};
    ASSERT_EQ(pss2_store(e_->pss_handle, &kd, &vd), 0u);
  }

  // Every record of the file, read through a handle of its own.
  std::map<std::string, std::string> stored() {
    std::map<std::string, std::string> out;
    uint32_t err = 0;
    uint32_t h = pss2_open(e_->uri, PSS2_OPEN_FLAGS_OPEN, 0, 0, nullptr, &err);
    EXPECT_NE(h, 0u);
    uint32_t st = 0;
    for (pss2_move2location(&h, 1, PSS2_LOC_FIRST, &st); st == 0; pss2_move2location(&h, 1, PSS2_LOC_NEXT, &st)) {
      uint32_t s2 = 0;
      const datum *k = pss2_getkey(h, &s2);
      const datum *v = pss2_getvalue(h, &s2);
      if (k == nullptr || v == nullptr) break;
      out[std::string(static_cast<char *>(k->dptr), k->dsize)] =
          std::string(static_cast<char *>(v->dptr), v->dsize);
    }
    pss2_close(h);
    return out;
  }

  // Payload of the oldest sync message sent to the peer, taken off the outbox; empty if none.
  static Bytes take_payload() {
    std::vector<uint8_t> frame(MTS_TEST_WIRE_HDR_SIZE + 2 * 65536 + 64);
    long n = mts_test_peer_read(frame.data(), frame.size(), 1);
    if (n < MTS_TEST_WIRE_HDR_SIZE) return {};
    return Bytes(frame.begin() + MTS_TEST_WIRE_HDR_SIZE, frame.begin() + n);
  }

  // Whether a captured log line holds every one of the pieces.
  static bool logged(std::initializer_list<std::string> pieces) {
    char line[4096];
    int level = 0;
    for (size_t i = 0; i < plat_test_log_count(); ++i) {
      if (plat_test_log_get(i, &level, line, sizeof line) != 0) continue;
      bool all = true;
      for (const auto &p : pieces) all = all && std::strstr(line, p.c_str()) != nullptr;
      if (all) return true;
    }
    return false;
  }

  hadra_ha_pss_entry *e_ = nullptr;
};

}  // namespace hadra::test
