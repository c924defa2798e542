/*
 * Testing interface of the platform: call trace, fault injection and state setters.
 *
 * For tests and tools only; a service never includes this header. These calls are exported by
 * libhadra_platform_testing.so (or linked from the platform's objects), never by the
 * installed libhadra_platform.so, whose trace and fault hooks stay unarmed. Every exported platform
 * call of every service goes through the same trace and the same injection:
 *
 *  - Trace: while on, each call appends one record (service, call, key arguments rendered as
 *    text, result). Records are in call order. The trace holds the last PLAT_TRACE_CAP calls;
 *    plat_trace_dropped() tells how many older ones were let go. Off, a call costs one load.
 *  - Faults: "make calls of F fail": the first `skip` calls of F pass, then the next `count`
 *    fail (count 0: every later one), each returning `result` with errno set to `err`. F may
 *    be "*" to match every call, for fault loops ("fail the Nth platform call"). With result
 *    PLAT_FAULT_DEFAULT each call fails with its own natural failure value (-1, null, an error
 *    code). Unarmed, injection costs one load.
 *  - State setters: everything a test needs to put the platform in a given state.
 *
 * The interface is thread-safe.
 */
#ifndef HADRA_PLATFORM_TESTING_H
#define HADRA_PLATFORM_TESTING_H

#include "hadra_platform/plat_export.h"

PLAT_EXTERN_C_BEGIN

#define PLAT_TRACE_CAP 16384

typedef struct plat_trace_rec {
  uint64_t seq;         /* call number since the trace was started */
  char service[16];     /* "sysmgr", "log", "pss", "sdb", "mts", "tsp", "str" */
  char call[48];        /* exported name of the call */
  char args[240];       /* key arguments, "name=value" separated by blanks; cut to fit */
  long long result;     /* the call's result (pointers: 0 for null, 1 otherwise) */
  int has_result;       /* 0 while the call is in progress or returns nothing */
  int faulted;          /* 1 when the result was injected */
} plat_trace_rec;

/* Clear the trace and start recording / stop recording (records are kept). */
HADRA_PLAT_API void plat_trace_start(void) PLAT_NOEXCEPT;
HADRA_PLAT_API void plat_trace_stop(void) PLAT_NOEXCEPT;
HADRA_PLAT_API void plat_trace_clear(void) PLAT_NOEXCEPT;
/* Number of records held, and a copy of record i (0 = oldest held); 0 on success, -1 if none. */
HADRA_PLAT_API size_t plat_trace_size(void) PLAT_NOEXCEPT;
HADRA_PLAT_API int plat_trace_get(size_t i, plat_trace_rec *out) PLAT_NOEXCEPT;
HADRA_PLAT_API uint64_t plat_trace_dropped(void) PLAT_NOEXCEPT;
/* Number of held records of call (by exported name). */
HADRA_PLAT_API size_t plat_trace_count(const char *call) PLAT_NOEXCEPT;

#define PLAT_FAULT_DEFAULT (-0x7fffffffffffffffLL - 1)
/* Arm a fault (see above); returns 0, or -1 when too many faults are armed. */
HADRA_PLAT_API int plat_fault_arm(const char *call, unsigned skip, unsigned count, long long result,
                                  int err) PLAT_NOEXCEPT;
/* Disarm every fault. */
HADRA_PLAT_API void plat_fault_clear(void) PLAT_NOEXCEPT;
/* How many injected failures have fired since the last plat_fault_clear() (any call). */
HADRA_PLAT_API unsigned plat_fault_fired(void) PLAT_NOEXCEPT;

/* Put every service back in its start state: trace off and empty, no faults, configuration
   re-read, state setters undone, clock real, open stores closed. The root stays. */
HADRA_PLAT_API void plat_test_reset(void) PLAT_NOEXCEPT;
/* Use dir as the supervisor root (created when missing). */
HADRA_PLAT_API void plat_test_set_root(const char *dir) PLAT_NOEXCEPT;
/* Freeze the platform clock at ns / move it on; plat_test_clock_real() lets it run again. */
HADRA_PLAT_API void plat_test_clock_set(uint64_t ns) PLAT_NOEXCEPT;
HADRA_PLAT_API void plat_test_clock_advance(uint64_t ns) PLAT_NOEXCEPT;
HADRA_PLAT_API void plat_test_clock_real(void) PLAT_NOEXCEPT;

/* System manager state. A null string means "none" (the getter returns null). */
HADRA_PLAT_API void plat_test_sysmgr_set_supstate(int state) PLAT_NOEXCEPT;
HADRA_PLAT_API void plat_test_sysmgr_set_running_cfg_uri(const char *uri) PLAT_NOEXCEPT;
HADRA_PLAT_API void plat_test_sysmgr_set_startup_cfg_uri(const char *uri) PLAT_NOEXCEPT;
HADRA_PLAT_API void plat_test_sysmgr_set_file_prefix(const char *prefix) PLAT_NOEXCEPT;
HADRA_PLAT_API void plat_test_sysmgr_set_stateful_restart(int stateful) PLAT_NOEXCEPT;
HADRA_PLAT_API void plat_test_sysmgr_set_uuid(uint32_t uuid) PLAT_NOEXCEPT;
/* Every store commit of this process fails with err beneath the stores (ENOSPC, EIO,
 * MDB_MAP_FULL, ...), as a full or failing disk would make it; 0 puts LMDB's commit back. */
HADRA_PLAT_API void plat_test_store_fail_commits(int err) PLAT_NOEXCEPT;
/* Number of sysmgr_gsync_get() requests since reset. */
HADRA_PLAT_API unsigned plat_test_sysmgr_gsync_requests(void) PLAT_NOEXCEPT;
/* Last sequence number reported for index (1..10) and how many reports it had; -1 if none. */
HADRA_PLAT_API int plat_test_sysmgr_seqno(uint32_t index, uint64_t *seqno, unsigned *reports) PLAT_NOEXCEPT;
/* 1 when the seqno table was allocated / status registration was made since reset. */
HADRA_PLAT_API int plat_test_sysmgr_seqno_table_allocated(void) PLAT_NOEXCEPT;
HADRA_PLAT_API int plat_test_sysmgr_seqno_status_registered(void) PLAT_NOEXCEPT;

/* Logging. Set the facility (null name: no facility, sdwrap_sys_facility becomes null). */
HADRA_PLAT_API void plat_test_log_set_facility(const char *name, int level) PLAT_NOEXCEPT;
/* Rate limiter: burst lines per interval per (descriptor, parameters). */
HADRA_PLAT_API void plat_test_log_set_rate_limit(unsigned burst, uint64_t interval_ns) PLAT_NOEXCEPT;
/* Capture log lines in memory (in addition to the sink) and read them back. Turning capture
   on clears the lines captured before; text comes back without its trailing newline. */
HADRA_PLAT_API void plat_test_log_capture(int on) PLAT_NOEXCEPT;
HADRA_PLAT_API size_t plat_test_log_count(void) PLAT_NOEXCEPT;
/* Copy line i (text only, without time and ident) into out; its level into *level. */
HADRA_PLAT_API int plat_test_log_get(size_t i, int *level, char *out, size_t out_size) PLAT_NOEXCEPT;
/* Elements for which sdwrap_chk_int() answers non-zero / event codes that
   sdwrap_hist_event_subtype_check() filters out. */
HADRA_PLAT_API void plat_test_hist_set_debug_elem(uint32_t elem, int on) PLAT_NOEXCEPT;
HADRA_PLAT_API void plat_test_hist_filter_event(uint32_t event, int filtered) PLAT_NOEXCEPT;

/* SDB. Length that sdb_get_context_len reports for an open SDB (0: the real SDB_CONTEXT_LEN),
   so that a test can meet a platform whose context is longer than it ever gives. */
HADRA_PLAT_API void plat_test_sdb_set_context_len(uint32_t len) PLAT_NOEXCEPT;

/* ---- System-manager procedures: the test plays the system manager ---------------------
 *
 * Until a system-manager daemon serves them, the answers a client gives to gsync and
 * switchover events (sysmgr_gsync_snapshot_done, sysmgr_gsync_ready_done,
 * sysmgr_switchover_done) are recorded in this process, the newest 256 kept, and read back
 * here. A test makes the context of an event with plat_test_sysmgr_ctx_init and hands it to
 * the library's callback as the system manager would.
 */
PLAT_EXTERN_C_END
#include "hadra_platform/sysmgr.h"
PLAT_EXTERN_C_BEGIN

#define PLAT_TEST_SYSMGR_GSYNC_SNAPSHOT_DONE 1
#define PLAT_TEST_SYSMGR_GSYNC_READY_DONE 2
#define PLAT_TEST_SYSMGR_SWITCHOVER_DONE 3

typedef struct plat_test_sysmgr_answer {
  int kind;        /* PLAT_TEST_SYSMGR_* */
  uint32_t req_id; /* req_id of the event's context; 0 for a switchover answer */
  int32_t value;   /* gsync: the failed flag (0 or 1); switchover: the client's status */
  mts_msg_ref msg; /* gsync: the context's message; switchover: the request reference given */
} plat_test_sysmgr_answer;

/* A fresh event context: all zero, a new req_id (1, 2, ... since reset), status as given. */
HADRA_PLAT_API void plat_test_sysmgr_ctx_init(sysmgr_req_ctx *ctx, uint32_t status) PLAT_NOEXCEPT;
/* Answers recorded since reset, oldest first; answer i into *out: 0, or -1 when none. */
HADRA_PLAT_API size_t plat_test_sysmgr_answer_count(void) PLAT_NOEXCEPT;
HADRA_PLAT_API int plat_test_sysmgr_answer_get(size_t i, plat_test_sysmgr_answer *out) PLAT_NOEXCEPT;
/* What sysmgr_is_swover_first_start / sysmgr_conditional_srv_was_handshake_done answer. */
HADRA_PLAT_API void plat_test_sysmgr_set_swover_first_start(int on) PLAT_NOEXCEPT;
HADRA_PLAT_API void plat_test_sysmgr_set_handshake_done(int on) PLAT_NOEXCEPT;

PLAT_EXTERN_C_END

#endif
