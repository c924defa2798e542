/*
 * Logging, history buffers and the message catalogue.
 *
 * Log lines go to one sink chosen by configuration (key LOG, see config.h): "stderr",
 * "syslog", "file:<path>", "none", or by default the file log/platform.log under the root.
 * A line reads "<time> <level> <ident>[<pid>]: <text>".
 *
 * Error reports use message descriptors (msg_error_HADRA_* below). A reporter checks the
 * facility's level against the descriptor's threshold, asks syslog_msg_rate_limit(), fills
 * syslog_vmsg_params and calls plat_syslog() with the descriptor's format, whose first two
 * conversions are the upper-case facility name (%s) and the level (%d), followed by the
 * message's own parameters as the descriptor's param_format gives them.
 *
 * The offsets of the records below are fixed: library code reads them by layout.
 */
#ifndef HADRA_PLATFORM_LOG_H
#define HADRA_PLATFORM_LOG_H

#include "hadra_platform/plat_export.h"

PLAT_EXTERN_C_BEGIN

/* Log levels (syslog numbering). */
enum { PLAT_LOG_EMERG = 0, PLAT_LOG_ALERT, PLAT_LOG_CRIT, PLAT_LOG_ERR, PLAT_LOG_WARNING,
       PLAT_LOG_NOTICE, PLAT_LOG_INFO, PLAT_LOG_DEBUG };

/* A logging facility: name at offset 0, current level at offset 9. */
typedef struct sdwrap_facility {
  const char *name;   /* 0: NUL-terminated facility name */
  uint8_t id;         /* 8: facility number */
  uint8_t level;      /* 9: messages with a threshold above this level are not logged */
  uint8_t reserved[6];
} sdwrap_facility;

/* The format record of a message: format text at offset 8, log level at offset 16. */
typedef struct syslog_msg_format {
  const char *mnemonic; /* 0: e.g. "INVALID_ARG" */
  const char *format;   /* 8: "%%%s-%d-MNEMONIC: text ..." (facility, level, parameters) */
  uint8_t level;        /* 16: level the line is logged at */
  uint8_t reserved[7];
} syslog_msg_format;

/*
 * A message descriptor: severity threshold at offset 32, flag byte at 33 (bit 0: traceback),
 * traceback word at 4, format record pointer at 40.
 */
typedef struct syslog_msg_desc {
  uint32_t msg_id;                 /* 0: catalogue number */
  uint32_t traceback_word;         /* 4: handed to syslog_traceback */
  const char *name;                /* 8: descriptor name, e.g. "msg_error_HADRA_INVALID_ARG" */
  const char *param_format;        /* 16: format of the parameters alone (rate-limit key) */
  const char *explanation;         /* 24: what the message means, for operators */
  uint8_t severity;                /* 32: threshold compared with the facility level */
  uint8_t flags;                   /* 33: bit 0: log a traceback after the line */
  uint8_t reserved[6];
  const syslog_msg_format *fmt;    /* 40 */
} syslog_msg_desc;

#define SYSLOG_MSG_FLAG_TRACEBACK 0x01u

#ifdef __cplusplus
static_assert(offsetof(sdwrap_facility, level) == 9, "facility level offset");
static_assert(offsetof(syslog_msg_format, format) == 8 && offsetof(syslog_msg_format, level) == 16,
              "format record offsets");
static_assert(offsetof(syslog_msg_desc, traceback_word) == 4 && offsetof(syslog_msg_desc, severity) == 32 &&
                  offsetof(syslog_msg_desc, flags) == 33 && offsetof(syslog_msg_desc, fmt) == 40 &&
                  sizeof(syslog_msg_desc) == 48,
              "message descriptor offsets");
#endif

/* Facility of this process; null when none is set up (then nothing is reported). */
HADRA_PLAT_API extern sdwrap_facility *sdwrap_sys_facility;
/* Parameter record of the message being reported (1024 bytes, filled by the reporter). */
HADRA_PLAT_API extern unsigned char syslog_vmsg_params[1024];
/* Preamble text copied into syslog_vmsg_params by the reporter (at most 40 bytes used). */
HADRA_PLAT_API extern char syslog_preamble[64];
/* Module record handed to dbgout(). */
HADRA_PLAT_API extern const char sdwrap_dbg_modname[];

/* Write one formatted line at level. */
HADRA_PLAT_API void plat_syslog(int level, const char *format, ...) PLAT_NOEXCEPT PLAT_PRINTF(2, 3);
HADRA_PLAT_API void syslog_log(int level, const char *format, ...) PLAT_NOEXCEPT PLAT_PRINTF(2, 3);
/* Platform debug print of module (pass sdwrap_dbg_modname); level 1 is the library's. */
HADRA_PLAT_API void dbgout(int level, const char *module, int flags, const char *format, ...) PLAT_NOEXCEPT
    PLAT_PRINTF(4, 5);
/*
 * 1 when message desc with these parameters may be logged now, 0 when it is suppressed (and
 * for a null desc). The parameters are read as desc->param_format says. Each distinct
 * (descriptor, parameters) may log a burst of lines per interval (see RATE_BURST,
 * RATE_INTERVAL_MS in config.h; a burst or interval of 0 turns limiting off); a line that
 * follows suppressed ones says how many were dropped. At most 256 keys are tracked; the one
 * used least recently makes room (its dropped count, if any, is logged then).
 */
HADRA_PLAT_API int syslog_msg_rate_limit(const syslog_msg_desc *desc, ...) PLAT_NOEXCEPT;
/* Log a backtrace of the caller under facility name at level, one line per frame. */
HADRA_PLAT_API void syslog_traceback(int flags, const char *facility, int level, uint32_t word) PLAT_NOEXCEPT;

/*
 * History buffers: in-memory rings of event records. A buffer is created by name with room
 * for a number of records (1..PLAT_HIST_MAX_RECORDS); when full, the oldest record gives
 * way. Records longer than PLAT_HIST_MAX_REC are cut. sdwrap_hist_event() records into the
 * process's default buffer (1024 records, made on first use). Wherever a buffer is passed,
 * null means the default buffer, and a pointer that is not a live buffer (destroyed, or
 * never created) is refused with -1 / 0 / no effect; it is never written through. The
 * calls are thread-safe.
 */
#define PLAT_HIST_MAX_REC 1024
#define PLAT_HIST_MAX_RECORDS 16384
typedef struct sdwrap_hist_buf sdwrap_hist_buf;
/* New buffer; null with errno EINVAL (records 0 or too many) or ENOMEM. */
HADRA_PLAT_API sdwrap_hist_buf *sdwrap_hist_buf_create(const char *name, uint32_t records) PLAT_NOEXCEPT;
HADRA_PLAT_API void sdwrap_hist_buf_destroy(sdwrap_hist_buf *buf) PLAT_NOEXCEPT;
HADRA_PLAT_API sdwrap_hist_buf *sdwrap_hist_default_buf(void) PLAT_NOEXCEPT;
/* Append a record tagged with uuid and event to buf (null buf: the default buffer); inst is
   not kept. 0 on success; -1 for a buffer that is not live or a null record with length > 0. */
HADRA_PLAT_API int sdwrap_his_log_event_for_uuid_inst(uint32_t uuid, uint32_t event, void *buf, uint32_t inst,
                                                      uint32_t length, const void *record) PLAT_NOEXCEPT;
/* 0 when events of this code are to be recorded for the element. */
HADRA_PLAT_API int sdwrap_hist_event_subtype_check(uint32_t event, uint32_t elem) PLAT_NOEXCEPT;
/* Append a record without uuid to the default buffer. 0 on success. */
HADRA_PLAT_API int sdwrap_hist_event(uint32_t event, uint32_t length, const void *record) PLAT_NOEXCEPT;
/* Non-zero when the element asks for debug printing. */
HADRA_PLAT_API int sdwrap_chk_int(uint32_t elem, int a, int b, int c) PLAT_NOEXCEPT;

/* One history record, as read back. */
typedef struct sdwrap_hist_rec {
  uint64_t seq;      /* order of recording in this buffer */
  uint64_t time_ns;  /* platform clock */
  uint32_t uuid;     /* 0 for sdwrap_hist_event */
  uint32_t event;
  uint32_t length;   /* bytes stored in data */
  uint8_t data[PLAT_HIST_MAX_REC];
} sdwrap_hist_rec;
/* Number of records held (at most the ring size). */
HADRA_PLAT_API uint32_t sdwrap_hist_count(const sdwrap_hist_buf *buf) PLAT_NOEXCEPT;
/* Copy record i (0 = oldest held) into out; 0 on success, -1 when out of range. */
HADRA_PLAT_API int sdwrap_hist_get(const sdwrap_hist_buf *buf, uint32_t i, sdwrap_hist_rec *out) PLAT_NOEXCEPT;
/* Write every record of buf to fd as text, after a header line: one line per record with
   its sequence number, time, uuid, event and length, then "elem=<n> <text>" for a record
   that is a 32-bit element word followed by a terminated text, else the first 64 bytes in
   hex. Returns the number of records written, -1 for a bad buffer or fd. */
HADRA_PLAT_API int sdwrap_hist_dump(const sdwrap_hist_buf *buf, int fd) PLAT_NOEXCEPT;

/* The library's message catalogue. */
#define PLAT_HADRA_MESSAGES(X)          \
  X(INVALID_ARG)                        \
  X(HA_INVALID_INDEX)                   \
  X(API_FAILED)                         \
  X(API_FAILED_HA)                      \
  X(HA_UNINITIALIZED)                   \
  X(HA_SYNC)                            \
  X(HA_SEQNO_SYNC)                      \
  X(MTS)                                \
  X(MTS_UNK_OPC)                        \
  X(PSS_HA)                             \
  X(PSS_OPEN)                           \
  X(PSS_CREATE)                         \
  X(PSS_SET_DBSIZE)                     \
  X(PSS_CLOSE)                          \
  X(PSS_GETPARAM)                       \
  X(PSS_SNAPSHOT)                       \
  X(PSS_UPDATE)                         \
  X(PSS_DELETE)                         \
  X(PSS_DELETE_RANGE)                   \
  X(PSS_PURGE)
#define PLAT_DECLARE_MSG(m) HADRA_PLAT_API extern syslog_msg_desc msg_error_HADRA_##m;
PLAT_HADRA_MESSAGES(PLAT_DECLARE_MSG)
#undef PLAT_DECLARE_MSG

PLAT_EXTERN_C_END

#endif
