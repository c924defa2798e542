// Shared fixture of the SDB operation tests: an active copy and a standby copy of an SDB and
// of an MSDB, each a real LMDB store under the test's platform root, and the messages the
// library sent to the peer, read back from the loopback outbox.
#pragma once

#include <string>
#include <vector>

#include "hadra/hadra.h"
#include "hadra_platform/sdb.h"
#include "support/fixture.h"

namespace hadra::test {

using Bytes = std::vector<uint8_t>;

inline Bytes bytes_of(const std::string& s) { return Bytes(s.begin(), s.end()); }

// One message sent to the peer: its MTS opcode, descriptor flags and payload.
using SentMsg = SentFrame;

class SdbOpsTest : public PlatformTest {
 protected:
  static constexpr uint32_t kSap = 0x2222;
  static constexpr uint32_t kSyncOpcode = 0x5151;
  static constexpr uint32_t kUpdateOpcode = 0x6161;

  void SetUp() override {
    PlatformTest::SetUp();
    hadra_ha_handle.sap = kSap;
    hadra_ha_handle.opcode = kSyncOpcode;
    plat_test_sysmgr_set_supstate(1);
    sdb_ = make(2, "routes", false);
    standby_ = make(3, "routes_copy", false);
    msdb_ = make(4, "neighbours", true);
    standby_msdb_ = make(5, "neighbours_copy", true);
  }

  hadra_ha_pss_entry* make(uint8_t index, const char* name, bool msdb) {
    hadra_ha_pss_entry* e = msdb ? hadra_ha_register_msdb(index, name, 0x7070, kUpdateOpcode)
                                 : hadra_ha_register_sdb(index, name, 0x7070, kUpdateOpcode);
    EXPECT_NE(e, nullptr);
    if (e == nullptr) return nullptr;
    EXPECT_EQ(sdb_create(e->uri, msdb ? SDB_CREATE_MSDB : SDB_CREATE_SDB, 1, 0), 0u);
    EXPECT_EQ(sdb_open(e->uri, SDB_OPEN_RW, 1, 0, 0), 0u);
    return e;
  }

  // Every message sent to the peer so far, oldest first; the outbox is emptied.
  static std::vector<SentMsg> sent() { return take_sent(); }

  // Payloads of the sync messages (the client's sync opcode) among them.
  static std::vector<Bytes> sent_sync() {
    std::vector<Bytes> out;
    for (auto& m : sent())
      if (m.opcode == kSyncOpcode) out.push_back(std::move(m.payload));
    return out;
  }

  // The stored value at key, or "<missing>".
  static std::string value(const hadra_ha_pss_entry* e, const std::string& key) {
    datum k = D(key);
    uint32_t rc = 0;
    datum* d = sdb_read(e->uri, &k, &rc);
    return rc != 0 || d == nullptr ? "<missing>" : S(d);
  }

  // Every record as "key=value" in key order.
  static std::vector<std::string> records(const hadra_ha_pss_entry* e) {
    std::vector<std::string> out;
    datum *k = nullptr, *d = nullptr;
    if (sdb_iterator_init(e->uri, SDB_ITER_FIRST) != 0 || sdb_getkey(e->uri, &k, &d) != 0) return out;
    do
      out.push_back(S(k) + "=" + S(d));
    while (sdb_getnext(e->uri, &k, &d) == 0);
    return out;
  }

  // Level-2 log lines written since capture began.
  static size_t level2_lines() {
    size_t n = 0;
    for (const LogLine& l : log_lines()) n += l.level == 2 ? 1 : 0;
    return n;
  }

  hadra_ha_pss_entry* sdb_ = nullptr;
  hadra_ha_pss_entry* standby_ = nullptr;
  hadra_ha_pss_entry* msdb_ = nullptr;
  hadra_ha_pss_entry* standby_msdb_ = nullptr;
};

}  // namespace hadra::test
