/*
 * The sync protocol between the two instances of a client.
 *
 * Every change made through the library on the active supervisor is repeated on the standby
 * by one sync message: the client's sync opcode as MTS opcode, sent to the same SAP on the
 * peer supervisor, whose payload is the 12-byte header below followed by key_len key bytes
 * and data_len data bytes. Batches (opcodes 8 and 9) carry their records, little-endian, as
 * the data. The standby's dispatcher applies each message with the operation that made it.
 */
#ifndef HADRA_SYNC_H
#define HADRA_SYNC_H

#include "hadra/registry.h"
#include "hadra_platform/mts.h"

HADRA_EXTERN_C_BEGIN

/* Sync header. Multi-byte fields are big-endian on the wire. The layout must not change. */
typedef struct hadra_sync_hdr {
  uint8_t db_index;      /* registry index 1..10 */
  uint8_t reserved1;     /* 0 */
  uint8_t key_len[2];    /* big-endian: key bytes after the header */
  uint8_t data_len[2];   /* big-endian: data bytes after the key */
  uint8_t reserved2[2];  /* 0 */
  uint8_t sync_opcode[4]; /* big-endian: HADRA_SYNC_* */
} hadra_sync_hdr;

#ifdef __cplusplus
static_assert(sizeof(hadra_sync_hdr) == 12 && offsetof(hadra_sync_hdr, key_len) == 2 &&
                  offsetof(hadra_sync_hdr, data_len) == 4 && offsetof(hadra_sync_hdr, sync_opcode) == 8,
              "sync header layout");
#else
_Static_assert(sizeof(hadra_sync_hdr) == 12 && offsetof(hadra_sync_hdr, sync_opcode) == 8, "sync header layout");
#endif

#define HADRA_SYNC_HDR_LEN 12u
#define HADRA_SYNC_MAX_LEN 65535u /* most key bytes, and most data bytes, of one message */
#define HADRA_SYNC_PEER_ADDR MTS_ADDR_PEER /* MTS address of the peer supervisor */

/*
 * Send one change to the standby. entry names the database (only its index is read); key
 * and data are optional byte ranges (null: none), read during the call only. On the standby
 * supervisor nothing is sent and the result is 0. After a send the message's HA sequence
 * number is reported to the system manager for the entry's index (unless the handle's flags
 * have HADRA_HA_FLAG_SEQNO_STATUS).
 * Result: 1 when the message was sent (and its sequence number reported where required);
 * 0 for a null entry, on the standby, when the send failed, when a range is longer than
 * HADRA_SYNC_MAX_LEN (refused with a report; nothing is sent), or when the sequence-number
 * report failed after the message went out. A failed sync never undoes the local change.
 */
HADRA_API int hadra_ha_sync(const hadra_ha_pss_entry *entry, const datum *key, const datum *data,
                            uint32_t sync_opcode) HADRA_NOEXCEPT;

/*
 * Apply a received sync message on the standby. Call it with every message the client's
 * receive loop takes; the caller keeps the message (this neither drops nor answers it).
 *
 * A message whose MTS opcode is not the handle's sync opcode is not a sync message: the
 * result is -1 and nothing else happens (no output), so the caller handles it otherwise.
 * Every other message gives 0, whatever became of it:
 *  - a sync event other than 2 (sync update), or a payload shorter than the 12-byte header,
 *    is ignored (the latter with the debug line "Sync update message without payload");
 *  - a sync opcode of 0 or above 10 is ignored silently;
 *  - a registry index outside 1..10, header lengths that reach past the received payload,
 *    a PSS opcode for an entry without an open PSS file, or an SDB opcode for an entry that
 *    is not an SDB, is refused with the msg_error_HADRA_HA_INVALID_INDEX report (the
 *    opcode's text, "SDB_UPDATE" for a batch, and the index); nothing is applied;
 *  - otherwise the change is applied with the operation that made it on the active
 *    (hadra_pss_update, hadra_pss_delete, hadra_ha_disable, hadra_sdb_update with notify 1,
 *    hadra_sdb_delete, hadra_pss_delete_range, the standby batch appliers, hadra_pss_purge),
 *    which reports its own failures. After a successful apply of opcodes 1, 2, 4, 5, 7 and 8
 *    the sync callback registered for the index, if any, is called on this thread with
 *    (data or null, key or null, data_len of the header, sync opcode): opcodes 1 and 4 pass
 *    data and key; 2, 5 and 7 null and key; 8 the batch and null. Opcodes 3, 6, 9 and 10
 *    never call it. Pointers handed to the callback point into the message's payload and
 *    are valid only during the call.
 * Nothing outside the registry, the callback table and the payload is read or written. A
 * null msg gives -1. Not reentrant with any other call of the library (no locks).
 */
HADRA_API int hadra_ha_dispatch(const mts_msg_ref *msg) HADRA_NOEXCEPT;

/*
 * Printable hexadecimal form of the first bytes of buf (at most 128 characters: groups of
 * "0x" + 2 digits per byte, each group followed by a blank). The result is a static buffer
 * overwritten by the next call; never null (the empty string for len 0). Not reentrant.
 */
HADRA_API const char *hadra_ha_dump_buf(const void *buf, uint32_t len) HADRA_NOEXCEPT;

HADRA_EXTERN_C_END

#endif
