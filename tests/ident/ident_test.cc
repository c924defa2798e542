// Service identity: uuid/name lookups over the whole table, pib names, type names.
#include <gtest/gtest.h>

#include <cctype>
#include <set>
#include <string>

#include "hadra/ident.h"
#include "ident/services.h"

namespace {

using hadra::ident::kServices;

uint32_t uuid(const char *name) { return hadra_get_uuid_from_name(name); }

TEST(IdentTest, EveryRowRoundTripsInAnyCase) {
  std::set<std::string> names;
  for (const auto &s : kServices) {
    EXPECT_STREQ(hadra_get_name_from_uuid(s.uuid), s.name);
    EXPECT_EQ(hadra_get_uuid_from_name(s.name), s.uuid);
    std::string upper(s.name);
    for (char &c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(hadra_get_uuid_from_name(upper.c_str()), s.uuid) << upper;
    names.insert(s.name);
  }
  EXPECT_EQ(names.size(), 46u);
  for (const char *n : {"ip", "ipv6", "isis", "ospf", "ospfv3", "bgp", "rip", "eigrp", "msdp", "igmp", "pim", "pim6",
                        "amt"})
    EXPECT_NE(uuid(n), 0u) << n;
  EXPECT_EQ(uuid("Ospf"), uuid("ospf"));
}

TEST(IdentTest, UnknownValuesGiveUnknownOrZero) {
  // Every uuid that is not a row, across the whole range and just outside it.
  std::set<uint32_t> rows;
  for (const auto &s : kServices) rows.insert(s.uuid);
  for (uint32_t u = 0; u <= 1300; ++u) {
    if (rows.count(u) != 0) continue;
    ASSERT_STREQ(hadra_get_name_from_uuid(u), "unknown") << u;
    ASSERT_EQ(hadra_get_uuid_from_name(hadra_get_name_from_uuid(u)), 0u);
  }
  EXPECT_STREQ(hadra_get_name_from_uuid(0xffffffffu), "unknown");
  EXPECT_EQ(uuid(""), 0u);
  EXPECT_EQ(uuid("ospf "), 0u);
}

TEST(IdentTest, PibEnumeration) {
  for (const char *ip : {"ip", "ipv6"}) {
    uint32_t counter = 0;
    EXPECT_STREQ(hadra_get_pib_name_from_uuid(uuid(ip), &counter), "static");
    EXPECT_STREQ(hadra_get_pib_name_from_uuid(uuid(ip), &counter), "direct");
    EXPECT_STREQ(hadra_get_pib_name_from_uuid(uuid(ip), &counter), "connected");
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
    // Each instance name leads back to its service.
    EXPECT_EQ(hadra_get_uuid_from_pib_name(1, pib), uuid(svc)) << pib;
  }
  uint32_t counter = 0;
  EXPECT_EQ(hadra_get_pib_name_from_uuid(uuid("rip"), &counter), nullptr);
  EXPECT_EQ(counter, 1u);
  EXPECT_EQ(hadra_get_pib_name_from_uuid(uuid("ip"), nullptr), nullptr);
}

TEST(IdentTest, PibNameToServiceTriesLongerNamesFirst) {
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "connected"), uuid("ip"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(2, "connected"), uuid("ipv6"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "static"), uuid("ip"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "pim6-vrf"), uuid("pim6"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "pim-vrf"), uuid("pim"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "ospfv3-p1"), uuid("ospfv3"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "eigrp-1"), uuid("eigrp"));
  // "isis" wins over anything else in the name.
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "bgp-over-isis"), uuid("isis"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "msdp"), uuid("msdp"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "igmp"), uuid("igmp"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "amt-relay"), uuid("amt"));
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, "unknown-proto"), 0u);
  EXPECT_EQ(hadra_get_uuid_from_pib_name(1, nullptr), 0u);
}

TEST(IdentTest, StartAndStopTypeNames) {
  const char *start[] = {"unknown", "crash", "controlled", "configuration", "standby", "switchover"};
  for (uint32_t t = 0; t < 6; ++t) EXPECT_STREQ(hadra_start_type_str(t), start[t]);
  EXPECT_STREQ(hadra_start_type_str(6), "invalid");
  EXPECT_STREQ(hadra_stop_type_str(0), "unknown");
  EXPECT_STREQ(hadra_stop_type_str(1), "invalid");
  EXPECT_STREQ(hadra_stop_type_str(2), "controlled");
  EXPECT_STREQ(hadra_stop_type_str(3), "deconfiguration");
  EXPECT_STREQ(hadra_stop_type_str(4), "invalid");
}

}  // namespace
