#include "dump.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "verify_core.h"

namespace hadra::tool {

namespace {

// Printable bytes as they are; anything else as 0x and hex.
std::string text(std::string_view b) {
  bool printable = true;
  for (unsigned char c : b) printable = printable && c >= 0x20 && c < 0x7f;
  if (printable) return std::string(b);
  std::string s = "0x";
  char t[3];
  for (unsigned char c : b) std::snprintf(t, sizeof t, "%02x", c), s += t;
  return s;
}

// An MSDB's secondary-key record: count (u32), then per key tag (u16), length (u16), bytes.
nlohmann::json skeys(std::string_view m) {
  nlohmann::json out = nlohmann::json::array();
  auto u = [&](size_t at, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v |= uint32_t{static_cast<unsigned char>(m[at + i])} << (8 * i);
    return v;
  };
  if (m.size() < 4) return out;
  size_t at = 4;
  for (uint32_t i = 0, n = u(0, 4); i < n && m.size() - at >= 4; ++i) {
    const uint32_t tag = u(at, 2), len = u(at + 2, 2);
    at += 4;
    if (m.size() - at < len) break;
    out.push_back({{"tag", tag}, {"key", text(m.substr(at, len))}});
    at += len;
  }
  return out;
}

}  // namespace

int dump_store(const std::string& root, const std::string& uri, bool json) {
  const std::string path = sysmgrd::verify::store_path(root, uri);
  if (path.empty()) {
    std::fprintf(stderr, "hadra: %s is not a store URI (<area>:/<path>)\n", uri.c_str());
    return 2;
  }
  std::string why;
  auto view = sysmgrd::verify::StoreView::open(path, &why);
  if (!view) {
    std::fprintf(stderr, "hadra: %s\n", why.c_str());
    return 1;
  }
  nlohmann::json records = nlohmann::json::array();
  view->walk("", "", [&](std::string_view k, std::string_view v, std::string_view mk) {
    if (json) {
      nlohmann::json r{{"key", text(k)}, {"value", text(v)}};
      if (!mk.empty()) r["skeys"] = skeys(mk);
      records.push_back(std::move(r));
    } else {
      std::string line = text(k) + " = " + text(v);
      for (const auto& s : skeys(mk)) line += "  [" + std::to_string(s["tag"].get<uint32_t>()) + "] " + s["key"].get<std::string>();
      std::printf("%s\n", line.c_str());
    }
    return true;
  });
  if (json)
    std::printf("%s\n", nlohmann::json{{"uri", uri}, {"kind", view->is_sdb() ? "sdb" : "pss"}, {"records", records}}.dump(2).c_str());
  return 0;
}

}  // namespace hadra::tool
