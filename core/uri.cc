// A URI the platform completed, held by the library (uri.h).
#include "core/uri.h"

#include <cstring>

namespace hadra {

UriCopy::UriCopy(const char *uri) noexcept {
  if (uri == nullptr) return;
  // A URI the platform completed never exceeds its limit; cut to fit all the same.
  const size_t n = strnlen(uri, sizeof text_ - 1);
  std::memcpy(text_, uri, n);
  text_[n] = '\0';
  ok_ = true;
}

}  // namespace hadra
