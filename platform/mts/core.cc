// MTS core. Design:
//
//  - Endpoints. One per SAP that this process sends from or receives on, kept in a map under
//    one mutex (g.mu). A send-only endpoint exists from the SAP's first send; mts_bind makes
//    it receive too (and asks the transport to listen). Endpoints are shared_ptrs so that a
//    sender or a blocked receiver keeps its endpoint alive across a concurrent unbind; the
//    `closed` flag tells them it went away.
//  - Held messages. What a mts_msg_ref names: a slot in the endpoint's table with a
//    generation that is unique in the process. Dropping a message clears the slot, so a
//    stale or copied reference no longer matches and is refused, never followed.
//  - HA link numbering. Each (sending endpoint, peer SAP) is a stream numbered 1, 2, 3...
//    The endpoint's send mutex covers numbering and hand-over to the transport, so numbers
//    leave in order and a failed send gives its number back. Every stream carries an epoch
//    chosen when the endpoint is created, so a restarted sender opens a new stream.
//  - The peer never holds a sender up. A blocking send to the peer waits for queue room at
//    most MTS_PEER_SEND_TIMEOUT_MS; a frame that cannot leave in that time still takes its
//    number, so the standby sees a hole where it should be, and the stream is marked broken:
//    while it is, sends do not wait at all, and the frames that did not leave are counted as
//    missed. The first frame that leaves again ends the break. Non-blocking sends (the
//    daemon's, which retry on EAGAIN) give their number back instead, as before.
//  - Receiving. Frames from outside are decoded and checked here for every transport; per
//    (sender node, sender SAP) the receiving endpoint remembers the stream's epoch and last
//    number: a number already passed is a repeat and is dropped, a jump is a gap that is
//    counted and logged and the message is still taken. Either, and a frame dropped because
//    the receive queue is at its bound (MTS_RX_QUEUE_MAX), marks the next frame taken from
//    that stream as "in trouble" (MsgInfo::trouble): the receive loop then knows its copy
//    is no longer in step and resynchronises instead of applying what follows.
//
// Lock order: Endpoint::send_mu, then g.mu; the transport's own locks are taken with
// send_mu held but never with g.mu held, and the transport's thread takes only g.mu.
#include "mts/core.h"

#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <utility>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "log/hist_ring.h"
#include "log/log_internal.h"

namespace hadra::plat::mts {
namespace {

struct Message {
  WireHdr h;
  Frame frame;  // empty for a sent message: its payload is not kept
  bool from_peer = false;
  uint8_t trouble = 0;
  uint64_t skipped = 0;
  void* payload() const { return frame.empty() || h.payload_len == 0 ? nullptr : frame.data() + kWireHdrSize; }
};

struct Slot {
  uint64_t gen = 0;  // 0 while free
  uint8_t kind = MTS_REF_NONE;
  Message msg;
};

struct RxStream {
  uint8_t node;
  uint32_t src_sap;
  uint32_t epoch;
  uint64_t last;
  uint8_t trouble = 0;     // kTrouble* bits since the last frame taken
  uint64_t overflowed = 0; // frames dropped at the queue's bound in the current run
};

// Frames in a row that must find queue room before a stream that broke is waited for again.
constexpr uint32_t kSteadySends = 1000;

struct TxStream {
  uint32_t dst_sap;
  TxState st;
  int err = 0;  // why the current break started
  // After a break, the peer has not yet shown that it keeps up: sends do not wait for queue
  // room until kSteadySends frames in a row found room. Otherwise a slow standby that frees
  // one place at a time (or that a resend has just brought up to date, with its queue full
  // again) would end the break at every place and cost the active a bounded wait each time.
  bool wary = false;
  uint32_t steady = 0;
  // The newest frames of the stream, as they went (or would have gone) on the wire, for a
  // receiver that missed some to have them again; at most MTS_BACKLOG_BYTES in all.
  std::deque<std::vector<uint8_t>> backlog;
  size_t backlog_bytes = 0;
  // Blocking sends waiting to be handed over together (Settings::coalesce_max), already
  // numbered and in the backlog; pending_since: when the oldest was queued (plat_now_ns).
  std::vector<Frame> pending;
  size_t pending_bytes = 0;
  uint64_t pending_since = 0;
  uint64_t pending_first = 0;
  // A frame of this stream has gone through the transport alone: the link can be set up and
  // this supervisor's keys are usable. Until then frames go alone, so that a fault of this
  // side fails the call that met it instead of showing later as missed changes.
  bool proven = false;
};

struct Endpoint {
  Endpoint() = default;
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;
  ~Endpoint() {
    if (ready_fd >= 0) ::close(ready_fd);
  }
  uint32_t sap = 0;
  uint32_t epoch = 0;
  bool receiving = false;
  bool closed = false;
  std::mutex send_mu;
  std::deque<TxStream> tx;  // under send_mu (a deque: a stream never moves)
  // Streams of tx with frames waiting to be handed over (changed under send_mu; read without
  // it to skip endpoints that have none).
  std::atomic<uint32_t> pending_streams{0};
  // When the oldest frame waiting in any of its groups was queued (0: none), written under
  // send_mu: the flusher reads it without the lock, so that it does not contend with a busy
  // sender for a group that is not due yet.
  std::atomic<uint64_t> oldest_pending{0};
  // Under g.mu:
  std::deque<Message> queue;
  bool rx_held = false;  // the transport leaves frames in the link until the queue is half as deep
  std::vector<Slot> slots;
  std::vector<uint32_t> free_slots;
  std::vector<RxStream> rx;
  Counters counters;
  std::condition_variable cv;
  // Readable while the queue holds a message (or the endpoint closed): what a caller's
  // event loop polls. Made on first request; -1 until then.
  int ready_fd = -1;
  bool ready_set = false;
};

using EndpointPtr = std::shared_ptr<Endpoint>;

struct Done {
  unsigned snapshot = 0;
  unsigned gsync = 0;
};

struct Global {
  std::mutex mu;
  std::map<uint32_t, EndpointPtr> eps;
  std::shared_ptr<Transport> transport;
  Settings settings;
  bool configured = false;
  std::map<uint32_t, Done> done;
  Counters totals;
  std::atomic<uint32_t> next_msg_id{0};
  std::atomic<uint32_t> next_token{0};
  std::atomic<uint64_t> next_gen{0};
  std::atomic<uint32_t> next_epoch{0};
  // Read without a lock by whoever publishes the stream's health (the sent table).
  std::atomic<uint32_t> broken_streams{0};
  std::atomic<uint64_t> missed_total{0};
  // Moves whenever a held message may have gone (a drop, an unbind, a reset): what a thread
  // remembers of a held message is good only while this has not moved (see info()).
  std::atomic<uint64_t> releases{0};
  // The flusher: hands over frames that waited coalesce_us when their sender sent nothing
  // more. Sleeps while nothing waits (due == 0).
  std::mutex fl_mu;
  std::condition_variable fl_cv;
  std::thread flusher;
  pid_t flusher_pid = 0;
  uint64_t fl_due = 0;  // under fl_mu: when the flusher next has work (0: none)
  bool fl_stop = false;
};

Global& g() {
  static auto* s = new Global();  // never destroyed: calls may come during exit
  return *s;
}

uint32_t nonzero_counter(std::atomic<uint32_t>& c) {
  uint32_t v;
  do v = c.fetch_add(1, std::memory_order_relaxed) + 1;
  while (v == 0);
  return v;
}

// Different for every endpoint of every process that may talk to the same receiver.
uint32_t new_epoch() {
  uint64_t x = plat_now_ns() ^ (static_cast<uint64_t>(::getpid()) << 32) ^ nonzero_counter(g().next_epoch);
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdull;
  x ^= x >> 33;
  auto e = static_cast<uint32_t>(x);
  return e != 0 ? e : 1;
}

void configure_locked(Global& s) {
  if (s.configured) return;
  s.settings = read_settings();
  s.transport = s.settings.kind == "zmq" ? make_zmq_transport(s.settings) : make_loopback_transport(s.settings);
  s.configured = true;
}

EndpointPtr find_locked(Global& s, uint32_t sap) {
  auto it = s.eps.find(sap);
  return it == s.eps.end() ? nullptr : it->second;
}

EndpointPtr get_or_create_locked(Global& s, uint32_t sap) {
  EndpointPtr& ep = s.eps[sap];
  if (!ep) {
    ep = std::make_shared<Endpoint>();
    ep->sap = sap;
    ep->epoch = new_epoch();
  }
  return ep;
}

// Keep ready_fd readable exactly while there is something for a receiver to see.
void update_ready_locked(Endpoint& ep) {
  if (ep.ready_fd < 0) return;
  const bool want = !ep.queue.empty() || ep.closed;
  if (want == ep.ready_set) return;
  uint64_t v = 1;
  if (want) {
    if (::write(ep.ready_fd, &v, sizeof v) == sizeof v) ep.ready_set = true;
  } else if (::read(ep.ready_fd, &v, sizeof v) == sizeof v) {
    ep.ready_set = false;
  }
}

bool hold_locked(Endpoint& ep, Message&& m, uint8_t kind, mts_msg_ref* ref) {
  uint32_t idx;
  if (!ep.free_slots.empty()) {
    idx = ep.free_slots.back();
    ep.free_slots.pop_back();
  } else if (ep.slots.size() < MTS_HELD_MAX) {
    idx = static_cast<uint32_t>(ep.slots.size());
    ep.slots.emplace_back();
  } else {
    errno = ENOBUFS;
    return false;
  }
  Slot& s = ep.slots[idx];
  s.gen = g().next_gen.fetch_add(1, std::memory_order_relaxed) + 1;
  s.kind = kind;
  s.msg = std::move(m);
  ref->kind = kind;
  ref->sap = ep.sap;
  ref->slot = idx;
  ref->gen = s.gen;
  ref->msg_id = s.msg.h.msg_id;
  ref->opcode = s.msg.h.opcode;
  return true;
}

void free_slot_locked(Endpoint& ep, uint32_t idx) {
  g().releases.fetch_add(1, std::memory_order_release);
  Slot& s = ep.slots[idx];
  s.gen = 0;
  s.kind = MTS_REF_NONE;
  s.msg = Message();
  ep.free_slots.push_back(idx);
}

// The slot ref names, or null.
Slot* slot_locked(Global& s, const mts_msg_ref* ref, Endpoint** owner) {
  if (ref == nullptr || (ref->kind != MTS_REF_RECEIVED && ref->kind != MTS_REF_SENT) || ref->gen == 0) return nullptr;
  EndpointPtr ep = find_locked(s, ref->sap);
  if (!ep || ref->slot >= ep->slots.size()) return nullptr;
  Slot& sl = ep->slots[ref->slot];
  if (sl.gen != ref->gen || sl.kind != ref->kind) return nullptr;
  if (owner != nullptr) *owner = ep.get();
  return &sl;
}

// Sequence rules for a frame from outside. Returns false for a repeat; *gap gets the
// numbers skipped (0: none).
bool accept_seq_locked(Endpoint& ep, const WireHdr& h, uint64_t* gap, RxStream** stream) {
  *gap = 0;
  *stream = nullptr;
  if (h.ha_seqno == 0) return true;
  auto it = std::find_if(ep.rx.begin(), ep.rx.end(),
                         [&](const RxStream& r) { return r.node == h.src_node && r.src_sap == h.src_sap; });
  if (it == ep.rx.end() || it->epoch != h.epoch) {
    // First message of a stream (or of a restarted sender): it sets the count going.
    if (it == ep.rx.end()) it = ep.rx.insert(ep.rx.end(), RxStream{h.src_node, h.src_sap, h.epoch, 0});
    it->epoch = h.epoch;
    it->last = h.ha_seqno;
    it->trouble = 0;
    *stream = &*it;
    return true;
  }
  *stream = &*it;
  if (h.ha_seqno <= it->last) {
    ++ep.counters.repeats;
    it->trouble |= kTroubleRepeat;
    return false;
  }
  if (h.ha_seqno > it->last + 1) {
    *gap = h.ha_seqno - it->last - 1;
    ++ep.counters.gaps;
    ep.counters.missing += *gap;
    it->trouble |= kTroubleGap;
  }
  it->last = h.ha_seqno;
  return true;
}

void enqueue_locked(Endpoint& ep, Message&& m) {
  ep.queue.push_back(std::move(m));
  ++ep.counters.delivered;
  ep.cv.notify_one();
  update_ready_locked(ep);
}

TxStream& tx_stream(Endpoint& ep, uint32_t dst) {
  for (TxStream& t : ep.tx)
    if (t.dst_sap == dst) return t;
  ep.tx.emplace_back();
  ep.tx.back().dst_sap = dst;
  return ep.tx.back();
}

// Keeps a copy of a numbered frame; the oldest go beyond the bound.
void keep_in_backlog(TxStream& ts, const Frame& f, long bound) {
  if (bound <= 0 || f.size() > static_cast<size_t>(bound)) return;
  ts.backlog.emplace_back(f.data(), f.data() + f.size());
  ts.backlog_bytes += f.size();
  while (ts.backlog_bytes > static_cast<size_t>(bound)) {
    ts.backlog_bytes -= ts.backlog.front().size();
    ts.backlog.pop_front();
  }
}

// Copy hdr and the pieces into frame f after its wire header.
void fill_payload(uint8_t* p, const Outgoing& o) {
  if (o.hdr_len != 0) {
    std::memcpy(p, o.hdr, o.hdr_len);
    p += o.hdr_len;
  }
  if (o.desc == nullptr) return;
  for (uint32_t i = 0; i < o.desc->count; ++i) {
    const mts_piece& pc = o.desc->pieces[i];
    if (pc.len == 0) continue;
    std::memcpy(p, pc.ptr, pc.len);
    p += pc.len;
  }
}

// Deliver to an endpoint of this process, or hand to the transport.
int route_frame(Global& s, Transport* tp, const Outgoing& o, const WireHdr& h, Frame&& f) {
  if (!o.route.peer) {
    std::lock_guard<std::mutex> lock(s.mu);
    EndpointPtr dst = find_locked(s, o.route.sap);
    if (dst && dst->receiving) {
      enqueue_locked(*dst, Message{h, std::move(f), false});
      return 0;
    }
  }
  if (tp == nullptr) {
    errno = ENOTCONN;
    return -1;
  }
  return tp->transmit(o.route, std::move(f), (o.flags & MTS_SEND_NONBLOCK) != 0);
}

}  // namespace

int resolve(uint32_t src_sap, uint32_t addr, uint32_t dest_sap, Route* out) {
  if (addr == MTS_ADDR_PEER) {
    *out = Route{true, dest_sap != MTS_SAP_SAME ? dest_sap : src_sap};
    return 0;
  }
  if (addr != MTS_ADDR_LOCAL) {
    errno = EHOSTUNREACH;
    return -1;
  }
  if (dest_sap == 0) {
    errno = EINVAL;
    return -1;
  }
  *out = Route{false, dest_sap};
  return 0;
}

long payload_length(const void* hdr, uint32_t hdr_len, const mts_xbuf_desc* desc) {
  uint64_t total = hdr_len;
  if (hdr == nullptr && hdr_len != 0) {
    errno = EINVAL;
    return -1;
  }
  if (desc != nullptr) {
    if (desc->kind != MTS_XBUF_PIECES || desc->count > MTS_XBUF_MAX_PIECES ||
        (desc->count != 0 && desc->pieces == nullptr)) {
      errno = EINVAL;
      return -1;
    }
    for (uint32_t i = 0; i < desc->count; ++i) {
      if (desc->pieces[i].ptr == nullptr && desc->pieces[i].len != 0) {
        errno = EINVAL;
        return -1;
      }
      total += desc->pieces[i].len;
    }
  }
  if (total > MTS_PAYLOAD_MAX) {
    errno = EMSGSIZE;
    return -1;
  }
  return static_cast<long>(total);
}

namespace {

WireHdr header_for(const Outgoing& o, const Endpoint& ep, uint8_t node, uint32_t len) {
  WireHdr h;
  h.sync_event = o.route.peer ? MTS_SYNC_EVENT_UPDATE : MTS_SYNC_EVENT_NONE;
  if (o.desc != nullptr)
    h.flags = static_cast<uint8_t>((o.desc->notify != 0 ? MTS_MSG_NOTIFY : 0) | (o.desc->no_reply != 0 ? MTS_MSG_NO_REPLY : 0));
  h.src_node = node;
  h.opcode = o.opcode;
  h.src_sap = o.src_sap;
  h.dst_sap = o.route.sap;
  h.msg_id = nonzero_counter(g().next_msg_id);
  h.rr_token = o.rr_token != 0 ? o.rr_token : nonzero_counter(g().next_token);
  h.epoch = ep.epoch;
  h.payload_len = len;
  return h;
}

// A receiver reads several fields of the message it holds (opcode, payload, size, number...),
// each through its own call, and a sender reads the number of what it just sent: the first
// look-up (or the send) takes the lock, the others are answered from what this thread
// remembers of the message, as long as no held message of the process has gone since (a drop
// is the only way a held message changes).
struct Remembered {
  uint32_t sap = 0, slot = 0;
  uint64_t gen = 0;  // 0: nothing remembered
  uint8_t kind = 0;
  uint64_t releases = 0;
  MsgInfo mi;
};
thread_local Remembered t_seen;

// With g.mu held: this thread remembers what ref names.
void remember_locked(const mts_msg_ref& ref, const Message& m) {
  Remembered& r = t_seen;
  r.sap = ref.sap;
  r.slot = ref.slot;
  r.gen = ref.gen;
  r.kind = ref.kind;
  r.releases = g().releases.load(std::memory_order_relaxed);  // only moves under the lock
  r.mi.h = m.h;
  r.mi.payload = m.payload();
  r.mi.from_peer = m.from_peer;
  r.mi.trouble = m.trouble;
  r.mi.skipped = m.skipped;
}

// Keep the sender's reference to a message about to go.
bool hold_sent(Global& s, Endpoint& ep, const WireHdr& h, mts_msg_ref* ref) {
  std::lock_guard<std::mutex> lock(s.mu);
  if (ep.closed) errno = ECONNABORTED;
  if (ep.closed || !hold_locked(ep, Message{h, Frame(), false}, MTS_REF_SENT, ref)) {
    std::memset(ref, 0, sizeof *ref);
    return false;
  }
  remember_locked(*ref, ep.slots[ref->slot].msg);
  return true;
}

void unhold_sent(Global& s, mts_msg_ref* ref) {
  std::lock_guard<std::mutex> lock(s.mu);
  Endpoint* owner = nullptr;
  if (slot_locked(s, ref, &owner) != nullptr) free_slot_locked(*owner, ref->slot);
  std::memset(ref, 0, sizeof *ref);
}

// With the endpoint's send mutex held: count frames of blocking peer sends, numbered from
// `at`, did not leave.
void note_missed(Global& s, Endpoint& ep, TxStream& ts, int err, uint64_t at, uint64_t count = 1) {
  ts.st.missed += count;
  s.missed_total.fetch_add(count, std::memory_order_relaxed);
  long bound;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    ep.counters.sends_missed += count;
    if (!ts.st.broken) ++ep.counters.breaks;
    bound = s.settings.peer_send_timeout_ms;
  }
  ts.wary = true;
  ts.steady = 0;
  if (ts.st.broken) return;
  s.broken_streams.fetch_add(1, std::memory_order_relaxed);
  ts.st.broken = true;
  ts.st.broken_at = at;
  ts.err = err;
  plat_syslog(PLAT_LOG_ERR, "MTS: SAP %u: standby out of sync: HA number %llu for the peer's SAP %u did not leave "
              "within %ld ms (%s); changes go on locally and are counted as missed until the peer reads again",
              ep.sap, static_cast<unsigned long long>(at), ts.dst_sap, bound, std::strerror(err));
}

// With the endpoint's send mutex held: a frame left again after a break, numbered `at`.
void note_resumed(Endpoint& ep, TxStream& ts, uint64_t at) {
  const uint64_t n = at - ts.st.broken_at;
  plat_syslog(PLAT_LOG_WARNING, "MTS: SAP %u: standby out of sync: %llu changes missed for the peer's SAP %u "
              "(HA numbers %llu..%llu, %s); it reads again from %llu and must resynchronise",
              ep.sap, static_cast<unsigned long long>(n), ts.dst_sap,
              static_cast<unsigned long long>(ts.st.broken_at), static_cast<unsigned long long>(at - 1),
              std::strerror(ts.err), static_cast<unsigned long long>(at));
  ts.st.broken = false;
  ts.st.broken_at = 0;
  g().broken_streams.fetch_sub(1, std::memory_order_relaxed);
}

bool peer_side_error(int err);

// With the endpoint's send mutex held: hands over the frames waiting on ts, waiting for queue
// room as a blocking send would (not at all while the peer is known to lag). They have their
// numbers already, so whatever does not leave is a missed change, whatever the cause.
void flush_stream(Global& s, Endpoint& ep, Transport* tp, TxStream& ts) {
  if (ts.pending.empty()) return;
  const uint64_t first = ts.pending_first;
  const size_t n = ts.pending.size();
  size_t sent = 0;
  int err = ENOTCONN;
  if (tp != nullptr) {
    if (tp->transmit_many(Route{true, ts.dst_sap}, ts.pending, ts.st.broken || ts.wary, &sent) == 0) sent = n;
    else err = errno != 0 ? errno : EIO;
  }
  ts.pending.clear();
  ts.pending_bytes = 0;
  ts.pending_since = 0;
  ep.pending_streams.fetch_sub(1, std::memory_order_relaxed);
  uint64_t oldest = 0;
  for (const TxStream& other : ep.tx)
    if (!other.pending.empty() && (oldest == 0 || other.pending_since < oldest)) oldest = other.pending_since;
  ep.oldest_pending.store(oldest, std::memory_order_release);
  if (sent > 0) {
    if (ts.st.broken) note_resumed(ep, ts, first);
    if (ts.wary && (ts.steady += static_cast<uint32_t>(sent)) >= kSteadySends) ts.wary = false;
  }
  if (sent < n) {
    if (!peer_side_error(err)) ts.proven = false;  // this side's fault: the next frame goes alone and says it
    note_missed(s, ep, ts, err, first + sent, n - sent);
  }
}

// With the endpoint's send mutex held: every stream of ep with frames waiting, or (due != 0)
// those whose oldest frame was queued at or before due. The earliest time a stream left
// waiting must go, or 0.
uint64_t flush_streams(Global& s, Endpoint& ep, Transport* tp, uint64_t due, uint64_t wait_ns) {
  uint64_t next = 0;
  for (TxStream& ts : ep.tx) {
    if (ts.pending.empty()) continue;
    if (due == 0 || ts.pending_since <= due) {
      flush_stream(s, ep, tp, ts);
      continue;
    }
    const uint64_t at = ts.pending_since + wait_ns;
    if (next == 0 || at < next) next = at;
  }
  return next;
}

void flusher_loop();

// With the endpoint's send mutex held: the flusher must look again by `at`.
void arm_flusher(Global& s, uint64_t at) {
  std::lock_guard<std::mutex> lock(s.fl_mu);
  if (!s.flusher.joinable() || s.flusher_pid != ::getpid()) {
    if (s.flusher.joinable()) s.flusher.detach();  // a thread of the parent before a fork()
    s.fl_stop = false;
    s.flusher_pid = ::getpid();
    s.flusher = std::thread(flusher_loop);
  }
  const bool idle = s.fl_due == 0;
  if (idle || at < s.fl_due) s.fl_due = at;
  if (idle) s.fl_cv.notify_one();
}

// At a stop: a break still open is said with its count, so no missed change goes unmentioned.
void report_open_breaks(Endpoint& ep) {
  std::lock_guard<std::mutex> order(ep.send_mu);
  for (const TxStream& ts : ep.tx)
    if (ts.st.broken)
      plat_syslog(PLAT_LOG_WARNING, "MTS: SAP %u: standby out of sync: %llu changes missed for the peer's SAP %u "
                  "(HA numbers %llu..%llu, %s) when the stream closed", ep.sap,
                  static_cast<unsigned long long>(ts.st.last - ts.st.broken_at + 1), ts.dst_sap,
                  static_cast<unsigned long long>(ts.st.broken_at), static_cast<unsigned long long>(ts.st.last),
                  std::strerror(ts.err));
}

// Errors that say the peer is absent, slow or gone rather than that this side is at fault.
bool peer_side_error(int err) {
  switch (err) {
    case EAGAIN:
    case ETIMEDOUT:
    case ECONNREFUSED:
    case EHOSTUNREACH:
    case ENOTCONN:
    case ECONNRESET:
    case EPIPE:
      return true;
    default:
      return false;
  }
}

// How the frames of blocking peer sends are grouped (Settings::coalesce_max, coalesce_us).
struct Grouping {
  long max = 1;
  uint64_t wait_ns = 0;
};
// Grouping pays for small frames, whose cost is the hand-over itself; a large frame costs its
// bytes and goes alone, so that the receiver starts on it without waiting for a group.
constexpr size_t kGroupFrameMax = 8u << 10;
constexpr size_t kGroupBytes = 64u << 10;  // a group is handed over once it holds this much

// With the endpoint's send mutex held: number the frame, keep a reference, hand it over.
int send_ordered(Global& s, Endpoint& ep, Transport* tp, const Outgoing& o, WireHdr& h, Frame&& f,
                 mts_msg_ref* out_ref, long keep, const Grouping& grouping) {
  TxStream* ts = o.route.peer ? &tx_stream(ep, o.route.sap) : nullptr;
  h.ha_seqno = ts != nullptr ? ts->st.last + 1 : 0;
  encode(h, f.data());
  if (ts != nullptr)
    hist::note_sync(hist::kSent, ep.sap, h.epoch, h.ha_seqno, h.opcode, f.data() + kWireHdrSize, h.payload_len);
  if (out_ref != nullptr && !hold_sent(s, ep, h, out_ref)) return -1;
  const bool bounded = ts != nullptr && (o.flags & MTS_SEND_NONBLOCK) == 0;
  if (bounded && grouping.max > 1 && tp != nullptr && ts->proven && f.size() <= kGroupFrameMax) {
    // Queued with the frames before it and handed over as a group: by the send that fills the
    // group or finds its oldest frame overdue, by the sender's next receive, or else by the
    // flusher. It has its number now; a group that cannot leave counts as missed changes.
    keep_in_backlog(*ts, f, keep);
    ts->st.last = h.ha_seqno;
    const uint64_t now = plat_now_ns();
    if (ts->pending.empty()) {
      ts->pending_since = now;
      ts->pending_first = h.ha_seqno;
      ep.pending_streams.fetch_add(1, std::memory_order_relaxed);
      if (ep.oldest_pending.load(std::memory_order_relaxed) == 0) ep.oldest_pending.store(now, std::memory_order_release);
    }
    ts->pending_bytes += f.size();
    ts->pending.push_back(std::move(f));
    if (ts->pending.size() >= static_cast<size_t>(grouping.max) || ts->pending_bytes >= kGroupBytes ||
        now - ts->pending_since >= grouping.wait_ns)
      flush_stream(s, ep, tp, *ts);
    else if (ts->pending.size() == 1)
      arm_flusher(s, now + grouping.wait_ns);
    return 0;
  }
  // Anything else on the stream goes after what waits on it.
  if (ts != nullptr) flush_stream(s, ep, tp, *ts);
  Outgoing how = o;
  // A peer that has just shown it takes nothing is not waited for again on every change.
  if (bounded && (ts->st.broken || ts->wary)) how.flags |= MTS_SEND_NONBLOCK;
  if (ts != nullptr) keep_in_backlog(*ts, f, keep);
  if (route_frame(s, tp, how, h, std::move(f)) != 0) {
    int err = errno;
    // Only the peer's side can make a bounded send a missed change; a fault of this
    // supervisor's own (unusable keys, a frame too large) fails the call as before.
    const bool missed = bounded && peer_side_error(err);
    if (ts != nullptr && !missed && keep > 0 && !ts->backlog.empty() &&
        get_le(ts->backlog.back().data() + 24, 8) == h.ha_seqno) {
      ts->backlog_bytes -= ts->backlog.back().size();  // its number is given back: so is its place
      ts->backlog.pop_back();
    }
    if (missed) {
      ts->st.last = h.ha_seqno;  // the hole stays visible to the standby
      note_missed(s, ep, *ts, err, h.ha_seqno);
      return 0;
    }
    if (out_ref != nullptr) unhold_sent(s, out_ref);
    errno = err;
    return -1;
  }
  if (ts != nullptr) {
    ts->st.last = h.ha_seqno;
    ts->proven = true;
    if (ts->st.broken) note_resumed(ep, *ts, h.ha_seqno);
    if (ts->wary && ++ts->steady >= kSteadySends) ts->wary = false;
  }
  return 0;
}

// Hands over what waits on ep's streams (due as in flush_streams); the next time one left
// waiting must go, or 0.
uint64_t flush_endpoint(Global& s, const EndpointPtr& ep, uint64_t due) {
  if (!ep || ep->pending_streams.load(std::memory_order_relaxed) == 0) return 0;
  std::shared_ptr<Transport> tp;
  uint64_t wait_ns;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    tp = s.transport;
    wait_ns = static_cast<uint64_t>(s.settings.coalesce_us) * 1000u;
  }
  std::lock_guard<std::mutex> order(ep->send_mu);
  return flush_streams(s, *ep, tp.get(), due, wait_ns);
}

// Every endpoint's waiting frames, now.
void flush_all(Global& s) {
  std::vector<EndpointPtr> eps;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    for (auto& [sap, ep] : s.eps)
      if (ep->pending_streams.load(std::memory_order_relaxed) != 0) eps.push_back(ep);
  }
  for (const EndpointPtr& ep : eps) (void)flush_endpoint(s, ep, 0);
}

// For the flusher: every endpoint's frames queued at or before now - coalesce_us; the next
// time one must go, or 0. An endpoint whose oldest group is not due is left alone: its
// sender, busy sending, is not made to wait on its own lock.
uint64_t flush_due(Global& s, uint64_t now) {
  std::vector<EndpointPtr> eps;
  std::shared_ptr<Transport> tp;
  uint64_t wait_ns;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    for (auto& [sap, ep] : s.eps)
      if (ep->pending_streams.load(std::memory_order_relaxed) != 0) eps.push_back(ep);
    tp = s.transport;
    wait_ns = static_cast<uint64_t>(s.settings.coalesce_us) * 1000u;
  }
  const uint64_t due = now >= wait_ns ? now - wait_ns : 0;
  uint64_t next = 0;
  for (const EndpointPtr& ep : eps) {
    const uint64_t oldest = ep->oldest_pending.load(std::memory_order_acquire);
    uint64_t at = 0;
    if (oldest != 0 && oldest > due) {
      at = oldest + wait_ns;
    } else {
      std::lock_guard<std::mutex> order(ep->send_mu);
      at = flush_streams(s, *ep, tp.get(), due, wait_ns);
    }
    if (at != 0 && (next == 0 || at < next)) next = at;
  }
  return next;
}

void flusher_loop() {
  pthread_setname_np(pthread_self(), "hadra-mts-flush");
  // Its wake-ups must not preempt the sender it stands in for: a busy sender hands its groups
  // over itself, and when it falls silent its CPU is free for this thread at once.
  sched_param batch{};
  (void)pthread_setschedparam(pthread_self(), SCHED_BATCH, &batch);
  Global& s = g();
  std::unique_lock<std::mutex> lock(s.fl_mu);
  while (!s.fl_stop) {
    if (s.fl_due == 0) {
      s.fl_cv.wait(lock);
      continue;
    }
    const uint64_t now = plat_now_ns();
    if (now < s.fl_due) {
      s.fl_cv.wait_for(lock, std::chrono::nanoseconds(s.fl_due - now));
      continue;
    }
    s.fl_due = 0;
    lock.unlock();
    const uint64_t next = flush_due(s, now);
    lock.lock();
    if (next != 0 && (s.fl_due == 0 || next < s.fl_due)) s.fl_due = next;
  }
}

void stop_flusher(Global& s) {
  std::thread t;
  {
    std::lock_guard<std::mutex> lock(s.fl_mu);
    s.fl_stop = true;
    s.fl_due = 0;
    t.swap(s.flusher);
    s.fl_cv.notify_all();
  }
  if (t.joinable()) {
    if (s.flusher_pid == ::getpid() && t.get_id() != std::this_thread::get_id())
      t.join();
    else
      t.detach();  // the parent's, before a fork(): there is no such thread here
  }
  std::lock_guard<std::mutex> lock(s.fl_mu);
  s.fl_stop = false;
}

}  // namespace

int send(const Outgoing& o, mts_msg_ref* out_ref) {
  if (out_ref != nullptr) std::memset(out_ref, 0, sizeof *out_ref);
  if (o.src_sap == 0 || (o.flags & ~MTS_SEND_NONBLOCK) != 0) {
    errno = EINVAL;
    return -1;
  }
  long len = payload_length(o.hdr, o.hdr_len, o.desc);
  if (len < 0) return -1;
  Global& s = g();
  EndpointPtr ep;
  std::shared_ptr<Transport> tp;
  uint8_t node;
  long keep;
  Grouping grouping;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    configure_locked(s);
    ep = get_or_create_locked(s, o.src_sap);
    tp = s.transport;
    node = s.settings.slot;
    keep = s.settings.backlog_bytes;
    grouping.max = s.settings.coalesce_us > 0 ? s.settings.coalesce_max : 1;
    grouping.wait_ns = static_cast<uint64_t>(s.settings.coalesce_us) * 1000u;
  }
  Frame f = Frame::allocate(kWireHdrSize + static_cast<size_t>(len));
  if (f.empty()) {
    errno = ENOMEM;
    return -1;
  }
  fill_payload(f.data() + kWireHdrSize, o);
  WireHdr h = header_for(o, *ep, node, static_cast<uint32_t>(len));
  std::lock_guard<std::mutex> order(ep->send_mu);
  return send_ordered(s, *ep, tp.get(), o, h, std::move(f), out_ref, keep, grouping);
}

int bind(uint32_t sap) {
  if (sap == 0) {
    errno = EINVAL;
    return -1;
  }
  Global& s = g();
  std::shared_ptr<Transport> tp;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    configure_locked(s);
    EndpointPtr ep = get_or_create_locked(s, sap);
    if (ep->receiving) {
      errno = EADDRINUSE;
      return -1;
    }
    ep->receiving = true;
    tp = s.transport;
  }
  if (tp != nullptr && tp->open_endpoint(sap) == 0) return 0;
  int err = tp != nullptr ? errno : ENOTCONN;
  std::lock_guard<std::mutex> lock(s.mu);
  if (EndpointPtr ep = find_locked(s, sap)) ep->receiving = false;
  errno = err;
  return -1;
}

int unbind(uint32_t sap) {
  Global& s = g();
  EndpointPtr ep;
  std::shared_ptr<Transport> tp;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    ep = find_locked(s, sap);
  }
  (void)flush_endpoint(s, ep, 0);  // what the endpoint sent leaves before it goes
  {
    std::lock_guard<std::mutex> lock(s.mu);
    ep = find_locked(s, sap);
    if (!ep) {
      errno = EADDRNOTAVAIL;
      return -1;
    }
    s.eps.erase(sap);
    ep->closed = true;
    ep->cv.notify_all();
    update_ready_locked(*ep);
    tp = ep->receiving ? s.transport : nullptr;
  }
  if (tp != nullptr) tp->close_endpoint(sap);
  std::lock_guard<std::mutex> lock(s.mu);
  // Messages go now; blocked receivers still hold the endpoint and see `closed`.
  ep->queue.clear();
  ep->slots.clear();
  ep->free_slots.clear();
  s.releases.fetch_add(1, std::memory_order_release);
  return 0;
}

int recv(uint32_t sap, mts_msg_ref* ref, const mts_recv_opts* opts) {
  if (ref == nullptr || (opts != nullptr && (opts->flags & ~MTS_RECV_BLOCK) != 0)) {
    errno = EINVAL;
    return -1;
  }
  std::memset(ref, 0, sizeof *ref);
  Global& s = g();
  std::unique_lock<std::mutex> lock(s.mu);
  EndpointPtr ep = find_locked(s, sap);
  if (ep && ep->pending_streams.load(std::memory_order_relaxed) != 0) {
    // A sender that turns to receiving has finished a run of changes: they leave now rather
    // than when the flusher comes by.
    lock.unlock();
    (void)flush_endpoint(s, ep, 0);
    lock.lock();
  }
  if (!ep || !ep->receiving) {
    errno = EADDRNOTAVAIL;
    return -1;
  }
  if (ep->queue.empty()) {
    if (opts == nullptr || (opts->flags & MTS_RECV_BLOCK) == 0) {
      errno = EAGAIN;
      return -1;
    }
    uint64_t ms = static_cast<uint64_t>(opts->timeout_s) * 1000u + opts->timeout_ms;
    auto cap = static_cast<uint64_t>(std::max(0L, s.settings.recv_max_wait_ms));
    if (ms == 0 || ms > cap) ms = cap;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    ep->cv.wait_until(lock, deadline, [&] { return !ep->queue.empty() || ep->closed; });
    if (ep->closed) {
      errno = ECONNABORTED;
      return -1;
    }
    if (ep->queue.empty()) {
      errno = ETIMEDOUT;
      return -1;
    }
  }
  if (!hold_locked(*ep, std::move(ep->queue.front()), MTS_REF_RECEIVED, ref)) return -1;
  ep->queue.pop_front();
  update_ready_locked(*ep);
  if (ep->rx_held && ep->queue.size() <= static_cast<size_t>(s.settings.rx_hold) / 2) {
    ep->rx_held = false;
    std::shared_ptr<Transport> tp = s.transport;
    lock.unlock();
    if (tp) tp->receiver_ready(sap);
  }
  return 0;
}

size_t receive_room(uint32_t sap) {
  Global& s = g();
  std::lock_guard<std::mutex> lock(s.mu);
  EndpointPtr ep = find_locked(s, sap);
  if (!ep || s.settings.rx_hold <= 0) return SIZE_MAX;
  const auto hold = static_cast<size_t>(s.settings.rx_hold);
  ep->rx_held = ep->queue.size() >= hold;
  return ep->rx_held ? 0 : hold - ep->queue.size();
}

int ready_fd(uint32_t sap) {
  Global& s = g();
  std::lock_guard<std::mutex> lock(s.mu);
  EndpointPtr ep = find_locked(s, sap);
  if (!ep || !ep->receiving) {
    errno = EADDRNOTAVAIL;
    return -1;
  }
  if (ep->ready_fd < 0) {
    ep->ready_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (ep->ready_fd < 0) return -1;
    update_ready_locked(*ep);
  }
  return ep->ready_fd;
}

uint64_t last_sent(uint32_t sap, uint32_t dst_sap, uint32_t* epoch) {
  Global& s = g();
  EndpointPtr ep;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    ep = find_locked(s, sap);
  }
  if (!ep) return 0;
  std::lock_guard<std::mutex> order(ep->send_mu);
  if (epoch != nullptr) *epoch = ep->epoch;
  for (const TxStream& t : ep->tx)
    if (t.dst_sap == dst_sap) return t.st.last;
  return 0;
}

namespace {

// A frame of the backlog (or the resend's closing reply) on its way again; nonblock: without
// waiting for queue room.
// A copy of a frame as it went, flagged as sent again (empty when memory is short).
Frame resent_copy(const uint8_t* p, size_t n) {
  Frame f = Frame::allocate(n);
  if (f.empty()) return f;
  std::memcpy(f.data(), p, n);
  f.data()[6] |= kFlagResent;
  return f;
}

int transmit_again(Global& s, Transport* tp, uint32_t sap, uint32_t dst_sap, const uint8_t* p, size_t n,
                   bool nonblock = false) {
  Frame f = resent_copy(p, n);
  if (f.empty()) {
    errno = ENOMEM;
    return -1;
  }
  Outgoing o;
  o.src_sap = sap;
  o.route = Route{true, dst_sap};
  if (nonblock) o.flags = MTS_SEND_NONBLOCK;
  return route_frame(s, tp, o, WireHdr(), std::move(f));
}

// The reply that closes a resend: numbered with the last frame resent, its payload the result.
void send_resend_reply(Global& s, Transport* tp, Endpoint& ep, uint32_t dst_sap, uint32_t opcode, uint8_t node,
                       uint64_t upto, int err) {
  WireHdr h;
  h.sync_event = MTS_SYNC_EVENT_UPDATE;
  h.flags = kFlagResent;
  h.src_node = node;
  h.opcode = opcode;
  h.src_sap = ep.sap;
  h.dst_sap = dst_sap;
  h.msg_id = nonzero_counter(s.next_msg_id);
  h.rr_token = nonzero_counter(s.next_token);
  h.ha_seqno = upto;
  h.epoch = ep.epoch;
  h.payload_len = 4;
  uint8_t frame[kWireHdrSize + 4];
  encode(h, frame);
  put_le(frame + kWireHdrSize, static_cast<uint32_t>(err), 4);
  (void)transmit_again(s, tp, ep.sap, dst_sap, frame, sizeof frame);
}

}  // namespace

int resend(uint32_t sap, uint32_t dst_sap, uint32_t epoch, uint64_t from, uint32_t reply_opcode, uint64_t* end) {
  Global& s = g();
  EndpointPtr ep;
  std::shared_ptr<Transport> tp;
  uint8_t node;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    configure_locked(s);
    ep = find_locked(s, sap);
    tp = s.transport;
    node = s.settings.slot;
  }
  if (!ep) {
    errno = EADDRNOTAVAIL;
    return -1;
  }
  std::lock_guard<std::mutex> order(ep->send_mu);
  TxStream& ts = tx_stream(*ep, dst_sap);
  flush_stream(s, *ep, tp.get(), ts);  // the resent frames come after what still waited
  const uint64_t first = ts.backlog.empty() ? ts.st.last + 1 : get_le(ts.backlog.front().data() + 24, 8);
  int err = 0;
  if (epoch != ep->epoch)
    err = ESTALE;  // another stream: the receiver's numbers mean nothing here
  else if (from == 0 || from > ts.st.last + 1)
    err = EINVAL;
  else if (from < first)
    err = ERANGE;  // the backlog no longer holds it all
  uint64_t n = from;
  // Each frame goes only if the queue has room now: a full queue ends this part (EAGAIN in
  // the reply, numbered with the last frame that went) instead of holding the active's loop.
  // Small frames go in groups, as the stream's own do (the queue's bound counts groups).
  long group = 1;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    if (s.settings.coalesce_us > 0) group = s.settings.coalesce_max;
  }
  std::vector<Frame> frames;
  while (err == 0 && n <= ts.st.last) {
    size_t bytes = 0;
    for (uint64_t k = n; k <= ts.st.last && frames.size() < static_cast<size_t>(group); ++k) {
      const std::vector<uint8_t>& b = ts.backlog[k - first];
      if (!frames.empty() && (b.size() > kGroupFrameMax || bytes + b.size() > kGroupBytes)) break;
      Frame f = resent_copy(b.data(), b.size());
      if (f.empty()) break;
      bytes += b.size();
      frames.push_back(std::move(f));
    }
    if (frames.empty()) {
      err = ENOMEM;
      break;
    }
    const size_t count = frames.size();
    size_t sent = 0;
    if (tp == nullptr) {
      frames.clear();
      err = ENOTCONN;
    } else if (tp->transmit_many(Route{true, dst_sap}, frames, true, &sent) != 0) {
      err = errno != 0 ? errno : EIO;
    } else {
      sent = count;
    }
    n += sent;
  }
  const uint64_t upto = n - 1;
  send_resend_reply(s, tp.get(), *ep, dst_sap, reply_opcode, node, upto, err);
  if (err == 0 && ts.st.broken) note_resumed(*ep, ts, ts.st.last);
  if (end != nullptr) *end = upto;
  if (err != 0) {
    errno = err;
    return -1;
  }
  return 0;
}

bool peer_health(uint64_t* missed) {
  *missed = g().missed_total.load(std::memory_order_relaxed);
  return g().broken_streams.load(std::memory_order_relaxed) != 0;
}

bool tx_state(uint32_t sap, uint32_t dst_sap, TxState* out) {
  Global& s = g();
  EndpointPtr ep;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    ep = find_locked(s, sap);
  }
  if (!ep) return false;
  std::lock_guard<std::mutex> order(ep->send_mu);
  for (const TxStream& t : ep->tx)
    if (t.dst_sap == dst_sap) {
      *out = t.st;
      return true;
    }
  return false;
}

int drop(uint32_t sap, const mts_msg_ref* ref) {
  Global& s = g();
  std::lock_guard<std::mutex> lock(s.mu);
  Endpoint* owner = nullptr;
  if (ref == nullptr || ref->sap != sap || slot_locked(s, ref, &owner) == nullptr) {
    errno = EINVAL;
    return -1;
  }
  free_slot_locked(*owner, ref->slot);
  return 0;
}

bool info(const mts_msg_ref* ref, MsgInfo* out) {
  Global& s = g();
  const Remembered& r = t_seen;
  if (ref != nullptr && r.gen != 0 && r.gen == ref->gen && r.sap == ref->sap && r.slot == ref->slot &&
      r.kind == ref->kind && r.releases == s.releases.load(std::memory_order_acquire)) {
    *out = r.mi;
    return true;
  }
  std::lock_guard<std::mutex> lock(s.mu);
  Slot* sl = slot_locked(s, ref, nullptr);
  if (sl == nullptr) {
    errno = EINVAL;
    return false;
  }
  remember_locked(*ref, sl->msg);
  *out = t_seen.mi;
  return true;
}

namespace {

// A receiver that does not keep up must not make its process grow without bound: past
// MTS_RX_QUEUE_MAX queued messages, frames of peer streams are dropped and the stream is
// marked, so the receive loop resynchronises instead of applying around the hole. Messages
// within the supervisor (the daemon's) still queue. True when the frame is to be dropped.
void note_resent_locked(Endpoint& ep, const WireHdr& h) {
  for (RxStream& r : ep.rx)
    if (r.node == h.src_node && r.src_sap == h.src_sap && r.epoch == h.epoch && h.ha_seqno > r.last) r.last = h.ha_seqno;
}

bool over_bound_locked(Global& s, Endpoint& ep, RxStream& rs, const WireHdr& h) {
  const long max = s.settings.rx_queue_max;
  if (max <= 0 || ep.queue.size() < static_cast<size_t>(max)) return false;
  ++ep.counters.overflows;
  rs.trouble |= kTroubleOverflow;
  if (rs.overflowed++ == 0)
    plat_syslog(PLAT_LOG_ERR, "MTS: SAP %u: receive queue full (%zu messages): dropping frames of node %u SAP %u "
                "from HA number %llu; the stream is broken and the receiver must resynchronise",
                ep.sap, ep.queue.size(), h.src_node, h.src_sap, static_cast<unsigned long long>(h.ha_seqno));
  return true;
}

}  // namespace

namespace {

// What a frame taken under the lock still has to say once the lock is released.
struct AfterLock {
  struct Note {
    bool gap;  // else: undeliverable
    WireHdr h;
    uint64_t n;  // gap: the number expected; undeliverable: how many dropped so far
  };
  std::vector<Note> notes;
  std::vector<Endpoint*> woken;  // endpoints that got messages: one wake-up each

  void say() const {
    for (const Note& x : notes) {
      if (x.gap) {
        plat_syslog(PLAT_LOG_ERR, "MTS: SAP %u: gap in HA sequence numbers from node %u SAP %u: expected %llu, got %llu",
                    x.h.dst_sap, x.h.src_node, x.h.src_sap, static_cast<unsigned long long>(x.n),
                    static_cast<unsigned long long>(x.h.ha_seqno));
        continue;
      }
      // Usually a service that is not running (yet) on this supervisor: said with the sender,
      // a few lines per interval per SAP, the rest as a count.
      const std::string key = "MTS undeliverable " + std::to_string(x.h.dst_sap);
      log::limited_writef(key.c_str(), PLAT_LOG_WARNING,
                          "MTS: dropped a frame (opcode %u) from node %u SAP %u for SAP %u: nothing receives on "
                          "that SAP here (%llu dropped so far)",
                          x.h.opcode, x.h.src_node, x.h.src_sap, x.h.dst_sap, static_cast<unsigned long long>(x.n));
    }
  }
};

// One frame from outside, with g.mu held; see deliver_frame for the result.
int deliver_locked(Global& s, Frame&& f, bool force_peer, AfterLock& after) {
  WireHdr h;
  if (!decode(f.data(), f.size(), MTS_PAYLOAD_MAX, &h)) {
    ++s.totals.bad_frames;
    errno = EBADMSG;
    return -1;
  }
  EndpointPtr ep = find_locked(s, h.dst_sap);
  if (!ep || !ep->receiving) {
    after.notes.push_back({false, h, ++s.totals.undeliverable});
    errno = EADDRNOTAVAIL;
    return -1;
  }
  const bool from_peer = force_peer || h.src_node != s.settings.slot;
  Message m{h, std::move(f), from_peer, 0, 0};
  if ((h.flags & kFlagResent) != 0) {
    // Asked for by the receiver, outside the stream's count; it only moves the count on. The
    // queue's bound holds for it too: the receiver notices what it did not get.
    const long max = s.settings.rx_queue_max;
    if (max > 0 && ep->queue.size() >= static_cast<size_t>(max)) {
      ++ep->counters.overflows;
      return 1;
    }
    note_resent_locked(*ep, h);
  } else {
    uint64_t gap = 0;
    RxStream* rs = nullptr;
    if (!accept_seq_locked(*ep, h, &gap, &rs)) return 1;
    if (gap != 0) after.notes.push_back({true, h, h.ha_seqno - gap});
    if (rs != nullptr && over_bound_locked(s, *ep, *rs, h)) return 1;
    if (rs != nullptr) {
      m.trouble = std::exchange(rs->trouble, 0);
      m.skipped = gap;
      rs->overflowed = 0;
    }
  }
  ep->queue.push_back(std::move(m));
  ++ep->counters.delivered;
  if (std::find(after.woken.begin(), after.woken.end(), ep.get()) == after.woken.end()) after.woken.push_back(ep.get());
  return 0;
}

// With g.mu held: the receivers of what was queued learn of it, once per endpoint.
void wake_locked(const AfterLock& after) {
  for (Endpoint* ep : after.woken) {
    ep->cv.notify_one();
    update_ready_locked(*ep);
  }
}

}  // namespace

int deliver_frame(Frame&& f, bool force_peer) {
  Global& s = g();
  AfterLock after;
  int rc;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    rc = deliver_locked(s, std::move(f), force_peer, after);
    wake_locked(after);
  }
  const int err = errno;
  after.say();
  errno = err;
  return rc;
}

size_t deliver_frames(std::vector<Frame>& frames, bool force_peer) {
  Global& s = g();
  AfterLock after;
  size_t queued = 0;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    for (Frame& f : frames)
      if (deliver_locked(s, std::move(f), force_peer, after) == 0) ++queued;
    wake_locked(after);
  }
  frames.clear();
  after.say();
  return queued;
}

void record_done(mts_sap_id id, bool snapshot) {
  std::lock_guard<std::mutex> lock(g().mu);
  Done& d = g().done[id];
  ++(snapshot ? d.snapshot : d.gsync);
}

unsigned done_count(uint32_t sap, bool snapshot) {
  std::lock_guard<std::mutex> lock(g().mu);
  auto it = g().done.find(sap);
  if (it == g().done.end()) return 0;
  return snapshot ? it->second.snapshot : it->second.gsync;
}

bool counters(uint32_t sap, Counters* out) {
  Global& s = g();
  std::lock_guard<std::mutex> lock(s.mu);
  if (sap == 0) {
    *out = s.totals;
    return true;
  }
  EndpointPtr ep = find_locked(s, sap);
  if (!ep) return false;
  *out = ep->counters;
  return true;
}

size_t queued(uint32_t sap) {
  std::lock_guard<std::mutex> lock(g().mu);
  EndpointPtr ep = find_locked(g(), sap);
  return ep ? ep->queue.size() : 0;
}

size_t held(uint32_t sap) {
  std::lock_guard<std::mutex> lock(g().mu);
  EndpointPtr ep = find_locked(g(), sap);
  return ep ? ep->slots.size() - ep->free_slots.size() : 0;
}

std::shared_ptr<Transport> transport() {
  std::lock_guard<std::mutex> lock(g().mu);
  configure_locked(g());
  return g().transport;
}

uint8_t own_slot() {
  std::lock_guard<std::mutex> lock(g().mu);
  configure_locked(g());
  return g().settings.slot;
}

void flush(int ms) {
  Global& s = g();
  std::vector<EndpointPtr> eps;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    if (s.transport) s.transport->linger(ms);
    for (auto& [sap, ep] : s.eps) eps.push_back(ep);
  }
  flush_all(s);  // frames still grouped leave with the rest
  for (const EndpointPtr& ep : eps) report_open_breaks(*ep);
  reset();
}

void reset() {
  Global& s = g();
  stop_flusher(s);
  std::map<uint32_t, EndpointPtr> eps;
  std::shared_ptr<Transport> tp;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    eps.swap(s.eps);
    tp.swap(s.transport);
    for (auto& [sap, ep] : eps) {
      ep->closed = true;
      ep->receiving = false;
      ep->cv.notify_all();
      update_ready_locked(*ep);
    }
    s.configured = false;
    s.broken_streams = 0;
    s.missed_total = 0;
    s.done.clear();
    s.totals = Counters();
  }
  // Messages first (some hold the transport's buffers), then the transport and its thread.
  {
    std::lock_guard<std::mutex> lock(s.mu);
    for (auto& [sap, ep] : eps) {
      ep->queue.clear();
      ep->slots.clear();
      ep->free_slots.clear();
      s.releases.fetch_add(1, std::memory_order_release);
    }
  }
  eps.clear();
  tp.reset();
}

}  // namespace hadra::plat::mts
