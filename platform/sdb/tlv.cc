// TLV encoding of the SDB create/delete notification.
//
// The notification's whole MTS payload is a run of elements, each a 16-bit type, a 16-bit
// length and that many value bytes, big-endian:
//
//   type 0x0001, length 4:  the notification type (1 create, 2 delete), 32 bits
//   type 0x0002, length n:  the SDB's URI, n bytes without a terminating NUL (1 <= n <= 255)
//
// The encoder writes exactly these two, in this order. The decoder accepts them in any
// order, passes over elements of other types (room for later fields), and refuses a message
// that is cut short, repeats or lacks one of them, or carries an out-of-range value.
#include <cstdlib>
#include <cstring>

#include "common/call.h"
#include "hadra_platform/sysmgr.h"
#include "sdb/bytes.h"
#include "sdb/store.h"

namespace sdb = hadra::plat::sdb;
using hadra::plat::Call;

namespace {

constexpr uint16_t kTlvType = 0x0001;
constexpr uint16_t kTlvUri = 0x0002;
constexpr uint32_t kHeader = 4;
constexpr size_t kUriMax = SYSMGR_URI_MAX - 1;

size_t uri_len(const sdb_create_del_msg* msg) {
  if (msg == nullptr || msg->uri == nullptr) return 0;
  return strnlen(msg->uri, kUriMax + 1);
}

// Size of the encoding, or 0 when msg cannot be encoded.
uint32_t tlv_size(const sdb_create_del_msg* msg) {
  size_t n = uri_len(msg);
  if (n == 0 || n > kUriMax) return 0;
  if (msg->type != SDB_NOTIFY_CREATE && msg->type != SDB_NOTIFY_DELETE) return 0;
  return static_cast<uint32_t>(kHeader + 4 + kHeader + n);
}

uint8_t* put_element(uint8_t* p, uint16_t type, const void* value, uint16_t len) {
  sdb::put_be(p, type, 2);
  sdb::put_be(p + 2, len, 2);
  std::memcpy(p + kHeader, value, len);
  return p + kHeader + len;
}

uint32_t encode(const sdb_create_del_msg* msg, void** buf, uint32_t* size, uint32_t offset, uint32_t* count,
                int may_alloc) {
  uint32_t need = tlv_size(msg);
  if (need == 0 || buf == nullptr || size == nullptr || offset > UINT32_MAX - need) return PLAT_ERR_SDB_BAD_ARG;
  if (*buf == nullptr || *size < offset + need) {
    if (may_alloc != 1) return PLAT_ERR_SDB_BAD_ARG;
    void* grown = std::realloc(*buf, offset + need);
    if (grown == nullptr) return PLAT_ERR_SDB_IO;
    *buf = grown;
  }
  uint8_t type[4];
  sdb::put_be(type, msg->type, 4);
  uint8_t* p = static_cast<uint8_t*>(*buf) + offset;
  p = put_element(p, kTlvType, type, sizeof type);
  put_element(p, kTlvUri, msg->uri, static_cast<uint16_t>(uri_len(msg)));
  *size = offset + need;
  if (count != nullptr) *count = 2;
  return 0;
}

uint32_t decode(const void* buf, uint32_t size, uint32_t* type, char* uri, size_t uri_size) {
  if (buf == nullptr || type == nullptr || uri == nullptr || uri_size == 0) return PLAT_ERR_SDB_BAD_ARG;
  const auto* p = static_cast<const uint8_t*>(buf);
  bool have_type = false, have_uri = false;
  for (uint32_t at = 0; at < size;) {
    if (size - at < kHeader) return PLAT_ERR_SDB_BAD_ARG;
    uint16_t t = static_cast<uint16_t>(sdb::get_be(p + at, 2));
    uint32_t len = static_cast<uint32_t>(sdb::get_be(p + at + 2, 2));
    const uint8_t* v = p + at + kHeader;
    if (size - at - kHeader < len) return PLAT_ERR_SDB_BAD_ARG;
    if (t == kTlvType) {
      if (have_type || len != 4) return PLAT_ERR_SDB_BAD_ARG;
      *type = static_cast<uint32_t>(sdb::get_be(v, 4));
      if (*type != SDB_NOTIFY_CREATE && *type != SDB_NOTIFY_DELETE) return PLAT_ERR_SDB_BAD_ARG;
      have_type = true;
    } else if (t == kTlvUri) {
      if (have_uri || len == 0 || len > kUriMax || len >= uri_size || std::memchr(v, 0, len) != nullptr)
        return PLAT_ERR_SDB_BAD_ARG;
      std::memcpy(uri, v, len);
      uri[len] = '\0';
      have_uri = true;
    }
    at += kHeader + len;
  }
  return have_type && have_uri ? 0 : PLAT_ERR_SDB_BAD_ARG;
}

}  // namespace

extern "C" {

HADRA_PLAT_API uint32_t fu_sdb_create_del_msg_get_tlv_sz(const sdb_create_del_msg* msg) noexcept {
  Call c("sdb", "fu_sdb_create_del_msg_get_tlv_sz", 0);
  c.args("type=%u", msg != nullptr ? msg->type : 0u);
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(tlv_size(msg));
}

HADRA_PLAT_API uint32_t fu_sdb_create_del_msg_to_tlv(const sdb_create_del_msg* msg, void** buf, uint32_t* size,
                                                     uint32_t offset, uint32_t* count, int may_alloc) noexcept {
  Call c("sdb", "fu_sdb_create_del_msg_to_tlv", PLAT_ERR_SDB_BAD_ARG);
  c.args("type=%u uri=%s size=%u", msg != nullptr ? msg->type : 0u,
         msg != nullptr && msg->uri != nullptr ? msg->uri : "(null)", size != nullptr ? *size : 0u);
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(encode(msg, buf, size, offset, count, may_alloc));
}

HADRA_PLAT_API uint32_t fu_sdb_create_del_msg_from_tlv(const void* buf, uint32_t size, uint32_t* type, char* uri,
                                                       size_t uri_size) noexcept {
  Call c("sdb", "fu_sdb_create_del_msg_from_tlv", PLAT_ERR_SDB_BAD_ARG);
  c.args("size=%u", size);
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(decode(buf, size, type, uri, uri_size));
}

}  // extern "C"
