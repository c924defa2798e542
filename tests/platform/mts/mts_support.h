// Helpers shared by the MTS tests: building descriptors and reading loopback frames.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "hadra_mts_testing.h"
#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "hadra_platform/mts.h"
#include "mts/wire.h"
#include "support/fixture.h"

namespace hadra::test {

using Bytes = std::vector<uint8_t>;

inline Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

// A frame as a sender's core builds it: the header h (its payload length set here), then
// the payload.
inline Bytes encoded_frame(plat::mts::WireHdr h, const std::string& payload) {
  h.payload_len = static_cast<uint32_t>(payload.size());
  Bytes f(plat::mts::kWireHdrSize + payload.size());
  plat::mts::encode(h, f.data());
  std::copy(payload.begin(), payload.end(), f.begin() + plat::mts::kWireHdrSize);
  return f;
}

// A descriptor together with the piece list it points to.
class Desc {
 public:
  explicit Desc(std::vector<mts_piece> pieces) : pieces_(std::move(pieces)) {
    d_.kind = MTS_XBUF_PIECES;
    d_.pieces = pieces_.empty() ? nullptr : pieces_.data();
    d_.count = static_cast<uint32_t>(pieces_.size());
  }
  Desc(const Desc&) = delete;
  Desc& operator=(const Desc&) = delete;
  mts_xbuf_desc* get() { return &d_; }

 private:
  std::vector<mts_piece> pieces_;
  mts_xbuf_desc d_{};
};

// One frame the loopback kept for the peer, decoded.
struct PeerFrame {
  plat::mts::WireHdr h;
  Bytes raw;  // the whole frame as it would go on the wire
  Bytes payload() const { return Bytes(raw.begin() + plat::mts::kWireHdrSize, raw.end()); }
};

// Take the oldest frame for the peer; fails the test when there is none or it is malformed.
inline PeerFrame take_peer_frame() {
  PeerFrame f;
  long len = mts_test_peer_read(nullptr, 0, 0);
  EXPECT_GE(len, static_cast<long>(plat::mts::kWireHdrSize));
  if (len < 0) return f;
  f.raw.resize(static_cast<size_t>(len));
  EXPECT_EQ(mts_test_peer_read(f.raw.data(), f.raw.size(), 1), len);
  EXPECT_TRUE(plat::mts::decode(f.raw.data(), f.raw.size(), MTS_PAYLOAD_MAX, &f.h));
  return f;
}

inline mts_recv_opts wait_ms(uint32_t ms) {
  mts_recv_opts o{};
  o.flags = MTS_RECV_BLOCK;
  o.timeout_s = ms / 1000;
  o.timeout_ms = ms % 1000;
  return o;
}

// Payload of a received message as bytes.
inline Bytes payload_of(const mts_msg_ref& ref) {
  auto* p = static_cast<const uint8_t*>(mts_payload_get(&ref));
  uint32_t n = mts_payload_size(&ref);
  return p != nullptr ? Bytes(p, p + n) : Bytes();
}

// Sets HADRA_<key> for the life of the object and makes the platform read it.
class ScopedConfig {
 public:
  ScopedConfig(const std::string& key, const std::string& value) : name_("HADRA_" + key) {
    setenv(name_.c_str(), value.c_str(), 1);
    plat_config_reload();
  }
  ~ScopedConfig() {
    unsetenv(name_.c_str());
    plat_config_reload();
  }
  ScopedConfig(const ScopedConfig&) = delete;
  ScopedConfig& operator=(const ScopedConfig&) = delete;

 private:
  std::string name_;
};

}  // namespace hadra::test
