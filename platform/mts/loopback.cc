// The single-process transport.
//
// There is no other process: a frame for another process of this supervisor has nowhere to
// go (ECONNREFUSED), and a frame for the peer waits in the outbox, exactly as it would go on
// the wire, until the testing interface reads it back or feeds it to an endpoint (the same
// process may play the peer). The outbox keeps the newest MTS_LOOPBACK_KEEP frames, so a long
// test that never looks at it does not grow without bound.
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>

#include "mts/transport.h"

namespace hadra::plat::mts {

struct LoopbackTransport::Impl {
  std::mutex mu;
  std::deque<Frame> outbox;
  size_t keep = 4096;
  uint64_t dropped = 0;
  uint64_t refuse = 0;
};

LoopbackTransport::LoopbackTransport(size_t keep) : impl_(new Impl) { impl_->keep = keep != 0 ? keep : 1; }

LoopbackTransport::~LoopbackTransport() = default;

int LoopbackTransport::transmit(const Route& to, Frame&& f, bool) {
  if (!to.peer) {
    f.reset();
    errno = ECONNREFUSED;
    return -1;
  }
  std::lock_guard<std::mutex> lock(impl_->mu);
  if (impl_->refuse != 0) {
    --impl_->refuse;
    f.reset();
    errno = EAGAIN;
    return -1;
  }
  impl_->outbox.push_back(std::move(f));
  while (impl_->outbox.size() > impl_->keep) {
    impl_->outbox.pop_front();
    ++impl_->dropped;
  }
  return 0;
}

size_t LoopbackTransport::outbox_size() {
  std::lock_guard<std::mutex> lock(impl_->mu);
  return impl_->outbox.size();
}

long LoopbackTransport::peek(void* buf, size_t size, bool take) {
  std::lock_guard<std::mutex> lock(impl_->mu);
  if (impl_->outbox.empty()) return -1;
  const Frame& f = impl_->outbox.front();
  long full = static_cast<long>(f.size());
  if (buf != nullptr && size != 0) std::memcpy(buf, f.data(), size < f.size() ? size : f.size());
  if (take) impl_->outbox.pop_front();
  return full;
}

Frame LoopbackTransport::pop() {
  std::lock_guard<std::mutex> lock(impl_->mu);
  if (impl_->outbox.empty()) return Frame();
  Frame f = std::move(impl_->outbox.front());
  impl_->outbox.pop_front();
  return f;
}

uint64_t LoopbackTransport::dropped() {
  std::lock_guard<std::mutex> lock(impl_->mu);
  return impl_->dropped;
}

void LoopbackTransport::refuse_peer(uint64_t n) {
  std::lock_guard<std::mutex> lock(impl_->mu);
  impl_->refuse = n;
}

std::shared_ptr<Transport> make_loopback_transport(const Settings& s) {
  return std::make_shared<LoopbackTransport>(static_cast<size_t>(s.loopback_keep > 0 ? s.loopback_keep : 1));
}

}  // namespace hadra::plat::mts
