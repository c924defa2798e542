// The daemon client inside a service process: state shared by the link (client.cc) and the
// receive-loop helper (rx.cc).
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "hadra/handle.h"
#include "hadra/registry.h"
#include "hadra/sync.h"
#include "hadra/sysmgrcb.h"
#include "hadra_platform/mts.h"
#include "sysmgr/proto.h"

namespace hadra::plat::sysmgr::client {

// Where the gsync of this service stands, as the receive loop must know it.
struct GsyncView {
  bool pending = false;  // asked for, neither ready nor failed yet: hold sync messages
  bool covered = false;  // a snapshot point is known: drop what it already holds
  uint64_t point = 0;
  uint32_t epoch = 0;
  bool overflowed = false;  // more arrived than could be held
};

struct State {
  std::mutex mu;
  bool configured = false;
  bool daemon_mode = false;
  uint32_t sap = 0;
  uint32_t uuid = 0;
  std::string name;
  bool attached = false;
  proto::SvcFacts facts;
  bool facts_known = false;
  GsyncView gsync;
  std::deque<mts_msg_ref> held;    // sync messages held during a gsync, in arrival order
  std::deque<mts_msg_ref> replay;  // released by gsync ready, not yet dispatched
};

State& state() noexcept;

// The HA library's entry points the receive loop calls, found by name at run time.
struct Lib {
  decltype(&hadra_ha_dispatch) dispatch = nullptr;
  decltype(&sysmgrcb_gsync_snapshot) gsync_snapshot = nullptr;
  decltype(&sysmgrcb_gsync_ready) gsync_ready = nullptr;
  decltype(&sysmgrcb_gsync_failed) gsync_failed = nullptr;
  decltype(&sysmgrcb_switchover) switchover = nullptr;
  decltype(&sysmgrcb_switchover_active_marker) active_marker = nullptr;
  decltype(&sysmgrcb_switchover_done) switchover_done = nullptr;
  decltype(&hadra_sysmgr_cfg_write_cb) cfg_write = nullptr;
  // The registry and the handle, to check what a configuration write left (null: unchecked).
  hadra_ha_pss_entry* registry = nullptr;
  const hadra_ha_handle_t* handle = nullptr;
  // Writes the stores of this thread could not make, so far: a count that moves during a
  // dispatch means the change was not applied (null: the platform's own count of store write
  // failures). The dispatcher answers 0 either way, so the loop watches beneath it.
  uint64_t (*store_failures)() noexcept = nullptr;
};
// Use lib instead of the library found by name (null: back to it). For tests of the loop's
// routing; not thread-safe against a loop in progress.
void set_library(const Lib* lib) noexcept;
// Reads SYSMGR (and TRANSPORT) once per reset; true when the daemon serves this process.
bool daemon_mode() noexcept;
// True when a daemon holds the lock of this supervisor's root.
bool daemon_running() noexcept;
// Send a message of the system-manager set from this service's SAP to the local daemon,
// without waiting for queue room. 0, or PLAT_ERR_SYSMGR_NO_DAEMON (logged with the cause).
int send_to_daemon(uint32_t opcode, const std::vector<uint8_t>& payload) noexcept;

// Leaves this process's hello in <root>/sysmgr/client-<pid>.hello, where a daemon that
// starts while the service runs finds it (empty: removes it, at a controlled stop).
void leave_hello(const std::vector<uint8_t>& hello) noexcept;

// The table of what this process applied per registry index (a file the daemon reads,
// like the sequence-number table): reset to the snapshot's counts at gsync ready, advanced
// by every applied sync message.
void applied_reset(const proto::IndexCount (&at)[proto::kMaxIndex + 1]) noexcept;
void applied_note(uint32_t index, uint64_t seqno) noexcept;
// The store refused a change of index: counted per index.
void applied_failed(uint32_t index) noexcept;
// The copy is out of step for why (a kOutOfSync* reason), missed more changes known lost;
// applied_reset (gsync ready) puts it back in step.
void applied_out_of_sync(uint32_t why, uint64_t missed) noexcept;
// Back in step without a gsync (a resend filled the hole): the counts stand.
void applied_in_step() noexcept;

}  // namespace hadra::plat::sysmgr::client
