// The service table: the uuid and short name of every platform service this system knows.
//
// The rows are sorted by uuid so that a uuid is found by halving. The table's invariants
// (46 rows, uuids 260..1251 strictly ascending and so distinct, names of 2 to 15 lower-case
// letters and digits, distinct even without regard to case) are checked at compile time,
// so a row added or edited wrongly does not build.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace hadra::ident {

struct Service {
  uint32_t uuid;
  const char *name;
};

inline constexpr std::array<Service, 46> kServices = {{
    {260, "syslog"}, {263, "ntp"},    {268, "snmp"},   {271, "aaa"},    {273, "radius"}, {281, "ssh"},
    {293, "dns"},    {301, "dhcp"},   {315, "acl"},    {322, "qos"},    {338, "vlan"},   {341, "stp"},
    {355, "lacp"},   {362, "lldp"},   {377, "arp"},    {380, "nd"},     {391, "icmpv6"}, {402, "ip"},
    {403, "ipv6"},   {417, "rib"},    {418, "fib"},    {431, "pbr"},    {446, "nat"},    {459, "ipsec"},
    {503, "bfd"},    {512, "vrrp"},   {538, "ospf"},   {539, "ospfv3"}, {551, "isis"},   {566, "bgp"},
    {579, "rip"},    {587, "eigrp"},  {612, "igmp"},   {615, "pim"},    {616, "pim6"},   {623, "msdp"},
    {630, "amt"},    {702, "mpls"},   {709, "ldp"},    {713, "rsvp"},   {745, "l2vpn"},  {746, "l3vpn"},
    {781, "evpn"},   {790, "vxlan"},  {853, "ipfix"},  {1251, "ptp"},
}};

// uuid of the service named name, in any case, or 0 (as hadra_get_uuid_from_name).
uint32_t uuid_from_name(const char *name) noexcept;

constexpr uint32_t kMinUuid = 260;
constexpr uint32_t kMaxUuid = 1251;

// uuid of the row named name (exact, lower case), or 0. For compile-time use: the services
// that the pib lookups name are resolved through the table, so they cannot drift from it.
constexpr uint32_t uuid_of(std::string_view name) {
  for (const Service &s : kServices)
    if (name == s.name) return s.uuid;
  return 0;
}

namespace check {

constexpr bool valid_name_char(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

constexpr bool valid_name(std::string_view n) {
  if (n.size() < 2 || n.size() > 15) return false;
  for (char c : n)
    if (!valid_name_char(c)) return false;
  return true;
}

constexpr bool table_valid() {
  for (size_t i = 0; i < kServices.size(); ++i) {
    const Service &s = kServices[i];
    if (s.uuid < kMinUuid || s.uuid > kMaxUuid || !valid_name(s.name)) return false;
    if (i > 0 && kServices[i - 1].uuid >= s.uuid) return false;
  }
  return true;
}

// Names hold only lower-case letters and digits (checked above), so comparing them exactly
// is comparing them without regard to case.
constexpr bool names_distinct() {
  for (size_t i = 0; i < kServices.size(); ++i)
    for (size_t j = i + 1; j < kServices.size(); ++j)
      if (std::string_view(kServices[i].name) == kServices[j].name) return false;
  return true;
}

}  // namespace check

static_assert(kServices.size() == 46, "the service table has 46 rows");
static_assert(check::table_valid(), "service rows: uuids 260..1251 ascending, names 2..15 of [a-z0-9]");
static_assert(check::names_distinct(), "service names are distinct");

}  // namespace hadra::ident
