// A message as it travels between processes: a 48-byte header, then the payload.
//
// Every field is little-endian and written byte by byte, so the format is the same on every
// host whatever its byte order or alignment rules (docs/mts.md has the table):
//
//   0  u32 magic 0x5354'4d48 ("HMTS" in memory order)   24 u64 ha_seqno
//   4  u8  version (1)                                   32 u32 rr_token
//   5  u8  sync_event                                    36 u32 stream epoch of the sender
//   6  u8  flags (MTS_MSG_*)                             40 u32 payload_len
//   7  u8  src_node (sender's supervisor slot)           44 u32 reserved (0)
//   8  u32 opcode                                        48     payload
//   12 u32 src_sap
//   16 u32 dst_sap (never 0: "same SAP" is resolved by the sender)
//   20 u32 msg_id
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

namespace hadra::plat::mts {

constexpr uint32_t kWireMagic = 0x53544d48u;
constexpr uint8_t kWireVersion = 1;
constexpr size_t kWireHdrSize = 48;

struct WireHdr {
  uint8_t version = kWireVersion;
  uint8_t sync_event = 0;
  uint8_t flags = 0;
  uint8_t src_node = 0;
  uint32_t opcode = 0;
  uint32_t src_sap = 0;
  uint32_t dst_sap = 0;
  uint32_t msg_id = 0;
  uint64_t ha_seqno = 0;
  uint32_t rr_token = 0;
  uint32_t epoch = 0;
  uint32_t payload_len = 0;
};

inline void put_le(uint8_t* p, uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

inline uint64_t get_le(const uint8_t* p, int bytes) {
  uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

inline void encode(const WireHdr& h, uint8_t* p) {
  put_le(p + 0, kWireMagic, 4);
  p[4] = h.version;
  p[5] = h.sync_event;
  p[6] = h.flags;
  p[7] = h.src_node;
  put_le(p + 8, h.opcode, 4);
  put_le(p + 12, h.src_sap, 4);
  put_le(p + 16, h.dst_sap, 4);
  put_le(p + 20, h.msg_id, 4);
  put_le(p + 24, h.ha_seqno, 8);
  put_le(p + 32, h.rr_token, 4);
  put_le(p + 36, h.epoch, 4);
  put_le(p + 40, h.payload_len, 4);
  put_le(p + 44, 0, 4);
}

// Decode and check a whole frame of size bytes. False for anything that is not a well-formed
// message of this version: short, wrong magic or version, a length that disagrees with the
// frame, a payload above limit, destination SAP 0.
inline bool decode(const uint8_t* p, size_t size, size_t limit, WireHdr* h) {
  if (p == nullptr || size < kWireHdrSize || get_le(p, 4) != kWireMagic || p[4] != kWireVersion) return false;
  h->version = p[4];
  h->sync_event = p[5];
  h->flags = p[6];
  h->src_node = p[7];
  h->opcode = static_cast<uint32_t>(get_le(p + 8, 4));
  h->src_sap = static_cast<uint32_t>(get_le(p + 12, 4));
  h->dst_sap = static_cast<uint32_t>(get_le(p + 16, 4));
  h->msg_id = static_cast<uint32_t>(get_le(p + 20, 4));
  h->ha_seqno = get_le(p + 24, 8);
  h->rr_token = static_cast<uint32_t>(get_le(p + 32, 4));
  h->epoch = static_cast<uint32_t>(get_le(p + 36, 4));
  h->payload_len = static_cast<uint32_t>(get_le(p + 40, 4));
  return h->payload_len == size - kWireHdrSize && h->payload_len <= limit && h->dst_sap != 0;
}

// Frames that go to the same place together may travel as one bundle, so that the transport
// pays its per-message costs (a wake-up, a header, an allocation on each side) once per group
// instead of once per frame:
//
//   0  u32 magic 0x4254'4d48 ("HMTB" in memory order)
//   4  u32 count of frames (1..kBundleMaxFrames)
//   8  per frame: u32 length (1..), then that many bytes
//
// Nothing may follow the last frame. The frames inside are checked like any other, one by one.
constexpr uint32_t kBundleMagic = 0x42544d48u;
constexpr size_t kBundleHdrSize = 8;
constexpr uint32_t kBundleMaxFrames = 4096;

inline bool is_bundle(const uint8_t* p, size_t size) {
  return p != nullptr && size >= kBundleHdrSize && get_le(p, 4) == kBundleMagic;
}

// The frames of a bundle, in order, each as f(data, size); false (and f never called) when the
// bundle is malformed: a count out of range, a length of 0 or beyond the end, bytes left over.
template <class F>
bool split_bundle(const uint8_t* p, size_t size, F&& f) {
  if (!is_bundle(p, size)) return false;
  const uint64_t count = get_le(p + 4, 4);
  if (count == 0 || count > kBundleMaxFrames) return false;
  size_t at = kBundleHdrSize;
  for (uint64_t i = 0; i < count; ++i) {
    if (size - at < 4) return false;
    const uint64_t len = get_le(p + at, 4);
    at += 4;
    if (len == 0 || len > size - at) return false;
    at += len;
  }
  if (at != size) return false;
  at = kBundleHdrSize;
  for (uint64_t i = 0; i < count; ++i) {
    const size_t len = get_le(p + at, 4);
    f(p + at + 4, len);
    at += 4 + len;
  }
  return true;
}

// The bytes of one frame, owned through a release function so that each transport can hand
// over its own buffer (ours, or the socket library's) without a copy. Move-only.
class Frame {
 public:
  using Release = void (*)(void* owner);

  Frame() = default;
  Frame(uint8_t* data, size_t size, void* owner, Release release)
      : data_(data), size_(size), owner_(owner), release_(release) {}
  Frame(Frame&& o) noexcept { *this = std::move(o); }
  Frame& operator=(Frame&& o) noexcept {
    if (this != &o) {
      reset();
      data_ = std::exchange(o.data_, nullptr);
      size_ = std::exchange(o.size_, 0);
      owner_ = std::exchange(o.owner_, nullptr);
      release_ = std::exchange(o.release_, nullptr);
    }
    return *this;
  }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;
  ~Frame() { reset(); }

  // A frame in a buffer of our own (new[]); nullptr data on allocation failure.
  static Frame allocate(size_t size) {
    auto* p = new (std::nothrow) uint8_t[size];
    return p != nullptr ? Frame(p, size, p, &free_bytes) : Frame();
  }
  static void free_bytes(void* owner) { delete[] static_cast<uint8_t*>(owner); }

  uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return data_ == nullptr; }
  // Give up ownership: the caller now releases the buffer (returns the owner).
  void* release_ownership() {
    void* o = owner_;
    data_ = nullptr;
    size_ = 0;
    owner_ = nullptr;
    release_ = nullptr;
    return o;
  }
  void reset() {
    if (release_ != nullptr) release_(owner_);
    data_ = nullptr;
    size_ = 0;
    owner_ = nullptr;
    release_ = nullptr;
  }

 private:
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
  void* owner_ = nullptr;
  Release release_ = nullptr;
};

}  // namespace hadra::plat::mts
