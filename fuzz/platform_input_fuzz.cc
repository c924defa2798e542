// Fuzz target of the platform's parsers of bytes that come from outside the process. The
// first byte picks the parser, the rest is its input:
//
//   0  a frame received from the peer supervisor (wire header and payload), fed to the MTS
//      receive path; a frame that is queued is received, read through every getter and dropped
//   1  an SDB create/delete notification in its TLV encoding; the next byte sizes the URI
//      buffer (1 to 256 bytes). What decodes must encode and decode again to the same
//   2  an SDB update-notification context
//   3  the platform configuration file of the supervisor root
//   4  a supervisor key file, then the same bytes as a connection to check (address,
//      mechanism and key, split at NUL bytes) and as a frame whose fault is explained
//   5  a bundle of frames as the peer's transport sends a group; each frame it splits into
//      goes the way of 0
//
// Every input is handed over in a buffer of exactly its size, so AddressSanitizer sees any
// read past it. A parser must accept or refuse, and never crash, leak or touch other memory.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "hadra_mts_testing.h"
#include "hadra_platform/config.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform_testing.h"
#include "platform/mts/auth.h"
#include "platform/mts/wire.h"

namespace {

using hadra::fuzz::root_dir;

constexpr uint32_t kSap = 0x4101;
constexpr uint32_t kOpc = 0x0321;
constexpr unsigned kRebuildEvery = 8192;  // forget the sequence numbers of every stream seen
unsigned g_runs = 0;

void fail(const char* what) {
  std::fprintf(stderr, "platform_input_fuzz: %s\n", what);
  abort();
}

uint8_t touch(const void* p, size_t n) {
  const auto* b = static_cast<const volatile uint8_t*>(p);
  uint8_t x = 0;
  for (size_t i = 0; i < n; ++i) x ^= b[i];
  return x;
}

void bind_endpoint() {
  plat_test_reset();
  plat_test_set_root(root_dir().c_str());
  if (mts_bind(kSap) != 0) fail("cannot bind the endpoint");
}

// ---- 0: MTS frames --------------------------------------------------------------------

void fuzz_frame(const uint8_t* p, size_t n) {
  int rc = mts_test_feed(n != 0 ? p : nullptr, n);
  if (rc != 0) {
    if (rc == -1 && errno != EBADMSG && errno != EADDRNOTAVAIL && errno != EINVAL) fail("frame: unexpected errno");
    return;
  }
  mts_msg_ref ref;
  if (mts_recv(kSap, &ref, nullptr) != 0) fail("frame: queued but not received");
  uint32_t size = mts_payload_size(&ref);
  if (size != n - MTS_TEST_WIRE_HDR_SIZE) fail("frame: payload size disagrees with the frame");
  void* payload = mts_payload_get(&ref);
  if (payload == nullptr && size != 0) fail("frame: no payload");
  if (payload != nullptr) touch(payload, size);
  (void)mts_opc_get(&ref);
  (void)mts_sync_event_get(&ref);
  (void)mts_ha_seqno_get(&ref);
  (void)mts_msg_id_get(&ref);
  (void)mts_rr_token_get(&ref);
  (void)mts_src_sap_get(&ref);
  (void)mts_msg_flags_get(&ref);
  if (mts_drop(kSap, &ref) != 0) fail("frame: drop failed");
}

// ---- 1: create/delete notification TLV ----------------------------------------------------

void fuzz_tlv(const uint8_t* p, size_t n) {
  if (n == 0) return;
  size_t uri_size = size_t{p[0]} + 1;
  std::vector<char> uri(uri_size);  // exactly uri_size bytes: a write past it is seen
  uint32_t type = 0;
  uint32_t rc = fu_sdb_create_del_msg_from_tlv(n > 1 ? p + 1 : nullptr, static_cast<uint32_t>(n - 1), &type,
                                               uri.data(), uri_size);
  if (rc != 0) {
    if (rc != PLAT_ERR_SDB_BAD_ARG) fail("tlv: unexpected result");
    return;
  }
  if (std::memchr(uri.data(), 0, uri_size) == nullptr || uri[0] == '\0') fail("tlv: URI not terminated or empty");
  sdb_create_del_msg msg{type, uri.data()};
  void* buf = nullptr;
  uint32_t size = 0;
  if (fu_sdb_create_del_msg_to_tlv(&msg, &buf, &size, 0, nullptr, 1) != 0) fail("tlv: decoded but not encodable");
  if (size != fu_sdb_create_del_msg_get_tlv_sz(&msg)) fail("tlv: size call disagrees with the encoder");
  char again[SYSMGR_URI_MAX];
  uint32_t type2 = 0;
  if (fu_sdb_create_del_msg_from_tlv(buf, size, &type2, again, sizeof again) != 0 || type2 != type ||
      std::strcmp(again, uri.data()) != 0)
    fail("tlv: round trip changed the message");
  std::free(buf);
}

// ---- 2: update-notification context ---------------------------------------------------

void fuzz_context(const uint8_t* p, size_t n) {
  sdb_context out;
  uint32_t rc = sdb_context_parse(n != 0 ? p : nullptr, static_cast<uint32_t>(n), &out);
  if (rc == 0 && (n < SDB_CONTEXT_LEN || out.version != 1 || out.reserved != 0)) fail("context: bad accept");
  if (rc != 0 && rc != PLAT_ERR_SDB_BAD_ARG) fail("context: unexpected result");
}

// ---- 3: configuration file ------------------------------------------------------------

// Keys the platform reads, and a few a file might spell oddly. A fixed list: every key asked
// for keeps its value for the life of the process.
constexpr const char* kKeys[] = {"TRANSPORT", "SDB_MAP_SIZE", "SDB_SYNC", "PORT_BASE", "SLOT", "ROOT", "", "A B", "#"};

void fuzz_config(const uint8_t* p, size_t n) {
  std::string conf = root_dir() + "/platform.conf";
  if (!hadra::fuzz::write_file(conf, p, n)) fail("config: cannot write the file");
  plat_config_reload();
  for (const char* k : kKeys) {
    if (const char* v = plat_config_get(k, nullptr)) touch(v, std::strlen(v));
    (void)plat_config_get_long(k, -1);
  }
  if (std::strcmp(plat_root(), root_dir().c_str()) != 0) fail("config: the file moved the root");
  // Gone before the next input: other services must not pick the fuzzed settings up.
  std::remove(conf.c_str());
  plat_config_reload();
}

// ---- 4: key file, connection check ------------------------------------------------------

void fuzz_auth(const uint8_t* p, size_t n) {
  namespace auth = hadra::plat::mts::auth;
  const std::string text(reinterpret_cast<const char*>(p), n);
  std::string pub, sec, why;
  const bool keys = auth::parse_key_file(text, &pub, &sec, &why);
  if (keys && (pub.size() != auth::kZ85KeyLen || sec.size() != auth::kZ85KeyLen)) fail("keys: a key of the wrong size");
  if (!keys && why.empty()) fail("keys: refused without a reason");
  auth::Request r;
  const size_t a = text.find('\0');
  r.address = text.substr(0, a);
  if (a != std::string::npos) {
    const size_t m = text.find('\0', a + 1);
    r.mechanism = text.substr(a + 1, m == std::string::npos ? std::string::npos : m - a - 1);
    if (m != std::string::npos) r.key = text.substr(m + 1);
  }
  auth::Policy pol;
  pol.uid = 1000;
  pol.gid = (n & 1) != 0 ? 50 : -1;
  pol.ipc = (n & 2) != 0;
  pol.curve = keys;
  pol.own_public = pub;
  pol.peer_public = pub;
  const auth::Verdict v = auth::judge(r, pol);
  if (v.ok == v.user_id.empty() || (!v.ok && v.reason.empty())) fail("auth: a verdict without its user or reason");
  if (auth::frame_fault(n != 0 ? p : nullptr, n, MTS_PAYLOAD_MAX) == nullptr) fail("auth: a fault without a reason");
}

// ---- 5: bundles of frames ---------------------------------------------------------------

void fuzz_bundle(const uint8_t* p, size_t n) {
  size_t frames = 0, bytes = hadra::plat::mts::kBundleHdrSize;
  const bool ok = hadra::plat::mts::split_bundle(n != 0 ? p : nullptr, n, [&](const uint8_t* f, size_t len) {
    if (f < p || len == 0 || f + len > p + n) fail("bundle: a frame outside the bundle");
    ++frames;
    bytes += 4 + len;
    // Each in a buffer of its own size, as the receive path gets it.
    std::vector<uint8_t> own(f, f + len);
    fuzz_frame(own.data(), own.size());
  });
  if (ok && (frames == 0 || bytes != n)) fail("bundle: its frames do not add up to it");
  if (!ok && frames != 0) fail("bundle: frames handed out of a malformed bundle");
}

constexpr void (*kParsers[])(const uint8_t*, size_t) = {fuzz_frame, fuzz_tlv, fuzz_context, fuzz_config, fuzz_auth,
                                                        fuzz_bundle};
constexpr size_t kParserCount = sizeof kParsers / sizeof kParsers[0];

// ---- seeds ------------------------------------------------------------------------------

std::string peer_frame(uint32_t opcode, const std::string& payload) {
  if (mts_send(kSap, MTS_ADDR_PEER, kSap, opcode, payload.data(), static_cast<uint32_t>(payload.size()), nullptr, 0,
               nullptr) != 0)
    fail("seeds: cannot send");
  std::string f(MTS_TEST_WIRE_HDR_SIZE + payload.size(), '\0');
  if (mts_test_peer_read(f.data(), f.size(), 1) != static_cast<long>(f.size())) fail("seeds: no frame");
  return f;
}

std::string bundle(const std::vector<std::string>& frames) {
  std::string b(hadra::plat::mts::kBundleHdrSize, '\0');
  hadra::plat::mts::put_le(reinterpret_cast<uint8_t*>(b.data()), hadra::plat::mts::kBundleMagic, 4);
  hadra::plat::mts::put_le(reinterpret_cast<uint8_t*>(b.data()) + 4, frames.size(), 4);
  for (const std::string& f : frames) {
    char len[4];
    hadra::plat::mts::put_le(reinterpret_cast<uint8_t*>(len), f.size(), 4);
    b.append(len, 4).append(f);
  }
  return b;
}

std::string tlv(uint32_t type, const char* uri) {
  sdb_create_del_msg msg{type, uri};
  void* buf = nullptr;
  uint32_t size = 0;
  if (fu_sdb_create_del_msg_to_tlv(&msg, &buf, &size, 0, nullptr, 1) != 0) fail("seeds: cannot encode");
  std::string s(static_cast<const char*>(buf), size);
  std::free(buf);
  return s;
}

std::string context() {
  const char* uri = "run:/seed/table";
  datum k{const_cast<char*>("key"), 3}, v{const_cast<char*>("value"), 5};
  char buf[SDB_CONTEXT_MAX];
  if (sdb_create(uri, SDB_CREATE_SDB, 7, 0) != 0 || sdb_open(uri, SDB_OPEN_RW, 7, 0, 0) != 0 ||
      sdb_write(uri, &k, &v) != 0 || sdb_set_context(uri, buf) != 0)
    fail("seeds: cannot make a context");
  sdb_close(uri);
  return std::string(buf, SDB_CONTEXT_LEN);
}

void make_seeds(const std::string& dir) {
  using hadra::fuzz::write_seed;
  bind_endpoint();
  std::string frame = peer_frame(kOpc, "payload of a sync update");
  write_seed(dir, "frame-update", 0, frame);
  write_seed(dir, "frame-empty", 0, peer_frame(kOpc + 1, ""));
  write_seed(dir, "frame-short-payload", 0, frame.substr(0, frame.size() - 3));  // header claims more
  write_seed(dir, "bundle-two", 5, bundle({frame, peer_frame(kOpc, "and the next one")}));
  std::string uri_size(1, static_cast<char>(SYSMGR_URI_MAX - 1));
  write_seed(dir, "tlv-create", 1, uri_size + tlv(SDB_NOTIFY_CREATE, "run:/svc/routes"));
  write_seed(dir, "tlv-delete-small-buffer", 1, std::string(1, '\x08') + tlv(SDB_NOTIFY_DELETE, "run:/svc/routes"));
  // An element of a later kind, passed over, before the two the decoder needs.
  write_seed(dir, "tlv-unknown-element", 1, uri_size + std::string("\x00\x09\x00\x02xy", 6) + tlv(1, "run:/a"));
  write_seed(dir, "context", 2, context());
  write_seed(dir, "config", 3,
             "# supervisor settings\nTRANSPORT = zmq\nPORT_BASE = 0x4000\nSDB_MAP_SIZE=1048576\n"
             "SLOT = 2\n  = no key\nno value =\njunk line\r\nSDB_SYNC = 1 # not a comment\n");
  write_seed(dir, "key-file", 4,
             "# keys\npublic = rq:rM>}U?@Lns47E1%kR.o@n%FcmmsL/@{H8]yf7\nsecret = JTKVSB%%)wK0E.X)V>+}o?pNmC{O&4W4b!Ni{Lh6\n");
  write_seed(dir, "connection-ipc", 4, std::string(":1001:50:77\0NULL\0", 17));
  write_seed(dir, "connection-curve", 4, std::string("10.0.0.2\0CURVE\0", 15) + std::string(32, 'k'));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  hadra::fuzz::make_root();
  hadra::fuzz::maybe_write_seeds(make_seeds);
  bind_endpoint();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size - 1 > MTS_TEST_WIRE_HDR_SIZE + MTS_PAYLOAD_MAX) return -1;
  kParsers[data[0] % kParserCount](data + 1, size - 1);
  if (++g_runs % kRebuildEvery == 0) bind_endpoint();
  return 0;
}
