// Who may talk to this supervisor's sockets, and what a frame may claim once it got in.
//
// Keys. With MTS_KEY_FILE set, every socket of the ZeroMQ transport uses CURVE: each
// supervisor has one key pair (made by `hadra-sysmgrd --keygen`), read by every process of
// that supervisor, and knows the peer's public key (MTS_PEER_KEY). A listening socket is a
// CURVE server; its authentication handler (ZAP) admits a client whose key is this
// supervisor's own (one of its processes: "local") or the peer's ("peer") and refuses any
// other key, logging the address it came from. Without keys the link is not authenticated:
// ipc connections are still checked against the connecting process's credentials (the owner
// of the root, root itself, or the configured group), tcp connections are admitted as "open".
//
// Claims. The handler's verdict travels with every frame (ZeroMQ's User-Id property). A
// frame admitted as "local" must carry this supervisor's slot and cannot be a sync message;
// one admitted as "peer" must carry the other slot. So a process of this supervisor cannot
// pass itself off as the peer, and only the holder of the peer's key can feed the standby.
// Without keys a frame's slot is all there is to go by: a process of this supervisor's user
// can then pass itself off as the peer, so configure keys wherever that matters.
#pragma once

#include <cstdint>
#include <string>

#include "mts/wire.h"

namespace hadra::plat::mts::auth {

constexpr size_t kZ85KeyLen = 40;  // a CURVE key as Z85 text

// Where a frame came from, as the transport's authentication established it.
enum class Source : uint8_t { kOpen, kLocal, kPeer };

struct Policy {
  bool curve = false;
  std::string own_public;   // Z85
  std::string own_secret;   // Z85
  std::string peer_public;  // Z85
  uint32_t uid = 0;         // owner of the root: who else may connect over ipc
  long gid = -1;            // the configured group, -1 for none
  bool ipc = false;         // the sockets are ipc: connections carry the peer's credentials
};

// The configuration's keys (MTS_KEY_FILE, MTS_PEER_KEY, ROOT_GROUP). False with why set
// when a key is configured but unusable: the transport then refuses to listen or send.
bool load_policy(Policy* out, std::string* why);

// Parse a key file: "public = <z85>" and "secret = <z85>" lines, '#' comments. False with
// why for anything else (a missing, repeated or malformed key).
bool parse_key_file(const std::string& text, std::string* pub, std::string* sec, std::string* why);

// A new key pair as key-file text; empty when CURVE is not available.
std::string new_key_file(std::string* pub);

// One authentication request, as ZeroMQ hands it to the handler.
struct Request {
  std::string address;    // tcp: the peer's IP; ipc: "<name>:uid:gid:pid"
  std::string mechanism;  // "NULL" or "CURVE"
  std::string key;        // CURVE: the client's public key, 32 bytes
};

struct Verdict {
  bool ok = false;
  std::string user_id;  // "local", "peer" or "open"
  std::string reason;   // why it was refused: one of a fixed set of texts
  std::string detail;   // what it was refused for (a key, a user), shown with the source
};

Verdict judge(const Request& r, const Policy& p);

// The source a frame's User-Id names.
Source source_of(const char* user_id);

// Null when a frame that decoded may be delivered from src; else why not.
const char* refuse_claim(const WireHdr& h, Source src, uint8_t own_slot);

// Why size bytes are not a frame (the checks of decode, spelt out for the log).
const char* frame_fault(const uint8_t* p, size_t size, size_t limit);

// Log a refusal with its source, at most a few lines a second per reason; the lines left out
// are counted and the count goes out with the next line of that reason.
void log_refusal(const char* what, const std::string& from, const char* reason);

// Refusals logged or left out since the process started (tests).
uint64_t refusals();

// The authentication handler of one ZeroMQ context: a thread answering ZeroMQ's requests for
// every listening socket of that context that names an authentication domain. Started before
// the first socket listens, stopped before the context ends.
class ZapHandler {
 public:
  ZapHandler() = default;
  ZapHandler(const ZapHandler&) = delete;
  ZapHandler& operator=(const ZapHandler&) = delete;
  ~ZapHandler() { stop(); }
  // 0, or -1 with errno (the handler's address is taken, or a socket could not be made).
  int start(void* ctx, const Policy& p);
  void stop();
  bool running() const { return thread_ != nullptr; }

 private:
  void run();
  Policy policy_;
  void* ctx_ = nullptr;
  void* rep_ = nullptr;
  void* stop_tx_ = nullptr;
  void* stop_rx_ = nullptr;
  struct Thread;
  Thread* thread_ = nullptr;
};

}  // namespace hadra::plat::mts::auth
