// The two small files the role sources share between processes (role.cc, docs/roles.md):
// the lease file's holder record, written by whichever daemon holds the lease and read by the
// next holder, and the role request file written by --set-role (keepalived's notify script,
// the resource agent) and read by the daemon. Header-only, so the fuzz target takes it as is.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace hadra::sysmgrd::role_parse {

constexpr size_t kMaxRoot = 4096;

struct LeaseRecord {
  long pid = 0;
  std::string root;
};

inline std::string format_lease(long pid, const std::string& root) { return std::to_string(pid) + " " + root + "\n"; }

// "<pid> <root>\n": a decimal pid above 0, one space, an absolute root running to the end of
// the line. False for anything else (an empty file: nobody held the lease yet).
inline bool parse_lease(std::string_view text, LeaseRecord* out) {
  *out = LeaseRecord{};
  const size_t nl = text.find('\n');
  if (nl == std::string_view::npos) return false;
  text = text.substr(0, nl);
  size_t i = 0;
  long pid = 0;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
    if (pid > 0x3fffffffL / 10) return false;
    pid = pid * 10 + (text[i++] - '0');
  }
  if (i == 0 || pid <= 0 || i >= text.size() || text[i] != ' ') return false;
  const std::string_view root = text.substr(i + 1);
  if (root.empty() || root.front() != '/' || root.size() > kMaxRoot || root.find('\0') != std::string_view::npos)
    return false;
  out->pid = pid;
  out->root = std::string(root);
  return true;
}

// The request's first word when it is one the daemon knows ("active", "standby", "fault");
// "" otherwise (no file, an empty or a damaged one).
inline std::string parse_request(std::string_view text) {
  size_t b = 0;
  while (b < text.size() && (text[b] == ' ' || text[b] == '\t' || text[b] == '\n' || text[b] == '\r')) ++b;
  size_t e = b;
  while (e < text.size() && text[e] != ' ' && text[e] != '\t' && text[e] != '\n' && text[e] != '\r') ++e;
  const std::string_view w = text.substr(b, e - b);
  return w == "active" || w == "standby" || w == "fault" ? std::string(w) : std::string();
}

}  // namespace hadra::sysmgrd::role_parse
