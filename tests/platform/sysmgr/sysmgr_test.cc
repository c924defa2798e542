// Local view of the supervisor, its configuration and setters, URI completion, gsync link.
#include <stdlib.h>

#include <cerrno>
#include <string>
#include <thread>

#include "hadra_platform/errors.h"
#include "hadra_platform/sysmgr.h"
#include "support/fixture.h"
#include "sysmgr/sysmgr_internal.h"

namespace {

class SysmgrTest : public hadra::test::PlatformTest {
 protected:
  void TearDown() override {
    for (const char* k : {"SUPSTATE", "RUNNING_URI", "STARTUP_URI", "FILE_PREFIX", "STATEFUL", "UUID"})
      unsetenv((std::string("HADRA_") + k).c_str());
    PlatformTest::TearDown();
  }
  void configure(const char* key, const char* value) {
    setenv((std::string("HADRA_") + key).c_str(), value, 1);
    plat_test_reset();
    plat_test_set_root(root().c_str());
  }
  static std::string str(const char* s) { return s != nullptr ? s : "<null>"; }
};

TEST_F(SysmgrTest, ConfigurationThenSettersThenResetAgain) {
  configure("SUPSTATE", "sideways");  // not a state: neither, with a warning
  EXPECT_EQ(sysmgr_supstate_get(), 0);
  configure("SUPSTATE", "standby");
  configure("RUNNING_URI", "none");
  configure("FILE_PREFIX", "rt_");
  configure("UUID", "0x1234");
  EXPECT_EQ(sysmgr_supstate_get(), 2);
  EXPECT_EQ(sysmgr_running_cfg_uri_get(), nullptr);
  EXPECT_EQ(sysmgr_uuid_get_before_handshake(), 0x1234u);
  plat_test_sysmgr_set_running_cfg_uri("run:/svc");
  plat_test_sysmgr_set_stateful_restart(5);
  EXPECT_EQ(str(sysmgr_running_cfg_uri_get()), "run:/svc");
  EXPECT_EQ(str(sysmgr_file_prefix_get()), "rt_");  // not set: configuration still holds
  EXPECT_EQ(sysmgr_is_stateful_restart(), 1);
  for (const char* k : {"HADRA_SUPSTATE", "HADRA_RUNNING_URI", "HADRA_FILE_PREFIX", "HADRA_UUID"}) unsetenv(k);
  plat_test_reset();  // back to the defaults of an unconfigured supervisor
  EXPECT_EQ(sysmgr_supstate_get(), 1);
  EXPECT_EQ(str(sysmgr_running_cfg_uri_get()), "run:/");
  EXPECT_EQ(sysmgr_file_prefix_get(), nullptr);
  EXPECT_EQ(sysmgr_is_stateful_restart() + static_cast<int>(sysmgr_uuid_get()), 0);
}

TEST_F(SysmgrTest, UriCompletionJoinsBasePrefixAndName) {
  EXPECT_EQ(str(sysmgr_uri_complete("run:/", nullptr, "routes")), "run:/routes");
  EXPECT_EQ(str(sysmgr_uri_complete("run:/", "rt_", "routes")), "run:/rt_routes");
  EXPECT_EQ(str(sysmgr_uri_complete("snap:/gsync/1", "", "routes")), "snap:/gsync/1/routes");
  EXPECT_EQ(str(sysmgr_uri_complete("startup:/cfg/", "p", "n.db")), "startup:/cfg/pn.db");
}

TEST_F(SysmgrTest, UriCompletionRefusesWhatCouldEscapeOrBeCut) {
  struct Case {
    const char *base, *prefix, *name;
    int err;
  } cases[] = {
      {nullptr, nullptr, "x", EINVAL},     {"run:/", nullptr, nullptr, EINVAL},
      {"", nullptr, "x", EINVAL},          {"run:/", nullptr, "", EINVAL},
      {"run:/", nullptr, "a/b", EINVAL},   {"run:/", nullptr, "..", EINVAL},
      {"run:/", nullptr, ".", EINVAL},     {"run:/", "../", "x", EINVAL},
      {"run:/", "..", "x", EINVAL},        {"run:/", "a/b", "x", EINVAL},
      {"run:/a/../b", nullptr, "x", EINVAL}, {"run:/a//b", nullptr, "x", EINVAL},
      {"Run:/", nullptr, "x", EINVAL},     {"run:", nullptr, "x", EINVAL},
      {"/tmp/x", nullptr, "x", EINVAL},
  };
  for (const Case& c : cases) {
    errno = 0;
    EXPECT_EQ(sysmgr_uri_complete(c.base, c.prefix, c.name), nullptr)
        << str(c.base) << " | " << str(c.prefix) << " | " << str(c.name);
    EXPECT_EQ(errno, c.err);
  }
  // "run:/" (5) + name: 250 characters fit SYSMGR_URI_MAX with the terminator, 251 do not.
  EXPECT_EQ(str(sysmgr_uri_complete("run:/", nullptr, std::string(250, 'n').c_str())).size(), 255u);
  errno = 0;
  EXPECT_EQ(sysmgr_uri_complete("run:/", nullptr, std::string(251, 'n').c_str()), nullptr);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(sysmgr_uri_complete("run:/", "p", std::string(250, 'n').c_str()), nullptr);
}

TEST_F(SysmgrTest, UriResultIsPerThread) {
  const char* mine = sysmgr_uri_complete("run:/", nullptr, "mine");
  std::thread([] { sysmgr_uri_complete("run:/", nullptr, "theirs"); }).join();
  EXPECT_STREQ(mine, "run:/mine");
}

int g_daemon_calls = 0;
int daemon_gsync(int) {
  ++g_daemon_calls;
  return static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON);
}

TEST_F(SysmgrTest, GsyncRequestsGoThroughTheLink) {
  g_daemon_calls = 0;
  plat_trace_start();
  EXPECT_EQ(sysmgr_gsync_get(0), 0);
  EXPECT_EQ(plat_test_sysmgr_gsync_requests(), 1u);
  const hadra::plat::sysmgr::Link daemon = {&daemon_gsync};
  hadra::plat::sysmgr::set_link(&daemon);
  EXPECT_EQ(sysmgr_gsync_get(0), static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON));
  hadra::plat::sysmgr::set_link(nullptr);
  EXPECT_EQ(g_daemon_calls, 1);
  EXPECT_EQ(hadra::test::trace_calls("sysmgr_gsync_get").size(), 2u);
}

}  // namespace
