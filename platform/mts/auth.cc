// Authentication of the transport's connections and the claims of the frames they carry; see
// auth.h. ZeroMQ does the cryptography (CURVE, on libsodium); this file decides who is let in.
#include "mts/auth.h"

#include <grp.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "log/log_internal.h"

namespace hadra::plat::mts::auth {
namespace {

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r");
  return s.substr(b, e - b + 1);
}

bool valid_z85_key(const std::string& k) {
  if (k.size() != kZ85KeyLen) return false;
  uint8_t bin[32];
  return zmq_z85_decode(bin, k.c_str()) != nullptr;
}

bool read_text(const std::string& path, std::string* out) {
  std::ifstream in(path);
  if (!in) return false;
  std::ostringstream ss;
  ss << in.rdbuf();
  *out = ss.str();
  return !in.bad();
}

std::string z85_of(const std::string& bin) {
  if (bin.size() != 32) return "";
  char out[kZ85KeyLen + 1];
  if (zmq_z85_encode(out, reinterpret_cast<const uint8_t*>(bin.data()), bin.size()) == nullptr) return "";
  return std::string(out, kZ85KeyLen);
}

struct Limiter {
  std::mutex mu;
  struct Entry {
    uint64_t total = 0;
  };
  std::map<std::string, Entry> by_reason;  // bounded by the fixed set of reasons
  std::atomic<uint64_t> refusals{0};
};

Limiter& limiter() {
  static auto* l = new Limiter();  // never destroyed: the transport's thread may log during exit
  return *l;
}

}  // namespace

bool parse_key_file(const std::string& text, std::string* pub, std::string* sec, std::string* why) {
  pub->clear();
  sec->clear();
  std::istringstream in(text);
  std::string line;
  int n = 0;
  while (std::getline(in, line)) {
    ++n;
    line = trim(line);
    if (line.empty() || line[0] == '#') continue;
    const size_t eq = line.find('=');
    if (eq == std::string::npos) {
      *why = "line " + std::to_string(n) + " is not 'name = key'";
      return false;
    }
    const std::string name = trim(line.substr(0, eq));
    const std::string value = trim(line.substr(eq + 1));
    std::string* slot = name == "public" ? pub : name == "secret" ? sec : nullptr;
    if (slot == nullptr) {
      *why = "line " + std::to_string(n) + ": unknown name '" + name.substr(0, 32) + "'";
      return false;
    }
    if (!slot->empty()) {
      *why = "line " + std::to_string(n) + ": " + name + " given twice";
      return false;
    }
    if (!valid_z85_key(value)) {
      *why = "line " + std::to_string(n) + ": " + name + " is not a 40-character Z85 key";
      return false;
    }
    *slot = value;
  }
  if (pub->empty() || sec->empty()) {
    *why = pub->empty() ? "no public key" : "no secret key";
    return false;
  }
  // The public key must be the secret key's: a mismatch would lock every process out.
  char derived[kZ85KeyLen + 1];
  if (zmq_curve_public(derived, sec->c_str()) != 0 || *pub != derived) {
    *why = "the public key is not the secret key's";
    return false;
  }
  return true;
}

std::string new_key_file(std::string* pub) {
  if (zmq_has("curve") == 0) return "";
  char p[kZ85KeyLen + 1];
  char s[kZ85KeyLen + 1];
  if (zmq_curve_keypair(p, s) != 0) return "";
  *pub = p;
  return std::string("# hadra supervisor key pair: keep this file readable by the supervisor's user only\n") +
         "public = " + p + "\nsecret = " + s + "\n";
}

bool load_policy(Policy* out, std::string* why) {
  *out = Policy();
  out->uid = static_cast<uint32_t>(::geteuid());
  const char* group = plat_config_get("ROOT_GROUP", nullptr);
  if (group != nullptr && *group != '\0') {
    struct group* gr = ::getgrnam(group);
    if (gr == nullptr) {
      *why = std::string("ROOT_GROUP ") + group + ": no such group";
      return false;
    }
    out->gid = static_cast<long>(gr->gr_gid);
  }
  const char* key_file = plat_config_get("MTS_KEY_FILE", nullptr);
  if (key_file == nullptr || *key_file == '\0') return true;
  if (zmq_has("curve") == 0) {
    *why = "MTS_KEY_FILE is set but this ZeroMQ has no CURVE";
    return false;
  }
  std::string text;
  if (!read_text(key_file, &text)) {
    *why = std::string("key file ") + key_file + ": " + std::strerror(errno != 0 ? errno : EIO);
    return false;
  }
  std::string reason;
  if (!parse_key_file(text, &out->own_public, &out->own_secret, &reason)) {
    *why = std::string("key file ") + key_file + ": " + reason;
    return false;
  }
  std::string peer = plat_config_get("MTS_PEER_KEY", "");
  if (!peer.empty() && !valid_z85_key(peer)) {
    // Not a key: the path of a file whose public line is the peer's.
    std::string ptext, ppub, psec, preason;
    if (!read_text(peer, &ptext)) {
      *why = "MTS_PEER_KEY " + peer + ": neither a key nor a readable file";
      return false;
    }
    std::istringstream in(ptext);
    std::string line;
    while (std::getline(in, line)) {
      line = trim(line);
      if (line.rfind("public", 0) == 0 && line.find('=') != std::string::npos) ppub = trim(line.substr(line.find('=') + 1));
    }
    if (!valid_z85_key(ppub)) {
      *why = "MTS_PEER_KEY " + peer + ": no 'public = <key>' line";
      return false;
    }
    peer = ppub;
  }
  if (peer.empty()) {
    *why = "MTS_KEY_FILE is set but MTS_PEER_KEY is not: the peer could not be recognised";
    return false;
  }
  out->peer_public = peer;
  out->curve = true;
  return true;
}

Verdict judge(const Request& r, const Policy& p) {
  Verdict v;
  if (r.mechanism == "CURVE") {
    const std::string key = z85_of(r.key);
    if (!p.curve || key.empty()) {
      v.reason = "a key this supervisor does not use";
    } else if (key == p.peer_public) {
      v.ok = true;
      v.user_id = "peer";
    } else if (key == p.own_public) {
      v.ok = true;
      v.user_id = "local";
    } else {
      v.reason = "unknown key";
      v.detail = "key " + key;
    }
    return v;
  }
  if (r.mechanism != "NULL" || p.curve) {
    v.reason = "no key";
    v.detail = "mechanism " + r.mechanism.substr(0, 16);
    return v;
  }
  // ipc: the socket's peer credentials end the address, "<name>:uid:gid:pid".
  if (p.ipc) {
    unsigned long uid = 0, gid = 0, pid = 0;
    size_t at = r.address.size();
    for (int i = 0; i < 3 && at != std::string::npos && at > 0; ++i) at = r.address.rfind(':', at - 1);
    char end = 0;
    if (at == std::string::npos ||
        std::sscanf(r.address.c_str() + at, ":%lu:%lu:%lu%c", &uid, &gid, &pid, &end) != 3) {
      v.reason = "no readable credentials";
      return v;
    }
    if (uid != p.uid && uid != 0 && !(p.gid >= 0 && static_cast<long>(gid) == p.gid)) {
      v.reason = "a user that is neither the supervisor's nor in its group";
      v.detail = "uid " + std::to_string(uid);
      return v;
    }
  }
  v.ok = true;
  v.user_id = "open";
  return v;
}

Source source_of(const char* user_id) {
  if (user_id == nullptr) return Source::kOpen;
  if (std::strcmp(user_id, "peer") == 0) return Source::kPeer;
  if (std::strcmp(user_id, "local") == 0) return Source::kLocal;
  return Source::kOpen;
}

const char* refuse_claim(const WireHdr& h, Source src, uint8_t own_slot) {
  const bool claims_peer = h.src_node != own_slot;
  switch (src) {
    case Source::kLocal:
      if (claims_peer) return "a process of this supervisor claims another node";
      if (h.sync_event != 0) return "a process of this supervisor sent a sync message";
      return nullptr;
    case Source::kPeer:
      if (!claims_peer) return "the peer's key claims this supervisor's node";
      return nullptr;
    case Source::kOpen:
      // Nothing vouches for the sender: its slot decides whether it counts as the peer.
      return nullptr;
  }
  return nullptr;
}

const char* frame_fault(const uint8_t* p, size_t size, size_t limit) {
  if (p == nullptr || size < kWireHdrSize) return "shorter than a frame header";
  if (get_le(p, 4) != kWireMagic) return "not a frame (bad magic)";
  if (p[4] != kWireVersion) return "another frame version";
  const uint64_t len = get_le(p + 40, 4);
  if (len != size - kWireHdrSize) return "payload length disagrees with the frame's size";
  if (len > limit) return "payload above the largest allowed";
  if (get_le(p + 16, 4) == 0) return "destination SAP 0";
  return "malformed";
}

// Each refusal is counted by its reason; the lines are rate-limited per reason by the
// platform's limiter, which says how many it held back once its window has passed (without
// waiting for another refusal) and at exit.
void log_refusal(const char* what, const std::string& from, const char* reason) {
  Limiter& l = limiter();
  l.refusals.fetch_add(1, std::memory_order_relaxed);
  uint64_t total = 0;
  {
    std::lock_guard<std::mutex> lock(l.mu);
    // Reasons are a fixed set of texts; the bound only guards against a caller that forgets.
    Limiter::Entry& e = l.by_reason.size() < 64 || l.by_reason.count(reason) != 0 ? l.by_reason[reason]
                                                                                   : l.by_reason["(other)"];
    total = ++e.total;
  }
  const std::string key = std::string("MTS refusals: ") + reason;
  log::limited_writef(key.c_str(), PLAT_LOG_ERR, "MTS: refused %s from %s: %s (%llu refused for this reason so far)",
                      what, from.empty() ? "an unknown address" : from.c_str(), reason,
                      static_cast<unsigned long long>(total));
}

uint64_t refusals() { return limiter().refusals.load(std::memory_order_relaxed); }

}  // namespace hadra::plat::mts::auth

// ---- The handler thread ----

namespace hadra::plat::mts::auth {
namespace {

// One part of a multi-part message; false when there was none.
bool recv_part(void* sock, std::string* out, bool* more) {
  zmq_msg_t m;
  zmq_msg_init(&m);
  if (zmq_msg_recv(&m, sock, 0) < 0) {
    zmq_msg_close(&m);
    return false;
  }
  out->assign(static_cast<const char*>(zmq_msg_data(&m)), zmq_msg_size(&m));
  *more = zmq_msg_more(&m) != 0;
  zmq_msg_close(&m);
  return true;
}

void send_part(void* sock, const std::string& s, bool more) {
  (void)zmq_send(sock, s.data(), s.size(), more ? ZMQ_SNDMORE : 0);
}

}  // namespace

struct ZapHandler::Thread {
  std::thread t;
};

int ZapHandler::start(void* ctx, const Policy& p) {
  if (thread_ != nullptr) return 0;
  policy_ = p;
  ctx_ = ctx;
  rep_ = zmq_socket(ctx, ZMQ_REP);
  stop_rx_ = zmq_socket(ctx, ZMQ_PAIR);
  stop_tx_ = zmq_socket(ctx, ZMQ_PAIR);
  const std::string stop_addr = "inproc://hadra-zap-stop-" + std::to_string(reinterpret_cast<uintptr_t>(this));
  int linger = 0;
  for (void* s : {rep_, stop_rx_, stop_tx_})
    if (s != nullptr) zmq_setsockopt(s, ZMQ_LINGER, &linger, sizeof linger);
  if (rep_ == nullptr || stop_rx_ == nullptr || stop_tx_ == nullptr || zmq_bind(rep_, "inproc://zeromq.zap.01") != 0 ||
      zmq_bind(stop_rx_, stop_addr.c_str()) != 0 || zmq_connect(stop_tx_, stop_addr.c_str()) != 0) {
    const int err = zmq_errno();
    for (void* s : {rep_, stop_rx_, stop_tx_})
      if (s != nullptr) zmq_close(s);
    rep_ = stop_rx_ = stop_tx_ = nullptr;
    errno = err;
    return -1;
  }
  thread_ = new Thread;
  thread_->t = std::thread([this] { run(); });
  return 0;
}

void ZapHandler::stop() {
  if (thread_ == nullptr) return;
  (void)zmq_send(stop_tx_, "", 0, 0);
  thread_->t.join();
  delete thread_;
  thread_ = nullptr;
  zmq_close(stop_tx_);
  stop_tx_ = nullptr;
}

void ZapHandler::run() {
  for (;;) {
    zmq_pollitem_t items[2] = {{rep_, 0, ZMQ_POLLIN, 0}, {stop_rx_, 0, ZMQ_POLLIN, 0}};
    if (zmq_poll(items, 2, -1) < 0) {
      if (zmq_errno() == ETERM) break;
      continue;
    }
    if ((items[1].revents & ZMQ_POLLIN) != 0) break;
    if ((items[0].revents & ZMQ_POLLIN) == 0) continue;
    // version, request id, domain, address, routing id, mechanism, credentials...
    std::vector<std::string> parts;
    std::string part;
    bool more = true;
    while (more && parts.size() < 16 && recv_part(rep_, &part, &more)) parts.push_back(part);
    while (more && recv_part(rep_, &part, &more)) {
    }
    if (parts.size() < 6) {
      // A REP socket must answer what it received before it can receive again.
      send_part(rep_, "1.0", true);
      send_part(rep_, parts.size() > 1 ? parts[1] : "", true);
      send_part(rep_, "500", true);
      send_part(rep_, "malformed request", true);
      send_part(rep_, "", true);
      send_part(rep_, "", false);
      continue;
    }
    Request r;
    r.address = parts[3];
    r.mechanism = parts[5];
    if (parts.size() > 6) r.key = parts[6];
    const Verdict v = judge(r, policy_);
    if (!v.ok) log_refusal("a connection", r.address + (v.detail.empty() ? "" : " (" + v.detail + ")"), v.reason.c_str());
    send_part(rep_, "1.0", true);
    send_part(rep_, parts[1], true);
    send_part(rep_, v.ok ? "200" : "400", true);
    send_part(rep_, v.ok ? "OK" : v.reason, true);
    send_part(rep_, v.user_id, true);
    send_part(rep_, "", false);
  }
  zmq_close(rep_);
  zmq_close(stop_rx_);
  rep_ = stop_rx_ = nullptr;
}

}  // namespace hadra::plat::mts::auth
