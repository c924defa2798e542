#include "link.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <chrono>
#include <cstring>

#include "hadra_platform/mts.h"

namespace hadra::tool {

namespace proto = hadra::plat::sysmgr::proto;

bool daemon_running(const std::string& root) {
  const std::string lock = root + "/sysmgr/daemon.lock";
  const int fd = ::open(lock.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd);
  return held;
}

namespace {

// The answer's SAP: one of the tool's own, as the daemon's own command line takes one.
uint32_t answer_sap() { return SYSMGR_SAP + 0x80 + static_cast<uint32_t>(::getpid() % 0x80); }

bool send_one(uint32_t sap, proto::Cmd cmd, const std::string& arg) {
  const std::vector<uint8_t> pl = encode(proto::Command{cmd, arg});
  return mts_send(sap, MTS_ADDR_LOCAL, SYSMGR_SAP, proto::kCommand, pl.data(), static_cast<uint32_t>(pl.size()),
                  nullptr, MTS_SEND_NONBLOCK, nullptr) == 0;
}

// One reply, within ms: false on timeout; *out filled (exit 0, 1 or 3) otherwise.
bool receive_one(uint32_t sap, int ms, Answer* out, int32_t* status) {
  mts_msg_ref ref;
  mts_recv_opts opts{};
  opts.flags = MTS_RECV_BLOCK;
  opts.timeout_s = static_cast<uint32_t>(ms / 1000);
  opts.timeout_ms = static_cast<uint32_t>(ms % 1000);
  if (mts_recv(sap, &ref, &opts) != 0) return false;
  proto::CommandReply r;
  *out = Answer{};
  out->exit = 3;
  if (mts_opc_get(&ref) != proto::kCommandReply || !proto::decode(mts_payload_get(&ref), mts_payload_size(&ref), &r)) {
    out->error = "malformed answer from the daemon";
  } else {
    *status = r.status;
    out->body = nlohmann::json::parse(r.json, nullptr, false);
    if (!out->body.is_object()) {
      out->error = "the daemon's answer is not a JSON object";
    } else if (r.status != 0) {
      out->exit = 1;
      out->error = out->body.value("error", std::string(std::strerror(r.status)));
    } else {
      out->exit = 0;
    }
  }
  (void)mts_drop(sap, &ref);
  return true;
}

void close_link(const std::string& root, uint32_t sap) {
  (void)mts_unbind(sap);
  mts_flush(0);
  (void)::unlink((root + "/sock/sap-" + std::to_string(sap)).c_str());
}

}  // namespace

Answer send_command(const std::string& root, proto::Cmd cmd, const std::string& arg, int timeout_ms) {
  return send_command_watching(root, cmd, arg, timeout_ms, nullptr, 0, {});
}

Answer send_command_watching(const std::string& root, proto::Cmd cmd, const std::string& arg, int timeout_ms,
                             const char* result_key, int every_ms,
                             const std::function<void(const nlohmann::json&)>& on_status) {
  Answer out;
  out.exit = 3;
  if (!daemon_running(root)) {
    out.error = "no hadra-sysmgrd runs on root " + root;
    return out;
  }
  const uint32_t sap = answer_sap();
  if (mts_bind(sap) != 0) {
    out.error = "cannot bind SAP " + std::to_string(sap) + " for the answer: " + std::strerror(errno);
    return out;
  }
  if (!send_one(sap, cmd, arg)) {
    out.error = std::string("command not sent to the daemon: ") + std::strerror(errno);
    close_link(root, sap);
    return out;
  }
  const bool watching = on_status && every_ms > 0 && result_key != nullptr;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  bool status_asked = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      out.error = "the daemon did not answer within " + std::to_string(timeout_ms) + " ms (--timeout)";
      break;
    }
    const int wait = watching ? std::min<int>(every_ms, static_cast<int>(left.count())) : static_cast<int>(left.count());
    Answer a;
    int32_t status = 0;
    if (!receive_one(sap, wait, &a, &status)) {
      // Nothing yet: ask how far it is (one question at a time).
      if (watching && !status_asked) status_asked = send_one(sap, proto::Cmd::kStatus, "");
      continue;
    }
    // The command's own answer carries its result, or fails; anything else is a status.
    if (!watching || a.exit != 0 || status != 0 || a.body.contains(result_key)) {
      out = std::move(a);
      break;
    }
    status_asked = false;
    on_status(a.body);
  }
  close_link(root, sap);
  return out;
}

}  // namespace hadra::tool
