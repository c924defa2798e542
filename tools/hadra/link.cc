#include "link.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
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

Answer send_command(const std::string& root, proto::Cmd cmd, const std::string& arg, int timeout_ms) {
  Answer out;
  out.exit = 3;
  if (!daemon_running(root)) {
    out.error = "no hadra-sysmgrd runs on root " + root;
    return out;
  }
  // A SAP of its own for the answer, as the daemon's own command line takes one.
  const uint32_t sap = SYSMGR_SAP + 0x80 + static_cast<uint32_t>(::getpid() % 0x80);
  if (mts_bind(sap) != 0) {
    out.error = "cannot bind SAP " + std::to_string(sap) + " for the answer: " + std::strerror(errno);
    return out;
  }
  const std::vector<uint8_t> pl = encode(proto::Command{cmd, arg});
  mts_msg_ref ref;
  mts_recv_opts opts{};
  opts.flags = MTS_RECV_BLOCK;
  opts.timeout_s = static_cast<uint32_t>(timeout_ms / 1000);
  opts.timeout_ms = static_cast<uint32_t>(timeout_ms % 1000);
  if (mts_send(sap, MTS_ADDR_LOCAL, SYSMGR_SAP, proto::kCommand, pl.data(), static_cast<uint32_t>(pl.size()), nullptr,
               MTS_SEND_NONBLOCK, nullptr) != 0) {
    out.error = std::string("command not sent to the daemon: ") + std::strerror(errno);
  } else if (mts_recv(sap, &ref, &opts) != 0) {
    out.error = "the daemon did not answer within " + std::to_string(timeout_ms) + " ms (--timeout)";
  } else {
    proto::CommandReply r;
    if (mts_opc_get(&ref) != proto::kCommandReply ||
        !proto::decode(mts_payload_get(&ref), mts_payload_size(&ref), &r)) {
      out.error = "malformed answer from the daemon";
    } else {
      out.body = nlohmann::json::parse(r.json, nullptr, false);
      if (!out.body.is_object()) {
        out.error = "the daemon's answer is not a JSON object";
      } else if (r.status != 0) {
        out.exit = 1;
        out.error = out.body.value("error", std::string(std::strerror(r.status)));
      } else {
        out.exit = 0;
      }
    }
    (void)mts_drop(sap, &ref);
  }
  (void)mts_unbind(sap);
  mts_flush(0);
  (void)::unlink((root + "/sock/sap-" + std::to_string(sap)).c_str());
  return out;
}

}  // namespace hadra::tool
