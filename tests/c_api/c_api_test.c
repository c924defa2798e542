#define _XOPEN_SOURCE 700
/* A C11 client of the public interface: layouts as C sees them, and calls through the shared
   library. Exits non-zero on the first mismatch. */
#include <ftw.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "hadra/hadra.h"

#define CHECK(cond)                                                 \
  do {                                                              \
    if (!(cond)) {                                                  \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      return 1;                                                     \
    }                                                               \
  } while (0)

_Static_assert(sizeof(hadra_ha_pss_entry) == 368, "entry size seen from C");
_Static_assert(offsetof(hadra_ha_pss_entry, pss_handle) == 324, "entry offsets seen from C");
_Static_assert(sizeof(hadra_ha_handle_t) == 112, "handle size seen from C");
_Static_assert(offsetof(hadra_ha_handle_t, flags) == 104, "handle offsets seen from C");

static int remove_entry(const char *path, const struct stat *st, int flag, struct FTW *ftw) {
  (void)st;
  (void)flag;
  (void)ftw;
  return remove(path);
}

/* The checks, against a platform rooted in root. */
static int run(const char *root) {
  setenv("HADRA_ROOT", root, 1);
  setenv("HADRA_LOG", "none", 1);

  CHECK(hadra_ha_handle.initialized == 0);
  hadra_ha_pss_entry *e = hadra_ha_register_pss(10, "c_client_db");
  CHECK(e == &hadra_ha_pss[10]);
  CHECK(e->index == 10 && e->db_type == HADRA_DB_PSS);
  CHECK(strstr(e->uri, "c_client_db") != NULL);
  CHECK(hadra_ha_register_pss(0, "x") == NULL);
  CHECK(strcmp(hadra_ha_state_str(e), "disable") == 0);
  hadra_ha_set_db_active(e);
  CHECK(strcmp(hadra_ha_state_str(e), "active") == 0);
  CHECK(strcmp(hadra_ha_pss_state2str[HADRA_HA_RECOVER], "HADRA_HA_RECOVER") == 0);
  CHECK(hadra_get_uuid_from_name(hadra_get_name_from_uuid(hadra_get_uuid_from_name("ospf"))) ==
        hadra_get_uuid_from_name("OSPF"));
  hadra_ha_enable_debug();
  CHECK(hadra_debug_ha == 1);
  hadra_ha_disable_debug();
  return 0;
}

int main(void) {
  char root[] = "/tmp/hadra-c-api-XXXXXX";
  if (mkdtemp(root) == NULL) {
    perror("mkdtemp");
    return 1;
  }
  const int status = run(root);
  nftw(root, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
  if (status == 0) puts("c_api: ok");
  return status;
}
