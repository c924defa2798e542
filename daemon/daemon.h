// hadra-sysmgrd: the system manager of one supervisor.
//
// One process per supervisor root. It binds SYSMGR_SAP and serves, on one thread:
//
//   clients   services of this supervisor (hello, bye, gsync request, answers, handshake
//             queries); it delivers their events and notices when one dies (its pid)
//   peer      the daemon of the other supervisor, over the HA link: hello/heartbeat with
//             role and per-database sequence numbers, gsync requests, the files of snapshot
//             areas and their manifests, planned switchovers
//   commands  status, switchover, takeover, gsync, config save (docs/daemon.md)
//
// Procedures (gsync.cc, switchover.cc) are small state records advanced by messages and by a
// timer tick; every wait has a deadline, and each one ends with a log line saying how.
//
// What survives a restart of the daemon lives in its root: the state file (role, restart
// facts per service; proto.h), written atomically. Clients keep running across a daemon
// restart and are known again by their next message.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "hadra_platform/mts.h"
#include "sysmgr/proto.h"

namespace hadra::sysmgrd {

namespace proto = hadra::plat::sysmgr::proto;

struct Options {
  std::string root;
  int slot = 1;
  int role = 2;               // 1 active, 2 standby (from SUPSTATE at the first start)
  int heartbeat_ms = 100;     // HEARTBEAT_MS
  int peer_dead_ms = 1000;    // PEER_DEAD_MS: no hello for this long: the link is down
  int gsync_timeout_ms = 30000;      // GSYNC_TIMEOUT_MS: request to gsync ready
  int switchover_timeout_ms = 20000; // SWITCHOVER_TIMEOUT_MS: a client's deferred answer
  int cfg_timeout_ms = 10000;        // CFG_TIMEOUT_MS: every client's configuration write
  // FAULT_SHIP, for tests of the standby's checks: "corrupt" changes a byte of the first file
  // after its checksum was taken; "stall" never sends the manifest. Empty: none.
  std::string ship_fault;
  // Role source (role.cc, docs/roles.md): ROLE_SOURCE lease | keepalived | pacemaker | manual.
  std::string role_source = "lease";
  std::string lease_file;       // LEASE_FILE: default <parent of root>/hadra-pair.lease
  int lease_poll_ms = 100;      // LEASE_POLL_MS: how often a standby tries the lease
  int fence_ms = 1000;          // FENCE_MS: SIGTERM to SIGKILL for services told to stop
  bool failover_on_crash = true;  // CLIENT_CRASH = failover | stay (lease only)
};

struct Client {
  uint32_t uuid = 0;
  uint32_t sap = 0;
  uint32_t pid = 0;
  std::string name;
};

// A gsync seen from the standby's daemon: the request, then the area's files arriving.
struct Incoming {
  uint32_t xfer = 0;
  uint32_t uuid = 0;
  uint64_t deadline_ns = 0;
  std::string dir;                        // temporary directory of the area being received
  std::map<std::string, uint64_t> files;  // received so far: bytes written
  bool delivered = false;                 // gsync ready went to the client; its answer awaited
};

// A gsync seen from the active's daemon: the client writes the snapshot, then it is shipped
// a piece at a time, as fast as the link takes them (the loop never waits for the peer).
struct Outgoing {
  uint32_t xfer = 0;
  uint32_t uuid = 0;
  uint64_t deadline_ns = 0;
  bool shipping = false;     // the snapshot is written; the manifest is in `manifest`
  proto::Manifest manifest;  // every file with its size and checksum, sent last
  size_t file = 0;           // the file being shipped (index in manifest.files)
  uint64_t offset = 0;       // the next byte of it to send
};

struct LossRow {
  uint32_t uuid = 0;
  std::string service;
  uint32_t index = 0;
  uint64_t last_reported = 0;
  uint64_t last_applied = 0;
  uint64_t missing = 0;
  uint64_t reported_count = 0;  // changes the old active had reported sending at the takeover
  uint64_t applied_count = 0;   // of which this supervisor had applied
  bool amended = false;         // the old active came back and said what it really sent
  uint64_t after_report = 0;    // changes it sent after its last report
};

struct Switchover {
  bool running = false;
  bool planned = false;
  uint32_t req_base = 0;
  uint64_t deadline_ns = 0;
  std::set<uint32_t> waiting;  // uuids whose answer is awaited
  std::vector<std::string> notes;
  uint64_t started_ns = 0;  // when the first event went out
  uint64_t took_us = 0;     // from then to the last answer (0 until every service answered)
};

struct CfgWrite {
  bool running = false;
  uint32_t req_id = 0;
  uint64_t deadline_ns = 0;
  std::string stage;  // temporary area, under <root>/stage
  std::set<uint32_t> waiting;
  std::vector<std::string> failures;
  std::optional<mts_msg_ref> command;  // the command to answer when done
};

// The standby's watch over one service's progress (resync.cc).
struct ResyncWatch {
  uint64_t applied = 0;      // last HA number applied when last looked at
  uint64_t since_ns = 0;     // when it last changed
  uint64_t next_try_ns = 0;  // no new gsync started for it before this
  uint32_t failed_in_row = 0;  // gsyncs of it that failed since the last that worked
};
struct VerifyJob;      // verify.cc
struct MetricsServer;  // metrics.cc
struct HistoryState;   // history.cc

// One database of a live service as its history ring shows it (history_stats.cc).
struct DbView {
  std::string name, uri;
  uint64_t sent_msgs = 0, sent_bytes = 0, applied_msgs = 0, applied_bytes = 0;
  int64_t lag_ms = -1;  // -1: not known here (no standby, or no word from the active)
};

class Daemon {
 public:
  explicit Daemon(Options o);
  // Runs until SIGTERM/SIGINT. 0 after a clean stop, else an exit status with the reason
  // logged and printed.
  int run();

 private:
  friend struct GsyncOps;
  // daemon.cc
  bool start(std::string* why);
  void stop();
  void tick();
  void on_message(const mts_msg_ref& ref);
  void on_client_message(const mts_msg_ref& ref, uint32_t opcode, const void* p, uint32_t n);
  void on_peer_message(uint32_t opcode, const void* p, uint32_t n);
  void on_command(const mts_msg_ref& ref, const void* p, uint32_t n);
  void on_hello(const proto::Hello& h);
  void on_bye(const proto::Bye& b);
  void on_hs_query(const mts_msg_ref& ref, const void* p, uint32_t n);
  void check_clients();
  void rediscover_clients();
  void send_peer_hello();
  std::vector<proto::ServiceSeq> own_sequences() const;
  bool send_event(const Client& c, const proto::Event& ev);
  bool send_peer(uint32_t opcode, const std::vector<uint8_t>& payload, bool wait = false);
  void reply(const mts_msg_ref& cmd, int32_t status, const std::string& json);
  std::string status_json() const;
  void set_role(int role);
  bool save_state();
  void load_state();
  proto::SvcFacts& facts_of(uint32_t uuid);
  bool peer_up() const;
  const Client* client(uint32_t uuid) const;

  // gsync.cc
  void gsync_request(uint32_t uuid, std::string* why);
  void gsync_on_req(const proto::GsyncReq& r);
  void gsync_on_snapshot_answer(const Client& c, const proto::Answer& a);
  void gsync_on_file(const proto::FileData& f);
  void gsync_on_manifest(const proto::Manifest& m);
  void gsync_on_fail(const proto::GsyncFail& f);
  void gsync_on_ready_answer(const Client& c, const proto::Answer& a);
  void gsync_fail_incoming(uint32_t xfer, uint32_t status, const std::string& reason);
  void gsync_fail_outgoing(uint32_t xfer, uint32_t status, const std::string& reason);
  void gsync_tick(uint64_t now);
  void gsync_client_gone(uint32_t uuid);
  bool prepare_shipment(Outgoing& o, const proto::Answer& a, std::string* why);
  // Sends what the link takes now; false (with *why) when the shipment failed.
  bool ship_some(Outgoing& o, std::string* why);
  void clean_leftovers();

  // resync.cc
  void resync_tick(uint64_t now);
  void resync_gsync_ended(uint32_t uuid, bool ok);
  nlohmann::json stream_json(uint32_t pid) const;
  std::string table_path(const char* kind, uint32_t pid) const;
  // role.cc
  bool role_start(std::string* why);
  void role_tick(uint64_t now);
  bool role_may_take(bool planned, std::string* why);
  void role_step_down(const std::string& reason);
  void role_on_client_crash(uint32_t uuid);
  bool role_refuses_planned(std::string* why) const;
  void fence_clients(const std::string& reason);
  bool lease_try(std::string* why);
  void lease_release();
  void role_status(nlohmann::json* j) const;

  // switchover.cc
  // by_source: the role source made this supervisor active; the peer's last hello does not
  // hold the takeover back (the source already decided).
  int takeover(bool planned, std::string* why, bool by_source = false);
  int planned_switchover(std::string* why);
  void switchover_on_answer(const Client& c, const proto::Answer& a);
  void switchover_tick(uint64_t now);
  void switchover_finish_client(uint32_t uuid, const char* how);
  void loss_report();
  // switchover.cc: what services that died with this daemon had sent (to the active peer),
  // and what the old active says it sent after its last report (amends the loss report).
  void send_left_behind();
  void on_left_behind(const proto::PeerHello& h);
  int cfg_save(const mts_msg_ref& cmd, std::string* why);
  void cfg_on_answer(const Client& c, const proto::Answer& a);
  void cfg_tick(uint64_t now);
  void cfg_finish();

  // status_more.cc: what status adds for the operator's tool
  void status_more(nlohmann::json* j) const;

  // metrics.cc
  void metrics_tick(uint64_t now);
  std::string metrics_text() const;

  // verify.cc
  int verify_start(const mts_msg_ref& ref, const std::string& arg, std::string* why);
  bool verify_keeps(const mts_msg_ref& ref) const;
  bool verify_on_peer(uint32_t opcode, const void* p, uint32_t n);
  void verify_advance();
  void verify_finish(const std::string& failure);
  void verify_tick(uint64_t now);
  bool verify_apply_repair(const proto::Repair& r, std::string* why);
  nlohmann::json verify_progress() const;  // null when none runs

  // history.cc: the history command, the peer's history, the link's round-trip time
  int history_start(const mts_msg_ref& ref, const std::string& arg, std::string* why);
  bool history_keeps(const mts_msg_ref& ref) const;
  bool history_on_peer(uint32_t opcode, const void* p, uint32_t n);
  void history_finish(const proto::HistAns* ans, const std::string& failure);
  void history_tick(uint64_t now);
  HistoryState& history_state() const;
  std::map<uint32_t, std::string> service_names() const;
  uint64_t link_rtt_ns() const;  // 0 when not measured lately
  // history_stats.cc
  std::map<std::pair<uint32_t, uint8_t>, DbView> db_views() const;  // by (uuid, index)
  void watch_procedures(uint64_t now);
  std::vector<proto::DbLag> own_lags() const;
  void prune_rings();

  Options o_;
  int lock_fd_ = -1;
  int signal_fd_ = -1;
  uint64_t boot_id_ = 0;
  int role_ = 2;
  std::map<uint32_t, Client> clients_;
  std::map<uint32_t, proto::SvcFacts> facts_;
  std::optional<proto::PeerHello> peer_;
  uint64_t peer_seen_ns_ = 0;
  std::map<uint32_t, proto::ServiceSeq> peer_active_seq_;  // last numbers the active reported
  uint64_t next_hello_ns_ = 0;
  uint64_t next_check_ns_ = 0;
  uint32_t next_xfer_ = 1;
  std::map<uint32_t, Incoming> incoming_;  // by xfer
  std::map<uint32_t, Outgoing> outgoing_;  // by xfer
  Switchover swo_;
  CfgWrite cfg_;
  std::vector<LossRow> loss_;
  bool loss_known_ = false;
  bool loss_amended_ = false;  // the old active came back and said what it really sent
  uint64_t gsyncs_done_ = 0, gsyncs_failed_ = 0, switchovers_ = 0;
  std::string last_gsync_error_;
  std::map<uint32_t, ResyncWatch> resync_;  // by uuid
  // role.cc
  int lease_fd_ = -1;
  bool lease_held_ = false;
  uint64_t next_role_ns_ = 0;
  uint64_t lease_holdoff_ns_ = 0;   // after giving the lease away: let the peer take it first
  std::string role_request_;        // last request read from <root>/sysmgr/role-request
  uint64_t fenced_ = 0;              // services stopped because this supervisor lost the role
  std::string last_role_change_;
  std::shared_ptr<VerifyJob> verify_;
  std::shared_ptr<MetricsServer> metrics_;
  mutable std::shared_ptr<HistoryState> history_;
};

// Small file helpers (files.cc).
namespace files {
// Writes text to path atomically: a temporary file beside it, fsync, rename, fsync of the
// directory. False with *why naming the file and the cause.
bool write_atomic(const std::string& path, const std::string& text, std::string* why);
// fsync of a file or directory by path.
bool sync_path(const std::string& path);
// XXH3-64 of a file's contents; false when it cannot be read.
bool hash_file(const std::string& path, uint64_t* hash, uint64_t* size);
// Regular files under dir, relative paths, leaving LMDB lock files out.
std::vector<std::string> area_files(const std::string& dir);
std::string root_path(const std::string& root, const std::string& rel);
}  // namespace files

uint64_t now_ns();

}  // namespace hadra::sysmgrd
