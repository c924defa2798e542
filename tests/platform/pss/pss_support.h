// Helpers of the PSS store tests: a fixture with short forms of the calls.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "hadra_platform/pss.h"
#include "support/fixture.h"

namespace hadra::test {

class PssTest : public PlatformTest {
 protected:
  // Opens uri with flags (27 creates); fails the test on error.
  uint32_t open(const char* uri, uint32_t flags = PSS2_OPEN_FLAGS_CREATE, const pss2_params* p = nullptr) {
    uint32_t err = 1;
    uint32_t h = pss2_open(uri, flags, 7, 0, p, &err);
    EXPECT_EQ(err, 0u) << uri;
    EXPECT_NE(h, 0u) << uri;
    return h;
  }
  uint32_t put(uint32_t h, const std::string& k, const std::string& v) {
    datum kd = D(k), vd = D(v);
    return pss2_store(h, &kd, &vd);
  }
  std::optional<std::string> get(uint32_t h, const std::string& k) {
    datum kd = D(k);
    uint32_t st = 1;
    datum* v = pss2_fetch(h, &kd, &st);
    if (v == nullptr) return std::nullopt;
    return S(v);
  }
  // Every key from the first, by move2location; the last status is the one that ended it.
  std::vector<std::string> walk(uint32_t h, uint32_t* end_status = nullptr) {
    std::vector<std::string> keys;
    uint32_t st = 0;
    for (uint32_t rc = pss2_move2location(&h, 1, PSS2_LOC_FIRST, &st); rc == 0;
         rc = pss2_move2location(&h, 1, PSS2_LOC_NEXT, &st)) {
      uint32_t ks = 1;
      keys.push_back(S(pss2_getkey(h, &ks)));
    }
    if (end_status != nullptr) *end_status = st;
    return keys;
  }
  std::string path(const char* rel) const { return root() + "/" + rel; }
};

}  // namespace hadra::test
