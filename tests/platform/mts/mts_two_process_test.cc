// Two supervisors as two processes of one host, each with its own root, talking over ipc://
// with nothing configured but root, slot and transport (the peer's address is the default).
//
// The active (parent) sends kCount sync-shaped messages: a 12-byte header, then a key and a
// data piece, with payloads of every size class from 12 bytes to 12 + 65535 + 65535 (the
// largest a sync header can describe). The standby (child) checks each one arrives, in order,
// with the next HA sequence number and the expected bytes, then answers with the count under
// the last message's request-response token. Exit status 0 when everything held.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "hadra_mts_testing.h"
#include "hadra_platform/config.h"
#include "hadra_platform/mts.h"
#include "hadra_platform_testing.h"

namespace {

constexpr uint32_t kSap = 4242;
constexpr uint32_t kOpc = 7001;
constexpr uint32_t kAckOpc = 7002;
constexpr uint32_t kByeOpc = 7003;
constexpr int kCount = 3000;
constexpr uint32_t kMaxPayload = 12 + 65535 + 65535;
constexpr uint32_t kSeed = 20261122;

uint32_t mix(uint32_t x) {
  x ^= x >> 16;
  x *= 0x7feb352du;
  x ^= x >> 15;
  x *= 0x846ca68bu;
  x ^= x >> 16;
  return x;
}

// Payload size of message i: the smallest sizes one by one, the largest ones at the end,
// spread over the whole range in between.
uint32_t payload_size(int i) {
  if (i < 200) return 12 + static_cast<uint32_t>(i);
  if (i >= kCount - 50) return kMaxPayload - static_cast<uint32_t>(kCount - 1 - i);
  return 12 + mix(kSeed ^ static_cast<uint32_t>(i)) % (kMaxPayload - 12 + 1);
}

// The whole payload of message i: header (index, key and data lengths big-endian, like a
// sync header), then key bytes, then data bytes.
std::vector<uint8_t> payload(int i) {
  uint32_t size = payload_size(i);
  uint32_t rest = size - 12, key_len = rest / 2, data_len = rest - key_len;
  std::vector<uint8_t> p(size);
  p[0] = static_cast<uint8_t>(i % 10 + 1);
  p[2] = static_cast<uint8_t>(key_len >> 8), p[3] = static_cast<uint8_t>(key_len);
  p[4] = static_cast<uint8_t>(data_len >> 8), p[5] = static_cast<uint8_t>(data_len);
  p[11] = 1;
  uint32_t x = mix(kSeed + static_cast<uint32_t>(i)) | 1;
  for (uint32_t k = 12; k < size; ++k) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    p[k] = static_cast<uint8_t>(x);
  }
  return p;
}

int fail(const char* who, const char* what, int i) {
  std::fprintf(stderr, "%s: %s at message %d (errno %d: %s)\n", who, what, i, errno, std::strerror(errno));
  return 1;
}

int run_active() {
  if (mts_bind(kSap) != 0) return fail("active", "bind", -1);
  uint32_t last_token = 0;
  for (int i = 0; i < kCount; ++i) {
    std::vector<uint8_t> p = payload(i);
    uint32_t key_len = (p.size() - 12) / 2;
    mts_piece pieces[2] = {{p.data() + 12, key_len}, {p.data() + 12 + key_len, static_cast<uint32_t>(p.size()) - 12 - key_len}};
    mts_xbuf_desc d{};
    d.kind = MTS_XBUF_PIECES;
    d.pieces = pieces;
    d.count = 2;
    mts_msg_ref ref;
    if (mts_send(kSap, MTS_ADDR_PEER, MTS_SAP_SAME, kOpc, p.data(), 12, &ref, 0, &d) != 0) return fail("active", "send", i);
    if (mts_ha_seqno_get(&ref) != static_cast<uint64_t>(i) + 1) return fail("active", "sequence number", i);
    last_token = mts_rr_token_get(&ref);
    if (mts_drop(kSap, &ref) != 0) return fail("active", "drop", i);
  }
  mts_recv_opts w{};
  w.flags = MTS_RECV_BLOCK;
  w.timeout_s = 60;
  mts_msg_ref ack;
  if (mts_recv(kSap, &ack, &w) != 0) return fail("active", "no answer", kCount);
  uint32_t got = 0;
  if (mts_payload_size(&ack) == 4) std::memcpy(&got, mts_payload_get(&ack), 4);
  if (mts_opc_get(&ack) != kAckOpc || mts_rr_token_get(&ack) != last_token || got != kCount)
    return fail("active", "wrong answer", static_cast<int>(got));
  // Tell the standby it may go: it must stay until its answer has left.
  if (mts_send(kSap, MTS_ADDR_PEER, 0, kByeOpc, nullptr, 0, nullptr, 0, nullptr) != 0) return fail("active", "bye", kCount);
  return 0;
}

int run_standby() {
  if (mts_bind(kSap) != 0) return fail("standby", "bind", -1);
  mts_recv_opts w{};
  w.flags = MTS_RECV_BLOCK;
  w.timeout_s = 30;
  mts_msg_ref ref{};
  for (int i = 0; i < kCount; ++i) {
    if (i > 0 && mts_drop(kSap, &ref) != 0) return fail("standby", "drop", i);
    if (mts_recv(kSap, &ref, &w) != 0) return fail("standby", "receive", i);
    std::vector<uint8_t> want = payload(i);
    if (mts_opc_get(&ref) != kOpc || mts_sync_event_get(&ref) != MTS_SYNC_EVENT_UPDATE)
      return fail("standby", "opcode or sync event", i);
    if (mts_ha_seqno_get(&ref) != static_cast<uint64_t>(i) + 1) return fail("standby", "out of order", i);
    if (mts_payload_size(&ref) != want.size() || std::memcmp(mts_payload_get(&ref), want.data(), want.size()) != 0)
      return fail("standby", "payload differs", i);
  }
  mts_test_counters c{};
  mts_test_counters_get(kSap, &c);
  if (c.gaps != 0 || c.repeats != 0 || c.delivered != kCount) return fail("standby", "counters", static_cast<int>(c.delivered));
  uint32_t n = kCount;
  if (mts_reply(kSap, &ref, kAckOpc, &n, 4, nullptr, 0, nullptr) != 0) return fail("standby", "answer", kCount);
  mts_msg_ref bye;
  if (mts_recv(kSap, &bye, &w) != 0 || mts_opc_get(&bye) != kByeOpc) return fail("standby", "no bye", kCount);
  return 0;
}

// Settings of one supervisor; set before the platform reads any configuration.
void configure(const std::string& base, int slot) {
  setenv("HADRA_ROOT", (base + "/sup" + std::to_string(slot)).c_str(), 1);
  setenv("HADRA_SLOT", std::to_string(slot).c_str(), 1);
  setenv("HADRA_TRANSPORT", "zmq", 1);
  setenv("HADRA_MTS_HWM", "200", 1);
  // Every frame must arrive: the sender may wait for the receiver here (the active's bound,
  // and what it does to frames that cannot leave, are the stream tests' subject).
  setenv("HADRA_MTS_PEER_SEND_TIMEOUT_MS", "5000", 1);
  setenv("HADRA_LOG", "stderr", 1);
}

}  // namespace

int main() {
  char tmpl[] = "/tmp/hadra-mts2p-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return fail("test", "mkdtemp", -1);
  std::string base = tmpl;
  std::printf("mts two-process: %d messages, sizes 12..%u, seed %u, base %s\n", kCount, kMaxPayload, kSeed, tmpl);
  std::fflush(stdout);
  auto start = std::chrono::steady_clock::now();

  pid_t pid = fork();
  if (pid < 0) return fail("test", "fork", -1);
  if (pid == 0) {
    configure(base, 2);
    int rc = run_standby();
    plat_test_reset();
    _exit(rc);
  }
  configure(base, 1);
  int rc = run_active();
  if (rc != 0) kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
  plat_test_reset();
  std::error_code ec;
  std::filesystem::remove_all(base, ec);

  double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  bool ok = rc == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  std::printf("mts two-process: %s in %.2f s\n", ok ? "passed" : "FAILED", s);
  return ok ? 0 : 1;
}
