// A full disk and I/O errors beneath both stores: the failure names its cause and the file,
// the store stays readable, and writes work again once the cause is gone. Faults come through
// the LMDB seam and, where the process may mount, from a real small tmpfs.
#include <fcntl.h>
#include <lmdb.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "common/lmdb_store.h"
#include "hadra_platform/config.h"
#include "hadra_platform/sdb.h"
#include "pss/store.h"
#include "tests/platform/pss/pss_support.h"

namespace hadra::test {
namespace {

namespace plat = hadra::plat;

std::atomic<int> g_commit_rc{0}, g_fallocate_rc{0};
int failing_commit(MDB_txn* txn) {
  if (g_commit_rc == 0) return mdb_txn_commit(txn);
  mdb_txn_abort(txn);  // LMDB's commit frees the transaction whatever its result
  return g_commit_rc;
}
int failing_fallocate(int, off_t, off_t) { return g_fallocate_rc; }
int failing_sync(MDB_env*, int) { return EIO; }

class DiskErrorsTest : public PssTest {
 protected:
  void SetUp() override {
    PssTest::SetUp();
    g_commit_rc = 0;
    g_fallocate_rc = 0;
    plat::lmdb_ops().txn_commit = failing_commit;
    plat::lmdb_ops().fallocate = failing_fallocate;
    plat_test_log_capture(1);
  }
  void TearDown() override {
    plat::reset_lmdb_ops();
    unsetenv("HADRA_DURABILITY_DELAY_MS");
    plat_config_reload();
    PssTest::TearDown();
  }
  static uint32_t sdb_put(const char* uri, const std::string& k, const std::string& v) {
    datum kd = D(k), vd = D(v);
    return sdb_write(uri, &kd, &vd);
  }
  static std::string sdb_get(const char* uri, const std::string& k) {
    datum kd = D(k);
    uint32_t rc = 1;
    datum* v = sdb_read(uri, &kd, &rc);
    return rc == 0 ? S(v) : "<rc " + std::to_string(rc) + ">";
  }
};

// For each store and each fault (no blocks for the map, a commit on a full disk, a commit
// with an I/O error): the store's usual code, a line naming the cause in words and the file,
// reads still served, and the write works once the fault is gone.
TEST_F(DiskErrorsTest, EachStoreNamesTheCauseAndTheFileAndRecovers) {
  struct Fault {
    const char* name;
    int fallocate_rc, commit_rc;
    const char* cause;
    uint32_t pss_code, sdb_code;
  };
  const Fault faults[] = {
      {"no blocks", ENOSPC, 0, "the disk is full", PLAT_ERR_PSS_IO, PLAT_ERR_SDB_FULL},
      {"commit on a full disk", 0, ENOSPC, "the disk is full", PLAT_ERR_PSS_IO, PLAT_ERR_SDB_FULL},
      {"commit with an I/O error", 0, EIO, "I/O error", PLAT_ERR_PSS_IO, PLAT_ERR_SDB_IO},
  };
  const std::string big(std::string::size_type{6} << 20, 'x');
  int n = 0;
  for (const Fault& f : faults) {
    SCOPED_TRACE(f.name);
    const std::string pss_uri = "run:/p" + std::to_string(n), sdb_uri = "run:/s" + std::to_string(n);
    ++n;
    uint32_t h = open(pss_uri.c_str());
    ASSERT_EQ(pss2_set_max_dbsize(h, uint64_t{256} << 20), 0u);
    ASSERT_EQ(put(h, "old", "kept"), 0u);
    ASSERT_EQ(sdb_create(sdb_uri.c_str(), SDB_CREATE_SDB, 1, 0), 0u);
    ASSERT_EQ(sdb_open(sdb_uri.c_str(), SDB_OPEN_RW, 1, 0, 0), 0u);
    ASSERT_EQ(sdb_put(sdb_uri.c_str(), "old", "kept"), 0u);
    // Without blocks only a write that needs more than what is already allocated fails.
    const std::string& pss_value = f.fallocate_rc != 0 ? big : std::string("v");
    plat_test_log_capture(1);
    g_fallocate_rc = f.fallocate_rc;
    g_commit_rc = f.commit_rc;

    EXPECT_EQ(put(h, "new", pss_value), f.pss_code);
    EXPECT_TRUE(logged({"pss:", f.cause, plat::pss::find_handle(h)->env->path})) << last_log_line();
    EXPECT_EQ(get(h, "old"), "kept");
    EXPECT_EQ(get(h, "new"), std::nullopt);

    if (f.fallocate_rc != 0) {
      // The SDB's room ahead is used up first; each write then asks for more.
      uint32_t rc = 0;
      for (int i = 0; i < 256 && rc == 0; ++i) rc = sdb_put(sdb_uri.c_str(), "fill" + std::to_string(i), big.substr(0, 60000));
      EXPECT_EQ(rc, f.sdb_code);
    } else {
      EXPECT_EQ(sdb_put(sdb_uri.c_str(), "new", "v"), f.sdb_code);
      EXPECT_EQ(sdb_get(sdb_uri.c_str(), "new"), "<rc " + std::to_string(PLAT_ERR_SDB_NO_RECORD) + ">");
    }
    EXPECT_TRUE(logged({"sdb:", f.cause, path("run") + "/s"})) << last_log_line();
    EXPECT_EQ(sdb_get(sdb_uri.c_str(), "old"), "kept");

    g_fallocate_rc = 0;
    g_commit_rc = 0;
    EXPECT_EQ(put(h, "new", pss_value), 0u);
    EXPECT_EQ(get(h, "new")->size(), pss_value.size());
    EXPECT_EQ(sdb_put(sdb_uri.c_str(), "new", "v"), 0u);
    EXPECT_EQ(sdb_get(sdb_uri.c_str(), "new"), "v");
    ASSERT_EQ(pss2_close(h), 0u);
    ASSERT_EQ(sdb_close(sdb_uri.c_str()), 0u);
  }

  // Group commit: the write is in the store, its flush to disk fails later, named all the same.
  setenv("HADRA_DURABILITY_DELAY_MS", "5", 1);
  plat_config_reload();
  uint32_t g = open("run:/group");
  plat::lmdb_ops().env_sync = failing_sync;
  ASSERT_EQ(put(g, "k", "v"), 0u);
  const std::string gfile = plat::pss::find_handle(g)->env->path;
  for (int i = 0; i < 200 && !logged({"flushing to disk of", gfile, "I/O error"}); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(logged({"flushing to disk of", gfile, "I/O error"})) << last_log_line();
  EXPECT_EQ(get(g, "k"), "v");
  plat::reset_lmdb_ops();
  ASSERT_EQ(pss2_close(g), 0u);
}

// A real full disk: a small tmpfs holding the root, filled to the last block. The write that
// needs blocks fails naming the disk and the file, the log (on the same disk) falls back to
// stderr, reads go on, and once space returns the write works.
class SmallDiskTest : public DiskErrorsTest {
 protected:
  void SetUp() override {
    DiskErrorsTest::SetUp();
    plat::reset_lmdb_ops();  // the real calls only
    mnt_ = path("small");
    std::filesystem::create_directory(mnt_);
    if (::mount("tmpfs", mnt_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=48m,mode=0700") != 0) {
      GTEST_SKIP() << "cannot mount a small tmpfs here (" << std::strerror(errno)
                   << "; needs root with CAP_SYS_ADMIN): the full-disk case runs on the seam only";
    }
    mounted_ = true;
  }
  void TearDown() override {
    plat_test_reset();  // closes the stores and the log file on the small disk
    plat_test_set_root(root().c_str());
    if (mounted_) ::umount2(mnt_.c_str(), MNT_DETACH);
    DiskErrorsTest::TearDown();
  }
  // Fills the disk with one file until no block is left.
  void fill() {
    const int fd = ::open((mnt_ + "/filler").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    std::string block(64 << 10, 'f');
    for (size_t size = block.size(); size >= 512; size /= 2)
      while (::write(fd, block.data(), size) == static_cast<ssize_t>(size)) {
      }
    ::close(fd);
  }
  std::string mnt_;
  bool mounted_ = false;
};

TEST_F(SmallDiskTest, FullTmpfsFailsTheWriteKeepsReadsAndLogsToStderr) {
  plat_test_set_root(mnt_.c_str());
  uint32_t h = open("run:/config");
  ASSERT_EQ(pss2_set_max_dbsize(h, uint64_t{40} << 20), 0u);
  ASSERT_EQ(put(h, "old", "kept"), 0u);
  const std::string file = plat::pss::find_handle(h)->env->path;
  ASSERT_EQ(file.rfind(mnt_, 0), 0u) << file;
  fill();

  // stderr into a file beside the small disk while the log file cannot take lines.
  const std::string err_path = path("stderr.txt");
  const int saved = ::dup(STDERR_FILENO);
  const int err_fd = ::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  ASSERT_GE(err_fd, 0);
  ::dup2(err_fd, STDERR_FILENO);
  // A value this large needs blocks ahead of what the first write allocated.
  const std::string big(std::string::size_type{4} << 20, 'x');
  const uint32_t rc = put(h, "big", big);
  ::dup2(saved, STDERR_FILENO);
  ::close(saved);
  ::close(err_fd);

  EXPECT_EQ(rc, PLAT_ERR_PSS_IO);
  EXPECT_TRUE(logged({"the disk is full", file})) << last_log_line();
  std::stringstream err;
  err << std::ifstream(err_path).rdbuf();
  EXPECT_NE(err.str().find("the disk is full"), std::string::npos) << err.str();
  EXPECT_NE(err.str().find(file), std::string::npos) << err.str();
  EXPECT_EQ(get(h, "old"), "kept");

  std::filesystem::remove(mnt_ + "/filler");
  EXPECT_EQ(put(h, "big", big), 0u);
  EXPECT_EQ(get(h, "big")->size(), big.size());
  ASSERT_EQ(pss2_close(h), 0u);
}

}  // namespace
}  // namespace hadra::test
