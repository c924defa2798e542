// What the fuzz targets share: one scratch platform root per process (removed at exit), small
// file helpers, and the writing of a target's seed corpus.
//
// Seeds are produced by the platform itself, so that they stay valid when a format changes:
//
//   HADRA_FUZZ_WRITE_SEEDS=fuzz/corpus/<target> build-fuzz/<target>
//
// writes the target's seeds into that folder and exits before any fuzzing.
#pragma once

#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "hadra_platform/config.h"
#include "hadra_platform_testing.h"

namespace hadra::fuzz {

inline std::string& root_dir() {
  static std::string root;
  return root;
}

inline void remove_root() {
  plat_test_reset();
  std::error_code ec;
  std::filesystem::remove_all(root_dir(), ec);
}

// Creates the scratch root and points the platform at it, with the log silenced (the
// fuzzers run millions of inputs) and no configuration file but the root's own.
inline void make_root() {
  setenv("HADRA_LOG", "none", 1);
  unsetenv("HADRA_CONFIG");
  char tmpl[] = "/tmp/hadra-fuzz-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) abort();
  root_dir() = tmpl;
  atexit(remove_root);
  plat_test_reset();
  plat_test_set_root(tmpl);
}

inline bool write_file(const std::string& path, const void* p, size_t n) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  bool ok = (n == 0 || std::fwrite(p, 1, n, f) == n);
  return std::fclose(f) == 0 && ok;
}

inline std::string read_file(const std::string& path) {
  std::string out;
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
    std::fclose(f);
  }
  return out;
}

// The path of uri in the scratch root, its directories made; aborts when it has none.
inline std::string path_of(const char* uri) {
  char buf[4096];
  if (plat_uri_to_path(uri, buf, sizeof buf, 1) != 0) {
    std::fprintf(stderr, "fuzz: no path for %s\n", uri);
    abort();
  }
  return buf;
}

// A seed is the selector byte that routes it, then the bytes themselves.
inline void write_seed(const std::string& dir, const char* name, uint8_t selector, const std::string& bytes) {
  std::string s(1, static_cast<char>(selector));
  s += bytes;
  if (!write_file(dir + "/" + name, s.data(), s.size())) {
    std::fprintf(stderr, "fuzz: cannot write seed %s/%s\n", dir.c_str(), name);
    abort();
  }
}

// When HADRA_FUZZ_WRITE_SEEDS names a folder, make(folder) fills it and the process ends.
inline void maybe_write_seeds(void (*make)(const std::string& dir)) {
  const char* dir = std::getenv("HADRA_FUZZ_WRITE_SEEDS");
  if (dir == nullptr || *dir == '\0') return;
  std::filesystem::create_directories(dir);
  make(dir);
  std::exit(0);
}

}  // namespace hadra::fuzz
