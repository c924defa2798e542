// The pure part of `hadra history` without daemons: reading ring files (wrapped, caught
// mid-write, spoilt), and comparing two supervisors' records, where a wrong answer either
// hides a divergence or accuses a healthy pair.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "history_core.h"

namespace {

namespace hc = hadra::sysmgrd::history;
namespace hist = hadra::plat::hist;
namespace proto = hadra::plat::sysmgr::proto;

// A ring file image of cap records into which next records were written, record s holding
// HA number 100 + s.
std::vector<uint64_t> ring_image(uint32_t cap, uint64_t next) {
  std::vector<uint64_t> file(hist::ring_file_size(cap) / 8);
  auto* h = reinterpret_cast<hist::RingHdr*>(file.data());
  h->magic = hist::kRingMagic, h->version = hist::kRingVersion, h->rec_size = sizeof(hist::RingRec);
  h->pid = 77, h->cap = cap;
  h->next.store(next);
  std::snprintf(h->names[2], sizeof h->names[2], "routes");
  h->db[2].sent_bytes.store(1234);
  auto* recs = reinterpret_cast<hist::RingRec*>(reinterpret_cast<char*>(file.data()) + sizeof(hist::RingHdr));
  for (uint64_t s = 0; s < next; ++s) {
    hist::RingRec& r = recs[s % cap];
    r.kind = hist::kSent, r.ha_seqno = 100 + s, r.time_ns = 1000 + s, r.index = 2;
    r.guard.store(s + 1);
  }
  return file;
}

TEST(HistoryRing, ReadsTheNewestRecordsInOrderAndSkipsWhatIsNotWhole) {
  std::vector<uint64_t> f = ring_image(4, 7);  // wrapped: records 3..6 held
  hist::Ring r;
  std::string why;
  ASSERT_TRUE(hist::read_ring(f.data(), f.size() * 8, &r, &why)) << why;
  ASSERT_EQ(r.entries.size(), 4u);
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(r.entries[i].ha_seqno, 103 + i);
  EXPECT_EQ(r.db[2].name, "routes");
  EXPECT_EQ(r.db[2].sent_bytes, 1234u);

  // A record being rewritten (guard 0) and one whose guard says it belongs to another lap.
  auto* recs = reinterpret_cast<hist::RingRec*>(reinterpret_cast<char*>(f.data()) + sizeof(hist::RingHdr));
  recs[4 % 4].guard.store(0);
  recs[5 % 4].guard.store(2);
  ASSERT_TRUE(hist::read_ring(f.data(), f.size() * 8, &r, &why));
  ASSERT_EQ(r.entries.size(), 2u);
  EXPECT_EQ(r.entries[0].ha_seqno, 103u);
  EXPECT_EQ(r.entries[1].ha_seqno, 106u);

  // Not a ring, another version, a size the file does not hold: refused with the reason.
  EXPECT_FALSE(hist::read_ring(f.data(), sizeof(hist::RingHdr) - 1, &r, &why));
  EXPECT_FALSE(hist::read_ring(f.data(), f.size() * 8 - 1, &r, &why));
  EXPECT_NE(why.find("does not fit"), std::string::npos) << why;
  auto* h = reinterpret_cast<hist::RingHdr*>(f.data());
  h->cap = 0;
  EXPECT_FALSE(hist::read_ring(f.data(), f.size() * 8, &r, &why));
  h->cap = 4, h->version = hist::kRingVersion + 1;
  EXPECT_FALSE(hist::read_ring(f.data(), f.size() * 8, &r, &why));
  EXPECT_EQ(why, "not a history ring of this version");
}

proto::HistEntry msg(uint32_t kind, uint64_t ha, uint64_t digest, uint64_t t, uint32_t epoch = 9, uint8_t index = 1) {
  proto::HistEntry e;
  e.kind = kind, e.ha_seqno = ha, e.digest = digest, e.time_ns = t, e.sap = 3501, e.epoch = epoch, e.index = index;
  e.len = 40;
  return e;
}

// The active (slot 1) sent numbers from..to; the standby (slot 2) applied them, shifted in time.
void stream(hc::Side* active, hc::Side* standby, uint64_t from, uint64_t to, uint32_t epoch = 9) {
  for (uint64_t n = from; n <= to; ++n) {
    active->entries.push_back(msg(hist::kSent, n, n * 7, n * 10, epoch));
    standby->entries.push_back(msg(hist::kApplied, n, n * 7, n * 10 + 3, epoch));
  }
}

TEST(HistoryDivergence, AgreeingSidesAndWhatTheRingsNoLongerHoldAreNotAccused) {
  hc::Side a{1, {}}, s{2, {}};
  stream(&a, &s, 1, 50);
  // The standby's ring lost its oldest records, the active sent some the standby has not
  // seen yet, and numbers inside the stretch were in a gsync's snapshot, never applied.
  s.entries.erase(s.entries.begin(), s.entries.begin() + 10);
  a.entries.push_back(msg(hist::kSent, 51, 1, 510));
  s.entries.erase(std::remove_if(s.entries.begin(), s.entries.end(),
                                 [](const proto::HistEntry& e) { return e.ha_seqno == 20 || e.ha_seqno == 21; }),
                  s.entries.end());
  // A history record of either side is no sync message.
  a.entries.push_back(msg(hist::kEvent, 0, 0, 5));
  uint64_t compared = 0, not_applied = 0;
  EXPECT_FALSE(hc::first_divergence(a, s, &compared, &not_applied).has_value());
  EXPECT_EQ(compared, 38u);  // 11..50 less the two in the snapshot
  EXPECT_EQ(not_applied, 2u);
  // The same from the other side's point of view.
  EXPECT_FALSE(hc::first_divergence(s, a, &compared, &not_applied).has_value());
  EXPECT_EQ(compared, 38u);
}

TEST(HistoryDivergence, TheEarliestDisagreementIsNamedWhicheverSideSent) {
  hc::Side a{1, {}}, s{2, {}};
  stream(&a, &s, 1, 30);
  // After a switchover the standby sends on a new epoch and slot 1 applies.
  stream(&s, &a, 1, 30, 10);
  for (proto::HistEntry& e : a.entries)
    if (e.epoch == 10) e.time_ns += 1000;
  for (proto::HistEntry& e : s.entries)
    if (e.epoch == 10) e.time_ns += 1000;
  // Two applied payloads differ: number 25 of the first stream and 3 of the second, which is later
  // in time although lower in number.
  for (proto::HistEntry& e : s.entries)
    if (e.kind == hist::kApplied && e.ha_seqno == 25) e.digest ^= 1;
  for (proto::HistEntry& e : a.entries)
    if (e.kind == hist::kApplied && e.ha_seqno == 3) e.digest ^= 1;
  uint64_t compared = 0, not_applied = 0;
  auto d = hc::first_divergence(s, a, &compared, &not_applied);
  ASSERT_TRUE(d.has_value());
  EXPECT_EQ(d->what, "payload differs");
  EXPECT_EQ(d->ha_seqno, 25u);
  EXPECT_EQ(d->epoch, 9u);
  EXPECT_EQ(d->sender_slot, 1);
  EXPECT_EQ(d->applier_slot, 2);
  ASSERT_TRUE(d->sent && d->applied);
  EXPECT_EQ(d->sent->digest ^ 1, d->applied->digest);

  // Once the first is mended, the second stream's is named, slot 2 the sender.
  for (proto::HistEntry& e : s.entries)
    if (e.kind == hist::kApplied && e.ha_seqno == 25) e.digest ^= 1;
  d = hc::first_divergence(a, s, &compared, &not_applied);
  ASSERT_TRUE(d.has_value());
  EXPECT_EQ(d->ha_seqno, 3u);
  EXPECT_EQ(d->sender_slot, 2);
  const nlohmann::json j = hc::divergence_json(d, compared, not_applied);
  EXPECT_EQ(j["applied"]["slot"], 1);
  EXPECT_EQ(j["compared"], 30u + 3u) << "a stream is compared up to its first divergence";
}

TEST(HistoryDivergence, AMessageAppliedThatWasNeverSentOrAppliedTwiceDifferently) {
  hc::Side a{1, {}}, s{2, {}};
  stream(&a, &s, 1, 20);
  // The active gave number 12 back and never sent it; the standby applied something as 12.
  a.entries.erase(std::remove_if(a.entries.begin(), a.entries.end(),
                                 [](const proto::HistEntry& e) { return e.ha_seqno == 12; }),
                  a.entries.end());
  uint64_t compared = 0, not_applied = 0;
  auto d = hc::first_divergence(a, s, &compared, &not_applied);
  ASSERT_TRUE(d.has_value());
  EXPECT_EQ(d->what, "applied, never sent");
  EXPECT_EQ(d->ha_seqno, 12u);
  EXPECT_FALSE(d->sent.has_value());

  // A number applied twice: the same payload again is no divergence, another one is.
  hc::Side a2{1, {}}, s2{2, {}};
  stream(&a2, &s2, 1, 20);
  s2.entries.push_back(msg(hist::kApplied, 7, 7 * 7, 500));
  EXPECT_FALSE(hc::first_divergence(a2, s2, &compared, &not_applied).has_value());
  s2.entries.push_back(msg(hist::kApplied, 7, 99, 501));
  d = hc::first_divergence(a2, s2, &compared, &not_applied);
  ASSERT_TRUE(d.has_value());
  EXPECT_EQ(d->applied->digest, 99u);
}

TEST(HistoryMerge, BytesFromARingOrThePeerCannotBreakTheAnswer) {
  // A record's text and a service's name are whatever the writer put there: the answer must
  // still be a JSON text (dump throws on bytes that are not UTF-8).
  proto::HistEntry e = msg(hist::kEvent, 0, 0, 1);
  e.text = std::string("ok \xff\xfe\x01 end");
  e.service = std::string("svc\xc3");
  hc::Side a{1, {e}}, s{2, {}};
  std::string text;
  ASSERT_NO_THROW(text = hc::merged(a, s).dump());
  EXPECT_NE(text.find("ok \\\\xff\\\\xfe\\\\x01 end"), std::string::npos) << text;
  EXPECT_EQ(hc::printable("plain text"), "plain text");
}

TEST(HistoryMerge, BothSidesByTimeAndAnAnswerCutToFit) {
  hc::Side a{1, {msg(hist::kSent, 1, 1, 10), msg(hist::kSent, 2, 2, 30)}};
  hc::Side s{2, {msg(hist::kApplied, 1, 1, 10), msg(hist::kApplied, 2, 2, 20)}};
  const nlohmann::json m = hc::merged(a, s);
  ASSERT_EQ(m.size(), 4u);
  EXPECT_EQ(m[0]["slot"], 1);  // a tie in time: by slot
  EXPECT_EQ(m[1]["slot"], 2);
  EXPECT_EQ(m[2]["time_ns"], 20u);
  EXPECT_EQ(m[3]["time_ns"], 30u);

  proto::HistAns ans;
  for (uint64_t i = 0; i < 1000; ++i) ans.entries.push_back(msg(hist::kSent, i, i, i));
  const size_t full = encode(ans).size();
  hc::fit(&ans, full / 2);
  EXPECT_LE(encode(ans).size(), full / 2);
  EXPECT_GT(ans.entries.size(), 400u);
  EXPECT_EQ(ans.entries.back().ha_seqno, 999u) << "the newest records stay";
}

}  // namespace
