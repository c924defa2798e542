// Prometheus metrics of the daemon over HTTP (text format 0.0.4), off unless METRICS_PORT is
// set; then served on the loopback address only (METRICS_ADDR may name another loopback
// address, never an outside one).
//
// The loop never serves HTTP itself and never waits for a scraper: it renders the text at
// most every 500 ms into a buffer that libmicrohttpd's own thread hands out under a lock.
#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>

#include <cstring>
#include <mutex>
#include <string>

#include "daemon.h"
#include "history_state.h"
#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "sysmgr/seqno_table.h"

namespace hadra::sysmgrd {

struct MetricsServer {
  MHD_Daemon* mhd = nullptr;
  std::mutex mu;
  std::string text;
  uint64_t next_render_ns = 0;
  bool tried = false;
  ~MetricsServer() {
    if (mhd != nullptr) MHD_stop_daemon(mhd);
  }
};

namespace {

MHD_Result serve(void* cls, MHD_Connection* conn, const char* url, const char* method, const char*, const char*,
                 size_t*, void**) {
  auto* m = static_cast<MetricsServer*>(cls);
  const bool get = std::strcmp(method, "GET") == 0;
  std::string body;
  unsigned code = MHD_HTTP_OK;
  if (!get) {
    code = MHD_HTTP_METHOD_NOT_ALLOWED, body = "only GET\n";
  } else if (std::strcmp(url, "/metrics") != 0) {
    code = MHD_HTTP_NOT_FOUND, body = "metrics are at /metrics\n";
  } else {
    std::lock_guard<std::mutex> l(m->mu);
    body = m->text;
  }
  MHD_Response* r = MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY);
  if (r == nullptr) return MHD_NO;
  MHD_add_response_header(r, "Content-Type",
                          code == MHD_HTTP_OK ? "text/plain; version=0.0.4; charset=utf-8" : "text/plain");
  const MHD_Result ret = MHD_queue_response(conn, code, r);
  MHD_destroy_response(r);
  return ret;
}

// A label value with \, " and newlines escaped.
std::string label(const std::string& v) {
  std::string s;
  for (char c : v) {
    if (c == '\\' || c == '"') s += '\\', s += c;
    else if (c == '\n') s += "\\n";
    else s += c;
  }
  return s;
}

void family(std::string& out, const char* name, const char* type, const char* help) {
  out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void sample(std::string& out, const char* name, const std::string& labels, double v) {
  char num[40];
  std::snprintf(num, sizeof num, "%.15g", v);
  out += std::string(name) + (labels.empty() ? "" : "{" + labels + "}") + " " + num + "\n";
}

}  // namespace

void Daemon::metrics_tick(uint64_t now) {
  if (!metrics_) {
    metrics_ = std::make_shared<MetricsServer>();
    const long port = plat_config_get_long("METRICS_PORT", 0);
    if (port <= 0) return;
    if (port > 65535) {
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: METRICS_PORT %ld is no port; metrics stay off", port);
      return;
    }
    const std::string addr = plat_config_get("METRICS_ADDR", "127.0.0.1");
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, addr.c_str(), &sa.sin_addr) != 1 || (ntohl(sa.sin_addr.s_addr) >> 24) != 127) {
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: METRICS_ADDR %s is not a loopback address; metrics stay off", addr.c_str());
      return;
    }
    metrics_->mhd = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_ERROR_LOG, 0, nullptr, nullptr, &serve,
                                     metrics_.get(), MHD_OPTION_SOCK_ADDR, &sa, MHD_OPTION_CONNECTION_TIMEOUT,
                                     static_cast<unsigned>(5), MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned>(16),
                                     MHD_OPTION_END);
    if (metrics_->mhd == nullptr)
      plat_syslog(PLAT_LOG_ERR, "sysmgrd: metrics on %s:%ld not served: cannot listen there", addr.c_str(), port);
    else
      plat_syslog(PLAT_LOG_NOTICE, "sysmgrd: metrics served on http://%s:%ld/metrics", addr.c_str(), port);
  }
  if (metrics_->mhd == nullptr || now < metrics_->next_render_ns) return;
  metrics_->next_render_ns = now + 500000000ull;
  std::string text = metrics_text();
  std::lock_guard<std::mutex> l(metrics_->mu);
  metrics_->text = std::move(text);
}

std::string Daemon::metrics_text() const {
  std::string o;
  const std::string slot = "slot=\"" + std::to_string(o_.slot) + "\"";
  family(o, "hadra_supervisor_role", "gauge", "1 for the role this supervisor holds");
  for (int r : {1, 2, 0}) sample(o, "hadra_supervisor_role", slot + ",role=\"" + proto::role_name(r) + "\"", role_ == r);
  family(o, "hadra_peer_up", "gauge", "1 while the peer's hellos arrive");
  sample(o, "hadra_peer_up", slot, peer_up());
  family(o, "hadra_peer_last_hello_seconds", "gauge", "time since the peer's last hello");
  sample(o, "hadra_peer_last_hello_seconds", slot,
         peer_ ? static_cast<double>(now_ns() - peer_seen_ns_) / 1e9 : -1.0);

  // Per database: this side's numbers, and the lag between the active's sent and the
  // standby's applied ones (the peer's numbers from its last hello).
  std::map<std::pair<uint32_t, uint8_t>, proto::DbSeq> theirs;
  if (peer_)
    for (const proto::ServiceSeq& s : peer_->services)
      for (const proto::DbSeq& d : s.dbs) theirs[{s.uuid, d.index}] = d;
  const std::vector<proto::ServiceSeq> mine = own_sequences();
  struct Row {
    std::string labels;
    proto::DbSeq d;
    bool known;
    double lag;
  };
  std::vector<Row> rows;
  for (const proto::ServiceSeq& s : mine)
    for (const proto::DbSeq& d : s.dbs) {
      const auto t = theirs.find({s.uuid, d.index});
      const bool known = t != theirs.end() && peer_up();
      double lag = 0;
      if (known)
        lag = role_ == 1 ? static_cast<double>(d.sent_count) - static_cast<double>(t->second.applied_count)
                         : static_cast<double>(t->second.sent_count) - static_cast<double>(d.applied_count);
      rows.push_back({slot + ",service=\"" + label(s.name) + "\",db=\"" + std::to_string(d.index) + "\"", d, known,
                      lag < 0 ? 0 : lag});
    }
  family(o, "hadra_db_sent_messages_total", "counter", "sync messages this side's service sent, per database");
  for (const Row& r : rows) sample(o, "hadra_db_sent_messages_total", r.labels, r.d.sent_count);
  family(o, "hadra_db_applied_messages_total", "counter", "sync messages this side's service applied, per database");
  for (const Row& r : rows) sample(o, "hadra_db_applied_messages_total", r.labels, r.d.applied_count);
  family(o, "hadra_db_sent_seqno", "gauge", "last HA sequence number sent");
  for (const Row& r : rows) sample(o, "hadra_db_sent_seqno", r.labels, static_cast<double>(r.d.sent_seqno));
  family(o, "hadra_db_applied_seqno", "gauge", "last HA sequence number applied");
  for (const Row& r : rows) sample(o, "hadra_db_applied_seqno", r.labels, static_cast<double>(r.d.applied_seqno));
  family(o, "hadra_db_lag_messages", "gauge", "messages the active sent that the standby has not applied yet");
  for (const Row& r : rows) sample(o, "hadra_db_lag_messages", r.labels, r.lag);
  family(o, "hadra_db_out_of_sync", "gauge", "1 when the standby is behind or its peer unknown");
  for (const Row& r : rows) sample(o, "hadra_db_out_of_sync", r.labels, !r.known || r.lag > 0);

  // From the services' history rings: bytes, names, lag in time.
  const auto views = db_views();
  std::vector<std::pair<std::string, DbView>> vrows;
  for (const proto::ServiceSeq& s : mine)
    for (const proto::DbSeq& d : s.dbs) {
      const auto v = views.find({s.uuid, d.index});
      vrows.emplace_back(slot + ",service=\"" + label(s.name) + "\",db=\"" + std::to_string(d.index) + "\"",
                         v != views.end() ? v->second : DbView{});
    }
  family(o, "hadra_db_info", "gauge", "1 per database, naming it (name, URI)");
  for (const auto& [l, v] : vrows)
    sample(o, "hadra_db_info", l + ",name=\"" + label(v.name) + "\",uri=\"" + label(v.uri) + "\"", 1);
  family(o, "hadra_db_sent_bytes_total", "counter", "payload bytes of the sync messages this side sent, per database");
  for (const auto& [l, v] : vrows) sample(o, "hadra_db_sent_bytes_total", l, static_cast<double>(v.sent_bytes));
  family(o, "hadra_db_applied_bytes_total", "counter",
         "payload bytes of the sync messages this side applied, per database");
  for (const auto& [l, v] : vrows) sample(o, "hadra_db_applied_bytes_total", l, static_cast<double>(v.applied_bytes));
  family(o, "hadra_db_lag_seconds", "gauge",
         "age of the oldest sync message the standby has not applied; absent when not known");
  for (const auto& [l, v] : vrows)
    if (v.lag_ms >= 0) sample(o, "hadra_db_lag_seconds", l, static_cast<double>(v.lag_ms) / 1e3);

  family(o, "hadra_peer_role", "gauge", "1 for the role the peer last said it holds");
  for (int r : {1, 2, 0})
    sample(o, "hadra_peer_role", slot + ",role=\"" + proto::role_name(r) + "\"", peer_ && peer_up() && peer_->role == r);
  family(o, "hadra_peer_rtt_seconds", "gauge", "round-trip time of the peer link; absent when not measured lately");
  if (const uint64_t rtt = link_rtt_ns(); rtt != 0) sample(o, "hadra_peer_rtt_seconds", slot, static_cast<double>(rtt) / 1e9);

  const HistoryState& hs = history_state();
  family(o, "hadra_gsync_duration_seconds", "summary", "gsyncs of this supervisor as the standby, request to end");
  for (const auto& [result, d] : {std::pair<const char*, const Durations*>{"done", &hs.gsync_done}, {"failed", &hs.gsync_failed}}) {
    sample(o, "hadra_gsync_duration_seconds_sum", slot + ",result=\"" + result + "\"", d->sum_s);
    sample(o, "hadra_gsync_duration_seconds_count", slot + ",result=\"" + result + "\"", static_cast<double>(d->count));
  }
  family(o, "hadra_switchover_duration_seconds", "summary",
         "switchovers and takeovers this daemon made, role change to the last service's answer");
  sample(o, "hadra_switchover_duration_seconds_sum", slot, hs.switchover.sum_s);
  sample(o, "hadra_switchover_duration_seconds_count", slot, static_cast<double>(hs.switchover.count));

  family(o, "hadra_gsyncs_total", "counter", "gsyncs ended, by result");
  sample(o, "hadra_gsyncs_total", slot + ",result=\"done\"", static_cast<double>(gsyncs_done_));
  sample(o, "hadra_gsyncs_total", slot + ",result=\"failed\"", static_cast<double>(gsyncs_failed_));
  family(o, "hadra_gsyncs_in_progress", "gauge", "gsyncs running now");
  sample(o, "hadra_gsyncs_in_progress", slot, static_cast<double>(incoming_.size() + outgoing_.size()));
  family(o, "hadra_switchovers_total", "counter", "switchovers and takeovers this daemon made");
  sample(o, "hadra_switchovers_total", slot, static_cast<double>(switchovers_));
  family(o, "hadra_switchover_running", "gauge", "1 while a switchover runs");
  sample(o, "hadra_switchover_running", slot, swo_.running);
  return o;
}

}  // namespace hadra::sysmgrd
