// The standby dispatcher, fed real received messages: each test puts a message in the
// client's queue through the loopback testing interface, takes it with mts_recv and hands it
// to hadra_ha_dispatch. Checked: the change reaches the store, the callback gets its
// arguments in their order, and whatever is refused touches nothing.
#include <string>
#include <vector>

#include "core/registry.h"
#include "hadra/hadra.h"
#include "hadra/sdb.h"
#include "hadra_mts_testing.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/sdb.h"
#include "support/fixture.h"
#include "wire/sync_msg.h"

namespace {

using Bytes = std::vector<uint8_t>;
using hadra::test::log_count;
using hadra::test::trace_calls;

constexpr uint32_t kSap = 0x2345;
constexpr uint32_t kOpc = 0x0777;

struct CbCall {
  void* data;
  void* key;
  uint32_t data_len;
  uint32_t opcode;
  Bytes data_bytes;  // copied: the payload is gone after the message is dropped
};
std::vector<CbCall> g_calls;

int record(void* data, void* key, uint32_t data_len, uint32_t opcode) {
  Bytes copy;
  if (data != nullptr) copy.assign(static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + data_len);
  g_calls.push_back({data, key, data_len, opcode, copy});
  return 0;
}

Bytes b(const std::string& s) { return Bytes(s.begin(), s.end()); }

Bytes msg(uint8_t index, uint32_t opcode, const Bytes& key = {}, const Bytes& data = {}) {
  hadra_sync_hdr h = hadra::wire::make_hdr(index, key.size(), data.size(), opcode);
  Bytes m(reinterpret_cast<uint8_t*>(&h), reinterpret_cast<uint8_t*>(&h) + sizeof h);
  m.insert(m.end(), key.begin(), key.end());
  m.insert(m.end(), data.begin(), data.end());
  return m;
}

void le(Bytes& out, uint32_t v, int n) {
  for (int i = 0; i < n; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void add(Bytes& out, const Bytes& more) { out.insert(out.end(), more.begin(), more.end()); }

// One record of an SDB or MSDB batch: op, key, and for a write the value (and, for an
// MSDB, the secondary keys as (tag, bytes)).
struct Rec {
  uint16_t op;
  Bytes key, value;
  std::vector<std::pair<uint16_t, Bytes>> skeys = {};
};
Bytes batch(const std::vector<Rec>& recs, bool msdb) {
  Bytes out;
  le(out, recs.size(), 4);
  for (const Rec& r : recs) {
    le(out, r.op, 2), le(out, r.key.size(), 2), add(out, r.key);
    if (r.op != 0) continue;
    le(out, r.value.size(), 4), add(out, r.value);
    if (!msdb) continue;
    le(out, r.skeys.size(), 2);
    for (const auto& [tag, bytes] : r.skeys) le(out, bytes.size(), 2), add(out, bytes), le(out, tag, 2);
  }
  return out;
}

class DispatchTest : public hadra::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    g_calls.clear();
    hadra_ha_handle.sap = kSap;
    hadra_ha_handle.opcode = kOpc;
    plat_test_sysmgr_set_supstate(2);
    plat_test_log_set_facility("hadra", 7);
    plat_test_log_set_rate_limit(1000, 1000000000ull);
    ASSERT_EQ(mts_bind(kSap), 0);
    pss_ = hadra_ha_register_pss_with_callback(1, "file", record);
    sdb_ = hadra_ha_register_sdb_with_callback(2, "table", 501, 502, record);
    msdb_ = hadra_ha_register_msdb(3, "multi", 503, 504);
    hadra_ha_pss_cb[3] = record;  // the MSDB's batches must still never call it
    for (hadra_ha_pss_entry* e : {pss_, sdb_, msdb_}) {
      ASSERT_NE(e, nullptr);
      ASSERT_EQ(hadra_ha_db_start(e), 1);
      e->state = HADRA_HA_STANDBY;
    }
    hadra::test::take_sent();  // the SDBs' create notifications
    plat_test_log_capture(1);
  }

  // Delivers payload as the peer's message under opcode with the sync event, receives it and
  // dispatches it; the trace covers the dispatch alone. base_ is where the payload lay.
  int deliver(const Bytes& payload, uint32_t opcode = kOpc, int event = MTS_SYNC_EVENT_UPDATE) {
    EXPECT_EQ(mts_test_deliver(kSap, kSap, 1, opcode, event, 0, 0, payload.empty() ? nullptr : payload.data(),
                               payload.size()),
              0);
    mts_msg_ref ref;
    EXPECT_EQ(mts_recv(kSap, &ref, nullptr), 0);
    base_ = static_cast<uint8_t*>(mts_payload_get(&ref));
    plat_trace_start();
    const int rc = hadra_ha_dispatch(&ref);
    plat_trace_stop();
    mts_drop(kSap, &ref);
    return rc;
  }

  Bytes pss_value(const Bytes& key) {
    datum k{const_cast<uint8_t*>(key.data()), static_cast<uint32_t>(key.size())};
    uint32_t st = 0;
    datum* v = pss2_fetch(pss_->pss_handle, &k, &st);
    return v != nullptr ? Bytes(static_cast<uint8_t*>(v->dptr), static_cast<uint8_t*>(v->dptr) + v->dsize) : b("none");
  }
  Bytes sdb_value(const hadra_ha_pss_entry* e, const Bytes& key) {
    datum k{const_cast<uint8_t*>(key.data()), static_cast<uint32_t>(key.size())};
    datum* v = sdb_read(e->uri, &k, nullptr);
    return v != nullptr ? Bytes(static_cast<uint8_t*>(v->dptr), static_cast<uint8_t*>(v->dptr) + v->dsize) : b("none");
  }
  // Whether the dispatch reached any store.
  static bool stores_touched() {
    for (const auto& c : hadra::test::trace())
      if (c.service == "pss" || c.service == "sdb") return true;
    return false;
  }

  hadra_ha_pss_entry *pss_ = nullptr, *sdb_ = nullptr, *msdb_ = nullptr;
  uint8_t* base_ = nullptr;
};

TEST_F(DispatchTest, PssRowsApplyAndCallBackWithDataBeforeKey) {
  const Bytes v = {1, 2, 3, 4, 5};
  EXPECT_EQ(deliver(msg(1, HADRA_SYNC_PSS_UPDATE, b("k1"), v)), 0);
  EXPECT_EQ(trace_calls("mts_"),
            (std::vector<std::string>{"mts_sync_event_get", "mts_opc_get", "mts_payload_get", "mts_payload_size"}));
  EXPECT_EQ(pss_value(b("k1")), v);
  ASSERT_EQ(g_calls.size(), 1u);
  EXPECT_EQ(g_calls[0].data, base_ + 14);
  EXPECT_EQ(g_calls[0].key, base_ + 12);
  EXPECT_EQ(g_calls[0].data_len, 5u);
  EXPECT_EQ(g_calls[0].opcode, 1u);
  EXPECT_EQ(g_calls[0].data_bytes, v);
  EXPECT_EQ(mts_test_peer_count(), 0u);  // the operation's own sync stays on the standby

  deliver(msg(1, HADRA_SYNC_PSS_UPDATE, b("k2"), v));
  deliver(msg(1, HADRA_SYNC_PSS_UPDATE, b("other"), v));
  g_calls.clear();
  EXPECT_EQ(deliver(msg(1, HADRA_SYNC_PSS_DELETE, b("k1"))), 0);
  EXPECT_EQ(pss_value(b("k1")), b("none"));
  EXPECT_EQ(deliver(msg(1, HADRA_SYNC_PSS_DELETE_RANGE, b("k"))), 0);
  EXPECT_EQ(pss_value(b("k2")), b("none"));
  EXPECT_EQ(pss_value(b("other")), v);
  ASSERT_EQ(g_calls.size(), 2u);
  for (const CbCall& c : g_calls) {
    EXPECT_EQ(c.data, nullptr);
    EXPECT_NE(c.key, nullptr);
    EXPECT_EQ(c.data_len, 0u);
  }
  EXPECT_EQ(g_calls[0].opcode, 2u);
  EXPECT_EQ(g_calls[1].opcode, 7u);

  EXPECT_EQ(deliver(msg(1, HADRA_SYNC_PSS_PURGE)), 0);
  EXPECT_EQ(pss_value(b("other")), b("none"));
  EXPECT_EQ(deliver(msg(1, HADRA_SYNC_PSS_DESTROY)), 0);
  EXPECT_EQ(pss_->pss_handle, 0u);
  EXPECT_EQ(pss_->state, static_cast<uint32_t>(HADRA_HA_DISABLE));
  EXPECT_EQ(hadra_pss_exist("run:/file", 0), 0);
  EXPECT_EQ(g_calls.size(), 2u);  // neither purge nor destroy calls back

  // With the file gone, the next update names an index without a database.
  EXPECT_EQ(deliver(msg(1, HADRA_SYNC_PSS_UPDATE, b("k1"), v)), 0);
  EXPECT_EQ(log_count({"HA_INVALID_INDEX", "PSS_UPDATE"}), 1u);
  EXPECT_FALSE(stores_touched());
}

TEST_F(DispatchTest, SdbRowsApplyAndOnlyTheSingleAndBatchWritesCallBack) {
  const Bytes v = b("value");
  EXPECT_EQ(deliver(msg(2, HADRA_SYNC_SDB_UPDATE, b("key"), v)), 0);
  EXPECT_EQ(sdb_value(sdb_, b("key")), v);
  ASSERT_EQ(g_calls.size(), 1u);
  EXPECT_EQ(g_calls[0].data, base_ + 15);
  EXPECT_EQ(g_calls[0].key, base_ + 12);
  EXPECT_EQ(g_calls[0].data_bytes, v);
  EXPECT_EQ(g_calls[0].opcode, 4u);

  EXPECT_EQ(deliver(msg(2, HADRA_SYNC_SDB_DELETE, b("key"))), 0);
  EXPECT_EQ(sdb_value(sdb_, b("key")), b("none"));
  ASSERT_EQ(g_calls.size(), 2u);
  EXPECT_EQ(g_calls[1].data, nullptr);
  EXPECT_EQ(g_calls[1].key, base_ + 12);
  EXPECT_EQ(g_calls[1].opcode, 5u);

  const Bytes sdb_batch = batch({{0, b("a"), b("1")}, {0, b("b"), b("22")}, {1, b("a"), {}}}, false);
  EXPECT_EQ(deliver(msg(2, HADRA_SYNC_SDB_BATCH_UPDATE, {}, sdb_batch)), 0);
  EXPECT_EQ(sdb_value(sdb_, b("a")), b("none"));
  EXPECT_EQ(sdb_value(sdb_, b("b")), b("22"));
  ASSERT_EQ(g_calls.size(), 3u);
  EXPECT_EQ(g_calls[2].data, base_ + 12);  // the batch itself, and no key
  EXPECT_EQ(g_calls[2].key, nullptr);
  EXPECT_EQ(g_calls[2].data_len, sdb_batch.size());
  EXPECT_EQ(g_calls[2].opcode, 8u);

  // Multi-key batch: applied with its secondary keys (a tag with bit 15 set included) and
  // no callback, although index 3 has one.
  const Bytes m = batch({{0, b("p1"), b("v1"), {{0x0001, b("s1")}, {0x8002, b("s2")}}}, {0, b("p2"), {}, {}}}, true);
  EXPECT_EQ(deliver(msg(3, HADRA_SYNC_MSDB_BATCH_UPDATE, {}, m)), 0);
  EXPECT_EQ(sdb_value(msdb_, b("p1")), b("v1"));
  EXPECT_EQ(sdb_value(msdb_, b("p2")), Bytes());
  datum k{const_cast<char*>("p1"), 2};
  const sdb_skey* skeys = nullptr;
  uint32_t n = 0;
  ASSERT_EQ(sdb_get_skeys(msdb_->uri, &k, &skeys, &n), 0u);
  ASSERT_EQ(n, 2u);
  EXPECT_EQ(skeys[1].tag & 0xffffu, 0x8002u);
  EXPECT_EQ(g_calls.size(), 3u);

  EXPECT_EQ(deliver(msg(2, HADRA_SYNC_SDB_DESTROY)), 0);
  EXPECT_EQ(sdb_->state, static_cast<uint32_t>(HADRA_HA_DISABLE));
  EXPECT_EQ(sdb_exists("run:/table"), 0);
  EXPECT_EQ(g_calls.size(), 3u);
}

TEST_F(DispatchTest, MessagesThatAreNotSyncUpdatesApplyNothing) {
  hadra_ha_enable_debug();
  // Another MTS opcode: not ours, no output of any kind.
  EXPECT_EQ(deliver(msg(1, HADRA_SYNC_PSS_UPDATE, b("k"), b("v")), kOpc + 1), -1);
  EXPECT_EQ(trace_calls(),
            (std::vector<std::string>{"mts_sync_event_get", "mts_opc_get", "mts_payload_get", "mts_payload_size"}));
  EXPECT_EQ(plat_test_log_count(), 0u);
  EXPECT_EQ(hadra_ha_dispatch(nullptr), -1);

  // Sync opcode, but not the sync-update event: only the receipt is logged.
  EXPECT_EQ(deliver(msg(1, HADRA_SYNC_PSS_UPDATE, b("k"), b("v")), kOpc, 0), 0);
  EXPECT_EQ(log_count({"Received MTS sync message"}), 1u);
  EXPECT_EQ(plat_test_log_count(), 1u);

  // No payload, or one too short for a header.
  EXPECT_EQ(deliver({}), 0);
  EXPECT_EQ(deliver(Bytes(11, 1)), 0);
  EXPECT_EQ(log_count({"Sync update message without payload"}), 2u);

  // Sync opcodes outside the table are ignored without a report.
  const size_t lines = plat_test_log_count();
  for (uint32_t op : {0u, 11u, 0xffffffffu}) EXPECT_EQ(deliver(msg(1, op, b("k"), b("v"))), 0);
  EXPECT_EQ(plat_test_log_count(), lines + 3);  // the three receipt lines
  EXPECT_EQ(pss_value(b("k")), b("none"));
  EXPECT_TRUE(g_calls.empty());
}

// Each message names something that is not there or reaches past its payload: refused with
// the invalid-index report (opcode text and index) before any store is touched.
TEST_F(DispatchTest, WhatCannotBeAppliedIsReportedAsAnInvalidIndex) {
  Bytes short_update = msg(1, HADRA_SYNC_PSS_UPDATE, b("k1"), b("value"));
  short_update.pop_back();  // the header promises one byte more than came
  Bytes short_batch = msg(2, HADRA_SYNC_SDB_BATCH_UPDATE, {}, batch({{0, b("a"), b("1")}}, false));
  short_batch[5] += 1;
  struct Case {
    Bytes payload;
    const char* text;
    int index;
  };
  const Case cases[] = {
      {msg(0, HADRA_SYNC_PSS_UPDATE, b("k"), b("v")), "PSS_UPDATE", 0},
      {msg(11, HADRA_SYNC_SDB_UPDATE, b("k"), b("v")), "SDB_UPDATE", 11},
      {msg(255, HADRA_SYNC_MSDB_BATCH_UPDATE, {}, batch({{1, b("k"), {}}}, true)), "MSDB_BATCH_UPDATE", 255},
      {msg(2, HADRA_SYNC_PSS_UPDATE, b("k"), b("v")), "PSS_UPDATE", 2},       // an SDB has no PSS file
      {msg(1, HADRA_SYNC_SDB_BATCH_UPDATE, {}, batch({}, false)), "SDB_UPDATE", 1},  // batch on a PSS file
      {msg(1, HADRA_SYNC_SDB_DESTROY), "SDB_DESTROY", 1},
      {msg(5, HADRA_SYNC_PSS_PURGE), "PSS_PURGE", 5},  // never registered
      {short_update, "PSS_UPDATE", 1},
      {short_batch, "SDB_UPDATE", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " " + std::to_string(c.index));
    const size_t before = plat_test_log_count();
    EXPECT_EQ(deliver(c.payload), 0);
    ASSERT_EQ(plat_test_log_count(), before + 1);
    const std::string line = hadra::test::last_log_line();
    EXPECT_NE(line.find("HA_INVALID_INDEX"), std::string::npos) << line;
    EXPECT_NE(line.find(c.text), std::string::npos) << line;
    EXPECT_NE(line.find(std::to_string(c.index)), std::string::npos) << line;
    EXPECT_FALSE(stores_touched());
  }
  EXPECT_TRUE(g_calls.empty());
  EXPECT_EQ(pss_->state, static_cast<uint32_t>(HADRA_HA_STANDBY));
}

TEST_F(DispatchTest, AFailedApplyLeavesTheCallbackUncalled) {
  EXPECT_EQ(deliver(msg(1, HADRA_SYNC_PSS_DELETE, b("missing"))), 0);
  plat_fault_arm("pss2_store", 0, 1, PLAT_FAULT_DEFAULT, 0);
  EXPECT_EQ(deliver(msg(1, HADRA_SYNC_PSS_UPDATE, b("k"), b("v"))), 0);
  EXPECT_EQ(deliver(msg(2, HADRA_SYNC_SDB_UPDATE, {}, b("v"))), 0);  // no key: refused by the update
  // A batch that announces two records but carries one is refused whole.
  Bytes bad = batch({{0, b("a"), b("1")}}, false);
  bad[0] = 2;
  EXPECT_EQ(deliver(msg(2, HADRA_SYNC_SDB_BATCH_UPDATE, {}, bad)), 0);
  EXPECT_EQ(sdb_value(sdb_, b("a")), b("none"));
  EXPECT_TRUE(g_calls.empty());
}

}  // namespace
