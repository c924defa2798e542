// The service's receive loop (sysmgr_client.h): one message at a time, routed to the HA
// library's dispatcher, to its system-manager callbacks, or back to the caller.
//
// Gsync and the sync stream. Between the gsync request and gsync ready the service's copies
// are being rebuilt, so sync messages from the active are held (in arrival order, at most
// SYNC_HOLD_MAX). Gsync ready says where the active's stream stood when its snapshot was
// written (the last HA number sent, and the stream's epoch): held messages at or below that
// point are already in the snapshot and are dropped, the rest are dispatched in order after
// the rebuild, and any later arrival at or below the point (the stream and the daemon's
// events travel on different sockets) is dropped too. So nothing is lost or applied twice.
// More than SYNC_HOLD_MAX messages during one gsync is reported and another gsync is
// asked for once this one ends: the held ones beyond the bound are gone.
//
// Staying in step. A standby whose copy missed a change must never pass for a good copy, nor
// apply what follows the hole as if nothing happened. Every sync message of the active's
// stream must carry the number after the last one taken (per stream epoch); a message after a
// gap, after a repeated or reordered frame, or after frames the receive queue had to drop
// (MTS marks it) puts the standby out of sync: one log line says why and how many changes
// were missed, the applied table shows it to the daemon, nothing more is applied, and a gsync
// is asked for. Gsync ready brings it back in step at the snapshot's point; a failed gsync
// leaves it out of sync and the next message asks again.
// Who may change a copy. A sync message is applied only on the standby and only when it came
// from the peer supervisor (the transport vouches for that: with keys, by the peer's key) on
// the stream of this very service (the same SAP there). Anything else is dropped and logged
// with its source, a few lines a second with counts: a forged update sent to the active is
// never applied there, so never forwarded either.
//
// The library is reached by name at run time (the platform never links against it): a
// process that did not load it gets ENOSYS.
#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <lmdb.h>

#include "common/call.h"
#include "common/lmdb_store.h"
#include "hadra_platform/config.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/log.h"
#include "hadra_platform/sysmgr_client.h"
#include "log/hist_ring.h"
#include "log/log_internal.h"
#include "mts/auth.h"
#include "mts/core.h"
#include "sysmgr/client.h"
#include "sysmgr/seqno_table.h"
#include "sysmgr/sysmgr_internal.h"

namespace hadra::plat::sysmgr::client {
namespace {

template <class F>
bool find(F* out, const char* name) {
  *out = reinterpret_cast<F>(::dlsym(RTLD_DEFAULT, name));
  return *out != nullptr;
}

std::atomic<const Lib*> g_lib_override{nullptr};

const Lib* lib() {
  if (const Lib* l = g_lib_override.load(); l != nullptr) return l;
  static const Lib* found = [] {
    static Lib l;
    const bool ok = find(&l.dispatch, "hadra_ha_dispatch") && find(&l.gsync_snapshot, "sysmgrcb_gsync_snapshot") &&
                    find(&l.gsync_ready, "sysmgrcb_gsync_ready") && find(&l.gsync_failed, "sysmgrcb_gsync_failed") &&
                    find(&l.switchover, "sysmgrcb_switchover") &&
                    find(&l.active_marker, "sysmgrcb_switchover_active_marker") &&
                    find(&l.switchover_done, "sysmgrcb_switchover_done") &&
                    find(&l.cfg_write, "hadra_sysmgr_cfg_write_cb");
    l.registry = static_cast<hadra_ha_pss_entry*>(::dlsym(RTLD_DEFAULT, "hadra_ha_pss"));
    l.handle = static_cast<const hadra_ha_handle_t*>(::dlsym(RTLD_DEFAULT, "hadra_ha_handle"));
    return ok ? &l : nullptr;
  }();
  return found;
}

size_t hold_max() { return static_cast<size_t>(plat_config_get_long("SYNC_HOLD_MAX", 50000)); }

// ---- Being in step with the active's stream ----

struct Step {
  bool known = false;  // a message or a snapshot point set the count going
  uint32_t epoch = 0;
  uint64_t last = 0;   // last number of the active's stream taken (applied or given back)
  uint32_t out = 0;    // kOutOfSync* while out of step
  bool asked = false;  // the gsync for this episode was asked for
  bool resending = false;  // the active was asked to resend from last + 1
  uint64_t resend_deadline_ns = 0;
};

Step& step() {
  static Step s;
  return s;
}

void reset_step() { step() = Step(); }
const bool g_step_reset = (hadra::plat::register_reset(&reset_step), true);

// Why mi shows that the copy is no longer in step (0: it is). Within a known stream the
// numbers decide: anything but the next one is a hole or a repeat (frames the receive queue
// dropped show as a hole too). MTS's marks add a repeat that it dropped just before, and
// judge the first message of a stream not yet known. Marks count only on a message that
// arrived now: one replayed after a gsync carries marks from before it.
uint32_t out_of_step(const mts::MsgInfo& mi, bool live, uint64_t* missed) {
  const Step& st = step();
  *missed = 0;
  if (st.known && mi.h.epoch == st.epoch) {
    if (mi.h.ha_seqno <= st.last) return kOutOfSyncRepeat;
    if (mi.h.ha_seqno > st.last + 1) return *missed = mi.h.ha_seqno - st.last - 1, kOutOfSyncGap;
    return live && (mi.trouble & mts::kTroubleRepeat) != 0 ? kOutOfSyncRepeat : 0;
  }
  if (!live) return 0;
  if ((mi.trouble & mts::kTroubleOverflow) != 0) return kOutOfSyncOverflow;
  if ((mi.trouble & mts::kTroubleGap) != 0) return *missed = mi.skipped, kOutOfSyncGap;
  if ((mi.trouble & mts::kTroubleRepeat) != 0) return kOutOfSyncRepeat;
  return 0;
}

bool partial_wanted() { return plat_config_get_long("MTS_BACKLOG_BYTES", 8l << 20) > 0; }
uint64_t partial_wait_ns() { return static_cast<uint64_t>(plat_config_get_long("RESYNC_PARTIAL_MS", 2000)) * 1000000ull; }

// Asks the active's service for the stream again from the number after the last one taken.
bool ask_resend(uint32_t sap, const mts::MsgInfo& mi) {
  const Step& st = step();
  const std::vector<uint8_t> pl = encode(proto::ResendGet{st.epoch, st.last + 1});
  if (mts_send(sap, MTS_ADDR_PEER, mi.h.src_sap, proto::kResendGet, pl.data(), static_cast<uint32_t>(pl.size()),
               nullptr, MTS_SEND_NONBLOCK, nullptr) == 0)
    return true;
  log::writef(PLAT_LOG_WARNING, "sysmgr: SAP %u: cannot ask the active to resend from HA number %llu (%s); a gsync "
              "will bring the copy back", sap, static_cast<unsigned long long>(st.last + 1), std::strerror(errno));
  return false;
}

void resend_over(uint32_t sap, bool complete, const char* why);

// detail: what happened, for the log line (empty: the numbers say it).
void go_out_of_sync(uint32_t sap, const mts::MsgInfo& mi, uint32_t why, uint64_t missed,
                    const std::string& detail = {}) {
  Step& st = step();
  st.out = why;
  st.asked = false;
  // Missed from a stream it knows: the active's backlog may still hold what is missing.
  st.resending = st.known && mi.h.epoch == st.epoch && partial_wanted() && ask_resend(sap, mi);
  st.resend_deadline_ns = plat_now_ns() + partial_wait_ns();
  const char* how = st.resending ? "a resend from the active's backlog (or else a gsync)" : "a gsync";
  if (detail.empty())
    log::writef(PLAT_LOG_ERR, "sysmgr: SAP %u: standby out of sync: %s at HA number %llu (last taken %llu), %llu "
                "changes missed; applying nothing out of order until %s brings the copy back",
                sap, out_of_sync_name(why), static_cast<unsigned long long>(mi.h.ha_seqno),
                static_cast<unsigned long long>(st.last), static_cast<unsigned long long>(missed), how);
  else
    log::writef(PLAT_LOG_ERR, "sysmgr: SAP %u: standby out of sync: %s; applying nothing more until %s brings the "
                "copy back", sap, detail.c_str(), how);
  applied_out_of_sync(why, missed);
}

// ---- Changes the store refused ----

uint32_t& apply_failures() {
  static uint32_t n = 0;
  return n;
}
void reset_apply_failures() { apply_failures() = 0; }
const bool g_apply_failures_reset = (hadra::plat::register_reset(&reset_apply_failures), true);

// The database a registry index names, for the log.
std::string database_name(uint8_t index) {
  const Lib* l = lib();
  std::string name = "database " + std::to_string(index);
  if (l->registry != nullptr && index >= 1 && index <= HADRA_HA_MAX_DB && l->registry[index].uri[0] != '\0')
    name += " (" + std::string(l->registry[index].uri, strnlen(l->registry[index].uri, sizeof l->registry[index].uri)) + ")";
  return name;
}

// The dispatcher did not apply mi: the copy misses it, and with it the changes applied in the
// same batch before it (count changes from HA number first on, none committed). The numbers
// are given back so that a resend starts with them; nothing after them is applied until the
// copy is back in step. commit: the commit of the batch failed, mi is its last change.
void apply_failed(uint32_t sap, const mts::MsgInfo& mi, uint64_t store_serial, uint64_t first = 0,
                  uint64_t count = 1, bool commit = false) {
  Step& st = step();
  if (first == 0) first = mi.h.ha_seqno;
  st.last = first - 1;
  const uint32_t n = ++apply_failures();
  // Which database and change: read from the message's own sync header.
  uint8_t index = 0;
  uint32_t opcode = 0;
  const auto* p = static_cast<const uint8_t*>(mi.payload);
  if (p != nullptr && mi.h.payload_len > 0) index = p[0];
  if (p != nullptr && mi.h.payload_len >= sizeof(hadra_sync_hdr)) {
    hadra_sync_hdr h;
    std::memcpy(&h, p, sizeof h);
    opcode = (uint32_t{h.sync_opcode[0]} << 24) | (uint32_t{h.sync_opcode[1]} << 16) |
             (uint32_t{h.sync_opcode[2]} << 8) | uint32_t{h.sync_opcode[3]};
  }
  applied_failed(index);
  const WriteFailure& wf = last_write_failure();
  const std::string cause = wf.serial != store_serial ? std::string(failure_cause(wf.rc)) + " (" + wf.path + ")"
                                           : std::string("refused by the store (its report above says why)");
  char head[200];
  if (commit)
    std::snprintf(head, sizeof head, "apply of %llu changes in one transaction (HA numbers %llu..%llu, the last of "
                  "them sync opcode %u to ", static_cast<unsigned long long>(count),
                  static_cast<unsigned long long>(first), static_cast<unsigned long long>(first + count - 1), opcode);
  else
    std::snprintf(head, sizeof head, "apply of sync opcode %u (HA number %llu) to ", opcode,
                  static_cast<unsigned long long>(mi.h.ha_seqno));
  std::string detail = head + database_name(index) + (commit ? ") failed at its commit: " : " failed: ") + cause;
  if (count > 1 && !commit)
    detail += "; the " + std::to_string(count - 1) + " changes applied with it in one transaction (from HA number " +
              std::to_string(first) + ") are not applied either";
  detail += "; " + std::to_string(n) + (n == 1 ? " apply" : " applies") + " failed since the service started";
  if (st.out != 0 && st.resending) {
    // The resend ran into the same trouble: a gsync, not another resend, brings it back, and
    // not at once (a store that refused twice in a row is given a moment, and a gsync after
    // which the store refuses again does not repeat back to back): the daemon starts it once
    // the copy made no progress for RESYNC_STALL_MS.
    log::writef(PLAT_LOG_ERR, "sysmgr: SAP %u: standby out of sync: %s; the resend was refused too, the daemon "
                "will start a gsync", sap, detail.c_str());
    applied_out_of_sync(kOutOfSyncApplyFailed, count);
    st.out = kOutOfSyncApplyFailed;
    st.resending = false;
    st.asked = true;
    return;
  }
  go_out_of_sync(sap, mi, kOutOfSyncApplyFailed, count, detail);
}

void hold(uint32_t sap, const mts_msg_ref& ref);
int dispatch_in_order(uint32_t sap, const mts_msg_ref& ref, const mts::MsgInfo& mi, mts_msg_ref* other);
int while_out_of_sync(uint32_t sap, const mts_msg_ref& ref, const mts::MsgInfo& mi, mts_msg_ref* other);

// ---- Sync messages ----

// Already in the snapshot the standby was rebuilt from.
bool covered(const mts::MsgInfo& mi) {
  const GsyncView& g = state().gsync;
  return g.covered && mi.h.epoch == g.epoch && mi.h.ha_seqno <= g.point;
}

int apply_sync(uint32_t sap, const mts_msg_ref& ref, mts_msg_ref* other, bool live) {
  mts::MsgInfo mi;
  if (!mts::info(&ref, &mi)) return SYSMGR_RX_NONE;
  if (covered(mi)) {
    (void)mts_drop(sap, &ref);
    return SYSMGR_RX_SYNC;
  }
  Step& st = step();
  if (st.out == 0) {
    uint64_t missed = 0;
    if (const uint32_t why = out_of_step(mi, live, &missed); why != 0) go_out_of_sync(sap, mi, why, missed);
  }
  if (st.out != 0) return while_out_of_sync(sap, ref, mi, other);
  return dispatch_in_order(sap, ref, mi, other);
}

// mi is the next message of the stream: to the library's dispatcher.
int dispatch_in_order(uint32_t sap, const mts_msg_ref& ref, const mts::MsgInfo& mi, mts_msg_ref* other) {
  Step& st = step();
  st.known = true;
  st.epoch = mi.h.epoch;
  st.last = mi.h.ha_seqno;
  const Lib* l = lib();
  const uint64_t store_serial = last_write_failure().serial;
  const uint64_t before = l->store_failures != nullptr ? l->store_failures() : store_serial;
  if (l->dispatch(&ref) != 0) {
    *other = ref;
    return SYSMGR_RX_OTHER;
  }
  if ((l->store_failures != nullptr ? l->store_failures() : last_write_failure().serial) != before) {
    apply_failed(sap, mi, store_serial);
    (void)mts_drop(sap, &ref);
    return SYSMGR_RX_SYNC;
  }
  // The first payload byte of a sync message is its registry index.
  const auto* p = static_cast<const uint8_t*>(mi.payload);
  if (p != nullptr && mi.h.payload_len > 0) applied_note(p[0], mi.h.ha_seqno);
  hist::note_sync(hist::kApplied, sap, mi.h.epoch, mi.h.ha_seqno, mi.h.opcode, p, mi.h.payload_len);
  (void)mts_drop(sap, &ref);
  return SYSMGR_RX_SYNC;
}

// The resend is over: back in step, or (failed, incomplete, too late) on to a gsync.
void resend_over(uint32_t sap, bool complete, const char* why) {
  Step& st = step();
  st.resending = false;
  if (complete) {
    log::writef(PLAT_LOG_NOTICE, "sysmgr: SAP %u: standby back in sync by a resend from the active, at HA number %llu",
                sap, static_cast<unsigned long long>(st.last));
    st.out = 0;
    applied_in_step();
    return;
  }
  log::writef(PLAT_LOG_WARNING, "sysmgr: SAP %u: resend from HA number %llu not possible (%s); asking for a gsync",
              sap, static_cast<unsigned long long>(st.last + 1), why);
  st.asked = state().gsync.pending || link().gsync_get(0) == 0;
}

// Out of sync: while a resend is awaited, take what comes next in order and drop the rest;
// otherwise ask for the gsync once, then hold what comes (a gsync runs) or drop it.
int while_out_of_sync(uint32_t sap, const mts_msg_ref& ref, const mts::MsgInfo& mi, mts_msg_ref* other) {
  Step& st = step();
  if (st.resending && plat_now_ns() > st.resend_deadline_ns) resend_over(sap, false, "no answer in time");
  if (st.resending) {
    if (mi.h.epoch == st.epoch && mi.h.ha_seqno == st.last + 1) return dispatch_in_order(sap, ref, mi, other);
    (void)mts_drop(sap, &ref);
    return SYSMGR_RX_SYNC;
  }
  // A gsync already under way (the daemon started one) brings the copy back as well; a second
  // request would only supersede it. After a failed gsync the daemon tries again after its
  // back-off: asking at every message would run failing gsyncs back to back.
  if (!st.asked && st.out != kOutOfSyncGsyncFailed) st.asked = state().gsync.pending || link().gsync_get(0) == 0;
  if (state().gsync.pending) {
    hold(sap, ref);
    return SYSMGR_RX_SYNC;
  }
  // Not applied and not coming back by itself: the copy misses it until the gsync.
  (void)mts_drop(sap, &ref);
  applied_out_of_sync(st.out, 1);
  return SYSMGR_RX_SYNC;
}

// The active's side: a standby asks for the stream again. MTS sends it from the backlog and
// closes it with the reply, which says when it could not.
void on_resend_get(uint32_t sap, const mts::MsgInfo& mi) {
  proto::ResendGet g;
  if (!proto::decode(mi.payload, mi.h.payload_len, &g)) {
    log::writef(PLAT_LOG_ERR, "sysmgr: SAP %u: malformed resend request (%u bytes) from the peer's SAP %u; dropped", sap,
                mi.h.payload_len, mi.h.src_sap);
    return;
  }
  uint64_t end = 0;
  if (mts::resend(sap, mi.h.src_sap, g.epoch, g.from, proto::kResendReply, &end) == 0)
    log::writef(PLAT_LOG_NOTICE, "sysmgr: SAP %u: resent HA numbers %llu..%llu to the standby", sap,
                static_cast<unsigned long long>(g.from), static_cast<unsigned long long>(end));
  else if (errno == EAGAIN)
    ;  // the queue to the standby is full: it asks for the rest once it took this part
  else
    log::writef(PLAT_LOG_WARNING, "sysmgr: SAP %u: cannot resend from HA number %llu to the standby (%s); it will "
                "fall back to a gsync", sap, static_cast<unsigned long long>(g.from), std::strerror(errno));
}

// The standby's side: the resend is closed; complete when everything up to its end was taken.
void on_resend_reply(uint32_t sap, const mts::MsgInfo& mi) {
  Step& st = step();
  if (!st.resending || mi.h.epoch != st.epoch) return;  // late: the gsync took over
  const auto* p = static_cast<const uint8_t*>(mi.payload);
  const uint32_t err = p != nullptr && mi.h.payload_len == 4 ? static_cast<uint32_t>(mts::get_le(p, 4)) : EBADMSG;
  if (err == EAGAIN && st.last >= mi.h.ha_seqno) {
    // A part of the resend (the active sends no more than its queue to us holds at once):
    // everything of it was taken, so the rest is asked for.
    st.resend_deadline_ns = plat_now_ns() + partial_wait_ns();
    if (!ask_resend(sap, mi)) resend_over(sap, false, "the rest could not be asked for");
    return;
  }
  if (err != 0) return resend_over(sap, false, std::strerror(static_cast<int>(err)));
  if (st.last < mi.h.ha_seqno) return resend_over(sap, false, "frames of the resend were lost");
  resend_over(sap, true, "");
}

// Gsync ready: the copy is the snapshot's, taken at point of the active's stream.
void back_in_step(uint32_t epoch, uint64_t point) {
  Step& st = step();
  if (st.out != 0)
    log::writef(PLAT_LOG_NOTICE, "sysmgr: standby back in sync by gsync at HA number %llu",
                static_cast<unsigned long long>(point));
  st = Step{true, epoch, point, 0, false};
}

// Null when the sync message mi may change this service's copy; else why not.
const char* sync_refusal(uint32_t sap, const mts::MsgInfo& mi) {
  if (!mi.from_peer) return "a sync message not from the peer supervisor";
  if (mi.h.src_sap != sap) return "a sync message from another service's stream";
  if (local_supstate() != PLAT_SUP_STANDBY) return "a sync message while this supervisor is not the standby";
  return nullptr;
}

// During a gsync: keep the message for later. Past the bound it is dropped and remembered.
void hold(uint32_t sap, const mts_msg_ref& ref) {
  State& s = state();
  if (s.held.size() < hold_max()) {
    s.held.push_back(ref);
    return;
  }
  if (!s.gsync.overflowed)
    log::writef(PLAT_LOG_ERR, "sysmgr: SAP %u: more than %zu sync messages arrived during the gsync; dropping them "
                "and asking for another gsync once this one ends", sap, s.held.size());
  s.gsync.overflowed = true;
  (void)mts_drop(sap, &ref);
}

// Gsync over. Ready: what was held goes to the dispatcher in order. Failed: the copies are
// not usable (a fresh standby has none yet), so what was held follows a hole: it is dropped
// and counted, never applied, and the copy stays out of sync until a later gsync succeeds
// (the daemon tries again after its back-off, or the next message asks).
void release_held(uint32_t sap, bool ready) {
  State& s = state();
  const bool again = s.gsync.overflowed;
  s.gsync.pending = false;
  s.gsync.overflowed = false;
  if (!ready || step().out != 0) {
    const size_t dropped = s.held.size();
    for (const mts_msg_ref& r : s.held) (void)mts_drop(s.sap, &r);
    s.held.clear();
    log::writef(PLAT_LOG_ERR, "sysmgr: SAP %u: standby out of sync: gsync failed; %zu sync messages held during it "
                "dropped, not applied; waiting for the next gsync", sap, dropped);
    Step& st = step();
    st.asked = false;
    st.resending = false;
    st.out = kOutOfSyncGsyncFailed;
    applied_out_of_sync(kOutOfSyncGsyncFailed, dropped);
    return;
  }
  while (!s.held.empty()) {
    s.replay.push_back(s.held.front());
    s.held.pop_front();
  }
  if (again) (void)link().gsync_get(0);
}

// ---- Events of the daemon ----

// The library reports a configuration file it could not copy but answers nothing: the copies
// it should have made are looked for, so that one missing fails the write (which the daemon
// then leaves out of the startup area, with every other service's).
int cfg_copies_missing(const char* area) {
  const Lib* l = lib();
  if (l->registry == nullptr || l->handle == nullptr) return 0;
  int missing = 0;
  char prefix[64];
  std::snprintf(prefix, sizeof prefix, "%s_", l->handle->name);
  for (int i = 1; i <= HADRA_HA_MAX_DB; ++i) {
    const hadra_ha_pss_entry& e = l->registry[i];
    if (e.uri[0] == '\0' || e.cfg_name[0] == '\0') continue;
    const char* uri = sysmgr_uri_complete(area, prefix, e.cfg_name);
    char path[PATH_MAX];
    if (uri == nullptr || plat_uri_to_path(uri, path, sizeof path, 0) != 0 || ::access(path, F_OK) != 0) {
      log::writef(PLAT_LOG_ERR, "sysmgr: configuration write: %s%s was not written to %s", prefix, e.cfg_name, area);
      ++missing;
    }
  }
  return missing;
}

sysmgr_req_ctx make_ctx(const mts_msg_ref& ref, const proto::Event& ev) {
  sysmgr_req_ctx ctx;
  std::memset(&ctx, 0, sizeof ctx);
  ctx.msg = ref;
  ctx.req_id = ev.req_id;
  ctx.status = ev.status;
  return ctx;
}

// Handles one event; true when the message was handed over to the library (a deferred
// switchover answer), which then releases it.
bool on_event(const mts_msg_ref& ref, const proto::Event& ev) {
  sysmgr_req_ctx ctx = make_ctx(ref, ev);
  State& s = state();
  switch (ev.kind) {
    case proto::EventKind::kGsyncSnapshot:
      (void)lib()->gsync_snapshot(&ctx, ev.uri.c_str(), nullptr);
      return false;
    case proto::EventKind::kGsyncReady: {
      // 1: the service's hook took the answer over (and the rebuild with it).
      const int rc = lib()->gsync_ready(&ctx, ev.uri.c_str(), nullptr);
      if (rc != 0 && rc != 1) {
        // The copies could not be rebuilt from the snapshot (a full disk, a store that
        // refuses): nothing may be applied to them, and the copy is not in step.
        log::writef(PLAT_LOG_ERR, "sysmgr: SAP %u: the copies could not be rebuilt from the gsync's snapshot "
                    "(result %d; the library's report names the database)", s.sap, rc);
        release_held(s.sap, false);
        return false;
      }
      s.gsync.covered = true;
      s.gsync.point = ev.point;
      s.gsync.epoch = ev.epoch;
      applied_reset(ev.at_point);
      back_in_step(ev.epoch, ev.point);
      release_held(s.sap, true);
      return false;
    }
    case proto::EventKind::kGsyncFailed:
      (void)lib()->gsync_failed(&ctx);
      release_held(s.sap, false);
      return false;
    case proto::EventKind::kSwitchover:
      set_local_supstate(1);
      return lib()->switchover(&ctx, 1, nullptr, nullptr, ev.status != 0 ? 1 : 0) == 1;
    case proto::EventKind::kActiveMarker:
      (void)lib()->active_marker();
      return false;
    case proto::EventKind::kSwitchoverDone:
      (void)lib()->switchover_done();
      return false;
    case proto::EventKind::kGsyncStart:
      (void)link().gsync_get(0);
      return false;
    case proto::EventKind::kCfgWrite: {
      proto::Answer a;
      a.uuid = s.uuid;
      a.kind = proto::AnswerKind::kCfgWrite;
      a.req_id = ev.req_id;
      a.value = lib()->cfg_write(&ctx, ev.uri.c_str());
      if (a.value == 0 && cfg_copies_missing(ev.uri.c_str()) != 0) a.value = EIO;
      (void)send_to_daemon(proto::kAnswer, encode(a));
      return false;
    }
  }
  return false;
}

int from_daemon(uint32_t sap, const mts_msg_ref& ref, const mts::MsgInfo& mi) {
  bool kept = false;
  if (mi.h.opcode == proto::kEvent) {
    proto::Event ev;
    if (proto::decode(mi.payload, mi.h.payload_len, &ev))
      kept = on_event(ref, ev);
    else
      log::writef(PLAT_LOG_ERR, "sysmgr: SAP %u: malformed event from the daemon (%u bytes); dropped", sap,
                  mi.h.payload_len);
  } else if (mi.h.opcode == proto::kWelcome) {
    proto::Welcome w;
    if (!proto::decode(mi.payload, mi.h.payload_len, &w) || !proto::version_compatible(w.version))
      log::writef(PLAT_LOG_ERR, "sysmgr: SAP %u: the daemon's welcome is malformed or of another version", sap);
  }
  // Other messages of the daemon's range (the active markers when the service did not take
  // them itself, a handshake response it did not wait for) are dropped here.
  if (!kept) (void)mts_drop(sap, &ref);
  return SYSMGR_RX_EVENT;
}

bool is_from_daemon(const mts::MsgInfo& mi) {
  if (mi.from_peer || mi.h.src_sap != SYSMGR_SAP) return false;
  return proto::is_sysmgr_opcode(mi.h.opcode) || mi.h.opcode == MTS_OPC_YOU_ARE_ALMOST_ACTIVE ||
         mi.h.opcode == MTS_OPC_YOU_ARE_ACTIVE;
}

// Where a message goes (route() does it): the answer to a resend, the caller, a refusal, the
// hold of a gsync, the dispatcher (by way of the stream's checks), or the daemon's events.
enum class Way { kResend, kOther, kRefused, kHold, kSync, kDaemon };

Way way_of(uint32_t sap, const mts::MsgInfo& mi, const char** why) {
  *why = nullptr;
  if (mi.from_peer && (mi.h.opcode == proto::kResendGet || mi.h.opcode == proto::kResendReply)) return Way::kResend;
  if (mi.h.opcode != SYSMGR_OPC_HS_RESPONSE && is_from_daemon(mi)) return Way::kDaemon;
  if (mi.h.sync_event != MTS_SYNC_EVENT_UPDATE) return Way::kOther;
  // The peer's own service also sends notifications on this link (an SDB created or
  // destroyed, for one, when a standby rebuilds from a gsync): not changes to any copy, so
  // not refused as one on the active; they are the client's to take or leave, as on the
  // standby, where the dispatcher hands them back.
  if (const Lib* l = lib(); mi.from_peer && mi.h.src_sap == sap && l != nullptr && l->handle != nullptr &&
                            mi.h.opcode != l->handle->opcode && local_supstate() != PLAT_SUP_STANDBY)
    return Way::kOther;
  if ((*why = sync_refusal(sap, mi)) != nullptr) return Way::kRefused;
  return state().gsync.pending ? Way::kHold : Way::kSync;
}

int route(uint32_t sap, const mts_msg_ref& ref, mts_msg_ref* other) {
  mts::MsgInfo mi;
  if (!mts::info(&ref, &mi)) return SYSMGR_RX_NONE;
  const char* why = nullptr;
  switch (way_of(sap, mi, &why)) {
    case Way::kResend:
      if (mi.h.opcode == proto::kResendGet)
        on_resend_get(sap, mi);
      else
        on_resend_reply(sap, mi);
      (void)mts_drop(sap, &ref);
      return SYSMGR_RX_EVENT;
    case Way::kOther:
      *other = ref;
      return SYSMGR_RX_OTHER;
    case Way::kRefused:
      mts::auth::log_refusal("a sync message", "node " + std::to_string(mi.h.src_node) + " SAP " +
                                                   std::to_string(mi.h.src_sap) + " to SAP " + std::to_string(sap),
                             why);
      (void)mts_drop(sap, &ref);
      return SYSMGR_RX_SYNC;
    case Way::kHold:
      hold(sap, ref);
      return SYSMGR_RX_SYNC;
    case Way::kSync:
      return apply_sync(sap, ref, other, true);
    case Way::kDaemon:
      break;
  }
  return from_daemon(sap, ref, mi);
}

// ---- A run of queued changes, applied in one transaction per store ----
//
// When more sync messages are queued behind one about to be applied, the loop applies them
// in a batch (lmdb_store.h): each store commits once for the whole run. The run is the
// messages that are each the next of the stream for the dispatcher (the checks of route() and
// apply_sync()); it ends at anything else, at an empty queue (the loop never waits for more),
// or at kBatchMax messages or kBatchBytes of payload. What was applied is told (the applied
// table, the history) only once the commit succeeded. If a store fails anywhere in the run
// (an apply, or the commit at its end), none of it counts as applied: the stream goes back to
// the run's first number and the copy is out of sync, as for one failed apply, and a resend
// or gsync brings it back (changes apply the same when applied again).

constexpr long kBatchMax = 256;
constexpr size_t kBatchBytes = size_t{4} << 20;

// Changes per batch: SYNC_APPLY_BATCH, 1..kBatchMax (1: each change commits alone).
size_t batch_max() {
  const long n = plat_config_get_long("SYNC_APPLY_BATCH", kBatchMax);
  return static_cast<size_t>(n < 1 ? 1 : n > kBatchMax ? kBatchMax : n);
}

struct Applied {
  mts_msg_ref ref;
  uint32_t epoch;
  uint64_t seqno;
  uint32_t opcode;
  const void* payload;
  uint32_t len;
};

std::vector<Applied>& batch_run() {
  static std::vector<Applied> run;  // the receive loop's thread only, like the rest of its state
  return run;
}

uint64_t store_failures(const Lib* l) { return l->store_failures != nullptr ? l->store_failures() : last_write_failure().serial; }

// mi would go to the dispatcher as the next change of the stream.
// While a resend is awaited, that is the number after the last one taken (the resend's own
// frames, which a standby catching up finds queued in numbers).
bool in_order(uint32_t sap, const mts::MsgInfo& mi, bool live) {
  const char* why = nullptr;
  uint64_t missed = 0;
  const Step& st = step();
  if ((live && way_of(sap, mi, &why) != Way::kSync) || covered(mi)) return false;
  if (st.out != 0)
    return st.resending && plat_now_ns() <= st.resend_deadline_ns && mi.h.epoch == st.epoch &&
           mi.h.ha_seqno == st.last + 1;
  return out_of_step(mi, live, &missed) == 0;
}

// The next queued message: received now (live) or the next one released by gsync ready.
bool take_next(uint32_t sap, bool live, mts_msg_ref* ref) {
  State& s = state();
  if (!live) {
    if (s.replay.empty() || s.gsync.pending) return false;
    *ref = s.replay.front();
    s.replay.pop_front();
    return true;
  }
  mts_recv_opts opts;
  std::memset(&opts, 0, sizeof opts);
  return mts_recv(sap, ref, &opts) == 0;
}

void drop_run(uint32_t sap, std::vector<Applied>& run) {
  for (const Applied& a : run) (void)mts_drop(sap, &a.ref);
  run.clear();
}

// Ends the batch: commits, then tells what it applied; or the whole run failed.
void finish_run(uint32_t sap, std::vector<Applied>& run) {
  const uint64_t store_serial = last_write_failure().serial;
  if (apply_batch_end(true) != 0 && !run.empty()) {
    mts::MsgInfo mi;
    if (mts::info(&run.back().ref, &mi))
      apply_failed(sap, mi, store_serial, run.front().seqno, run.size(), true);
    drop_run(sap, run);
    return;
  }
  for (const Applied& a : run) {
    const auto* p = static_cast<const uint8_t*>(a.payload);
    if (p != nullptr && a.len > 0) applied_note(p[0], a.seqno);
    hist::note_sync(hist::kApplied, sap, a.epoch, a.seqno, a.opcode, p, a.len);
  }
  drop_run(sap, run);
}

// A message taken from the queue to look behind a change, whose turn did not come in that
// call (the change went back to the caller): the next call routes it first.
struct Stashed {
  bool have = false;
  bool live = false;
  mts_msg_ref ref{};
};
Stashed& stashed() {
  static Stashed s;
  return s;
}
void reset_stashed() { stashed() = Stashed(); }
const bool g_stashed_reset = (hadra::plat::register_reset(&reset_stashed), true);

// ref is the next change of the stream and next is queued behind it: both, and what follows
// in order, go to the dispatcher in one batch. The result is that of the last message taken.
int run_batch(uint32_t sap, mts_msg_ref ref, mts_msg_ref next, bool live, mts_msg_ref* other) {
  std::vector<Applied>& run = batch_run();
  run.clear();
  const Lib* l = lib();
  Step& st = step();
  size_t bytes = 0;
  const size_t most = batch_max();
  bool have_next = true;  // next is taken but not yet looked at
  apply_batch_begin();
  for (;;) {
    mts::MsgInfo mi;
    (void)mts::info(&ref, &mi);  // in_order() read it already
    st.known = true;
    st.epoch = mi.h.epoch;
    st.last = mi.h.ha_seqno;
    apply_batch_expect(mi.h.payload_len);
    const uint64_t store_serial = last_write_failure().serial;
    const uint64_t before = store_failures(l);
    const bool mine = l->dispatch(&ref) == 0;
    if (!mine || store_failures(l) != before || apply_batch_failed()) {
      if (!mine) {
        finish_run(sap, run);
        *other = ref;
      } else {
        (void)apply_batch_end(false);
        apply_failed(sap, mi, store_serial, run.empty() ? mi.h.ha_seqno : run.front().seqno, run.size() + 1);
        (void)mts_drop(sap, &ref);
        drop_run(sap, run);
      }
      if (have_next) stashed() = Stashed{true, live, next};
      return mine ? SYSMGR_RX_SYNC : SYSMGR_RX_OTHER;
    }
    run.push_back(Applied{ref, mi.h.epoch, mi.h.ha_seqno, mi.h.opcode, mi.payload, mi.h.payload_len});
    bytes += mi.h.payload_len;
    if (!have_next && (run.size() >= most || bytes >= kBatchBytes || !take_next(sap, live, &next))) break;
    mts::MsgInfo ni;
    if (!mts::info(&next, &ni) || !in_order(sap, ni, live)) {
      finish_run(sap, run);
      return live ? route(sap, next, other) : apply_sync(sap, next, other, false);
    }
    ref = next;
    have_next = false;
  }
  finish_run(sap, run);
  return SYSMGR_RX_SYNC;
}

// A message to route; when it is the next change of the stream and another waits behind
// it, the run of them is applied as one batch.
int deliver(uint32_t sap, const mts_msg_ref& ref, bool live, mts_msg_ref* other) {
  mts::MsgInfo mi;
  mts_msg_ref next;
  if (mts::info(&ref, &mi) && in_order(sap, mi, live) && batch_max() > 1 && take_next(sap, live, &next))
    return run_batch(sap, ref, next, live, other);
  return live ? route(sap, ref, other) : apply_sync(sap, ref, other, false);
}

}  // namespace

void set_library(const Lib* lib) noexcept { g_lib_override.store(lib); }

}  // namespace hadra::plat::sysmgr::client

namespace cl = hadra::plat::sysmgr::client;

extern "C" {

HADRA_PLAT_API int sysmgr_client_next(uint32_t sap, int timeout_ms, mts_msg_ref* other) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_client_next", -1);
  c.args("sap=%u timeout_ms=%d", sap, timeout_ms);
  if (c.faulted()) return c.fail<int>();
  if (sap == 0 || other == nullptr) {
    errno = EINVAL;
    return c.ret(-1);
  }
  std::memset(other, 0, sizeof *other);
  if (cl::lib() == nullptr) {
    errno = ENOSYS;
    return c.ret(-1);
  }
  if (cl::Stashed& st = cl::stashed(); st.have) {
    st.have = false;
    return c.ret(cl::deliver(sap, st.ref, st.live, other));
  }
  cl::State& s = cl::state();
  if (!s.replay.empty() && !s.gsync.pending) {
    const mts_msg_ref ref = s.replay.front();
    s.replay.pop_front();
    return c.ret(cl::deliver(sap, ref, false, other));
  }
  mts_msg_ref ref;
  mts_recv_opts opts;
  std::memset(&opts, 0, sizeof opts);
  if (timeout_ms > 0) {
    opts.flags = MTS_RECV_BLOCK;
    opts.timeout_s = static_cast<uint32_t>(timeout_ms / 1000);
    opts.timeout_ms = static_cast<uint32_t>(timeout_ms % 1000);
  }
  if (mts_recv(sap, &ref, &opts) != 0) {
    if (errno == EAGAIN || errno == ETIMEDOUT) return c.ret(SYSMGR_RX_NONE);
    return c.ret(-1);
  }
  return c.ret(cl::deliver(sap, ref, true, other));
}

}  // extern "C"
