// The library's message catalogue.
//
// Each message has a descriptor (threshold, flags, the format of its parameters alone, used
// as the rate-limit key) and a format record (the line as logged). Every format opens with
// "%%%s-%d-<MNEMONIC>: ", filled by the reporter with the upper-case facility name and the
// level, followed by the message's parameters in the order and with the conversions of its
// param_format; the unit tests check that the two agree for every message. The operator's
// view of the catalogue is docs/messages.md.
//
// Numbers are 0x0073nnnn; the traceback word of a message is its number, so a traceback in
// the log can be tied to the report that asked for it.
#include "hadra_platform/log.h"

namespace {

constexpr uint8_t kTrace = SYSLOG_MSG_FLAG_TRACEBACK;

}  // namespace

// One message: mnemonic, number, severity (also the level it is logged at), flags, the
// parameters' format, the text that follows the mnemonic, and what it means. The
// descriptor takes C linkage and its export from the declaration in log.h.
#define HADRA_MESSAGE(m, num, sev, flg, params, text, meaning)                                      \
  static const syslog_msg_format fmt_HADRA_##m = {#m, "%%%s-%d-" #m ": " text, sev, {}};           \
  syslog_msg_desc msg_error_HADRA_##m = {                                                         \
      0x00730000u + (num), 0x00730000u + (num), "msg_error_HADRA_" #m, params, meaning, sev, flg, {}, \
      &fmt_HADRA_##m};

HADRA_MESSAGE(INVALID_ARG, 1, PLAT_LOG_ERR, kTrace, "%d %s", "Invalid argument (%d): %s",
              "A library call was given an argument it cannot use (null pointer, zero length, empty name).")
HADRA_MESSAGE(HA_INVALID_INDEX, 2, PLAT_LOG_ERR, 0, "%s %d", "%s: registry index %d has no usable database",
              "A database was registered outside indexes 1 to 10, or a sync message named an index whose "
              "database is not open on this supervisor.")
HADRA_MESSAGE(API_FAILED, 3, PLAT_LOG_ERR, 0, "%d %s", "Operation failed (%d): %s",
              "A library operation could not complete, e.g. no URI could be built for a database or a "
              "configuration file could not be written.")
HADRA_MESSAGE(API_FAILED_HA, 4, PLAT_LOG_ERR, kTrace, "%s %s %s %s",
              "Database in HA state %s refuses %s: %s (%s)",
              "A write or read was made on a database that is disabled on this supervisor.")
HADRA_MESSAGE(HA_UNINITIALIZED, 5, PLAT_LOG_WARNING, 0, "%s",
              "%s: system-manager event before the HA library was initialised",
              "The system manager delivered an event before the service initialised the library; the "
              "event was answered without acting on it.")
HADRA_MESSAGE(HA_SYNC, 6, PLAT_LOG_CRIT, 0, "%s", "Change not sent to the standby: %s",
              "A database change was applied locally but its sync message could not be sent; the standby "
              "copy no longer matches.")
HADRA_MESSAGE(HA_SEQNO_SYNC, 7, PLAT_LOG_ERR, 0, "%s",
              "Sequence number of a sync message not reported to the system manager: %s",
              "A sync message was sent but the system manager was not told its sequence number; a "
              "switchover may not know that the standby has it.")
HADRA_MESSAGE(MTS, 8, PLAT_LOG_ERR, 0, "%s %d %s %s", "%s failed, errno %d (%s), in %s",
              "A message-transport call failed while the service cleared its queue for a switchover.")
HADRA_MESSAGE(MTS_UNK_OPC, 9, PLAT_LOG_WARNING, 0, "%s %d", "Unexpected message on the %s queue, opcode %d",
              "While clearing its queue for a switchover the service met a message it did not expect; "
              "the message was left on the queue.")
HADRA_MESSAGE(PSS_HA, 10, PLAT_LOG_ERR, 0, "%s %s", "PSS read %s failed: %s",
              "Positioning or reading a PSS file failed for a reason other than a missing record.")
HADRA_MESSAGE(PSS_OPEN, 11, PLAT_LOG_ERR, 0, "%s %s", "Cannot open PSS file %s: %s",
              "An existing PSS file of the service could not be opened.")
HADRA_MESSAGE(PSS_CREATE, 12, PLAT_LOG_ERR, 0, "%s %s", "Cannot create PSS file %s: %s",
              "A PSS file of the service could not be created.")
HADRA_MESSAGE(PSS_SET_DBSIZE, 13, PLAT_LOG_ERR, 0, "%u %s %s", "Cannot set size limit %u of PSS file %s: %s",
              "A newly created PSS file could not be given its size limit; the file was removed again.")
HADRA_MESSAGE(PSS_CLOSE, 14, PLAT_LOG_ERR, 0, "%s", "Cannot close a PSS file: %s",
              "Closing a PSS file of the service failed.")
HADRA_MESSAGE(PSS_GETPARAM, 15, PLAT_LOG_ERR, 0, "%s", "Cannot read the parameters of a PSS file: %s",
              "Copying a PSS file (snapshot or configuration write) failed while reading its parameters.")
HADRA_MESSAGE(PSS_SNAPSHOT, 16, PLAT_LOG_ERR, 0, "%s %s", "Cannot copy a PSS file to %s: %s",
              "Copying a PSS file to a snapshot area or to the startup configuration failed.")
HADRA_MESSAGE(PSS_UPDATE, 17, PLAT_LOG_ERR, 0, "%s", "Cannot store a PSS record: %s",
              "Writing a record to a PSS file failed; nothing was sent to the standby.")
HADRA_MESSAGE(PSS_DELETE, 18, PLAT_LOG_ERR, 0, "%s", "Cannot delete a PSS record: %s",
              "Deleting a record from a PSS file failed; nothing was sent to the standby.")
HADRA_MESSAGE(PSS_DELETE_RANGE, 19, PLAT_LOG_ERR, 0, "%s", "Cannot delete PSS records by prefix: %s",
              "Deleting the records under a key prefix failed; nothing was sent to the standby.")
HADRA_MESSAGE(PSS_PURGE, 20, PLAT_LOG_ERR, 0, "%s", "Cannot purge a PSS file: %s",
              "Removing every record of a PSS file failed; nothing was sent to the standby.")
