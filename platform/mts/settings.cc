// MTS configuration and address templates.
//
// Defaults let two supervisors share one host with nothing configured: each has its root
// <dir>/sup<SLOT> (the platform's default roots are siblings), listens under its own
// <root>/sock/ and finds the peer under the sibling root of the other slot.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "hadra_platform/config.h"
#include "mts/transport.h"

namespace hadra::plat::mts {

namespace {

std::string text(const char* key, const std::string& dflt) {
  const char* v = plat_config_get(key, nullptr);
  return v != nullptr && *v != '\0' ? std::string(v) : dflt;
}

void replace_all(std::string& s, const std::string& what, const std::string& with) {
  for (size_t pos = s.find(what); pos != std::string::npos; pos = s.find(what, pos + with.size()))
    s.replace(pos, what.size(), with);
}

}  // namespace

Settings read_settings() {
  Settings s;
  s.kind = text("TRANSPORT", "loopback");
  long slot = plat_config_get_long("SLOT", 1);
  s.slot = static_cast<uint8_t>(slot >= 0 && slot <= 255 ? slot : 1);
  std::string root = plat_root();
  s.local_tmpl = text("MTS_LOCAL", "ipc://" + root + "/sock/sap-{sap}");
  size_t slash = root.rfind('/');
  std::string parent = slash == std::string::npos ? std::string(".") : root.substr(0, slash);
  int peer_slot = s.slot == 2 ? 1 : 2;
  s.peer_tmpl = text("MTS_PEER", "ipc://" + parent + "/sup" + std::to_string(peer_slot) + "/sock/sap-{sap}");
  s.port_base = plat_config_get_long("MTS_PORT_BASE", 17000);
  s.hwm = plat_config_get_long("MTS_HWM", 1000);
  s.send_timeout_ms = plat_config_get_long("MTS_SEND_TIMEOUT_MS", 2000);
  s.peer_send_timeout_ms = plat_config_get_long("MTS_PEER_SEND_TIMEOUT_MS", 5);
  s.rx_queue_max = plat_config_get_long("MTS_RX_QUEUE_MAX", 20000);
  s.rx_hold = std::max(0L, plat_config_get_long("MTS_RX_HOLD", 1024));
  s.backlog_bytes = plat_config_get_long("MTS_BACKLOG_BYTES", 8l << 20);
  s.recv_max_wait_ms = plat_config_get_long("MTS_RECV_MAX_WAIT_MS", 60000);
  s.loopback_keep = plat_config_get_long("MTS_LOOPBACK_KEEP", 4096);
  // Only ZeroMQ gains from handing frames over together; the loopback's outbox shows each
  // frame as it is sent unless a test asks otherwise.
  s.coalesce_max = plat_config_get_long("MTS_COALESCE_MAX", s.kind == "zmq" ? 256 : 1);
  s.coalesce_us = plat_config_get_long("MTS_COALESCE_US", 200);
  if (s.coalesce_max < 1) s.coalesce_max = 1;
  if (s.coalesce_max > 1024) s.coalesce_max = 1024;
  if (s.coalesce_us < 0) s.coalesce_us = 0;
  if (s.coalesce_us > 100000) s.coalesce_us = 100000;
  return s;
}

int Transport::transmit_many(const Route& to, std::vector<Frame>& frames, bool nonblock, size_t* sent) {
  *sent = 0;
  int rc = 0, err = 0;
  for (Frame& f : frames) {
    if (rc == 0 && transmit(to, std::move(f), nonblock) == 0) {
      ++*sent;
      continue;
    }
    if (rc == 0) err = errno;
    rc = -1;
    f.reset();
  }
  frames.clear();
  errno = err;
  return rc;
}

std::string expand_address(const std::string& tmpl, uint32_t sap, long port_base) {
  if (tmpl.empty()) return "";
  std::string out = tmpl;
  if (out.find("{port}") != std::string::npos) {
    long long port = static_cast<long long>(port_base) + sap;
    if (port_base < 0 || port > 65535) return "";
    replace_all(out, "{port}", std::to_string(port));
  }
  replace_all(out, "{sap}", std::to_string(sap));
  return out;
}

}  // namespace hadra::plat::mts
