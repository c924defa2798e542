// A service built out of tree against an installed hadra, in C++: the same checks as
// consumer.c through the C interface, with the C++ standard library alongside.
#include <hadra/hadra.h>
#include <hadra_platform/config.h>

#include <cstdio>
#include <string>
#include <vector>

int main() {
  std::vector<hadra_ha_pss_entry*> entries{hadra_ha_register_pss(1, "routes"),
                                           hadra_ha_register_msdb(3, "neighbors", 0x5003, 0x5004)};
  for (auto* e : entries) {
    if (e == nullptr) {
      std::fprintf(stderr, "consumer (C++): registration failed\n");
      return 1;
    }
    hadra_ha_set_db_active(e);
  }
  std::string root = plat_root() ? plat_root() : "";
  if (root.empty()) {
    std::fprintf(stderr, "consumer (C++): the platform has no root\n");
    return 1;
  }
  for (auto* e : entries)
    std::printf("consumer (C++): %s is %s%s\n", e->name, hadra_ha_state_str(e), e->is_msdb ? " (msdb)" : "");
  std::printf("consumer (C++): platform root %s\n", root.c_str());
  return 0;
}
