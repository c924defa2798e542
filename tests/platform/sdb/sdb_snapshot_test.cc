// SDB snapshots: write and read back (records, secondary keys, tags), replacing an open SDB,
// the snapshot file taken over only when no process has the SDB open, missing snapshots and
// kind mismatches, damaged snapshot files.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "platform/sdb/sdb_fixture.h"

namespace hadra::test {
namespace {

using SdbSnapshot = SdbTest;
using V = std::vector<std::string>;
constexpr const char* kArea = "snap:/gsync1";

TEST_F(SdbSnapshot, SdbRoundTripRebuildsADestroyedSdb) {
  create_open();
  for (const char* k : {"a", "b", "c"}) ASSERT_EQ(put(k, std::string("v") + k), 0u);
  ASSERT_EQ(sdb_write_snapshot(kUri, kArea, kUuid), 0u);
  struct stat st;
  EXPECT_EQ(::stat((root() + "/snap/gsync1/sdb-snapshots/300/run/svc/routes.snap").c_str(), &st), 0);
  ASSERT_EQ(sdb_destroy(kUri), 0u);

  ASSERT_EQ(sdb_read_snapshot(kUri, kArea, kUuid), 0u);
  EXPECT_EQ(sdb_exists(kUri), 1);
  ASSERT_EQ(sdb_open(kUri, SDB_OPEN_RW, kUuid, 0, 0), 0u);  // the restore leaves it closed
  EXPECT_EQ(all(), (V{"a=va", "b=vb", "c=vc"}));
  EXPECT_EQ(put("d", "vd"), 0u);
}

TEST_F(SdbSnapshot, MsdbRoundTripKeepsSecondaryKeysAndTags) {
  create_open(kUri, SDB_CREATE_MSDB);
  ASSERT_EQ(put_mkey("r1", "one", {{1, "ip-a"}, {0x8001, "name-a"}}), 0u);
  ASSERT_EQ(put_mkey("r2", "two", {{1, "ip-b"}}), 0u);
  ASSERT_EQ(mksdb_write_snapshot(kUri, kArea, kUuid), 0u);
  ASSERT_EQ(sdb_destroy(kUri), 0u);
  ASSERT_EQ(mksdb_read_snapshot(kUri, kArea, kUuid), 0u);
  ASSERT_EQ(sdb_open(kUri, SDB_OPEN_RW, kUuid, 0, 0), 0u);
  EXPECT_EQ(by_skey(0x8001, "name-a"), "r1=one");
  EXPECT_EQ(by_skey(1, "ip-b"), "r2=two");
  EXPECT_EQ(skeys_of("r1"), (V{"1:ip-a", std::to_string(0x8001) + ":name-a"}));
  // The rebuilt SDB is still an MSDB whose rewrites maintain the index.
  ASSERT_EQ(put_mkey("r1", "uno", {{2, "x"}}), 0u);
  EXPECT_EQ(by_skey(1, "ip-a"), "<none>");
}

TEST_F(SdbSnapshot, RestoreReplacesTheContentsOfAnOpenSdb) {
  create_open();
  ASSERT_EQ(put("kept", "1"), 0u);
  ASSERT_EQ(sdb_write_snapshot(kUri, kArea, kUuid), 0u);
  ASSERT_EQ(put("later", "2"), 0u);
  ASSERT_EQ(put("kept", "changed"), 0u);
  ASSERT_EQ(sdb_iterator_init(kUri, SDB_ITER_FIRST), 0u);
  ASSERT_EQ(sdb_read_snapshot(kUri, kArea, kUuid), 0u);
  datum *k = nullptr, *v = nullptr;
  EXPECT_EQ(sdb_getkey(kUri, &k, &v), PLAT_ERR_SDB_NO_ITER);  // repositioning needed
  EXPECT_EQ(all(), V{"kept=1"});
}

// The file is moved in only when no process has the SDB open: another process that has it
// open keeps a working environment and sees the restored records; with nobody left, the
// snapshot becomes the data file and the SDB opens and takes writes afterwards.
TEST_F(SdbSnapshot, RestoreTakesTheFileOverOnlyWhenNoProcessHasTheSdbOpen) {
  const std::string snap = root() + "/snap/gsync1/sdb-snapshots/300/run/svc/routes.snap";
  create_open();
  ASSERT_EQ(put("kept", "1"), 0u);
  ASSERT_EQ(sdb_write_snapshot(kUri, kArea, kUuid), 0u);
  ASSERT_EQ(put("later", "2"), 0u);
  ASSERT_EQ(sdb_close(kUri), 0u);

  int up[2], go[2];
  ASSERT_EQ(pipe(up), 0);
  ASSERT_EQ(pipe(go), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    char c = 0;
    const bool opened = sdb_open(kUri, SDB_OPEN_RW, kUuid, 0, 0) == 0;
    if (write(up[1], "r", 1) != 1 || read(go[0], &c, 1) != 1 || !opened) _exit(1);
    _exit(all() == V{"kept=1"} && put("child", "3") == 0 ? 0 : 2);
  }
  char c = 0;
  ASSERT_EQ(read(up[0], &c, 1), 1);
  EXPECT_EQ(sdb_read_snapshot(kUri, kArea, kUuid), 0u);
  struct stat st;
  EXPECT_EQ(::stat(snap.c_str(), &st), 0) << "the snapshot was taken from under an open SDB";
  ASSERT_EQ(write(go[1], "g", 1), 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  for (int fd : {up[0], up[1], go[0], go[1]}) ::close(fd);

  ASSERT_EQ(sdb_read_snapshot(kUri, kArea, kUuid), 0u);  // nobody has it open now
  EXPECT_NE(::stat(snap.c_str(), &st), 0) << "the snapshot file should have become the data file";
  ASSERT_EQ(sdb_open(kUri, SDB_OPEN_RW, kUuid, 0, 0), 0u);
  EXPECT_EQ(all(), V{"kept=1"});
  ASSERT_EQ(put("after", "4"), 0u);
  EXPECT_EQ(all(), (V{"after=4", "kept=1"}));
  ASSERT_EQ(sdb_close(kUri), 0u);
  EXPECT_EQ(sdb_read_snapshot(kUri, kArea, kUuid), PLAT_ERR_SDB_NOT_FOUND);  // used up
  ASSERT_EQ(sdb_open(kUri, SDB_OPEN_READ, kUuid, 0, 0), 0u);
  EXPECT_EQ(all(), (V{"after=4", "kept=1"}));
}

TEST_F(SdbSnapshot, MissingSnapshotsAndKindMismatches) {
  EXPECT_EQ(sdb_write_snapshot(kUri, kArea, kUuid), PLAT_ERR_SDB_NOT_FOUND);  // no SDB
  EXPECT_EQ(sdb_read_snapshot(kUri, kArea, kUuid), PLAT_ERR_SDB_NOT_FOUND);
  EXPECT_EQ(sdb_exists(kUri), 0);  // a failed restore creates nothing
  create_open();
  EXPECT_EQ(mksdb_write_snapshot(kUri, kArea, kUuid), PLAT_ERR_SDB_BAD_ARG);
  ASSERT_EQ(sdb_write_snapshot(kUri, kArea, kUuid), 0u);
  EXPECT_EQ(sdb_read_snapshot(kUri, kArea, kUuid + 1), PLAT_ERR_SDB_NOT_FOUND);  // another service's
  EXPECT_EQ(mksdb_read_snapshot(kUri, kArea, kUuid), PLAT_ERR_SDB_BAD_ARG);
  EXPECT_EQ(sdb_write_snapshot(kUri, nullptr, kUuid), PLAT_ERR_SDB_BAD_URI);
  EXPECT_EQ(sdb_write_snapshot(kUri, "no-area", kUuid), PLAT_ERR_SDB_BAD_URI);
}

// Shipped snapshot files that arrive damaged: a copy cut short made LMDB read past the end of
// the file (SIGBUS), and one whose sub-database was missing freed LMDB's names twice while
// closing. Each must be refused with an I/O error and leave the open SDB as it was.
TEST_F(SdbSnapshot, DamagedSnapshotFilesAreRefusedAndChangeNothing) {
  create_open();
  ASSERT_EQ(put("kept", "1"), 0u);
  ASSERT_EQ(sdb_write_snapshot(kUri, kArea, kUuid), 0u);
  std::string snap = root() + "/snap/gsync1/sdb-snapshots/300/run/svc/routes.snap";
  std::ifstream in(snap, std::ios::binary);
  const std::string good((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_GT(good.size(), 8192u);
  ASSERT_EQ(put("later", "2"), 0u);

  std::string renamed = good;  // still in key order, so only the name lookup fails
  for (size_t at = 0; (at = renamed.find("records", at)) != std::string::npos;) renamed[at + 6] = 'z';
  for (const std::string& bad : {good.substr(0, good.size() / 2), renamed, std::string(8192, '\0')}) {
    std::ofstream(snap, std::ios::binary | std::ios::trunc) << bad;
    EXPECT_EQ(sdb_read_snapshot(kUri, kArea, kUuid), PLAT_ERR_SDB_IO) << bad.size();
    EXPECT_EQ(all(), (V{"kept=1", "later=2"}));
  }
  std::ofstream(snap, std::ios::binary | std::ios::trunc) << good;
  ASSERT_EQ(sdb_read_snapshot(kUri, kArea, kUuid), 0u);
  EXPECT_EQ(all(), V{"kept=1"});
}

}  // namespace
}  // namespace hadra::test
