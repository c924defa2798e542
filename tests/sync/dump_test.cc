// The printable key dump used by debug output.
#include <cstring>
#include <string>
#include <vector>

#include "hadra/sync.h"
#include "support/fixture.h"

namespace {

std::string dump(std::vector<uint8_t> bytes) {
  return hadra_ha_dump_buf(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

std::vector<uint8_t> seq(int n) {
  std::vector<uint8_t> v(n);
  for (int i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i);
  return v;
}

TEST(DumpBufTest, GroupsFollowTheBytesLeft) {
  EXPECT_EQ(dump({1, 2, 3, 4, 5}), "0x01020304 0x05 ");
  EXPECT_EQ(dump({0xde, 0xad}), "0xDEAD ");
  EXPECT_EQ(dump(seq(7)), "0x00010203 0x0405 0x06 ");
  EXPECT_EQ(dump(seq(16)), "0x00010203 0x04050607 0x08090A0B 0x0C0D0E0F ");
  EXPECT_EQ(dump(seq(16)).size(), 44u);
  EXPECT_EQ(dump({}), "");
}

TEST(DumpBufTest, NeverMoreThan128Characters) {
  std::string full = dump(seq(128));
  EXPECT_EQ(full.size(), 128u);
  EXPECT_EQ(full.substr(full.size() - 7), "0x2C2D2");
  std::vector<uint8_t> longer = seq(200);
  EXPECT_EQ(dump(longer), full);  // a length above 128 renders like 128
  EXPECT_STREQ(hadra_ha_dump_buf(nullptr, 0), "");
}

}  // namespace
