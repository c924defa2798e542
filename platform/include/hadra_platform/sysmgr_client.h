/*
 * A service and its system-manager daemon: attaching, leaving, and the receive loop.
 *
 * A service process talks to the daemon of its supervisor (hadra-sysmgrd, docs/daemon.md)
 * over MTS: its answers and requests go to the daemon's SAP (SYSMGR_SAP), the daemon's
 * events (gsync snapshot, gsync ready, gsync failed, switchover request, active marker,
 * switchover done, configuration write) arrive on the service's own SAP. The receive-loop
 * helper below takes each message off that SAP and routes it:
 *
 *   sync message from the peer      -> hadra_ha_dispatch (held back while a gsync is running,
 *                                      dropped when the gsync's snapshot already holds it)
 *   event from the daemon           -> the HA library's sysmgrcb_* callback
 *   anything else                   -> back to the caller, who handles and drops it
 *
 * Which system manager serves a process is configuration: key SYSMGR = "daemon" (the default
 * with TRANSPORT = zmq) or "local" (the in-process stand-in for single-process tests; the
 * default with the loopback transport). Without a running daemon the calls that need it
 * answer PLAT_ERR_SYSMGR_NO_DAEMON at once.
 *
 * Order at start-up:
 *
 *   mts_bind(sap);
 *   sysmgr_client_attach(sap, "my-service");   // before hadra_ha_api_init
 *   ... hadra_ha_register_* ..., hadra_ha_api_init(&handle);
 *   for (;;) {                                 // or poll sysmgr_client_fd(sap) in an event loop
 *     mts_msg_ref other;
 *     int kind = sysmgr_client_next(sap, 1000, &other);
 *     if (kind == SYSMGR_RX_OTHER) { handle(&other); mts_drop(sap, &other); }
 *   }
 *   sysmgr_client_detach();                    // a controlled stop
 *
 * Threads: the helper and the library's callbacks it calls run on the caller's thread; call
 * it from the one thread that also runs the service's PSS and SDB operations.
 */
#ifndef HADRA_PLATFORM_SYSMGR_CLIENT_H
#define HADRA_PLATFORM_SYSMGR_CLIENT_H

#include "hadra_platform/mts.h"
#include "hadra_platform/plat_export.h"

PLAT_EXTERN_C_BEGIN

/*
 * Introduce this service (SAP sap, already bound; name up to 63 bytes, may be null) to the
 * daemon: the supervisor's role and this service's restart facts are read from the daemon's
 * state file, and a hello goes to the daemon. 0; PLAT_ERR_SYSMGR_NO_DAEMON when no daemon
 * runs on this supervisor (the service can still run; calls that need the daemon fail);
 * EINVAL for sap 0. With SYSMGR = local it only records sap and gives 0.
 */
HADRA_PLAT_API int sysmgr_client_attach(uint32_t sap, const char *name) PLAT_NOEXCEPT;

/* A controlled stop, the process's last MTS use: tell the daemon (so that the next start is
   not taken for a crash), then mts_flush(1000) so that what this process sent leaves. 0, or
   PLAT_ERR_SYSMGR_NO_DAEMON. */
HADRA_PLAT_API int sysmgr_client_detach(void) PLAT_NOEXCEPT;

/* Results of sysmgr_client_next. */
#define SYSMGR_RX_NONE 0  /* nothing arrived within the timeout */
#define SYSMGR_RX_SYNC 1  /* a sync message was applied, held for a gsync, already covered, or refused (logged) */
#define SYSMGR_RX_EVENT 2 /* a system-manager message was handled */
#define SYSMGR_RX_OTHER 3 /* *other names a message for the caller, who must mts_drop it */

/*
 * Take the next message of sap (waiting at most timeout_ms; 0: do not wait) and route it as
 * above. Returns one of SYSMGR_RX_*, or -1 with errno (EINVAL: null other or sap 0;
 * ENOSYS: the HA library is not loaded in this process; the errors of mts_recv except
 * EAGAIN and ETIMEDOUT, which give SYSMGR_RX_NONE).
 */
HADRA_PLAT_API int sysmgr_client_next(uint32_t sap, int timeout_ms, mts_msg_ref *other) PLAT_NOEXCEPT;

/* A descriptor to poll for sap (POLLIN: call sysmgr_client_next with timeout 0 until it
   gives SYSMGR_RX_NONE). The same as mts_fd_get(sap); -1 with errno. */
HADRA_PLAT_API int sysmgr_client_fd(uint32_t sap) PLAT_NOEXCEPT;

PLAT_EXTERN_C_END

#endif
