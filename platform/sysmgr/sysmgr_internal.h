// Internal interfaces of the system-manager service (client side).
//
// local.cc   this process's view of the supervisor: state, URIs, prefix, restart kind, uuid
// uri.cc     URI completion and validation
// seqno.cc   the sequence-number table (layout in seqno_table.h)
// link.cc    requests that act (gsync), behind Link so that a daemon client can take over
#pragma once

#include <cstdint>

namespace hadra::plat::sysmgr {

// uuid of this service as the local view holds it (configuration or test setter).
uint32_t local_uuid() noexcept;

// True when uri has the form "<area>:/<path>" with a lower-case area and a path of
// non-empty segments, none "." or ".."; a trailing '/' is allowed.
bool valid_uri(const char* uri) noexcept;

// Requests that need the system-manager daemon. Until a daemon client is plugged in, the
// local link serves them in this process (it records a gsync request and answers 0).
struct Link {
  int (*gsync_get)(int arg);
};
// Replace the link (null: back to the local one). Not thread-safe against calls in flight.
void set_link(const Link* link) noexcept;
const Link& link() noexcept;

}  // namespace hadra::plat::sysmgr
