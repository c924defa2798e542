// The ZeroMQ transport: ipc:// between the processes of one host, tcp:// between hosts.
//
// Receiving. Each bound SAP has a PULL socket bound at its local address (MTS_LOCAL). One
// background thread owns these sockets: it polls them together with an eventfd that other
// threads write to wake it, and hands every frame (still in the socket library's buffer, no
// copy) to the core; a SAP whose queue is deep (MTS_RX_HOLD) is left unread until its
// receiver has caught up. Binding creates and binds the socket on the caller's thread, so that an
// error is returned to the caller, then passes it to the thread; unbinding asks the thread to
// close it and waits, so that the SAP can be bound again at once.
//
// Sending. One PUSH socket per destination (peer or local SAP), connected on first use and
// kept. The frame buffer built by the core is handed to the socket library as is; it frees
// it when the frame has gone; a group of frames goes as one bundle (mts/wire.h), which the
// receiving side splits into its frames. A PUSH socket queues frames while its peer is not (yet)
// listening, up to MTS_HWM; a send that finds no room waits up to MTS_SEND_TIMEOUT_MS and then
// fails with EAGAIN. Frames still queued when the process exits are lost.
//
// Authentication (mts/auth.h). Every listening socket names an authentication domain, so
// that the context's handler sees each connection: with keys configured the sockets use
// CURVE and only this supervisor's and the peer's keys get in; every frame then carries the
// handler's verdict, and one whose claims do not fit it is refused and logged with its
// source. The socket directory and the socket files are the owner's alone (or its group's).
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "hadra_platform/log.h"
#include "hadra_platform/mts.h"
#include "log/log_internal.h"
#include "mts/auth.h"
#include "mts/core.h"
#include "mts/transport.h"

namespace hadra::plat::mts {
namespace {

void release_msg(void* owner) {
  auto* m = static_cast<zmq_msg_t*>(owner);
  zmq_msg_close(m);
  delete m;
}

void free_sent(void* data, void*) { Frame::free_bytes(data); }

// A received bundle: its frames point into the one message, which goes when the last of them
// is released (by whichever thread releases it).
struct Shared {
  zmq_msg_t m;
  std::atomic<uint32_t> refs;
};
void release_shared(void* owner) {
  auto* b = static_cast<Shared*>(owner);
  if (b->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  zmq_msg_close(&b->m);
  delete b;
}

int fail_with(int err) {
  errno = err;
  return -1;
}

// The core builds frames in buffers of its own (Frame::allocate): the buffer is handed to the
// socket library, which frees it once sent. f is consumed; 0, or -1 with errno.
int hand_over(void* sock, Frame&& f, int flags) {
  uint8_t* data = f.data();
  const size_t size = f.size();
  f.release_ownership();
  zmq_msg_t m;
  if (zmq_msg_init_data(&m, data, size, &free_sent, nullptr) != 0) {
    Frame::free_bytes(data);
    return fail_with(ENOMEM);
  }
  if (zmq_msg_send(&m, sock, flags) < 0) {
    const int err = zmq_errno();
    zmq_msg_close(&m);
    return fail_with(err);
  }
  return 0;
}

void set_int(void* sock, int opt, long value) {
  int v = static_cast<int>(value);
  zmq_setsockopt(sock, opt, &v, sizeof v);
}

const std::string kIpc = "ipc://";
constexpr long kRecvHwm = 4;  // messages (a message may be a bundle of frames)

// Directory of an ipc:// socket path, created so that bind can make the socket file, and
// closed to everyone but the owner (and the configured group): whoever can reach a socket
// file can connect to it. Modes are set explicitly, whatever the umask.
void make_ipc_dir(const std::string& url, const auth::Policy& p) {
  if (url.compare(0, kIpc.size(), kIpc) != 0) return;
  std::filesystem::path dir = std::filesystem::path(url.substr(kIpc.size())).parent_path();
  std::error_code ec;
  if (dir.empty()) return;
  const bool made = std::filesystem::create_directories(dir, ec);
  struct stat st;
  if ((made || (::stat(dir.c_str(), &st) == 0 && st.st_uid == ::geteuid())) &&
      ::chmod(dir.c_str(), p.gid >= 0 ? 0750 : 0700) == 0 && p.gid >= 0)
    (void)!::chown(dir.c_str(), static_cast<uid_t>(-1), static_cast<gid_t>(p.gid));
}

void restrict_ipc_file(const std::string& url, const auth::Policy& p) {
  if (url.compare(0, kIpc.size(), kIpc) != 0) return;
  const std::string path = url.substr(kIpc.size());
  if (::chmod(path.c_str(), p.gid >= 0 ? 0660 : 0600) == 0 && p.gid >= 0)
    (void)!::chown(path.c_str(), static_cast<uid_t>(-1), static_cast<gid_t>(p.gid));
}

void set_key(void* sock, int opt, const std::string& z85) { zmq_setsockopt(sock, opt, z85.c_str(), z85.size() + 1); }

class ZmqTransport final : public Transport {
 public:
  explicit ZmqTransport(const Settings& s) : s_(s), ctx_(zmq_ctx_new()), wake_fd_(eventfd(0, EFD_CLOEXEC)) {
    start_auth();
  }
  ~ZmqTransport() override;
  const char* name() const override { return "zmq"; }
  int open_endpoint(uint32_t sap) override;
  void close_endpoint(uint32_t sap) override;
  int transmit(const Route& to, Frame&& f, bool nonblock) override;
  int transmit_many(const Route& to, std::vector<Frame>& frames, bool nonblock, size_t* sent) override;
  void receiver_ready(uint32_t) override { wake(); }
  void linger(int ms) override {
    std::lock_guard<std::mutex> lock(tx_mu_);
    linger_ms_ = ms;
  }

 private:
  struct Cmd {
    bool add;
    uint32_t sap;
    void* sock;
  };

  void post(const Cmd& c);
  void wake();
  void io_loop();
  bool apply_commands();
  void drain(void* sock, size_t room);
  void* tx_socket(const Route& to);
  long send_bound(const Route& to) const;
  int send_bundle(void* sock, std::vector<Frame>& frames, bool nonblock);
  void start_auth();
  bool admit(zmq_msg_t* m, const uint8_t* p, size_t size);
  void take_bundle(zmq_msg_t* m, std::vector<Frame>& burst);

  Settings s_;
  auth::Policy policy_;
  bool auth_ok_ = false;  // false: the keys are unusable; nothing is sent or received
  auth::ZapHandler zap_;
  void* ctx_;
  int wake_fd_;
  std::thread io_;
  std::mutex mu_;  // cmds_, posted_, applied_, stop_
  std::condition_variable cv_;
  std::vector<Cmd> cmds_;
  uint64_t posted_ = 0;
  uint64_t applied_ = 0;
  bool stop_ = false;
  std::vector<std::pair<uint32_t, void*>> rx_;  // the I/O thread's alone
  std::vector<Frame> burst_;                     // the I/O thread's alone: frames being queued
  std::vector<size_t> rooms_;                    // the I/O thread's alone: receive_room of each polled socket
  std::mutex tx_mu_;
  std::map<uint64_t, void*> tx_;  // (peer << 32 | sap) -> PUSH socket
  int linger_ms_ = 0;             // under tx_mu_: how long the destructor lets frames leave
};

ZmqTransport::~ZmqTransport() {
  if (io_.joinable()) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      stop_ = true;
    }
    wake();
    io_.join();
  }
  for (auto& [key, sock] : tx_) {
    set_int(sock, ZMQ_LINGER, linger_ms_);
    zmq_close(sock);
  }
  zap_.stop();
  if (ctx_ != nullptr)
    while (zmq_ctx_term(ctx_) != 0 && zmq_errno() == EINTR) {
    }
  if (wake_fd_ >= 0) ::close(wake_fd_);
}

void ZmqTransport::wake() {
  uint64_t one = 1;
  if (wake_fd_ >= 0) (void)!::write(wake_fd_, &one, sizeof one);
}

void ZmqTransport::post(const Cmd& c) {
  std::unique_lock<std::mutex> lock(mu_);
  cmds_.push_back(c);
  uint64_t ticket = ++posted_;
  lock.unlock();
  wake();
  lock.lock();
  cv_.wait(lock, [&] { return applied_ >= ticket || stop_; });
}

int ZmqTransport::open_endpoint(uint32_t sap) {
  if (ctx_ == nullptr || wake_fd_ < 0) return fail_with(ENOTCONN);
  if (!auth_ok_) return fail_with(EACCES);
  std::string url = expand_address(s_.local_tmpl, sap, s_.port_base);
  if (url.empty()) return fail_with(EADDRNOTAVAIL);
  make_ipc_dir(url, policy_);
  void* sock = zmq_socket(ctx_, ZMQ_PULL);
  if (sock == nullptr) return fail_with(zmq_errno());
  zmq_setsockopt(sock, ZMQ_ZAP_DOMAIN, "hadra", 5);
  if (policy_.curve) {
    set_int(sock, ZMQ_CURVE_SERVER, 1);
    set_key(sock, ZMQ_CURVE_SECRETKEY, policy_.own_secret);
  }
  // Little waits on this side of the link: what the receiver does not take stays in the
  // sender's queue (MTS_HWM there), where a sender sees it and stops waiting for this side.
  set_int(sock, ZMQ_RCVHWM, std::min(s_.hwm, kRecvHwm));
  set_int(sock, ZMQ_LINGER, 0);
  int64_t max = static_cast<int64_t>(kWireHdrSize + MTS_PAYLOAD_MAX);
  zmq_setsockopt(sock, ZMQ_MAXMSGSIZE, &max, sizeof max);
  if (zmq_bind(sock, url.c_str()) != 0) {
    int err = zmq_errno();
    zmq_close(sock);
    return fail_with(err);
  }
  restrict_ipc_file(url, policy_);
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!io_.joinable()) io_ = std::thread([this] { io_loop(); });
  }
  post({true, sap, sock});
  return 0;
}

void ZmqTransport::close_endpoint(uint32_t sap) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!io_.joinable()) return;
  }
  post({false, sap, nullptr});
}

// On the I/O thread. False once asked to stop (every socket is then closed).
bool ZmqTransport::apply_commands() {
  std::lock_guard<std::mutex> lock(mu_);
  for (const Cmd& c : cmds_) {
    if (c.add) {
      rx_.emplace_back(c.sap, c.sock);
      continue;
    }
    for (auto it = rx_.begin(); it != rx_.end(); ++it)
      if (it->first == c.sap) {
        zmq_close(it->second);
        rx_.erase(it);
        break;
      }
  }
  cmds_.clear();
  applied_ = posted_;
  if (stop_)
    for (auto& [sap, sock] : rx_) zmq_close(sock);
  cv_.notify_all();
  return !stop_;
}

// Frames taken off one socket at a time, at most.
constexpr size_t kBurstFrames = 1024;

// room: what the SAP's queue takes before it is held (receive_room); it may end one bundle
// past that.
void ZmqTransport::drain(void* sock, size_t room) {
  // A bounded batch, so that one busy SAP does not starve the others or the wake-up. What
  // came together is queued together: one lock and one wake-up of the receiver per batch.
  std::vector<Frame>& burst = burst_;
  const size_t most = std::min(room, kBurstFrames);
  for (int i = 0; i < 256 && burst.size() < most; ++i) {
    auto* m = new zmq_msg_t;
    zmq_msg_init(m);
    if (zmq_msg_recv(m, sock, ZMQ_DONTWAIT) < 0) {
      release_msg(m);
      break;
    }
    const auto* p = static_cast<const uint8_t*>(zmq_msg_data(m));
    if (is_bundle(p, zmq_msg_size(m))) {
      take_bundle(m, burst);
      continue;
    }
    if (!admit(m, p, zmq_msg_size(m))) {
      release_msg(m);
      continue;
    }
    burst.emplace_back(static_cast<uint8_t*>(zmq_msg_data(m)), zmq_msg_size(m), m, &release_msg);
  }
  if (!burst.empty()) deliver_frames(burst, false);  // refusals are counted by the core
}

// A bundle's frames join the burst one by one, each checked like a frame of its own. A
// malformed bundle goes to the core whole, as one malformed frame: logged, counted, dropped.
void ZmqTransport::take_bundle(zmq_msg_t* m, std::vector<Frame>& burst) {
  auto* b = new Shared;
  zmq_msg_init(&b->m);
  zmq_msg_move(&b->m, m);
  release_msg(m);
  b->refs.store(1, std::memory_order_relaxed);  // this function's own, given back at the end
  auto* data = static_cast<uint8_t*>(zmq_msg_data(&b->m));
  const size_t size = zmq_msg_size(&b->m);
  const bool whole = split_bundle(data, size, [&](const uint8_t* p, size_t n) {
    if (!admit(&b->m, p, n)) return;
    b->refs.fetch_add(1, std::memory_order_relaxed);
    burst.emplace_back(data + (p - data), n, b, &release_shared);
  });
  if (!whole) {
    const char* addr = zmq_msg_gets(&b->m, "Peer-Address");
    auth::log_refusal("a malformed bundle of frames", addr != nullptr ? addr : "", "its frame lengths do not add up");
    b->refs.fetch_add(1, std::memory_order_relaxed);
    burst.emplace_back(data, size, b, &release_shared);
  }
  release_shared(b);
}

void ZmqTransport::io_loop() {
  pthread_setname_np(pthread_self(), "hadra-mts-rx");  // for top -H and the profilers
  std::vector<zmq_pollitem_t> items;
  while (apply_commands()) {
    items.clear();
    items.push_back({nullptr, wake_fd_, ZMQ_POLLIN, 0});
    // A SAP whose receiver is behind is not read: its frames wait in the link, and then in
    // the sender's queue, until the receiver has taken half of its own (receiver_ready).
    rooms_.clear();
    for (auto& [sap, sock] : rx_) {
      const size_t room = receive_room(sap);
      if (room == 0) continue;
      items.push_back({sock, 0, ZMQ_POLLIN, 0});
      rooms_.push_back(room);
    }
    if (zmq_poll(items.data(), static_cast<int>(items.size()), -1) < 0) {
      if (zmq_errno() == ETERM) return;
      continue;
    }
    if ((items[0].revents & ZMQ_POLLIN) != 0) {
      uint64_t v;
      (void)!::read(wake_fd_, &v, sizeof v);
    }
    // Sockets added by commands since the poll started are not in items; next round.
    for (size_t i = 1; i < items.size(); ++i)
      if ((items[i].revents & ZMQ_POLLIN) != 0) drain(items[i].socket, rooms_[i - 1]);
  }
}

// A blocking send to the peer waits only MTS_PEER_SEND_TIMEOUT_MS: the active must not be
// held up by a standby that is gone, stopped or slow (the core counts what did not leave).
long ZmqTransport::send_bound(const Route& to) const { return to.peer ? s_.peer_send_timeout_ms : s_.send_timeout_ms; }

void* ZmqTransport::tx_socket(const Route& to) {
  uint64_t key = (static_cast<uint64_t>(to.peer) << 32) | to.sap;
  auto it = tx_.find(key);
  if (it != tx_.end()) return it->second;
  std::string url = expand_address(to.peer ? s_.peer_tmpl : s_.local_tmpl, to.sap, s_.port_base);
  if (url.empty()) {
    errno = EADDRNOTAVAIL;
    return nullptr;
  }
  void* sock = zmq_socket(ctx_, ZMQ_PUSH);
  if (sock == nullptr) {
    errno = zmq_errno();
    return nullptr;
  }
  if (policy_.curve) {
    set_key(sock, ZMQ_CURVE_SERVERKEY, to.peer ? policy_.peer_public : policy_.own_public);
    set_key(sock, ZMQ_CURVE_PUBLICKEY, policy_.own_public);
    set_key(sock, ZMQ_CURVE_SECRETKEY, policy_.own_secret);
  }
  // The bound counts messages, and a group of small frames is one message: the bound in
  // bytes is what it was (a group holds at most 64 KiB), in frames it grows for small ones.
  set_int(sock, ZMQ_SNDHWM, s_.hwm);
  set_int(sock, ZMQ_LINGER, 0);
  set_int(sock, ZMQ_SNDTIMEO, send_bound(to));
  if (zmq_connect(sock, url.c_str()) != 0) {
    int err = zmq_errno();
    zmq_close(sock);
    errno = err;
    return nullptr;
  }
  tx_.emplace(key, sock);
  return sock;
}

int ZmqTransport::transmit(const Route& to, Frame&& f, bool nonblock) {
  if (ctx_ == nullptr) {
    f.reset();
    return fail_with(ENOTCONN);
  }
  if (!auth_ok_) {
    f.reset();
    return fail_with(EACCES);
  }
  std::lock_guard<std::mutex> lock(tx_mu_);
  void* sock = tx_socket(to);
  if (sock == nullptr) {
    int err = errno;
    f.reset();
    return fail_with(err);
  }
  return hand_over(sock, std::move(f), nonblock ? ZMQ_DONTWAIT : 0);
}

// Frames that go together travel as one message: a bundle (send_bundle), or, when none can be
// made, the parts of a multipart message (a part is a frame; drain() takes parts like any
// frame). Either way the socket library queues them at once and wakes its I/O thread once, and
// the queue's bound counts messages, so a group is refused or taken as a whole.
int ZmqTransport::transmit_many(const Route& to, std::vector<Frame>& frames, bool nonblock, size_t* sent) {
  *sent = 0;
  if (frames.size() <= 1) return Transport::transmit_many(to, frames, nonblock, sent);
  auto fail_all = [&](int err) {
    frames.clear();
    return fail_with(err);
  };
  if (ctx_ == nullptr) return fail_all(ENOTCONN);
  if (!auth_ok_) return fail_all(EACCES);
  std::lock_guard<std::mutex> lock(tx_mu_);
  void* sock = tx_socket(to);
  if (sock == nullptr) return fail_all(errno);
  const size_t n = frames.size();
  if (send_bundle(sock, frames, nonblock) == 0) {
    *sent = n;
    return 0;
  }
  if (frames.empty()) return -1;  // the bundle was refused: errno says why
  for (size_t i = 0; i < n; ++i) {
    const int flags = (i + 1 < n ? ZMQ_SNDMORE : 0) | (nonblock ? ZMQ_DONTWAIT : 0);
    if (hand_over(sock, std::move(frames[i]), flags) == 0) continue;
    const int err = errno;
    for (size_t j = i + 1; j < n; ++j) frames[j].reset();
    frames.clear();
    if (i > 0) {
      // A message cut after its first part must not be completed by the next send: the
      // socket goes (its queued frames with it) and the next send connects afresh.
      const uint64_t key = (static_cast<uint64_t>(to.peer) << 32) | to.sap;
      zmq_close(sock);
      tx_.erase(key);
    }
    return fail_with(err);
  }
  frames.clear();
  *sent = n;
  return 0;
}

// The group as one bundle: one message for the socket library, its I/O threads and the
// receiver's, whatever the number of frames. Returns 0 when it went (frames emptied); -1 with
// frames emptied when it was refused (errno set); -1 with frames untouched when no bundle
// could be made (too large, too many, no memory), to go as parts instead.
int ZmqTransport::send_bundle(void* sock, std::vector<Frame>& frames, bool nonblock) {
  size_t total = kBundleHdrSize;
  for (const Frame& f : frames) total += 4 + f.size();
  if (frames.size() > kBundleMaxFrames || total > kWireHdrSize + MTS_PAYLOAD_MAX) return -1;
  Frame b = Frame::allocate(total);
  if (b.empty()) return -1;
  uint8_t* p = b.data();
  put_le(p, kBundleMagic, 4);
  put_le(p + 4, frames.size(), 4);
  p += kBundleHdrSize;
  for (Frame& f : frames) {
    put_le(p, f.size(), 4);
    std::memcpy(p + 4, f.data(), f.size());
    p += 4 + f.size();
  }
  frames.clear();  // their bytes are in the bundle now
  return hand_over(sock, std::move(b), nonblock ? ZMQ_DONTWAIT : 0);
}

// The keys and the handler, before any socket listens.
void ZmqTransport::start_auth() {
  std::string why;
  const bool loaded = auth::load_policy(&policy_, &why);
  policy_.ipc = s_.local_tmpl.rfind(kIpc, 0) == 0;
  if (!loaded) {
    log::writef(PLAT_LOG_ERR, "MTS: %s; the transport neither listens nor sends", why.c_str());
    return;
  }
  if (ctx_ != nullptr && zap_.start(ctx_, policy_) != 0) {
    log::writef(PLAT_LOG_ERR, "MTS: the connection check could not start: %s; the transport neither listens nor sends",
                std::strerror(errno));
    return;
  }
  auth_ok_ = true;
  if (!policy_.curve && s_.peer_tmpl.rfind("tcp://", 0) == 0)
    log::writef(PLAT_LOG_WARNING, "MTS: the link to the peer (%s) is neither authenticated nor encrypted: set "
                "MTS_KEY_FILE and MTS_PEER_KEY", s_.peer_tmpl.c_str());
}

// On the I/O thread: whether a received frame may go to the core. A malformed one still
// does (the core counts it) after it is logged with its source; one whose claims do not fit
// the connection it came on is refused here. p and size are the frame's bytes: all of m, or
// one frame of the bundle m.
bool ZmqTransport::admit(zmq_msg_t* m, const uint8_t* p, size_t size) {
  // The sender's address is looked up only for a frame that is to be logged.
  auto from = [m] {
    const char* addr = zmq_msg_gets(m, "Peer-Address");
    return std::string(addr != nullptr ? addr : "");
  };
  WireHdr h;
  if (!decode(p, size, MTS_PAYLOAD_MAX, &h)) {
    auth::log_refusal("a malformed frame", from(), auth::frame_fault(p, size, MTS_PAYLOAD_MAX));
    return true;
  }
  const char* why = auth::refuse_claim(h, auth::source_of(zmq_msg_gets(m, "User-Id")), s_.slot);
  if (why == nullptr) return true;
  auth::log_refusal("a frame", from() + " (node " + std::to_string(h.src_node) + " SAP " + std::to_string(h.src_sap) +
                                   " to SAP " + std::to_string(h.dst_sap) + ")",
                    why);
  return false;
}

}  // namespace

std::shared_ptr<Transport> make_zmq_transport(const Settings& s) { return std::make_shared<ZmqTransport>(s); }

}  // namespace hadra::plat::mts
