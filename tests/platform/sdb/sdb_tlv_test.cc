// Create/delete notification TLV: exact bytes, allocation, refused input. (The library's
// SDB lifecycle tests decode both kinds as the peer receives them.)
#include <stdlib.h>

#include <cstring>
#include <vector>

#include "platform/sdb/sdb_fixture.h"

namespace hadra::test {
namespace {

using SdbTlv = SdbTest;

std::vector<uint8_t> encode(uint32_t type, const char* uri) {
  sdb_create_del_msg msg{type, uri};
  uint32_t size = fu_sdb_create_del_msg_get_tlv_sz(&msg), count = 0;
  void* buf = malloc(size);
  uint32_t rc = fu_sdb_create_del_msg_to_tlv(&msg, &buf, &size, 0, &count, 1);
  std::vector<uint8_t> out;
  if (rc == 0 && count == 2) out.assign(static_cast<uint8_t*>(buf), static_cast<uint8_t*>(buf) + size);
  free(buf);
  return out;
}

TEST_F(SdbTlv, EncodingIsTypedLengthValueElementsBigEndian) {
  auto b = encode(SDB_NOTIFY_DELETE, "run:/x");
  EXPECT_EQ(b, (std::vector<uint8_t>{0, 1, 0, 4, 0, 0, 0, 2, 0, 2, 0, 6, 'r', 'u', 'n', ':', '/', 'x'}));
  sdb_create_del_msg msg{SDB_NOTIFY_CREATE, "run:/svc/routes"};
  EXPECT_EQ(fu_sdb_create_del_msg_get_tlv_sz(&msg), 8u + 4u + 15u);
}

TEST_F(SdbTlv, GrowsTheBufferOnlyWhenAllowed) {
  sdb_create_del_msg msg{SDB_NOTIFY_CREATE, "run:/a"};
  void* buf = nullptr;
  uint32_t size = 0;
  EXPECT_EQ(fu_sdb_create_del_msg_to_tlv(&msg, &buf, &size, 0, nullptr, 0), PLAT_ERR_SDB_BAD_ARG);
  ASSERT_EQ(fu_sdb_create_del_msg_to_tlv(&msg, &buf, &size, 3, nullptr, 1), 0u);
  EXPECT_EQ(size, 3u + 18u);
  uint32_t type = 0;
  char uri[16];
  EXPECT_EQ(fu_sdb_create_del_msg_from_tlv(static_cast<uint8_t*>(buf) + 3, size - 3, &type, uri, sizeof uri), 0u);
  free(buf);
}

TEST_F(SdbTlv, RefusesWhatCannotBeEncoded) {
  std::string long_uri = "run:/" + std::string(251, 'x');
  for (sdb_create_del_msg msg : {sdb_create_del_msg{3, "run:/a"}, sdb_create_del_msg{1, nullptr},
                                 sdb_create_del_msg{1, ""}, sdb_create_del_msg{1, long_uri.c_str()}})
    EXPECT_EQ(fu_sdb_create_del_msg_get_tlv_sz(&msg), 0u);
  EXPECT_EQ(fu_sdb_create_del_msg_get_tlv_sz(nullptr), 0u);
}

TEST_F(SdbTlv, DecoderRefusesDamagedMessages) {
  auto good = encode(SDB_NOTIFY_CREATE, "run:/abc");
  uint32_t type = 0;
  char uri[64];
  // Every truncation is refused, never read past.
  for (size_t n = 0; n < good.size(); ++n) {
    std::vector<uint8_t> cut(good.begin(), good.begin() + static_cast<long>(n));
    EXPECT_EQ(fu_sdb_create_del_msg_from_tlv(cut.data(), static_cast<uint32_t>(n), &type, uri, sizeof uri),
              PLAT_ERR_SDB_BAD_ARG)
        << n;
  }
  auto twice = good;
  twice.insert(twice.end(), good.begin(), good.end());
  EXPECT_EQ(fu_sdb_create_del_msg_from_tlv(twice.data(), static_cast<uint32_t>(twice.size()), &type, uri, sizeof uri),
            PLAT_ERR_SDB_BAD_ARG);
  // An unknown element is passed over.
  auto extra = good;
  extra.insert(extra.begin(), {0x7f, 0x00, 0x00, 0x02, 0xaa, 0xbb});
  EXPECT_EQ(fu_sdb_create_del_msg_from_tlv(extra.data(), static_cast<uint32_t>(extra.size()), &type, uri, sizeof uri),
            0u);
  auto bad_type = good;
  bad_type[7] = 9;
  EXPECT_EQ(fu_sdb_create_del_msg_from_tlv(bad_type.data(), static_cast<uint32_t>(bad_type.size()), &type, uri,
                                           sizeof uri),
            PLAT_ERR_SDB_BAD_ARG);
  char small[8];  // "run:/abc" needs 9 bytes with its NUL
  EXPECT_EQ(fu_sdb_create_del_msg_from_tlv(good.data(), static_cast<uint32_t>(good.size()), &type, small, sizeof small),
            PLAT_ERR_SDB_BAD_ARG);
}

}  // namespace
}  // namespace hadra::test
