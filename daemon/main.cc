// hadra-sysmgrd: start the system-manager daemon of one supervisor root, or send a command to
// the one that runs there. See docs/daemon.md.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <nlohmann/json.hpp>

#include "daemon.h"
#include "hadra_platform/config.h"

namespace {

namespace sd = hadra::sysmgrd;
namespace proto = hadra::plat::sysmgr::proto;

constexpr const char* kCommands[] = {"status", "switchover", "takeover", "gsync", "config-save"};

int role_of(const char* supstate) {
  const std::string s = supstate != nullptr ? supstate : "";
  return s == "active" || s == "1" ? 1 : 2;
}

bool daemon_running(const std::string& root) {
  const std::string lock = sd::files::root_path(root, "sysmgr/daemon.lock");
  const int fd = ::open(lock.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd);
  return held;
}

// Sends one command to the daemon of root and prints its JSON answer. Exit status: 0 done,
// 1 refused or failed (the reason on stderr), 3 no daemon or no answer.
int send_command(const std::string& root, const std::string& name, const std::string& arg, int timeout_ms) {
  if (!daemon_running(root)) {
    std::fprintf(stderr, "hadra-sysmgrd: no daemon runs on root %s\n", root.c_str());
    return 3;
  }
  proto::Command c;
  for (size_t i = 0; i < std::size(kCommands); ++i)
    if (name == kCommands[i]) c.cmd = static_cast<proto::Cmd>(i + 1);
  c.arg = arg;
  const uint32_t sap = SYSMGR_SAP + 0x80 + static_cast<uint32_t>(::getpid() % 0x80);
  if (mts_bind(sap) != 0) {
    std::fprintf(stderr, "hadra-sysmgrd: cannot bind SAP %u for the answer: %s\n", sap, std::strerror(errno));
    return 3;
  }
  const std::vector<uint8_t> pl = encode(c);
  int rc = 3;
  mts_msg_ref ref;
  mts_recv_opts opts{};
  opts.flags = MTS_RECV_BLOCK;
  opts.timeout_s = static_cast<uint32_t>(timeout_ms / 1000);
  opts.timeout_ms = static_cast<uint32_t>(timeout_ms % 1000);
  if (mts_send(sap, MTS_ADDR_LOCAL, SYSMGR_SAP, proto::kCommand, pl.data(), static_cast<uint32_t>(pl.size()), nullptr,
               MTS_SEND_NONBLOCK, nullptr) != 0) {
    std::fprintf(stderr, "hadra-sysmgrd: command %s not sent: %s\n", name.c_str(), std::strerror(errno));
  } else if (mts_recv(sap, &ref, &opts) != 0) {
    std::fprintf(stderr, "hadra-sysmgrd: no answer to %s within %d ms (%s)\n", name.c_str(), timeout_ms,
                 std::strerror(errno));
  } else {
    proto::CommandReply r;
    if (mts_opc_get(&ref) != proto::kCommandReply ||
        !proto::decode(mts_payload_get(&ref), mts_payload_size(&ref), &r)) {
      std::fprintf(stderr, "hadra-sysmgrd: malformed answer to %s\n", name.c_str());
    } else {
      const nlohmann::json j = nlohmann::json::parse(r.json, nullptr, false);
      std::printf("%s\n", j.is_discarded() ? r.json.c_str() : j.dump(2).c_str());
      if (r.status != 0)
        std::fprintf(stderr, "hadra-sysmgrd: %s refused: %s\n", name.c_str(),
                     j.is_object() && j.contains("error") ? j["error"].get<std::string>().c_str()
                                                           : std::strerror(r.status));
      rc = r.status == 0 ? 0 : 1;
    }
    (void)mts_drop(sap, &ref);
  }
  (void)mts_unbind(sap);
  mts_flush(0);
  // The answer's socket file is this command's own: leave nothing behind in the root.
  (void)::unlink(sd::files::root_path(root, "sock/sap-" + std::to_string(sap)).c_str());
  return rc;
}

// Writes a new CURVE key pair to path (which must not exist), readable by this user only, and
// prints its public key: the line the peer's MTS_PEER_KEY takes. Exit status 0, or 1.
int keygen(const std::string& path) {
  if (zmq_has("curve") == 0) {
    std::fprintf(stderr, "hadra-sysmgrd: this ZeroMQ library has no CURVE support\n");
    return 1;
  }
  char pub[41];
  char sec[41];
  if (zmq_curve_keypair(pub, sec) != 0) {
    std::fprintf(stderr, "hadra-sysmgrd: no key pair: %s\n", zmq_strerror(zmq_errno()));
    return 1;
  }
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    std::fprintf(stderr, "hadra-sysmgrd: key file %s: %s\n", path.c_str(), std::strerror(errno));
    return 1;
  }
  const std::string text = std::string("# hadra supervisor key pair: readable by the supervisor's user only\npublic = ") +
                           pub + "\nsecret = " + sec + "\n";
  // Whatever the umask: the secret is the owner's alone.
  const bool ok = ::fchmod(fd, 0600) == 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                  ::fsync(fd) == 0;
  const int err = errno;
  ::close(fd);
  if (!ok) {
    ::unlink(path.c_str());
    std::fprintf(stderr, "hadra-sysmgrd: key file %s: %s\n", path.c_str(), std::strerror(err));
    return 1;
  }
  std::printf("%s\n", pub);
  return 0;
}

// Asks the daemon of root for a role through its role request file (the interface of
// keepalived's notify script and of the resource agent), then waits until the daemon's state
// file shows that role. Written even when no daemon runs: one that starts later follows it.
int set_role(const std::string& root, const std::string& role, int timeout_ms) {
  const std::string source =
      plat_config_get("ROLE_SOURCE", std::string(plat_config_get("MTS_PEER", "")).starts_with("tcp:") ? "manual" : "lease");
  if (source == "lease") {
    std::fprintf(stderr, "hadra-sysmgrd: ROLE_SOURCE is lease on %s: the lease decides the role\n", root.c_str());
    return 1;
  }
  std::string why;
  std::error_code ec;
  std::filesystem::create_directories(sd::files::root_path(root, "sysmgr"), ec);
  if (!sd::files::write_atomic(sd::files::root_path(root, "sysmgr/role-request"), role + "\n", &why)) {
    std::fprintf(stderr, "hadra-sysmgrd: cannot ask for role %s: %s\n", role.c_str(), why.c_str());
    return 1;
  }
  if (!daemon_running(root)) {
    std::fprintf(stderr, "hadra-sysmgrd: role %s asked; no daemon runs on root %s yet\n", role.c_str(), root.c_str());
    return 3;
  }
  const int want = role == "active" ? 1 : 2;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    std::ifstream in(sd::files::root_path(root, "sysmgr/state"));
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    proto::StateFile sf;
    if (proto::parse_state(text, &sf) && sf.role == want) return 0;
    if (!daemon_running(root)) {
      std::fprintf(stderr, "hadra-sysmgrd: the daemon on root %s stopped before taking role %s\n", root.c_str(),
                   role.c_str());
      return 3;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      std::fprintf(stderr, "hadra-sysmgrd: the daemon on root %s did not take role %s within %d ms\n", root.c_str(),
                   role.c_str(), timeout_ms);
      return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "hadra-sysmgrd: the system-manager daemon of one supervisor.\n"
      "Settings not given here come from the platform configuration (HADRA_<KEY> in the\n"
      "environment, <root>/platform.conf, defaults). Example:\n"
      "  hadra-sysmgrd --root /var/lib/hadra/sup1 &\n"
      "  hadra-sysmgrd --root /var/lib/hadra/sup1 --command status"};
  std::string root, command, arg, role;
  std::string keyfile;
  int timeout_ms = 5000;
  app.add_option("--root", root, "supervisor root directory (configuration key ROOT)");
  app.add_option("--command", command, "send a command to the running daemon and print its JSON answer")
      ->check(CLI::IsMember({"status", "switchover", "takeover", "gsync", "config-save"}));
  app.add_option("--set-role", role, "ask the daemon for a role (ROLE_SOURCE keepalived, pacemaker or manual); "
                 "fault counts as standby")
      ->check(CLI::IsMember({"active", "standby", "fault"}));
  app.add_option("--arg", arg, "argument of the command (gsync: a service uuid; default all)");
  app.add_option("--timeout", timeout_ms, "longest wait for a command's answer, ms")->check(CLI::Range(1, 600000));
  app.add_option("--keygen", keyfile,
                 "write a new key pair for the link between supervisors to this file (mode 0600), print its "
                 "public key, and exit (configuration keys MTS_KEY_FILE and, on the peer, MTS_PEER_KEY)");
  CLI11_PARSE(app, argc, argv);
  if (!keyfile.empty()) return keygen(keyfile);

  if (!root.empty()) {
    std::error_code ec;
    root = std::filesystem::absolute(root, ec).lexically_normal().string();
    while (root.size() > 1 && root.ends_with('/')) root.pop_back();
    setenv("HADRA_ROOT", root.c_str(), 1);
  }
  // The daemon needs the transport that links processes: ZeroMQ unless told otherwise.
  if (std::strcmp(plat_config_get("TRANSPORT", "zmq"), "zmq") != 0) {
    std::fprintf(stderr, "hadra-sysmgrd: TRANSPORT is %s; the daemon needs zmq\n", plat_config_get("TRANSPORT", ""));
    return 2;
  }
  setenv("HADRA_TRANSPORT", "zmq", 1);
  // The daemon's messages to the peer are few, and each must leave (or fail) when sent: they
  // are not grouped, and its sockets keep the frame bound as configured.
  setenv("HADRA_MTS_COALESCE_MAX", "1", 1);
  if (root.empty()) root = plat_config_get("ROOT", "");
  if (root.empty()) {
    std::fprintf(stderr, "hadra-sysmgrd: no root: give --root or set ROOT\n");
    return 2;
  }
  if (!command.empty()) return send_command(root, command, arg, timeout_ms);
  if (!role.empty()) return set_role(root, role, timeout_ms);

  // What the daemon makes under the root (tables, locks, gsync areas) is the owner's alone, or
  // its group's too with ROOT_GROUP, whatever umask it was started with; so is the root.
  const char* group = plat_config_get("ROOT_GROUP", "");
  const bool shared = group != nullptr && *group != '\0';
  ::umask(shared ? 027 : 077);
  struct stat rst;
  if (::stat(root.c_str(), &rst) == 0 && rst.st_uid == ::geteuid()) (void)::chmod(root.c_str(), shared ? 0750 : 0700);

  sd::Options o;
  o.root = root;
  o.slot = static_cast<int>(plat_config_get_long("SLOT", 1));
  o.role = role_of(plat_config_get("SUPSTATE", "active"));
  o.heartbeat_ms = static_cast<int>(plat_config_get_long("HEARTBEAT_MS", 100));
  o.peer_dead_ms = static_cast<int>(plat_config_get_long("PEER_DEAD_MS", 1000));
  o.gsync_timeout_ms = static_cast<int>(plat_config_get_long("GSYNC_TIMEOUT_MS", 30000));
  o.switchover_timeout_ms = static_cast<int>(plat_config_get_long("SWITCHOVER_TIMEOUT_MS", 20000));
  o.cfg_timeout_ms = static_cast<int>(plat_config_get_long("CFG_TIMEOUT_MS", 10000));
  o.ship_fault = plat_config_get("FAULT_SHIP", "");
  // A lease decides only between daemons that reach the same file: the default on one host
  // (the peer over ipc). Across hosts nothing elects itself unless told which source to follow.
  const std::string peer = plat_config_get("MTS_PEER", "");
  o.role_source = plat_config_get("ROLE_SOURCE", peer.starts_with("tcp:") ? "manual" : "lease");
  if (o.role_source != "lease" && o.role_source != "keepalived" && o.role_source != "pacemaker" &&
      o.role_source != "manual") {
    std::fprintf(stderr, "hadra-sysmgrd: ROLE_SOURCE %s: give lease, keepalived, pacemaker or manual\n",
                 o.role_source.c_str());
    return 2;
  }
  // Both daemons of a pair on one host reach their roots' common parent.
  o.lease_file = plat_config_get("LEASE_FILE", "");
  if (o.lease_file.empty()) o.lease_file = std::filesystem::path(root).parent_path().string() + "/hadra-pair.lease";
  o.lease_poll_ms = static_cast<int>(plat_config_get_long("LEASE_POLL_MS", 100));
  o.fence_ms = static_cast<int>(plat_config_get_long("FENCE_MS", 1000));
  const std::string crash = plat_config_get("CLIENT_CRASH", "failover");
  if (crash != "failover" && crash != "stay") {
    std::fprintf(stderr, "hadra-sysmgrd: CLIENT_CRASH %s: give failover or stay\n", crash.c_str());
    return 2;
  }
  o.failover_on_crash = crash == "failover";
  if (o.lease_poll_ms < 1 || o.fence_ms < 0) {
    std::fprintf(stderr, "hadra-sysmgrd: LEASE_POLL_MS must be at least 1 and FENCE_MS not negative\n");
    return 2;
  }
  if (o.slot != 1 && o.slot != 2) {
    std::fprintf(stderr, "hadra-sysmgrd: SLOT %d: give 1 or 2\n", o.slot);
    return 2;
  }
  // Before any thread exists, so that none of them takes the signals the loop waits for.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  sd::Daemon d(o);
  return d.run();
}
