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

// Replace the supervisor state this process sees (the daemon's role, a switchover).
void set_local_supstate(int state) noexcept;
// This supervisor's state as sysmgr_supstate_get() gives it, without a trace record.
int local_supstate() noexcept;

// This process's own sequence-number reports per registry index 1..10 (index 0 unused; all
// zero before the first report).
void own_seqnos(uint64_t seqno[11], uint32_t count[11]) noexcept;

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

// The link to the daemon, used when configuration selects it (SYSMGR = daemon; the default
// with the ZeroMQ transport). Null while the local stand-in is selected.
const Link* daemon_link() noexcept;

}  // namespace hadra::plat::sysmgr
