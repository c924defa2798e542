// kvstore in C++: the same service as kvstore.c (same databases, numbers, commands and
// answers), written with C++20's library. Both supervisors may run either one.
//
// Run it next to the hadra-sysmgrd of its supervisor, with HADRA_ROOT naming that
// supervisor's root and HADRA_UUID the service's identity (the same on both supervisors).
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include <hadra/hadra.h>
#include <hadra_platform/config.h>
#include <hadra_platform/sysmgr.h>
#include <hadra_platform/sysmgr_client.h>

namespace {

// Numbers the service owns; both supervisors must use the same ones.
constexpr uint32_t kSap = 3601;              // the service's MTS endpoint
constexpr uint32_t kOpcSync = 6501;          // opcode of its sync messages
constexpr uint32_t kOpcPeersCreDel = 6511;   // the SDB's create/delete notifications
constexpr uint32_t kOpcPeersUpdate = 6512;   // the SDB's update notifications
constexpr uint8_t kRoutes = 1, kPeers = 2;   // registry indexes

// One registered database, PSS file or SDB. Keys are stored with their terminating NUL (the
// iterators hand a key over without its length); values as they are.
class Database {
 public:
  explicit Database(hadra_ha_pss_entry* entry) : e_(entry) {}
  std::string_view name() const { return e_->name; }
  bool active() const { return e_->state == HADRA_HA_ACTIVE; }
  const char* state() const { return hadra_ha_state_str(e_); }

  bool put(const std::string& key, std::string_view value) {
    const auto len = static_cast<uint32_t>(value.size());
    return pss() ? hadra_pss_update(e_, key.c_str(), klen(key), value.data(), len) == 1
                 : hadra_sdb_update(e_, key.c_str(), klen(key), value.data(), len, 1) == 1;
  }

  // The stored value (it belongs to the store: valid until the next read), if key is there.
  std::optional<std::string_view> get(const std::string& key) {
    void* value = nullptr;
    uint32_t len = 0;
    const int found = pss() ? hadra_pss_fetch(e_, key.c_str(), klen(key), &value, &len)
                            : hadra_sdb_read(e_, key.c_str(), klen(key), &value, &len, nullptr);
    if (found != 1) return std::nullopt;
    return std::string_view(static_cast<const char*>(value), len);
  }

  bool del(const std::string& key) {
    return (pss() ? hadra_pss_delete(e_, key.c_str(), klen(key)) : hadra_sdb_delete(e_, key.c_str(), klen(key))) == 1;
  }

  using Visit = std::function<void(std::string_view key, std::string_view value)>;
  void for_each(const Visit& visit) {
    auto op = [](const void* key, const void* value, uint32_t len, void* arg) -> int {
      (*static_cast<const Visit*>(arg))(static_cast<const char*>(key), {static_cast<const char*>(value), len});
      return 1;
    };
    void* arg = const_cast<Visit*>(&visit);
    if (pss()) {
      const hadra_pss_type_op_fn ops[1] = {op};  // every key has type 0
      (void)hadra_pss_iterator(e_, ops, nullptr, nullptr, arg, nullptr);
    } else {
      const hadra_sdb_type_op_fn ops[1] = {op};
      (void)hadra_sdb_iterator(e_, ops, nullptr, nullptr, arg, nullptr);
    }
  }

 private:
  bool pss() const { return e_->db_type == HADRA_DB_PSS; }
  static uint32_t klen(const std::string& key) { return static_cast<uint32_t>(key.size() + 1); }
  hadra_ha_pss_entry* e_;
};

hadra_ha_pss_entry* g_entries[2];

// This supervisor becomes active; the copies are complete, so there is nothing to rebuild.
void on_switchover() {
  hadra_ha_drop_active_msgs(kSap);
  for (hadra_ha_pss_entry* e : g_entries) hadra_ha_set_db_active(e);
  if (hadra_ha_recovery_done(0) != 0) std::cerr << "kvstore: answering the switchover: " << std::strerror(errno) << '\n';
}

class Service {
 public:
  Service(hadra_ha_pss_entry* routes, hadra_ha_pss_entry* peers) : routes_(routes), peers_(peers) {}

  // Prints the state line when it changed since the last one, or always with force.
  void print_state(bool force) {
    const int sup = sysmgr_supstate_get();
    std::string now = std::string("state: supervisor ") +
                      (sup == HADRA_SUP_ACTIVE ? "active" : sup == HADRA_SUP_STANDBY ? "standby" : "none") +
                      ", routes " + routes_.state() + ", peers " + peers_.state();
    if (force || now != last_state_) std::cout << now << std::endl;
    last_state_ = std::move(now);
  }

  // Runs one command line; false when the service is to stop.
  bool run(std::string_view line) {
    const std::string cmd{word(line)};
    if (cmd == "quit") return false;
    if (cmd == "state") {
      print_state(true);
      return true;
    }
    if (cmd == "list") {
      const unsigned r = list(routes_), p = list(peers_);
      std::cout << "listed: " << r << " routes, " << p << " peers" << std::endl;
      return true;
    }
    const std::string name{word(line)};
    Database* db = name == "routes" ? &routes_ : name == "peers" ? &peers_ : nullptr;
    const std::string key{word(line)};
    const std::string_view value = line.substr(std::min(line.find_first_not_of(" \t"), line.size()));
    const bool put = cmd == "put", get = cmd == "get", del = cmd == "del";
    if (!(put || get || del) || db == nullptr || key.empty() || (put && value.empty())) {
      std::cout << "error: usage: put|get|del routes|peers KEY [VALUE], list, state, quit" << std::endl;
      return true;
    }
    const std::optional<std::string_view> stored = db->get(key);
    if (get) {
      if (stored) std::cout << name << ' ' << key << " = " << *stored << std::endl;
      else std::cout << "error: " << name << " has no " << key << std::endl;
    } else if (!db->active()) {
      std::cout << "error: " << name << " is " << db->state() << " here; write on the active supervisor" << std::endl;
    } else if (del && !stored) {
      std::cout << "error: " << name << " has no " << key << std::endl;
    } else if (put ? db->put(key, value) : db->del(key)) {
      std::cout << "ok" << std::endl;
    } else {
      std::cout << "error: " << cmd << " of " << key << " in " << name << " failed (see the platform log)" << std::endl;
    }
    return true;
  }

 private:
  // The next space-separated word of line, which is advanced past it.
  static std::string_view word(std::string_view& line) {
    const size_t from = std::min(line.find_first_not_of(" \t"), line.size());
    const size_t to = std::min(line.find_first_of(" \t", from), line.size());
    const std::string_view w = line.substr(from, to - from);
    line.remove_prefix(std::min(to + 1, line.size()));
    return w;
  }

  static unsigned list(Database& db) {
    unsigned n = 0;
    db.for_each([&](std::string_view key, std::string_view value) {
      std::cout << db.name() << ' ' << key << " = " << value << '\n';
      ++n;
    });
    return n;
  }

  Database routes_, peers_;
  std::string last_state_;
};

// Lines of a descriptor, read as poll() reports them ready: nothing waits in a hidden buffer.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}
  // Reads what is there; false at the end of the input or on an error.
  bool fill() {
    char buf[4096];
    const ssize_t n = ::read(fd_, buf, sizeof buf);
    if (n > 0) buf_.append(buf, static_cast<size_t>(n));
    return n > 0 || (n < 0 && errno == EINTR);
  }
  // The next complete line, without its end.
  std::optional<std::string> next() {
    const size_t nl = buf_.find('\n');
    if (nl == std::string::npos) return std::nullopt;
    std::string line = buf_.substr(0, nl);
    buf_.erase(0, nl + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
  }

 private:
  int fd_;
  std::string buf_;
};

// Everything the system manager and the peer sent: sync messages to the library, the
// daemon's events to its callbacks. false when receiving failed.
bool serve_sysmgr() {
  for (;;) {
    mts_msg_ref other;
    const int kind = sysmgr_client_next(kSap, 0, &other);
    if (kind == SYSMGR_RX_NONE) return true;
    if (kind < 0) {
      std::cerr << "kvstore: receiving on SAP " << kSap << ": " << std::strerror(errno) << '\n';
      return false;
    }
    // The rest is the service's own mail: here only the peer's SDB notifications, unused.
    if (kind == SYSMGR_RX_OTHER) (void)mts_drop(kSap, &other);
  }
}

}  // namespace

int main() {
  const uint32_t uuid = sysmgr_uuid_get_before_handshake();
  if (uuid == 0) {
    std::cerr << "kvstore: no service uuid: set HADRA_UUID (the same on both supervisors)\n";
    return 2;
  }
  if (mts_bind(kSap) != 0) {
    std::cerr << "kvstore: cannot bind SAP " << kSap << ": " << std::strerror(errno) << '\n';
    return 1;
  }
  if (sysmgr_client_attach(kSap, "kvstore") != 0) {
    std::cerr << "kvstore: no hadra-sysmgrd serves the root " << plat_root() << '\n';
    return 1;
  }

  g_entries[0] = hadra_ha_register_pss(kRoutes, "routes");
  g_entries[1] = hadra_ha_register_sdb(kPeers, "peers", kOpcPeersCreDel, kOpcPeersUpdate);
  hadra_ha_handle_t handle{};
  handle.uuid = uuid;
  handle.sap = kSap;
  handle.opcode = kOpcSync;
  handle.switchover_cb = &on_switchover;
  std::strncpy(handle.name, "kvstore", sizeof handle.name - 1);
  // Active: the databases start (empty on a first start). Standby: they are destroyed and a
  // gsync is asked for, which the receive loop completes.
  if (g_entries[0] == nullptr || g_entries[1] == nullptr || hadra_ha_api_init(&handle) != 1) {
    std::cerr << "kvstore: the databases did not start (see the platform log under " << plat_root() << ")\n";
    return 1;
  }
  Service service(g_entries[0], g_entries[1]);
  service.print_state(true);

  LineReader input(STDIN_FILENO);
  pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {sysmgr_client_fd(kSap), POLLIN, 0}};
  int status = 0;
  for (bool running = true; running;) {
    if (poll(fds, 2, 1000) < 0 && errno != EINTR) {
      std::cerr << "kvstore: poll: " << std::strerror(errno) << '\n';
      status = 1;
      break;
    }
    // Served on every turn: after gsync ready the loop also hands over the sync messages it
    // held back, which the descriptor does not announce.
    if (!serve_sysmgr()) {
      status = 1;
      break;
    }
    service.print_state(false);
    if (fds[0].revents == 0) continue;
    running = input.fill();
    while (running) {
      const std::optional<std::string> line = input.next();
      if (!line) break;
      running = service.run(*line);
      service.print_state(false);
    }
  }
  (void)sysmgr_client_detach();  // a controlled stop: the next start is not a crash
  return status;
}
