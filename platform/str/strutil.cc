// Bounded string helpers and the thread id.
//
// These sit on the library's debug-output paths (a key dump appends a group at a time), so
// each one does a single pass over the bytes it touches: no strlen of the whole source when
// only the first size-1 bytes can be used. Like every exported platform call they open with
// a Call, which costs two relaxed loads when neither tracing nor a fault is armed.
//
// An injected failure leaves the destination terminated (empty for a copy, unchanged for an
// append) so that a caller that ignores the result never reads an unterminated buffer.
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/call.h"
#include "hadra_platform/strutil.h"

namespace {

// Copy at most room-1 bytes of src to dest and terminate; room must be > 0.
void bounded_copy(char* dest, size_t room, const char* src) noexcept {
  size_t n = strnlen(src, room - 1);
  std::memcpy(dest, src, n);
  dest[n] = '\0';
}

}  // namespace

extern "C" {

HADRA_PLAT_API int hadra_snprintf(char* buf, size_t size, const char* fmt, ...) noexcept {
  hadra::plat::Call c("str", "hadra_snprintf", -1);
  c.args("size=%zu", size);
  if (c.faulted()) {
    if (buf != nullptr && size > 0) buf[0] = '\0';
    return c.fail<int>();
  }
  if (buf == nullptr || size == 0) return c.ret(0);
  if (fmt == nullptr) {
    buf[0] = '\0';
    return c.ret(0);
  }
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(buf, size, fmt, ap);
  va_end(ap);
  if (n < 0) {  // encoding error: nothing usable was written
    buf[0] = '\0';
    return c.ret(0);
  }
  // The caller gets what is in the buffer, not what would have been written.
  return c.ret(static_cast<size_t>(n) < size ? n : static_cast<int>(size - 1));
}

HADRA_PLAT_API char* hadra_strcpy(char* dest, size_t size, const char* src) noexcept {
  hadra::plat::Call c("str", "hadra_strcpy", 0);
  c.args("size=%zu", size);
  if (c.faulted()) {
    if (dest != nullptr && size > 0) dest[0] = '\0';
    return c.fail<char*>();
  }
  if (dest == nullptr || size == 0) return c.ret(dest);
  bounded_copy(dest, size, src != nullptr ? src : "");
  return c.ret(dest);
}

HADRA_PLAT_API char* hadra_strcat(char* dest, size_t size, const char* src) noexcept {
  hadra::plat::Call c("str", "hadra_strcat", 0);
  c.args("size=%zu", size);
  if (c.faulted()) return c.fail<char*>();
  if (dest == nullptr || size == 0) return c.ret(dest);
  size_t used = strnlen(dest, size);
  if (used == size) {
    // Not terminated within its bounds: cut it rather than read past the end.
    dest[size - 1] = '\0';
    return c.ret(dest);
  }
  if (src != nullptr && used < size - 1) bounded_copy(dest + used, size - used, src);
  return c.ret(dest);
}

HADRA_PLAT_API uint32_t hadra_get_thread_pid(void) noexcept {
  hadra::plat::Call c("str", "hadra_get_thread_pid", 0);
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(static_cast<uint32_t>(::syscall(SYS_gettid)));
}

}  // extern "C"
