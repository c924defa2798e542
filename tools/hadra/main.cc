// hadra: the operator's tool for a pair of supervisors. It talks to the daemon of its own
// supervisor (hadra-sysmgrd), which talks to the peer's. See docs/hadra.md.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "dump.h"
#include "hadra_platform/config.h"
#include "link.h"
#include "table.h"

namespace {

namespace proto = hadra::plat::sysmgr::proto;
namespace tool = hadra::tool;
using nlohmann::json;

struct Common {
  std::string root;
  int timeout_ms = 5000;
  bool json = false;
};

int fail(const std::string& line, int code = 1) {
  std::fprintf(stderr, "hadra: %s\n", line.c_str());
  return code;
}

// Sends cmd; prints the failure line itself. The answer, for the caller to show.
tool::Answer ask(const Common& c, proto::Cmd cmd, const std::string& arg = "") {
  tool::Answer a = tool::send_command(c.root, cmd, arg, c.timeout_ms);
  if (a.exit != 0) std::fprintf(stderr, "hadra: %s\n", a.error.c_str());
  return a;
}

int cmd_status(const Common& c, bool watch, int interval_ms) {
  const bool tty = ::isatty(STDOUT_FILENO) != 0;
  for (;;) {
    tool::Answer a = ask(c, proto::Cmd::kStatus);
    if (a.exit != 0) return a.exit;
    if (c.json) {
      std::printf("%s\n", a.body.dump(2).c_str());
    } else {
      if (watch && tty) std::printf("\033[H\033[2J");
      std::fputs(tool::status_table(a.body, tty).c_str(), stdout);
    }
    std::fflush(stdout);
    if (!watch) return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(interval_ms));
  }
}

int cmd_simple(const Common& c, proto::Cmd cmd, const std::string& arg, const char* done) {
  tool::Answer a = ask(c, cmd, arg);
  if (a.exit != 0) return a.exit;
  if (c.json)
    std::printf("%s\n", a.body.dump(2).c_str());
  else
    std::printf("%s\n", done);
  return 0;
}

int cmd_switchover(const Common& c, bool yes) {
  if (!yes) {
    if (::isatty(STDIN_FILENO) == 0) return fail("switchover needs --yes when there is no terminal to confirm on", 2);
    std::printf("Planned switchover: this supervisor hands the active role to its peer. Go on? [y/N] ");
    std::fflush(stdout);
    std::string answer;
    if (!std::getline(std::cin, answer) || (answer != "y" && answer != "yes")) return fail("switchover cancelled");
  }
  return cmd_simple(c, proto::Cmd::kSwitchover, "", "switchover done: the peer takes the active role");
}

int cmd_gsync(const Common& c, const std::string& service) {
  std::string arg;
  if (!service.empty()) {
    tool::Answer st = ask(c, proto::Cmd::kStatus);
    if (st.exit != 0) return st.exit;
    for (const json& s : st.body.value("services", json::array()))
      if (s.value("name", "") == service || std::to_string(s.value("uuid", 0u)) == service)
        arg = std::to_string(s.value("uuid", 0u));
    if (arg.empty()) return fail("no service " + service + " attached to this supervisor");
  }
  return cmd_simple(c, proto::Cmd::kGsync, arg,
                    service.empty() ? "gsync asked for every service" : ("gsync asked for " + service).c_str());
}

int cmd_verify(const Common& c, const std::string& service, const std::string& db, bool repair) {
  json arg{{"service", service}, {"db", db}, {"repair", repair}, {"timeout_ms", c.timeout_ms}};
  // The daemon answers when the whole comparison is over: wait a little longer than it may take.
  Common longer = c;
  longer.timeout_ms = c.timeout_ms + 2000;
  // On a terminal, a long run shows how far it is: the daemon's status, asked for while the
  // comparison runs, has its progress. Nothing of it goes to --json or to a pipe.
  const bool bar = ::isatty(STDERR_FILENO) != 0 && !c.json;
  bool drawn = false;
  auto progress = [&](const json& st) {
    const json p = st.value("verify_progress", json());
    if (!p.is_object()) return;
    const double elapsed = p.value("elapsed_ms", 0.0) / 1000.0;
    if (elapsed < 1.0) return;  // short runs need no bar
    const double stores = std::max(1.0, p.value("stores", 1.0)), done = p.value("stores_done", 0.0);
    const double mb = p.value("bytes", 0.0) / 1e6, f = done / stores;
    constexpr int kWidth = 30;
    const int filled = static_cast<int>(f * kWidth);
    std::string line = "\r[" + std::string(static_cast<size_t>(filled), '#') +
                       std::string(static_cast<size_t>(kWidth - filled), '.') + "] ";
    char rest[160];
    std::snprintf(rest, sizeof rest, "%.0f/%.0f stores  %.0f records  %.1f MB at %.1f MB/s  ETA %s", done, stores,
                  p.value("records_seen", 0.0), mb, mb / elapsed,
                  f > 0 ? (std::to_string(static_cast<long>(elapsed * (1 - f) / f + 0.5)) + " s").c_str() : "?");
    std::fprintf(stderr, "%s%s\033[K", line.c_str(), rest);
    drawn = true;
  };
  tool::Answer a = tool::send_command_watching(c.root, proto::Cmd::kVerify, arg.dump(), longer.timeout_ms, "stores",
                                               bar ? 500 : 0, progress);
  if (drawn) std::fprintf(stderr, "\r\033[K");
  // Refused before it began (no peer, a bad name): the reason alone.
  if (a.exit == 3 || !a.body.is_object() || !a.body.contains("stores")) return fail(a.error, a.exit == 0 ? 1 : a.exit);
  if (c.json)
    std::printf("%s\n", a.body.dump(2).c_str());
  else
    std::fputs(tool::verify_report(a.body).c_str(), stdout);
  if (a.exit != 0) return fail(a.error);
  const uint64_t diffs = a.body.value("differences", uint64_t{0});
  // Differences left unrepaired are a failed check, as with diff(1).
  return diffs == 0 || repair ? 0 : 1;
}

int cmd_history(const Common& c, bool both, bool diverge, int max) {
  json arg{{"both", both}, {"diverge", diverge}, {"max", max}, {"timeout_ms", c.timeout_ms}};
  // The daemon answers when the peer's records are in, or says it gave up at timeout_ms.
  tool::Answer a = tool::send_command(c.root, proto::Cmd::kHistory, arg.dump(), c.timeout_ms + 2000);
  if (a.exit != 0) return fail(a.error, a.exit);
  if (c.json)
    std::printf("%s\n", a.body.dump(2).c_str());
  else
    std::fputs(tool::history_report(a.body).c_str(), stdout);
  // A divergence found is a failed check, as with diff(1).
  return a.body.value("divergence", json::object()).value("found", false) ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"hadra: see and steer a pair of supervisors through the local hadra-sysmgrd.\n"
               "Example:\n  hadra --root /var/lib/hadra/sup1 status"};
  app.require_subcommand(1);
  Common c;
  app.add_option("--root", c.root, "supervisor root directory (configuration key ROOT)");
  app.add_option("--timeout", c.timeout_ms, "longest wait for the daemon's answer, ms")->check(CLI::Range(1, 3600000));

  CLI::App* status = app.add_subcommand("status", "both supervisors, per service and database: numbers, lag\n"
                                                  "Example:\n  hadra status --watch");
  bool watch = false;
  int interval_ms = 1000;
  status->add_flag("--watch", watch, "repeat until interrupted");
  status->add_option("--interval", interval_ms, "with --watch: ms between two refreshes")->check(CLI::Range(50, 60000));
  status->add_flag("--json", c.json, "the daemon's answer as JSON");

  CLI::App* swo = app.add_subcommand("switchover", "planned switchover, asked of the active\n"
                                                   "Example:\n  hadra switchover --yes");
  bool yes = false;
  swo->add_flag("--yes,-y", yes, "do not ask for confirmation");
  swo->add_flag("--json", c.json, "the daemon's answer as JSON");

  CLI::App* gsync = app.add_subcommand("gsync", "on the standby: rebuild every service (or one) from the active\n"
                                                "Example:\n  hadra gsync pair-service");
  std::string service, db;
  gsync->add_option("SERVICE", service, "service name or uuid; default every service");
  gsync->add_flag("--json", c.json, "the daemon's answer as JSON");

  CLI::App* config = app.add_subcommand("config", "configuration of the services\nExample:\n  hadra config save");
  config->require_subcommand(1);
  CLI::App* save = config->add_subcommand("save", "every service writes its configuration; the startup area is\n"
                                                  "replaced only when all succeeded\nExample:\n  hadra config save");
  save->add_flag("--json", c.json, "the daemon's answer as JSON");

  CLI::App* verify = app.add_subcommand("verify", "compare the active's and the standby's copies, online\n"
                                                  "Example:\n  hadra verify pair-service sessions --repair");
  bool repair = false;
  verify->add_option("SERVICE", service, "only the stores of this service (name or uuid)");
  verify->add_option("DB", db, "only this database (its URI or its name)");
  verify->add_flag("--repair", repair, "send the standby exactly the differing records (run on the active)");
  verify->add_flag("--json", c.json, "the result as JSON");

  CLI::App* dump = app.add_subcommand("dump", "the records of one store of this supervisor\n"
                                              "Example:\n  hadra dump run:/cfg/pair-service/routes --json");
  std::string uri;
  dump->add_option("URI", uri, "the store's URI, <area>:/<path>")->required();
  dump->add_flag("--json", c.json, "records as JSON (keys and values as text or 0x-hex)");

  CLI::App* history = app.add_subcommand("history", "the sync messages and history records of the services, merged by\n"
                                                    "time; with --diverge, the first sync message the two\n"
                                                    "supervisors disagree on\n"
                                                    "Example:\n  hadra history --both --max 50\n  hadra history --diverge");
  bool both = false, diverge = false;
  int max = 100;
  history->add_flag("--both", both, "both supervisors' records, merged by time");
  history->add_flag("--diverge", diverge, "compare the two supervisors' sync messages (implies the peer's records)");
  history->add_option("--max", max, "newest records shown")->check(CLI::Range(1, 8192));
  history->add_flag("--json", c.json, "the records (and the divergence) as JSON");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help
    // One line naming what was wrong: an unknown subcommand by its name.
    for (int i = 1; i < argc; ++i) {
      const std::string a = argv[i];
      if (a == "--root" || a == "--timeout") {
        ++i;
        continue;
      }
      if (a.starts_with("-")) continue;
      bool known = false;
      for (const CLI::App* sub : app.get_subcommands({})) known = known || sub->get_name() == a;
      if (!known) return fail("unknown subcommand " + a + " (see hadra --help)", 2);
      break;
    }
    return fail(std::string(e.what()) + " (see hadra --help)", 2);
  }

  if (!c.root.empty()) {
    std::error_code ec;
    c.root = std::filesystem::absolute(c.root, ec).lexically_normal().string();
    while (c.root.size() > 1 && c.root.ends_with('/')) c.root.pop_back();
    setenv("HADRA_ROOT", c.root.c_str(), 1);
  }
  if (c.root.empty()) c.root = plat_config_get("ROOT", "");
  if (c.root.empty()) return fail("no root: give --root or set HADRA_ROOT", 2);
  // The daemon is reached over the transport that links processes.
  setenv("HADRA_TRANSPORT", "zmq", 1);
  // The tool's own log lines stay out of the supervisor's log.
  if (std::getenv("HADRA_LOG") == nullptr) setenv("HADRA_LOG", "none", 1);

  if (*status) return cmd_status(c, watch, interval_ms);
  if (*swo) return cmd_switchover(c, yes);
  if (*gsync) return cmd_gsync(c, service);
  if (*save) return cmd_simple(c, proto::Cmd::kConfigSave, "", "configuration saved by every service");
  if (*verify) return cmd_verify(c, service, db, repair);
  if (*dump) return tool::dump_store(c.root, uri, c.json);
  if (*history) return cmd_history(c, both, diverge, max);
  return 2;
}
