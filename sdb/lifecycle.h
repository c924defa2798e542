// SDB lifecycle inside the library: what the exported calls of include/hadra/lifecycle.h
// share with the rest of the SDB code (the snapshot restore announces a rebuilt SDB the same
// way creation does).
#pragma once

#include <cstdint>

#include "hadra/lifecycle.h"

namespace hadra::sdb {

// Close this process's opening of the SDB at uri if it has one, without a debug line: for
// an SDB whose open may or may not have left it open.
void release(const char *uri) noexcept;

}  // namespace hadra::sdb

// Send the entry's create (is_create 1) or delete (0) notification to the peer supervisor
// under the entry's cre_del_opcode: the platform's TLV encoding of {type, uri} as the whole
// payload, from the client's SAP. A delete notification is marked as a store-change
// notification that expects no answer. 1 when sent; 0 (logged at level 2 whatever the debug
// switches) when the buffer, the encoding or the send fails. Library-internal.
extern "C" __attribute__((visibility("hidden"))) int hadra_create_del_notification(const hadra_ha_pss_entry *entry,
                                                                                   int is_create) noexcept;
