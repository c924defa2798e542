// Service identity: uuid <-> name over the service table, pib instance names of the routing
// services, and the names of start and stop types. No state and no platform calls.
#include <strings.h>

#include <algorithm>
#include <cstring>

#include "hadra/ident.h"
#include "ident/services.h"

namespace hadra::ident {

uint32_t uuid_from_name(const char *name) noexcept {
  if (name == nullptr) return 0;
  for (const Service &s : kServices)
    if (strcasecmp(name, s.name) == 0) return s.uuid;
  return 0;
}

namespace {

constexpr uint32_t kIp = uuid_of("ip");
constexpr uint32_t kIpv6 = uuid_of("ipv6");
constexpr uint32_t kIsis = uuid_of("isis");
constexpr uint32_t kOspf = uuid_of("ospf");
constexpr uint32_t kOspfv3 = uuid_of("ospfv3");
constexpr uint32_t kBgp = uuid_of("bgp");
static_assert(kIp != 0 && kIpv6 != 0 && kIsis != 0 && kOspf != 0 && kOspfv3 != 0 && kBgp != 0, "pib services are in the table");

// The IP services enumerate their route sources; the others have one instance each.
constexpr const char *kIpPibNames[] = {"static", "direct", "connected"};

struct SinglePib {
  uint32_t uuid;
  const char *name;
};
constexpr SinglePib kSinglePibs[] = {
    {kIsis, "isis-p1"}, {kOspf, "ospf-p1"}, {kOspfv3, "ospfv3-p1"}, {kBgp, "bgp-65510"}};

// Substrings of pib instance names, in the order they are tried. A name that contains
// another one ("ospfv3" holds "ospf", "pim6" holds "pim") comes first.
struct PibPattern {
  const char *needle;
  uint32_t uuid;
};
constexpr PibPattern kPibPatterns[] = {
    {"isis", kIsis},          {"ospfv3", kOspfv3},        {"ospf", kOspf},         {"rip", uuid_of("rip")},
    {"bgp", kBgp},            {"eigrp", uuid_of("eigrp")}, {"msdp", uuid_of("msdp")}, {"igmp", uuid_of("igmp")},
    {"pim6", uuid_of("pim6")}, {"pim", uuid_of("pim")},    {"amt", uuid_of("amt")},
};
static_assert(std::all_of(std::begin(kPibPatterns), std::end(kPibPatterns), [](const PibPattern &p) {
  return p.uuid != 0;
}), "every pib pattern names a service of the table");

// The route sources of the IP services, which belong to IPv4 or IPv6 by address family.
constexpr const char *kIpSourceNeedles[] = {"static", "direct", "connected"};
constexpr uint32_t kAfIpv4 = 1;

const Service *find_by_uuid(uint32_t uuid) noexcept {
  auto it = std::lower_bound(kServices.begin(), kServices.end(), uuid,
                             [](const Service &s, uint32_t u) { return s.uuid < u; });
  return it != kServices.end() && it->uuid == uuid ? &*it : nullptr;
}

const char *pib_name(uint32_t uuid, uint32_t i) noexcept {
  if (uuid == kIp || uuid == kIpv6) return i < std::size(kIpPibNames) ? kIpPibNames[i] : nullptr;
  if (i != 0) return nullptr;
  for (const SinglePib &p : kSinglePibs)
    if (p.uuid == uuid) return p.name;
  return nullptr;
}

}  // namespace
}  // namespace hadra::ident

using namespace hadra::ident;

extern "C" {

HADRA_API const char *hadra_get_name_from_uuid(uint32_t uuid) noexcept {
  const Service *s = find_by_uuid(uuid);
  return s != nullptr ? s->name : "unknown";
}

HADRA_API uint32_t hadra_get_uuid_from_name(const char *name) noexcept { return hadra::ident::uuid_from_name(name); }

HADRA_API const char *hadra_get_pib_name_from_uuid(uint32_t uuid, uint32_t *counter) noexcept {
  if (counter == nullptr) return nullptr;
  // The counter moves on every call, also past the end, so a caller's loop always ends.
  const uint32_t i = (*counter)++;
  return pib_name(uuid, i);
}

HADRA_API uint32_t hadra_get_uuid_from_pib_name(uint32_t af, const char *name) noexcept {
  if (name == nullptr) return 0;
  for (const PibPattern &p : kPibPatterns)
    if (std::strstr(name, p.needle) != nullptr) return p.uuid;
  for (const char *needle : kIpSourceNeedles)
    if (std::strstr(name, needle) != nullptr) return af == kAfIpv4 ? kIp : kIpv6;
  return 0;
}

HADRA_API const char *hadra_start_type_str(uint32_t type) noexcept {
  static constexpr const char *kNames[] = {"unknown", "crash", "controlled", "configuration", "standby", "switchover"};
  return type < std::size(kNames) ? kNames[type] : "invalid";
}

HADRA_API const char *hadra_stop_type_str(uint32_t type) noexcept {
  switch (type) {
    case HADRA_STOP_UNKNOWN:
      return "unknown";
    case HADRA_STOP_CONTROLLED:
      return "controlled";
    case HADRA_STOP_DECONFIGURATION:
      return "deconfiguration";
    default:
      return "invalid";
  }
}

}  // extern "C"
