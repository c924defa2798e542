// The MTS testing interface (hadra_mts_testing.h) and the reset hook.
#include <cerrno>
#include <cstring>

#include "common/call.h"
#include "hadra_mts_testing.h"
#include "mts/core.h"

namespace mts = hadra::plat::mts;

namespace {

// Registered at load time: plat_test_reset() closes endpoints, sockets and the I/O thread.
const bool g_reset_registered = (hadra::plat::register_reset(&mts::reset), true);

mts::LoopbackTransport* loopback() {
  std::shared_ptr<mts::Transport> tp = mts::transport();
  // The core keeps the transport alive until reset; tests do not reset concurrently.
  return tp != nullptr ? tp->loopback() : nullptr;
}

// Epoch of the stream that mts_test_deliver plays.
constexpr uint32_t kTestEpoch = 0x7e57u;

// Hands head then body to the core as one frame, as if the transport had received it. An
// empty frame still takes a byte, for the core to refuse like any short one.
int deliver_bytes(const void* head, size_t head_len, const void* body, size_t body_len, bool from_peer) {
  size_t len = head_len + body_len;
  mts::Frame f = mts::Frame::allocate(len != 0 ? len : 1);
  if (f.empty()) {
    errno = ENOMEM;
    return -1;
  }
  if (head_len != 0) std::memcpy(f.data(), head, head_len);
  if (body_len != 0) std::memcpy(f.data() + head_len, body, body_len);
  return mts::deliver_frame(std::move(f), from_peer);
}

}  // namespace

extern "C" {

HADRA_PLAT_API const char* mts_test_transport(void) noexcept {
  std::shared_ptr<mts::Transport> tp = mts::transport();
  return tp != nullptr ? tp->name() : "none";
}

HADRA_PLAT_API size_t mts_test_peer_count(void) noexcept {
  mts::LoopbackTransport* lb = loopback();
  return lb != nullptr ? lb->outbox_size() : 0;
}

HADRA_PLAT_API long mts_test_peer_read(void* buf, size_t size, int take) noexcept {
  mts::LoopbackTransport* lb = loopback();
  return lb != nullptr ? lb->peek(buf, size, take != 0) : -1;
}

HADRA_PLAT_API uint64_t mts_test_peer_dropped(void) noexcept {
  mts::LoopbackTransport* lb = loopback();
  return lb != nullptr ? lb->dropped() : 0;
}

HADRA_PLAT_API size_t mts_test_peer_forward(size_t max) noexcept {
  mts::LoopbackTransport* lb = loopback();
  size_t queued = 0;
  for (size_t n = 0; lb != nullptr && (max == 0 || n < max); ++n) {
    mts::Frame f = lb->pop();
    if (f.empty()) break;
    if (mts::deliver_frame(std::move(f), true) == 0) ++queued;
  }
  return queued;
}

HADRA_PLAT_API int mts_test_feed(const void* frame, size_t len) noexcept {
  if (frame == nullptr || len > mts::kWireHdrSize + MTS_PAYLOAD_MAX) {
    errno = EINVAL;
    return -1;
  }
  // A frame shorter than its header is refused (and counted) by the core like any other.
  return deliver_bytes(frame, len, nullptr, 0, true);
}

HADRA_PLAT_API int mts_test_deliver(uint32_t sap, uint32_t src_sap, int from_peer, uint32_t opcode, int sync_event,
                                    uint64_t ha_seqno, uint32_t rr_token, const void* payload, uint32_t len) noexcept {
  if (sap == 0 || sync_event < 0 || sync_event > 255 || len > MTS_PAYLOAD_MAX || (payload == nullptr && len != 0)) {
    errno = EINVAL;
    return -1;
  }
  mts::WireHdr h;
  h.sync_event = static_cast<uint8_t>(sync_event);
  h.src_node = mts::own_slot();
  h.opcode = opcode;
  h.src_sap = src_sap;
  h.dst_sap = sap;
  h.ha_seqno = ha_seqno;
  h.rr_token = rr_token;
  h.epoch = kTestEpoch;
  h.payload_len = len;
  uint8_t wire[mts::kWireHdrSize];
  mts::encode(h, wire);
  return deliver_bytes(wire, sizeof wire, payload, len, from_peer != 0);
}

HADRA_PLAT_API int mts_test_counters_get(uint32_t sap, mts_test_counters* out) noexcept {
  mts::Counters c;
  if (out == nullptr || !mts::counters(sap, &c)) return -1;
  *out = {c.delivered, c.repeats, c.gaps, c.missing, c.bad_frames, c.undeliverable, c.overflows, c.sends_missed,
          c.breaks};
  return 0;
}

HADRA_PLAT_API void mts_test_peer_refuse(uint64_t n) noexcept {
  if (mts::LoopbackTransport* lb = loopback(); lb != nullptr) lb->refuse_peer(n);
}

HADRA_PLAT_API int mts_test_tx_state(uint32_t sap, uint32_t dst_sap, uint64_t* last, int* broken,
                                     uint64_t* missed) noexcept {
  mts::TxState st;
  if (!mts::tx_state(sap, dst_sap, &st)) return -1;
  if (last != nullptr) *last = st.last;
  if (broken != nullptr) *broken = st.broken ? 1 : 0;
  if (missed != nullptr) *missed = st.missed;
  return 0;
}

HADRA_PLAT_API size_t mts_test_queued(uint32_t sap) noexcept { return mts::queued(sap); }
HADRA_PLAT_API size_t mts_test_held(uint32_t sap) noexcept { return mts::held(sap); }

HADRA_PLAT_API unsigned mts_test_snapshot_done_count(mts_sap_id id) noexcept { return mts::done_count(id, true); }
HADRA_PLAT_API unsigned mts_test_gsync_done_count(mts_sap_id id) noexcept { return mts::done_count(id, false); }

}  // extern "C"
