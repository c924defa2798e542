// String helpers and error texts at their edges.
#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "hadra_platform/errors.h"
#include "hadra_platform/strutil.h"
#include "support/fixture.h"

namespace {

class StrTest : public hadra::test::PlatformTest {};

TEST_F(StrTest, PlatformCodesHaveTheirOwnTexts) {
  // One code of each class and service; the table is one list, so these stand for the rest.
  const uint32_t codes[] = {PLAT_ERR_SYSMGR_GSYNC_FATAL, PLAT_ERR_SYSMGR_BAD_INDEX, PLAT_ERR_PSS_NO_RECORD,
                            PLAT_ERR_PSS_FULL,           PLAT_ERR_SDB_ALREADY_OPEN, PLAT_ERR_SDB_NO_ITER,
                            PLAT_ERR_MTS_NO_PEER,        PLAT_ERR_MTS_EMPTY};
  std::set<std::string> texts;
  for (uint32_t c : codes) {
    std::string t = syserr2str(c);
    EXPECT_EQ(t.find("unknown"), std::string::npos) << std::hex << c;
    EXPECT_EQ(t, hadra_syserr2str(c, 0));
    texts.insert(t);
  }
  EXPECT_EQ(texts.size(), sizeof codes / sizeof codes[0]);
}

TEST_F(StrTest, ErrnoValuesAndUnknownCodes) {
  EXPECT_STREQ(syserr2str(ENOENT), std::strerror(ENOENT));
  EXPECT_STREQ(hadra_syserr2str(0, 0), std::strerror(0));
  EXPECT_STREQ(syserr2str(0x80ff0001u), "unknown error 0x80ff0001");
  EXPECT_STREQ(syserr2str(0x10000u), "unknown error 0x00010000");
  // Several texts in one line: each stays intact until the ring comes round.
  const char* a = syserr2str(0x80ff0002u);
  const char* b = syserr2str(EIO);
  const char* c = syserr2str(0x80ff0003u);
  EXPECT_STREQ(a, "unknown error 0x80ff0002");
  EXPECT_STREQ(b, std::strerror(EIO));
  EXPECT_STREQ(c, "unknown error 0x80ff0003");
}

TEST_F(StrTest, CopyCutsToFitAndAlwaysTerminates) {
  char buf[6];
  std::memset(buf, 'z', sizeof buf);
  EXPECT_EQ(hadra_strcpy(buf, 0, "abc"), buf);
  EXPECT_EQ(buf[0], 'z');  // size 0: untouched
  EXPECT_STREQ(hadra_strcpy(buf, 1, "abc"), "");
  EXPECT_STREQ(hadra_strcpy(buf, sizeof buf, "abcde"), "abcde");  // exact fit
  EXPECT_STREQ(hadra_strcpy(buf, sizeof buf, "abcdefgh"), "abcde");
  EXPECT_STREQ(hadra_strcpy(buf, sizeof buf, nullptr), "");
  EXPECT_EQ(hadra_strcpy(nullptr, 4, "x"), nullptr);
}

TEST_F(StrTest, AppendStopsAtTheBound) {
  char buf[8] = "abc";
  EXPECT_STREQ(hadra_strcat(buf, sizeof buf, "de"), "abcde");
  EXPECT_STREQ(hadra_strcat(buf, sizeof buf, "fghij"), "abcdefg");
  EXPECT_STREQ(hadra_strcat(buf, sizeof buf, "x"), "abcdefg");  // full: no change
  EXPECT_STREQ(hadra_strcat(buf, sizeof buf, nullptr), "abcdefg");
  char raw[4] = {'w', 'x', 'y', 'z'};  // not terminated within its size
  hadra_strcat(raw, sizeof raw, "q");
  EXPECT_EQ(std::string(raw, 3), "wxy");
  EXPECT_EQ(raw[3], '\0');
}

TEST_F(StrTest, SnprintfReturnsWhatWasWritten) {
  char buf[8];
  EXPECT_EQ(hadra_snprintf(buf, sizeof buf, "%d", 1234), 4);
  EXPECT_EQ(hadra_snprintf(buf, sizeof buf, "%s", "0123456789"), 7);
  EXPECT_STREQ(buf, "0123456");
  EXPECT_EQ(hadra_snprintf(buf, 0, "%s", "x"), 0);
  EXPECT_EQ(hadra_snprintf(nullptr, 8, "%s", "x"), 0);
}

TEST_F(StrTest, InjectedFailuresLeaveReadableResults) {
  ASSERT_EQ(plat_fault_arm("*", 0, 0, PLAT_FAULT_DEFAULT, 0), 0);
  char buf[8] = "keep";
  EXPECT_EQ(hadra_strcpy(buf, sizeof buf, "new"), nullptr);
  EXPECT_STREQ(buf, "");
  EXPECT_NE(syserr2str(EIO), nullptr);
  EXPECT_EQ(plat_fault_fired(), 2u);
}

}  // namespace
