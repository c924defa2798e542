// Sequence-number table: reports, allocation, the shared file a daemon reads, fork.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "hadra_platform/errors.h"
#include "hadra_platform/sysmgr.h"
#include "support/fixture.h"
#include "sysmgr/seqno_table.h"

namespace {

using hadra::plat::sysmgr::SeqnoTable;

constexpr int kBadIndex = static_cast<int>(PLAT_ERR_SYSMGR_BAD_INDEX);

class SeqnoTest : public hadra::test::PlatformTest {
 protected:
  std::string table_path(pid_t pid) const { return root() + "/sysmgr/seqno-" + std::to_string(pid) + ".tbl"; }
  // The table as the daemon sees it: read from the file, not through the client.
  bool read_table(pid_t pid, SeqnoTable* t) const {
    int fd = open(table_path(pid).c_str(), O_RDONLY);
    if (fd < 0) return false;
    ssize_t n = pread(fd, t, sizeof *t, 0);
    close(fd);
    return n == static_cast<ssize_t>(sizeof *t);
  }
};

TEST_F(SeqnoTest, ReportsAreKeptPerIndex) {
  EXPECT_EQ(sysmgr_seqno_sync(0, 1), kBadIndex);
  EXPECT_EQ(sysmgr_seqno_sync(11, 1), kBadIndex);
  EXPECT_EQ(sysmgr_seqno_sync(1, 10), 0);
  EXPECT_EQ(sysmgr_seqno_sync(1, 12), 0);
  EXPECT_EQ(sysmgr_seqno_sync(10, 0), 0);  // zero is a number like any other
  uint64_t seq = 0;
  unsigned reports = 0;
  ASSERT_EQ(plat_test_sysmgr_seqno(1, &seq, &reports), 0);
  EXPECT_EQ(seq, 12u);
  EXPECT_EQ(reports, 2u);
  ASSERT_EQ(plat_test_sysmgr_seqno(10, &seq, &reports), 0);
  EXPECT_EQ(reports, 1u);
  EXPECT_EQ(plat_test_sysmgr_seqno(2, &seq, &reports), -1);
  EXPECT_EQ(plat_test_sysmgr_seqno(11, &seq, &reports), -1);
  // Reporting needs no allocation (the active never allocates).
  EXPECT_EQ(plat_test_sysmgr_seqno_table_allocated(), 0);
}

TEST_F(SeqnoTest, DaemonReadsTheNumbersFromTheSharedFile) {
  plat_test_sysmgr_set_uuid(0x4d2);
  ASSERT_EQ(sysmgr_seqno_sync(3, 0x1122334455ull), 0);
  SeqnoTable t;
  ASSERT_TRUE(read_table(getpid(), &t));
  EXPECT_EQ(t.magic, hadra::plat::sysmgr::kSeqnoMagic);
  EXPECT_EQ(t.version, hadra::plat::sysmgr::kSeqnoVersion);
  EXPECT_EQ(t.pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(t.uuid, 0x4d2u);
  EXPECT_EQ(t.slot[3].seqno, 0x1122334455ull);
  EXPECT_EQ(t.slot[3].reports, 1u);
  ASSERT_EQ(sysmgr_seqno_status_register(), 0);
  ASSERT_TRUE(read_table(getpid(), &t));
  EXPECT_EQ(t.mode, hadra::plat::sysmgr::kSeqnoModeStatus);
  plat_test_reset();  // forgets the table and removes its file
  EXPECT_EQ(access(table_path(getpid()).c_str(), F_OK), -1);
  EXPECT_EQ(plat_test_sysmgr_seqno_status_registered(), 0);
}

TEST_F(SeqnoTest, AllocationStartsAFreshTableOfTheGivenSize) {
  ASSERT_EQ(sysmgr_seqno_sync(4, 9), 0);
  EXPECT_EQ(sysmgr_seqno_table_alloc(0), kBadIndex);
  EXPECT_EQ(sysmgr_seqno_table_alloc(11), kBadIndex);
  ASSERT_EQ(sysmgr_seqno_table_alloc(5), 0);
  EXPECT_EQ(plat_test_sysmgr_seqno_table_allocated(), 1);
  EXPECT_EQ(plat_test_sysmgr_seqno(4, nullptr, nullptr), -1);  // earlier reports forgotten
  EXPECT_EQ(sysmgr_seqno_sync(5, 1), 0);
  EXPECT_EQ(sysmgr_seqno_sync(6, 1), kBadIndex);
  ASSERT_EQ(sysmgr_seqno_table_alloc(10), 0);
  EXPECT_EQ(sysmgr_seqno_sync(10, 1), 0);
}

TEST_F(SeqnoTest, ForkedChildKeepsItsOwnTable) {
  ASSERT_EQ(sysmgr_seqno_sync(1, 100), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(sysmgr_seqno_sync(1, 555) == 0 ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  uint64_t seq = 0;
  ASSERT_EQ(plat_test_sysmgr_seqno(1, &seq, nullptr), 0);
  EXPECT_EQ(seq, 100u);
  SeqnoTable t;
  ASSERT_TRUE(read_table(child, &t));
  EXPECT_EQ(t.pid, static_cast<uint32_t>(child));
  EXPECT_EQ(t.slot[1].seqno, 555u);
}

// On a disk that is already full the table cannot get its blocks: the first report must not
// die of SIGBUS on the mapped page, the numbers are kept in memory, and a line says the disk
// is full. A 64 KiB tmpfs in a private mount namespace of a child; skipped where that cannot
// be made (not root, no namespaces).
TEST_F(SeqnoTest, AFullDiskKeepsTheTableInMemoryInsteadOfCrashing) {
  const std::string dir = root() + "/small-disk";
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k") != 0)
      _exit(77);
    plat_test_set_root(dir.c_str());
    plat_test_log_capture(1);
    (void)mkdir((dir + "/sysmgr").c_str(), 0700);
    // Fill the disk.
    const int fd = open((dir + "/fill").c_str(), O_WRONLY | O_CREAT, 0600);
    static const char block[4096] = {};
    while (fd >= 0 && write(fd, block, sizeof block) > 0) {
    }
    if (sysmgr_seqno_sync(1, 77) != 0) _exit(1);
    uint64_t seq = 0;
    if (plat_test_sysmgr_seqno(1, &seq, nullptr) != 0 || seq != 77) _exit(2);
    char line[512];
    int level = 0;
    bool said = false;
    for (size_t i = 0; i < plat_test_log_count(); ++i)
      said = said || (plat_test_log_get(i, &level, line, sizeof line) == 0 &&
                      std::string(line).find("the disk is full") != std::string::npos);
    _exit(said ? 0 : 3);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private tmpfs here (needs root)";
  ASSERT_TRUE(WIFEXITED(status)) << "child died of signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: report failed, 2: number lost, 3: the full disk was not said";
}

}  // namespace
