// The seam between the MTS core (endpoints, queues, references, sequence numbers) and the
// ways frames leave and enter the process.
//
// The core delivers a message itself when its destination is an endpoint bound in this
// process. Everything else goes to the transport: frames for the peer supervisor, and frames
// for another process of this supervisor. A transport hands the frames it receives back to
// the core through deliver_frame() (core.h), which checks them and applies the sequence
// rules, so both transports behave the same from the library's side.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mts/wire.h"

namespace hadra::plat::mts {

// Where a frame goes when no endpoint of this process takes it.
struct Route {
  bool peer = false;  // the other supervisor; else another process of this one
  uint32_t sap = 0;   // destination SAP, never 0
};

// Configuration, read once when the transport is chosen.
struct Settings {
  std::string kind;          // "loopback" or "zmq"
  std::string local_tmpl;    // address of a local SAP, with {sap} / {port}
  std::string peer_tmpl;     // address of a peer SAP
  long port_base = 17000;
  long hwm = 1000;
  long send_timeout_ms = 2000;
  long peer_send_timeout_ms = 5;  // a blocking send to the peer waits at most this long
  long rx_queue_max = 20000;      // peer frames a receiving endpoint queues before dropping
  // A transport with a receiving thread leaves a SAP's frames in the link while this many
  // wait in its queue (0: never), until the receiver has taken half of them: a receiver that
  // does not keep up holds its sender's frames in the sender's queue instead of costing
  // either side the work of moving frames it will not read for a while.
  long rx_hold = 1024;
  long backlog_bytes = 8l << 20;  // recent frames kept per peer stream for a resend (0: none)
  long recv_max_wait_ms = 60000;
  long loopback_keep = 4096;
  // Blocking sends to the peer queued in the sender and handed over together (one multipart
  // message, one wake-up of the transport's thread) when this many are queued, when the
  // oldest has waited coalesce_us, or when the sender next receives. 1: every frame alone.
  long coalesce_max = 1;
  long coalesce_us = 200;
  uint8_t slot = 1;          // this supervisor's slot, sent as src_node
};

Settings read_settings();

// The address of sap under tmpl: "{sap}" becomes the SAP, "{port}" port_base + SAP. Empty
// when the result is not an address (no template, port out of range).
std::string expand_address(const std::string& tmpl, uint32_t sap, long port_base);

class LoopbackTransport;

class Transport {
 public:
  virtual ~Transport() = default;
  virtual const char* name() const = 0;
  // Receive, from outside the process, the frames of sap. 0, or -1 with errno.
  virtual int open_endpoint(uint32_t sap) = 0;
  // Stop that; when it returns no frame of sap is handed to the core any more.
  virtual void close_endpoint(uint32_t sap) = 0;
  // Send f along route. f is consumed whatever the result. 0, or -1 with errno.
  virtual int transmit(const Route& to, Frame&& f, bool nonblock) = 0;
  // Send frames along route, in order; all are consumed whatever the result. *sent: how many
  // left (a prefix). 0 when all did, else -1 with errno for the first that did not. This one
  // sends them one by one; a transport that can hand them over together does so.
  virtual int transmit_many(const Route& to, std::vector<Frame>& frames, bool nonblock, size_t* sent);
  // sap's receiver has taken enough of its queue to be given frames again (hold_receiving).
  virtual void receiver_ready(uint32_t sap) { (void)sap; }
  // The loopback transport, for the testing interface; null for the others.
  virtual LoopbackTransport* loopback() { return nullptr; }
  // The process is about to stop: frames already handed over may take up to ms to leave
  // when the transport is destroyed (instead of being discarded).
  virtual void linger(int ms) { (void)ms; }
};

std::shared_ptr<Transport> make_loopback_transport(const Settings& s);
std::shared_ptr<Transport> make_zmq_transport(const Settings& s);

// The single-process transport: frames for the peer wait in an outbox that the testing
// interface reads and feeds back; there are no other processes to reach.
class LoopbackTransport final : public Transport {
 public:
  explicit LoopbackTransport(size_t keep);
  ~LoopbackTransport() override;
  const char* name() const override { return "loopback"; }
  int open_endpoint(uint32_t) override { return 0; }
  void close_endpoint(uint32_t) override {}
  int transmit(const Route& to, Frame&& f, bool nonblock) override;
  LoopbackTransport* loopback() override { return this; }

  size_t outbox_size();
  // Oldest frame for the peer: copies up to size bytes into buf and gives the frame's full
  // length; take removes it. -1 when the outbox is empty.
  long peek(void* buf, size_t size, bool take);
  // Remove and return the oldest frame (empty frame when none).
  Frame pop();
  uint64_t dropped();
  // Tests: the next n frames for the peer are refused with EAGAIN, as a peer that stopped
  // reading makes a real transport refuse them.
  void refuse_peer(uint64_t n);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace hadra::plat::mts
