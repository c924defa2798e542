// A URI the platform completed, held by the library.
#pragma once

#include "hadra/registry.h"

namespace hadra {

// A URI the platform completed (or null), copied out of the platform's per-thread buffer so
// that later platform calls cannot overwrite it. ok() is false for a null URI.
class UriCopy {
 public:
  explicit UriCopy(const char *uri) noexcept;
  bool ok() const noexcept { return ok_; }
  const char *c_str() const noexcept { return ok_ ? text_ : nullptr; }

 private:
  bool ok_ = false;
  char text_[HADRA_HA_URI_LEN] = {};
};

}  // namespace hadra
