// Helpers of the store and lifecycle tests: real stores under the platform root and the files this
// process still holds open.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "hadra/hadra.h"
#include "hadra_platform/config.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/sdb.h"
#include "support/fixture.h"

namespace hadra::test {

using Files = std::vector<std::string>;

// Platform and library as a freshly started service finds them, with no stores under root.
inline void fresh_start(const std::string& root) {
  hadra_internal_reset();
  plat_test_reset();
  for (const auto& d : std::filesystem::directory_iterator(root)) std::filesystem::remove_all(d.path());
}

// Store files under root that this process holds open (LMDB keeps a data and a lock file
// open per environment); the platform's log and sequence-number table are not stores.
inline Files open_store_files(const std::string& root) {
  Files out;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    std::string f = std::filesystem::read_symlink(fd.path(), ec).string();
    if (f.rfind(root + "/", 0) == 0 && f.rfind(root + "/log/", 0) != 0 && f.rfind(root + "/sysmgr/", 0) != 0)
      out.push_back(f);
  }
  return out;
}

inline bool exists_at(const std::string& uri) {
  char path[1024];
  return plat_uri_to_path(uri.c_str(), path, sizeof path, 0) == 0 && access(path, F_OK) == 0;
}

// A PSS file at uri holding n records more (created when missing), closed again.
inline bool put_records(const std::string& uri, int n, const std::string& prefix = "k") {
  uint32_t err = 0;
  uint32_t h = pss2_open(uri.c_str(), PSS2_OPEN_FLAGS_CREATE, 0, 0, nullptr, &err);
  for (int i = 0; i < n && err == 0; ++i) {
    std::string k = prefix + std::to_string(i);
    datum key{k.data(), static_cast<uint32_t>(k.size())};
    err = pss2_store(h, &key, &key);
  }
  pss2_close(h);
  return err == 0;
}

// Records of an open PSS file, or of the file at uri; -1 when it cannot be read.
inline int count_open(uint32_t h) {
  uint32_t st = 0;
  for (int n = 0;; ++n) {
    pss2_move2location(&h, PSS2_MOVE_MODE, n == 0 ? PSS2_LOC_FIRST : PSS2_LOC_NEXT, &st);
    if (st != 0) return st == PLAT_ERR_PSS_NO_RECORD ? n : -1;
  }
}
inline int count_records(const std::string& uri) {
  uint32_t err = 0;
  uint32_t h = pss2_open(uri.c_str(), PSS2_OPEN_FLAGS_OPEN, 0, 0, nullptr, &err);
  int n = err == 0 ? count_open(h) : -1;
  pss2_close(h);
  return n;
}

// The call whose failure was injected during the traced run, or "none".
inline std::string faulted_call() {
  std::string failed = "none";
  for (const auto& t : trace()) failed = t.faulted ? t.call : failed;
  return failed;
}

}  // namespace hadra::test
