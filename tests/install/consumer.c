/*
 * A service built out of tree against an installed hadra, in C: registers databases, brings
 * them up, and calls the platform directly once. It fails loudly when either library, its
 * headers or the platform's configuration do not work as installed.
 */
#include <stdio.h>
#include <string.h>

#include <hadra/hadra.h>
#include <hadra_platform/config.h>

int main(void) {
  hadra_ha_pss_entry *routes = hadra_ha_register_pss(1, "routes");
  hadra_ha_pss_entry *peers = hadra_ha_register_sdb(2, "peers", 0x5001, 0x5002);
  if (routes == NULL || peers == NULL) {
    fprintf(stderr, "consumer (C): registration failed\n");
    return 1;
  }
  if (hadra_ha_register_pss(11, "out_of_range") != NULL) {
    fprintf(stderr, "consumer (C): index 11 was accepted\n");
    return 1;
  }
  hadra_ha_set_db_active(routes);
  const char *state = hadra_ha_state_str(routes);
  uint32_t uuid = hadra_get_uuid_from_name("bgp");
  const char *root = plat_root();
  if (root == NULL || strcmp(state, hadra_ha_state_str(&hadra_ha_pss[1])) != 0) {
    fprintf(stderr, "consumer (C): platform or registry not usable\n");
    return 1;
  }
  printf("consumer (C): %s is %s; bgp has uuid %u; platform root %s\n", routes->name, state, uuid, root);
  return 0;
}
