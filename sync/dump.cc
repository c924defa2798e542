// Printable form of a key for the library's debug output.
//
// Bytes are rendered in memory order in words of four, two, or one byte ("0x%02X..." and a
// blank), choosing each step by how many bytes are left; the result is cut at 128
// characters by the bounded concatenation, so at most the first 46 bytes show in full.
#include <cstdio>
#include <cstring>

#include "hadra/sync.h"
#include "sync/send.h"
#include "hadra_platform/strutil.h"

namespace {

constexpr size_t kDumpSize = 129;  // 128 characters and the terminator
constexpr uint32_t kDumpMaxBytes = 128;

char g_dump[kDumpSize];
char g_group[kDumpSize];

// Formats the next group starting at b with r bytes left; returns the bytes consumed.
uint32_t format_group(const unsigned char* b, uint32_t r) noexcept {
  if (r > 15) {
    std::snprintf(g_group, kDumpSize, "0x%02X%02X%02X%02X 0x%02X%02X%02X%02X 0x%02X%02X%02X%02X 0x%02X%02X%02X%02X ",
                  b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14],
                  b[15]);
    return 16;
  }
  if (r > 7) {
    std::snprintf(g_group, kDumpSize, "0x%02X%02X%02X%02X 0x%02X%02X%02X%02X ", b[0], b[1], b[2], b[3], b[4], b[5],
                  b[6], b[7]);
    return 8;
  }
  if (r > 3) {
    std::snprintf(g_group, kDumpSize, "0x%02X%02X%02X%02X ", b[0], b[1], b[2], b[3]);
    return 4;
  }
  if (r > 1) {
    std::snprintf(g_group, kDumpSize, "0x%02X%02X ", b[0], b[1]);
    return 2;
  }
  std::snprintf(g_group, kDumpSize, "0x%02X ", b[0]);
  return 1;
}

}  // namespace

const char* hadra::sync::dump_buf(const void* buf, uint32_t len) noexcept {
  const uint32_t n = len < kDumpMaxBytes ? len : kDumpMaxBytes;
  std::memset(g_dump, 0, sizeof g_dump);
  std::memset(g_group, 0, sizeof g_group);
  if (n == 0 || buf == nullptr) return g_dump;
  const auto* bytes = static_cast<const unsigned char*>(buf);
  for (uint32_t i = 0; i < n;) {
    i += format_group(bytes + i, n - i);
    hadra_strcat(g_dump, kDumpSize, g_group);
  }
  return g_dump;
}

extern "C" HADRA_API const char* hadra_ha_dump_buf(const void* buf, uint32_t len) noexcept {
  return hadra::sync::dump_buf(buf, len);
}
