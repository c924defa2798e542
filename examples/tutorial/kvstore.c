/*
 * kvstore: a small key-value service whose records survive a switchover.
 *
 * It keeps two databases, a PSS file "routes" and an SDB "peers", and reads commands on
 * standard input, one a line:
 *
 *   put routes|peers KEY VALUE    store VALUE (the rest of the line) under KEY
 *   get routes|peers KEY          print the record of KEY
 *   del routes|peers KEY          delete the record of KEY
 *   list                          print every record of both databases
 *   state                         print the supervisor's role and the databases' HA states
 *   quit                          stop (so does the end of the input)
 *
 * Each command is answered by one line ("ok", "error: ...", a record; list: one line a
 * record, then a summary). A "state:" line also comes by itself whenever the role or an HA
 * state changes.
 *
 * Run it next to the hadra-sysmgrd of its supervisor, with HADRA_ROOT naming that
 * supervisor's root and HADRA_UUID the service's identity (the same on both supervisors).
 */
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <hadra/hadra.h>
#include <hadra_platform/config.h>
#include <hadra_platform/sysmgr.h>
#include <hadra_platform/sysmgr_client.h>

/* Numbers the service owns; both supervisors must use the same ones. A sync message names
   its database by registry index and goes to the same SAP on the peer. */
#define KV_SAP 3601u              /* the service's MTS endpoint */
#define KV_OPC_SYNC 6501u         /* opcode of its sync messages */
#define KV_OPC_PEERS_CREDEL 6511u /* the SDB's create/delete notifications */
#define KV_OPC_PEERS_UPDATE 6512u /* the SDB's update notifications */
#define KV_ROUTES 1               /* registry index of the PSS file */
#define KV_PEERS 2                /* registry index of the SDB */

static hadra_ha_pss_entry *routes;
static hadra_ha_pss_entry *peers;

/* ---- Records ---------------------------------------------------------------------------- */

/* Keys are stored with their terminating NUL: the iterators hand a key over without its
   length. Values are stored as they are; their length comes with them. */
static uint32_t key_len(const char *key) { return (uint32_t)strlen(key) + 1; }

static int db_put(hadra_ha_pss_entry *db, const char *key, const char *value) {
  if (db->db_type == HADRA_DB_PSS) return hadra_pss_update(db, key, key_len(key), value, (uint32_t)strlen(value));
  return hadra_sdb_update(db, key, key_len(key), value, (uint32_t)strlen(value), 1);
}

/* 1 and the stored value (not NUL-terminated; it belongs to the store) when key is there. */
static int db_get(hadra_ha_pss_entry *db, const char *key, void **value, uint32_t *len) {
  if (db->db_type == HADRA_DB_PSS) return hadra_pss_fetch(db, key, key_len(key), value, len);
  return hadra_sdb_read(db, key, key_len(key), value, len, NULL);
}

static int db_del(hadra_ha_pss_entry *db, const char *key) {
  if (db->db_type == HADRA_DB_PSS) return hadra_pss_delete(db, key, key_len(key));
  return hadra_sdb_delete(db, key, key_len(key));
}

struct listing {
  const char *db;
  unsigned count;
};

static int print_record(const void *key, const void *value, uint32_t len, void *arg) {
  struct listing *l = arg;
  printf("%s %s = %.*s\n", l->db, (const char *)key, (int)len, (const char *)value);
  l->count++;
  return 1;
}

/* Prints every record of db; the number printed. */
static unsigned db_list(hadra_ha_pss_entry *db) {
  struct listing l = {db->name, 0};
  if (db->db_type == HADRA_DB_PSS) {
    const hadra_pss_type_op_fn ops[1] = {print_record}; /* every key has type 0 */
    (void)hadra_pss_iterator(db, ops, NULL, NULL, &l, NULL);
  } else {
    const hadra_sdb_type_op_fn ops[1] = {print_record};
    (void)hadra_sdb_iterator(db, ops, NULL, NULL, &l, NULL);
  }
  return l.count;
}

/* ---- Switchover ------------------------------------------------------------------------- */

/* This supervisor becomes active. The copies are complete (gsync and the sync messages
   filled them), so there is nothing to rebuild: take the daemon's two markers off the
   queue, make the databases active and answer. */
static void on_switchover(void) {
  hadra_ha_drop_active_msgs(KV_SAP);
  hadra_ha_set_db_active(routes);
  hadra_ha_set_db_active(peers);
  if (hadra_ha_recovery_done(0) != 0) fprintf(stderr, "kvstore: answering the switchover: %s\n", strerror(errno));
}

/* Prints the state line when it differs from the last one printed, or always with force. */
static void print_state(int force) {
  static char last[128];
  char now[128];
  const int sup = sysmgr_supstate_get();
  snprintf(now, sizeof now, "state: supervisor %s, routes %s, peers %s",
           sup == HADRA_SUP_ACTIVE ? "active" : sup == HADRA_SUP_STANDBY ? "standby" : "none",
           hadra_ha_state_str(routes), hadra_ha_state_str(peers));
  if (force || strcmp(now, last) != 0) printf("%s\n", now);
  snprintf(last, sizeof last, "%s", now);
}

/* ---- Commands --------------------------------------------------------------------------- */

/* The next space-separated word of *s, NUL-terminated in place; "" at the end. */
static char *word(char **s) {
  char *w = *s + strspn(*s, " \t");
  char *end = w + strcspn(w, " \t");
  *s = *end != '\0' ? end + 1 : end;
  *end = '\0';
  return w;
}

/* Runs one command line; 0 when the service is to stop. */
static int run_command(char *line) {
  line[strcspn(line, "\r\n")] = '\0';
  char *rest = line;
  const char *cmd = word(&rest);
  if (strcmp(cmd, "quit") == 0) return 0;
  if (strcmp(cmd, "state") == 0) {
    print_state(1);
    return 1;
  }
  if (strcmp(cmd, "list") == 0) {
    const unsigned r = db_list(routes), p = db_list(peers);
    printf("listed: %u routes, %u peers\n", r, p);
    return 1;
  }
  const char *name = word(&rest);
  hadra_ha_pss_entry *db = strcmp(name, "routes") == 0 ? routes : strcmp(name, "peers") == 0 ? peers : NULL;
  const char *key = word(&rest);
  const char *value = rest + strspn(rest, " \t");
  int put = strcmp(cmd, "put") == 0, get = strcmp(cmd, "get") == 0, del = strcmp(cmd, "del") == 0;
  if (!(put || get || del) || db == NULL || key[0] == '\0' || (put && value[0] == '\0')) {
    printf("error: usage: put|get|del routes|peers KEY [VALUE], list, state, quit\n");
    return 1;
  }
  void *stored = NULL;
  uint32_t len = 0;
  const int found = db_get(db, key, &stored, &len);
  if (get) {
    if (found) printf("%s %s = %.*s\n", name, key, (int)len, (const char *)stored);
    else printf("error: %s has no %s\n", name, key);
  } else if (db->state != HADRA_HA_ACTIVE) {
    printf("error: %s is %s here; write on the active supervisor\n", name, hadra_ha_state_str(db));
  } else if (del && !found) {
    printf("error: %s has no %s\n", name, key);
  } else if (put ? db_put(db, key, value) : db_del(db, key)) {
    printf("ok\n");
  } else {
    printf("error: %s of %s in %s failed (see the platform log)\n", cmd, key, name);
  }
  return 1;
}

/* ---- The receive loop ------------------------------------------------------------------- */

/* Handles everything the system manager and the peer sent: sync messages go to the library,
   the daemon's events to its callbacks. 0, or -1 when receiving failed. */
static int serve_sysmgr(void) {
  for (;;) {
    mts_msg_ref other;
    const int kind = sysmgr_client_next(KV_SAP, 0, &other);
    if (kind == SYSMGR_RX_NONE) return 0;
    if (kind < 0) {
      fprintf(stderr, "kvstore: receiving on SAP %u: %s\n", KV_SAP, strerror(errno));
      return -1;
    }
    /* The rest is the service's own mail: here only the peer's SDB notifications, unused. */
    if (kind == SYSMGR_RX_OTHER) (void)mts_drop(KV_SAP, &other);
  }
}

int main(void) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  setvbuf(stdin, NULL, _IONBF, 0); /* so that poll() sees every byte not yet read */

  const uint32_t uuid = sysmgr_uuid_get_before_handshake();
  if (uuid == 0) {
    fprintf(stderr, "kvstore: no service uuid: set HADRA_UUID (the same on both supervisors)\n");
    return 2;
  }
  if (mts_bind(KV_SAP) != 0) {
    fprintf(stderr, "kvstore: cannot bind SAP %u: %s\n", KV_SAP, strerror(errno));
    return 1;
  }
  if (sysmgr_client_attach(KV_SAP, "kvstore") != 0) {
    fprintf(stderr, "kvstore: no hadra-sysmgrd serves the root %s\n", plat_root());
    return 1;
  }

  routes = hadra_ha_register_pss(KV_ROUTES, "routes");
  peers = hadra_ha_register_sdb(KV_PEERS, "peers", KV_OPC_PEERS_CREDEL, KV_OPC_PEERS_UPDATE);
  hadra_ha_handle_t handle;
  memset(&handle, 0, sizeof handle);
  handle.uuid = uuid;
  handle.sap = KV_SAP;
  handle.opcode = KV_OPC_SYNC;
  handle.switchover_cb = on_switchover;
  snprintf(handle.name, sizeof handle.name, "kvstore");
  /* Active: the databases start (empty on a first start). Standby: they are destroyed and
     a gsync is asked for, which the receive loop completes. */
  if (routes == NULL || peers == NULL || hadra_ha_api_init(&handle) != 1) {
    fprintf(stderr, "kvstore: the databases did not start (see the platform log under %s)\n", plat_root());
    return 1;
  }
  print_state(1);

  struct pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {sysmgr_client_fd(KV_SAP), POLLIN, 0}};
  int status = 0;
  for (int running = 1; running;) {
    if (poll(fds, 2, 1000) < 0 && errno != EINTR) {
      perror("kvstore: poll");
      status = 1;
      break;
    }
    /* Served on every turn, not only when the descriptor says so: after gsync ready the loop
       also hands over the sync messages it held back, which the descriptor does not announce. */
    if (serve_sysmgr() != 0) {
      status = 1;
      break;
    }
    print_state(0);
    if (fds[0].revents != 0) {
      char line[4096];
      running = fgets(line, sizeof line, stdin) != NULL && run_command(line);
      print_state(0);
    }
  }
  (void)sysmgr_client_detach(); /* a controlled stop: the next start is not a crash */
  return status;
}
