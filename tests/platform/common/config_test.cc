// Configuration lookup, the root and URI-to-path mapping.
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "hadra_platform/config.h"
#include "support/fixture.h"

namespace {

class ConfigTest : public hadra::test::PlatformTest {};

std::string path_of(const char* uri, int mkdirs = 0) {
  char buf[512];
  if (plat_uri_to_path(uri, buf, sizeof buf, mkdirs) != 0) return "<error>";
  return buf;
}

TEST_F(ConfigTest, UriMapsUnderTheRoot) {
  EXPECT_EQ(path_of("run:/svc_routes"), root() + "/run/svc_routes");
  EXPECT_EQ(path_of("run:svc_routes"), root() + "/run/svc_routes");
  EXPECT_EQ(path_of("snap:/gsync/1/"), root() + "/snap/gsync/1");
  EXPECT_EQ(path_of("startup:/"), root() + "/startup");
}

TEST_F(ConfigTest, UrisThatEscapeOrAreMalformedAreRefused) {
  for (const char* bad : {"run:/../etc/passwd", "run:/a/../../x", "run:/./x", "run://x", "noarea",
                          ":/x", "Run:/x", "run:/a//b"}) {
    errno = 0;
    EXPECT_EQ(path_of(bad), "<error>") << bad;
    EXPECT_EQ(errno, EINVAL) << bad;
  }
  char small[8];
  EXPECT_EQ(plat_uri_to_path("run:/abcdef", small, sizeof small, 0), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(ConfigTest, MkdirsCreatesParentsOnly) {
  std::string p = path_of("snap:/area1/db", 1);
  struct stat st;
  EXPECT_EQ(stat((root() + "/snap/area1").c_str(), &st), 0);
  EXPECT_NE(stat(p.c_str(), &st), 0);
}

TEST_F(ConfigTest, EnvironmentThenFileThenDefault) {
  std::string conf = root() + "/platform.conf";
  std::ofstream(conf) << "# comment\nFROM_FILE = file value\nBOTH=file\nNUM = 0x20\n";
  setenv("HADRA_BOTH", "env", 1);
  plat_config_reload();
  EXPECT_STREQ(plat_config_get("FROM_FILE", "d"), "file value");
  EXPECT_STREQ(plat_config_get("BOTH", "d"), "env");
  EXPECT_STREQ(plat_config_get("MISSING", "d"), "d");
  EXPECT_EQ(plat_config_get_long("NUM", 1), 32);
  EXPECT_EQ(plat_config_get_long("FROM_FILE", 5), 5);  // not a number: the default
  unsetenv("HADRA_BOTH");
}

}  // namespace
