// Service identity: uuid/name lookups over the whole table, pib names.
#include <gtest/gtest.h>

#include <cctype>
#include <set>
#include <string>

#include "hadra/ident.h"
#include "ident/services.h"

namespace {

uint32_t uuid(const char *name) { return hadra_get_uuid_from_name(name); }

TEST(IdentTest, EveryRowRoundTripsInAnyCaseAndNothingElseIsKnown) {
  std::set<uint32_t> rows;
  for (const auto &s : hadra::ident::kServices) {
    EXPECT_STREQ(hadra_get_name_from_uuid(s.uuid), s.name);
    std::string upper(s.name);
    for (char &c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(uuid(upper.c_str()), s.uuid) << upper;
    rows.insert(s.uuid);
  }
  for (uint32_t u = 0; u <= 1300; ++u) {
    if (rows.count(u) != 0) continue;
    ASSERT_EQ(uuid(hadra_get_name_from_uuid(u)), 0u) << u;  // "unknown" is no row's name
  }
  EXPECT_STREQ(hadra_get_name_from_uuid(1252), "unknown");
  EXPECT_EQ(uuid(""), 0u);
  EXPECT_EQ(uuid("ospf "), 0u);
}

TEST(IdentTest, PibEnumerationAndBack) {
  for (const char *ip : {"ip", "ipv6"}) {
    uint32_t counter = 0;
    for (const char *want : {"static", "direct", "connected"})
      EXPECT_STREQ(hadra_get_pib_name_from_uuid(uuid(ip), &counter), want);
    EXPECT_EQ(hadra_get_pib_name_from_uuid(uuid(ip), &counter), nullptr);
    EXPECT_EQ(counter, 4u);
  }
  const std::pair<const char *, const char *> singles[] = {
      {"isis", "isis-p1"}, {"ospf", "ospf-p1"}, {"ospfv3", "ospfv3-p1"}, {"bgp", "bgp-65510"}};
  for (const auto &[svc, pib] : singles) {
    uint32_t counter = 0;
    EXPECT_STREQ(hadra_get_pib_name_from_uuid(uuid(svc), &counter), pib);
    EXPECT_EQ(hadra_get_pib_name_from_uuid(uuid(svc), &counter), nullptr);
    EXPECT_EQ(counter, 2u);
    EXPECT_EQ(hadra_get_uuid_from_pib_name(1, pib), uuid(svc)) << pib;
  }
  uint32_t counter = 0;
  EXPECT_EQ(hadra_get_pib_name_from_uuid(uuid("rip"), &counter), nullptr);
  EXPECT_EQ(counter, 1u);
  EXPECT_EQ(hadra_get_pib_name_from_uuid(uuid("ip"), nullptr), nullptr);
}

TEST(IdentTest, PibNameToServiceTriesLongerNamesFirst) {
  const std::pair<const char *, const char *> cases[] = {
      {"pim6-vrf", "pim6"}, {"pim-vrf", "pim"}, {"bgp-over-isis", "isis"}, {"amt-relay", "amt"}};
  for (const auto &[pib, svc] : cases) EXPECT_EQ(hadra_get_uuid_from_pib_name(1, pib), uuid(svc)) << pib;
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "connected"), uuid("ip"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(2, "connected"), uuid("ipv6"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "unknown-proto"), 0u);
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, nullptr), 0u);
}

}  // namespace
