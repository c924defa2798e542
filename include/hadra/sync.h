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
#define HADRA_SYNC_PEER_ADDR 0xfe000000u /* MTS address of the peer supervisor */

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
 * Printable hexadecimal form of the first bytes of buf (at most 128 characters: groups of
 * "0x" + 2 digits per byte, each group followed by a blank). The result is a static buffer
 * overwritten by the next call; never null (the empty string for len 0). Not reentrant.
 */
HADRA_API const char *hadra_ha_dump_buf(const void *buf, uint32_t len) HADRA_NOEXCEPT;

HADRA_EXTERN_C_END

#endif
