// URI completion: the complete URI of a database from a base URI, the service's file
// prefix and the database's name.
//
// The result must name a file under the supervisor root and nothing else, so every part is
// checked: the base must be a well-formed URI, and the prefix and the name are single path
// segments (no '/', not "." or ".."). A result that would not fit SYSMGR_URI_MAX is refused
// rather than cut, since a cut name would silently point at another database.
#include <cerrno>
#include <cstring>

#include "common/call.h"
#include "hadra_platform/sysmgr.h"
#include "sysmgr/sysmgr_internal.h"

namespace {

bool area_char(char ch) { return (ch >= 'a' && ch <= 'z') || (ch >= '0' && ch <= '9') || ch == '_' || ch == '-'; }

bool dot_segment(const char* s, size_t len) { return (len == 1 && s[0] == '.') || (len == 2 && s[0] == '.' && s[1] == '.'); }

// A segment of a file name: not empty, no '/', not "." or "..".
bool valid_segment(const char* s) {
  size_t len = std::strlen(s);
  return len > 0 && std::strchr(s, '/') == nullptr && !dot_segment(s, len);
}

// Path of a URI: segments separated by '/', none empty or a dot segment; a leading and a
// trailing '/' are allowed.
bool valid_path(const char* p) {
  if (*p == '/') ++p;
  while (*p != '\0') {
    const char* end = std::strchr(p, '/');
    size_t len = end != nullptr ? static_cast<size_t>(end - p) : std::strlen(p);
    if (len == 0 || dot_segment(p, len)) return false;
    if (end == nullptr) break;
    p = end + 1;
  }
  return true;
}

// Append s to out at *used; false when it does not fit with its terminator.
bool append(char* out, size_t* used, const char* s) {
  size_t len = std::strlen(s);
  if (*used + len >= SYSMGR_URI_MAX) return false;
  std::memcpy(out + *used, s, len + 1);
  *used += len;
  return true;
}

const char* complete(const char* base, const char* prefix, const char* name) {
  thread_local char out[SYSMGR_URI_MAX];
  if (base == nullptr || name == nullptr || !hadra::plat::sysmgr::valid_uri(base) || !valid_segment(name) ||
      (prefix != nullptr && *prefix != '\0' && !valid_segment(prefix))) {
    errno = EINVAL;
    return nullptr;
  }
  size_t used = 0;
  out[0] = '\0';
  bool fits = append(out, &used, base) && (base[std::strlen(base) - 1] == '/' || append(out, &used, "/")) &&
              (prefix == nullptr || append(out, &used, prefix)) && append(out, &used, name);
  if (!fits) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  return out;
}

}  // namespace

namespace hadra::plat::sysmgr {

bool valid_uri(const char* uri) noexcept {
  if (uri == nullptr) return false;
  const char* colon = std::strchr(uri, ':');
  if (colon == nullptr || colon == uri || colon[1] != '/') return false;
  for (const char* p = uri; p != colon; ++p)
    if (!area_char(*p)) return false;
  return valid_path(colon + 1);
}

}  // namespace hadra::plat::sysmgr

extern "C" {

HADRA_PLAT_API const char* sysmgr_uri_complete(const char* base, const char* prefix, const char* name) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_uri_complete", 0);
  c.args("base=%.80s prefix=%.40s name=%.80s", base != nullptr ? base : "null", prefix != nullptr ? prefix : "null",
         name != nullptr ? name : "null");
  if (c.faulted()) return c.fail<const char*>();
  return c.ret(complete(base, prefix, name));
}

}  // extern "C"
