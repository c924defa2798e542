// Fuzz target of the role sources' shared files (daemon/role_parse.h): the lease's holder
// record, which a daemon reads from whatever the previous holder (or anyone who can write
// the file) left, and the role request that --set-role writes. The first byte picks:
//
//   0 lease record   1 role request
//
// What the lease parser accepts must format back to the same line; a request is one of the
// three known words or nothing.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "daemon/role_parse.h"
#include "fuzz/fuzz_support.h"

namespace {

namespace rp = hadra::sysmgrd::role_parse;

void fail(const char* what) {
  std::fprintf(stderr, "role_files_fuzz: %s\n", what);
  abort();
}

void lease(std::string_view text) {
  rp::LeaseRecord r;
  if (!rp::parse_lease(text, &r)) return;
  if (r.pid <= 0 || r.root.empty() || r.root.front() != '/') fail("an accepted record has no pid or root");
  const std::string again = rp::format_lease(r.pid, r.root);
  rp::LeaseRecord r2;
  if (!rp::parse_lease(again, &r2) || r2.pid != r.pid || r2.root != r.root) fail("a record does not survive formatting");
}

void request(std::string_view text) {
  const std::string w = rp::parse_request(text);
  if (!w.empty() && w != "active" && w != "standby" && w != "fault") fail("an unknown request was accepted");
}

void make_seeds(const std::string& dir) {
  using hadra::fuzz::write_seed;
  write_seed(dir, "lease", 0, rp::format_lease(4242, "/var/lib/hadra/sup1"));
  write_seed(dir, "lease-spaces", 0, "17 /srv/pair one/sup2\nrest\n");
  write_seed(dir, "request-active", 1, "active\n");
  write_seed(dir, "request-fault", 1, "  fault  \n");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  hadra::fuzz::maybe_write_seeds(make_seeds);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // An exact-size copy, so that a read past the input is a read past the allocation.
  std::vector<char> input(data + 1, data + size);
  const std::string_view text(input.data(), input.size());
  if (data[0] % 2 == 0)
    lease(text);
  else
    request(text);
  return 0;
}
