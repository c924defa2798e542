// An SDB's whole life inside the library: create, open, close and destroy (the exported
// calls of include/hadra/lifecycle.h are their thin faces), the create/delete notification
// that announces its birth and end (announce.cc), and its start-up and disabling as a
// registered database.
#pragma once

#include <cstdint>

#include "hadra/lifecycle.h"

namespace hadra::sdb {

// As hadra_sdb_create, hadra_sdb_open, hadra_sdb_close and hadra_sdb_destroy.
int create(hadra_ha_pss_entry *entry) noexcept;
int open(const char *uri, int read_write) noexcept;
int close(const char *uri) noexcept;
int destroy(hadra_ha_pss_entry *entry) noexcept;

// Close this process's opening of the SDB at uri if it has one, without a debug line: for
// an SDB whose open may or may not have left it open.
void release(const char *uri) noexcept;

// Send the entry's create (is_create) or delete notification to the peer supervisor under
// the entry's cre_del_opcode: the platform's TLV encoding of {type, uri} as the whole
// payload, from the client's SAP. A delete notification is marked as a store-change
// notification that expects no answer. 1 when sent; 0 (logged at level 2 whatever the debug
// switches) when the buffer, the encoding or the send fails.
int announce(const hadra_ha_pss_entry *entry, bool is_create) noexcept;

// Start-up of a registered SDB. Stateful restart: opened read-write with its old contents,
// state HADRA_HA_RECOVER; false when it cannot be opened. Stateless start: destroyed,
// created afresh (announced) and opened read-write, state HADRA_HA_ACTIVE; false, with the
// start-up's closing debug line, when it cannot be created or opened.
bool start_stateful(hadra_ha_pss_entry &e) noexcept;
bool start_stateless(hadra_ha_pss_entry &e) noexcept;

// Disabling: destroys the SDB (around its delete notification) and tells the standby to
// destroy its copy, whatever the entry's no_sync. The caller marks the entry disabled.
void disable(hadra_ha_pss_entry &e) noexcept;

}  // namespace hadra::sdb

// The library-internal C name of announce(), kept for the library's own tests.
extern "C" __attribute__((visibility("hidden"))) int hadra_create_del_notification(const hadra_ha_pss_entry *entry,
                                                                                   int is_create) noexcept;
