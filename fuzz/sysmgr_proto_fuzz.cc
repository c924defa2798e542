// Fuzz target of the system manager's message set (platform/sysmgr/proto.h): what a daemon
// takes from its clients, its peer and the command tool, what a client takes from its
// daemon, and the daemon's state file that clients read. The first byte picks the decoder:
//
//   0 hello   1 bye   2 gsync request   3 answer   4 welcome   5 event   6 peer hello
//   7 peer gsync request   8 file piece   9 manifest   10 gsync failure   11 takeover
//   12 command   13 command reply   14 state file   15 resend request   16 verify request
//   17 verify answer   18 repair   19 history request   20 history answer   21 ping or pong
//
// A decoder must refuse or accept without reading past its input; what it accepts must
// encode and decode again to the same bytes (the state file: to the same text).
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/sysmgr/proto.h"

namespace {

namespace proto = hadra::plat::sysmgr::proto;

void fail(const char* what) {
  std::fprintf(stderr, "sysmgr_proto_fuzz: %s\n", what);
  abort();
}

template <class M>
void round_trip(const uint8_t* p, size_t n) {
  M m;
  if (!proto::decode(p, n, &m)) return;
  const std::vector<uint8_t> once = encode(m);
  M again;
  if (!proto::decode(once.data(), once.size(), &again)) fail("an accepted message does not decode after encoding");
  if (encode(again) != once) fail("encoding is not stable");
}

void state_file(const uint8_t* p, size_t n) {
  proto::StateFile s;
  if (!proto::parse_state(std::string_view(reinterpret_cast<const char*>(p), n), &s)) return;
  const std::string text = proto::format_state(s);
  proto::StateFile again;
  if (!proto::parse_state(text, &again) || proto::format_state(again) != text) fail("state file not stable");
}

using Decoder = void (*)(const uint8_t*, size_t);
constexpr Decoder kDecoders[] = {
    round_trip<proto::Hello>,     round_trip<proto::Bye>,         round_trip<proto::GsyncGet>,
    round_trip<proto::Answer>,    round_trip<proto::Welcome>,     round_trip<proto::Event>,
    round_trip<proto::PeerHello>, round_trip<proto::GsyncReq>,    round_trip<proto::FileData>,
    round_trip<proto::Manifest>,  round_trip<proto::GsyncFail>,   round_trip<proto::TakeOver>,
    round_trip<proto::Command>,   round_trip<proto::CommandReply>, state_file,
    round_trip<proto::ResendGet>,
    round_trip<proto::VerifyReq>, round_trip<proto::VerifyAns>,   round_trip<proto::Repair>,
    round_trip<proto::HistReq>,   round_trip<proto::HistAns>,     round_trip<proto::Ping>,
};

std::string bytes(const std::vector<uint8_t>& v) { return std::string(v.begin(), v.end()); }

void make_seeds(const std::string& dir) {
  using hadra::fuzz::write_seed;
  write_seed(dir, "hello", 0, bytes(encode(proto::Hello{proto::kProtoVersion, 0x5a1, 3501, 1234, "pair-sample"})));
  proto::Answer a;
  a.uuid = 0x5a1, a.req_id = 7, a.point = 600, a.epoch = 99, a.at_point[1] = {600, 200};
  write_seed(dir, "answer-snapshot", 3, bytes(encode(a)));
  proto::Event ev;
  ev.kind = proto::EventKind::kGsyncReady, ev.req_id = 7, ev.uri = "snap:/gsync-5a1", ev.point = 600;
  write_seed(dir, "event-ready", 5, bytes(encode(ev)));
  proto::PeerHello h;
  h.slot = 1, h.role = 1, h.boot_id = 42;
  h.services.push_back({0x5a1, "pair-sample", {{1, 600, 200, 0, 0}, {2, 602, 200, 0, 0}}});
  write_seed(dir, "peer-hello", 6, bytes(encode(h)));
  write_seed(dir, "resend-get", 15, bytes(encode(proto::ResendGet{0x1234, 601})));
  const uint8_t data[] = {1, 2, 3, 4};
  write_seed(dir, "file-piece", 8, bytes(encode(proto::FileData{7, "peers/data.mdb", 0, data})));
  proto::Manifest m;
  m.xfer = 7, m.uuid = 0x5a1, m.files = {{"routes", 8192, 0x1234}, {"peers/data.mdb", 4, 0xabcd}};
  write_seed(dir, "manifest", 9, bytes(encode(m)));
  write_seed(dir, "gsync-fail", 10, bytes(encode(proto::GsyncFail{7, 0x5a1, 5, "file routes: checksum"})));
  write_seed(dir, "command", 12, bytes(encode(proto::Command{proto::Cmd::kGsync, "0x5a1"})));
  write_seed(dir, "reply", 13, bytes(encode(proto::CommandReply{0, "{\"role\":\"active\"}"})));
  write_seed(dir, "state", 14, "role standby\nsvc 5a1 1 0 crash\nsvc 2 0 1 controlled\n");
  write_seed(dir, "verify-request", 15,
             bytes(encode(proto::VerifyReq{3, proto::kVerifyDigest, "run:/svc/routes", {{"", "k100"}, {"k100", ""}}})));
  proto::VerifyAns va;
  va.id = 3, va.records = 200, va.sums = {{100, 0x1234}, {100, 0x5678}};
  va.entries = {{1, "k150", 0x9abc}};
  write_seed(dir, "verify-answer", 16, bytes(encode(va)));
  write_seed(dir, "repair", 17,
             bytes(encode(proto::Repair{0x80000000u, "run:/svc/sessions",
                                        {{"k1", 1, "value", std::string("\x01\0\0\0\x01\0\x02\0u1", 10)}, {"k2", 0, "", ""}}})));
  constexpr size_t n = sizeof kDecoders / sizeof kDecoders[0];
  write_seed(dir, "history-request", static_cast<uint8_t>(n - 3), bytes(encode(proto::HistReq{4, 500})));
  proto::HistAns ha;
  ha.id = 4;
  ha.entries.push_back({1764000000000000000ull, 7, 601, 0x1234, 4242, 1, 3501, 9, 6520, 0x5a1, 40, 1, "pair-sample", ""});
  ha.entries.push_back({1764000000000100000ull, 8, 0, 0, 4242, 3, 0, 0, 0x31, 0x5a1, 20, 0, "", "[4242]: switchover"});
  write_seed(dir, "history-answer", static_cast<uint8_t>(n - 2), bytes(encode(ha)));
  write_seed(dir, "ping", static_cast<uint8_t>(n - 1), bytes(encode(proto::Ping{123456789, {{0x5a1, 1, 12, "routes"}, {0x5a1, 2, 0, "peers"}}})));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  hadra::fuzz::maybe_write_seeds(make_seeds);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t which = data[0] % (sizeof kDecoders / sizeof kDecoders[0]);
  // An exact-size copy, so that a read past the input is a read past the allocation.
  std::vector<uint8_t> input(data + 1, data + size);
  kDecoders[which](input.empty() ? nullptr : input.data(), input.size());
  return 0;
}
