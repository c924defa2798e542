// File helpers of the daemon: atomic replacement, syncing, hashing, listing an area.
#include <fcntl.h>
#include <unistd.h>
#include <xxhash.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <time.h>

#include "daemon.h"

namespace hadra::sysmgrd {

uint64_t now_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

namespace files {

namespace fs = std::filesystem;

std::string root_path(const std::string& root, const std::string& rel) { return (fs::path(root) / rel).string(); }

bool sync_path(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

bool write_atomic(const std::string& path, const std::string& text, std::string* why) {
  const std::string tmp = path + ".tmp";
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    *why = tmp + ": " + std::strerror(errno);
    return false;
  }
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  const bool written = done == text.size() && ::fsync(fd) == 0;
  const int err = errno;
  ::close(fd);
  if (!written || ::rename(tmp.c_str(), path.c_str()) != 0) {
    *why = path + ": " + std::strerror(written ? errno : err);
    ::unlink(tmp.c_str());
    return false;
  }
  (void)sync_path(fs::path(path).parent_path().string());
  return true;
}

bool hash_file(const std::string& path, uint64_t* hash, uint64_t* size) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  XXH3_state_t* st = XXH3_createState();
  bool ok = st != nullptr && XXH3_64bits_reset(st) == XXH_OK;
  uint64_t total = 0;
  static thread_local char buf[1 << 16];
  while (ok) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    if (n <= 0) break;
    ok = XXH3_64bits_update(st, buf, static_cast<size_t>(n)) == XXH_OK;
    total += static_cast<uint64_t>(n);
  }
  if (ok) *hash = XXH3_64bits_digest(st);
  if (size != nullptr) *size = total;
  XXH3_freeState(st);
  ::close(fd);
  return ok;
}

std::vector<std::string> area_files(const std::string& dir) {
  std::vector<std::string> out;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    const std::string name = it->path().filename().string();
    // LMDB's lock files describe readers of this host only: never shipped.
    if (!it->is_regular_file(ec) || name == "lock.mdb" || name.ends_with("-lock")) continue;
    out.push_back(fs::relative(it->path(), dir, ec).string());
  }
  return out;
}

}  // namespace files
}  // namespace hadra::sysmgrd
