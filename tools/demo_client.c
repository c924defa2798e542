/*
 * Example client of libhadra_sysmgr.so, written in plain C as a service would be.
 *
 * It registers a PSS file, an SDB and an MSDB under fixed indexes, prints every registry
 * entry with its HA state, and shows the service-identity lookups. It also attaches to the
 * supervisor's system manager and turns the receive loop once, as every service does
 * (docs/receive-loop.md); with no daemon configured the in-process one answers. Run it with HADRA_ROOT set
 * to a scratch directory (scripts/run.sh does).
 */
#include <stdio.h>
#include <string.h>

#include "hadra/hadra.h"
#include "hadra_platform/sysmgr_client.h"

#define DEMO_SAP 0x5000u

static const char *kind(const hadra_ha_pss_entry *e) {
  if (e->db_type == HADRA_DB_PSS) return "pss";
  return e->is_msdb ? "msdb" : "sdb";
}

static void print_registry(void) {
  printf("%-3s %-12s %-5s %-11s %s\n", "idx", "name", "kind", "state", "uri");
  for (int i = 1; i <= HADRA_HA_MAX_DB; ++i) {
    const hadra_ha_pss_entry *e = &hadra_ha_pss[i];
    if (e->uri[0] == '\0') continue;
    printf("%-3u %-12s %-5s %-11s %s\n", e->index, e->name, kind(e), hadra_ha_state_str(e), e->uri);
  }
}

static void print_identity(void) {
  const char *names[] = {"ospf", "BGP", "isis", "nosuch"};
  for (size_t i = 0; i < sizeof names / sizeof names[0]; ++i) {
    uint32_t uuid = hadra_get_uuid_from_name(names[i]);
    printf("service %-7s -> uuid %4u -> name %s\n", names[i], uuid, hadra_get_name_from_uuid(uuid));
  }
  uint32_t counter = 0;
  uint32_t ip = hadra_get_uuid_from_name("ip");
  printf("pib instances of ip:");
  for (const char *pib; (pib = hadra_get_pib_name_from_uuid(ip, &counter)) != NULL;) printf(" %s", pib);
  printf("\n");
  printf("pib name bgp-65510 -> %s\n", hadra_get_name_from_uuid(hadra_get_uuid_from_pib_name(1, "bgp-65510")));
  for (uint32_t t = 0; t <= 6; ++t) printf("start type %u: %s\n", t, hadra_start_type_str(t));
}

int main(void) {
  hadra_ha_pss_entry *routes = hadra_ha_register_pss(1, "demo_routes");
  hadra_ha_pss_entry *peers = hadra_ha_register_sdb(2, "demo_peers", 0x5001, 0x5002);
  hadra_ha_pss_entry *nbrs = hadra_ha_register_msdb(3, "demo_neighbors", 0x5003, 0x5004);
  hadra_ha_pss_entry *bad = hadra_ha_register_pss(11, "out_of_range");
  if (routes == NULL || peers == NULL || nbrs == NULL) {
    fprintf(stderr, "demo: registration failed\n");
    return 1;
  }
  printf("index 11 refused: %s\n", bad == NULL ? "yes" : "no");
  hadra_ha_set_db_active(routes);
  hadra_ha_set_db_recovering(peers);
  print_registry();
  print_identity();

  if (mts_bind(DEMO_SAP) != 0) {
    perror("demo: mts_bind");
    return 1;
  }
  int attached = sysmgr_client_attach(DEMO_SAP, "demo");
  printf("system manager: %s\n", attached == 0 ? "attached" : "no daemon runs on this supervisor");
  mts_msg_ref other;
  int kind = sysmgr_client_next(DEMO_SAP, 0, &other);
  printf("receive loop: %s\n", kind == SYSMGR_RX_NONE ? "nothing queued" : kind < 0 ? "failed" : "a message handled");
  if (kind == SYSMGR_RX_OTHER) mts_drop(DEMO_SAP, &other);
  return 0;
}
