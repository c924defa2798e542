#include "history_core.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <set>
#include <tuple>

namespace hadra::sysmgrd::history {

using nlohmann::json;

std::vector<hist::Ring> read_rings(const std::string& root, std::vector<std::string>* skipped) {
  std::vector<hist::Ring> out;
  const std::string dir = root + "/log";
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return out;
  while (const dirent* e = ::readdir(d)) {
    const std::string name = e->d_name;
    if (!name.starts_with("hist-") || !name.ends_with(".ring")) continue;
    const std::string path = dir + "/" + name;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (fd < 0 || ::fstat(fd, &st) != 0 || st.st_size <= 0) {
      if (fd >= 0) ::close(fd);
      if (skipped != nullptr) skipped->push_back(path + ": cannot be read: " + std::strerror(errno));
      continue;
    }
    const size_t size = static_cast<size_t>(st.st_size);
    void* map = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    if (map == MAP_FAILED) {
      if (skipped != nullptr) skipped->push_back(path + ": cannot be mapped: " + std::strerror(errno));
      continue;
    }
    hist::Ring r;
    std::string why;
    if (hist::read_ring(map, size, &r, &why))
      out.push_back(std::move(r));
    else if (skipped != nullptr)
      skipped->push_back(path + ": " + why);
    ::munmap(map, size);
  }
  ::closedir(d);
  return out;
}

std::vector<proto::HistEntry> newest(const std::vector<hist::Ring>& rings, size_t max,
                                     const std::map<uint32_t, std::string>& names) {
  std::vector<proto::HistEntry> all;
  for (const hist::Ring& r : rings)
    for (const hist::Entry& e : r.entries) {
      proto::HistEntry h;
      h.time_ns = e.time_ns, h.seq = e.seq, h.ha_seqno = e.ha_seqno, h.digest = e.digest;
      h.pid = r.pid, h.kind = e.kind, h.sap = e.sap, h.epoch = e.epoch, h.opcode = e.opcode;
      h.uuid = e.uuid != 0 ? e.uuid : r.uuid, h.len = e.len, h.index = e.index;
      h.text = e.text.substr(0, proto::kMaxHistText);
      const auto n = names.find(h.uuid);
      if (n != names.end()) h.service = n->second.substr(0, 255);
      all.push_back(std::move(h));
    }
  std::stable_sort(all.begin(), all.end(), [](const proto::HistEntry& x, const proto::HistEntry& y) {
    return std::tie(x.time_ns, x.pid, x.seq) < std::tie(y.time_ns, y.pid, y.seq);
  });
  if (all.size() > max) all.erase(all.begin(), all.end() - static_cast<std::ptrdiff_t>(max));
  return all;
}

void fit(proto::HistAns* a, size_t limit) {
  size_t size = encode(*a).size();
  while (size > limit && !a->entries.empty()) {
    const size_t drop = std::max<size_t>(1, a->entries.size() / 8);
    a->entries.erase(a->entries.begin(), a->entries.begin() + static_cast<std::ptrdiff_t>(drop));
    size = encode(*a).size();
  }
}

namespace {

const char* kind_name(uint32_t k) {
  switch (k) {
    case hist::kSent: return "sent";
    case hist::kApplied: return "applied";
    default: return "event";
  }
}

std::string hex64(uint64_t v) {
  char b[20];
  std::snprintf(b, sizeof b, "%016" PRIx64, v);
  return b;
}

using StreamKey = std::tuple<uint32_t, uint32_t>;  // sap, epoch

struct Found {
  Divergence d;
  uint64_t time_ns = 0;
};

// The sender side's sent records against the other side's applied ones.
void compare(const Side& sender, const Side& applier, std::optional<Found>* best, uint64_t* compared,
             uint64_t* not_applied) {
  std::map<StreamKey, std::map<uint64_t, const proto::HistEntry*>> sent;
  std::map<StreamKey, std::map<uint64_t, std::vector<const proto::HistEntry*>>> applied;
  for (const proto::HistEntry& e : sender.entries)
    if (e.kind == hist::kSent) sent[{e.sap, e.epoch}][e.ha_seqno] = &e;  // a number given back and taken again: the last
  for (const proto::HistEntry& e : applier.entries)
    if (e.kind == hist::kApplied) applied[{e.sap, e.epoch}][e.ha_seqno].push_back(&e);
  for (const auto& [stream, s] : sent) {
    const auto a = applied.find(stream);
    if (a == applied.end() || s.empty() || a->second.empty()) continue;
    // Only the stretch both rings hold: older numbers may have left one ring, newer ones may
    // still be on their way.
    const uint64_t lo = std::max(s.begin()->first, a->second.begin()->first);
    const uint64_t hi = std::min(s.rbegin()->first, a->second.rbegin()->first);
    if (lo > hi) continue;
    std::set<uint64_t> numbers;
    for (auto it = s.lower_bound(lo); it != s.end() && it->first <= hi; ++it) numbers.insert(it->first);
    for (auto it = a->second.lower_bound(lo); it != a->second.end() && it->first <= hi; ++it) numbers.insert(it->first);
    for (const uint64_t n : numbers) {
      const auto si = s.find(n);
      const auto ai = a->second.find(n);
      ++*compared;
      Divergence d;
      const proto::HistEntry* one = si != s.end() ? si->second : ai->second.front();
      d.sap = std::get<0>(stream), d.epoch = std::get<1>(stream), d.ha_seqno = n;
      d.uuid = one->uuid, d.index = one->index, d.service = one->service;
      d.sender_slot = sender.slot, d.applier_slot = applier.slot;
      if (si != s.end()) d.sent = *si->second;
      if (si == s.end()) {
        d.what = "applied, never sent";
        d.applied = *ai->second.front();
      } else if (ai == a->second.end()) {
        // Not a disagreement: messages a gsync's snapshot already held are dropped, not
        // applied, and a message the standby missed is its own to notice (a gap puts it out of
        // sync and brings a resend or a gsync).
        --*compared;
        ++*not_applied;
        continue;
      } else {
        const auto other = std::find_if(ai->second.begin(), ai->second.end(), [&](const proto::HistEntry* x) {
          return x->digest != si->second->digest || x->len != si->second->len;
        });
        if (other == ai->second.end()) continue;
        d.what = "payload differs";
        d.applied = **other;
      }
      const uint64_t t = one->time_ns;
      if (!*best || t < (*best)->time_ns) *best = Found{std::move(d), t};
      break;  // later numbers of this stream come after the first
    }
  }
}

}  // namespace

std::string printable(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (const unsigned char c : s) {
    if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      char b[8];
      std::snprintf(b, sizeof b, "\\x%02x", c);
      out += b;
    }
  }
  return out;
}

json entry_json(int slot, const proto::HistEntry& e) {
  json j{{"slot", slot}, {"time_ns", e.time_ns}, {"kind", kind_name(e.kind)}, {"pid", e.pid}, {"uuid", e.uuid},
         {"service", printable(e.service)}};
  if (e.kind == hist::kEvent) {
    j["event"] = e.opcode;
    j["text"] = printable(e.text);
  } else {
    j["sap"] = e.sap, j["epoch"] = e.epoch, j["ha_seqno"] = e.ha_seqno, j["db"] = e.index;
    j["opcode"] = e.opcode, j["bytes"] = e.len, j["digest"] = hex64(e.digest);
  }
  return j;
}

json merged(const Side& a, const Side& b) {
  std::vector<std::pair<int, const proto::HistEntry*>> all;
  for (const Side* s : {&a, &b})
    for (const proto::HistEntry& e : s->entries) all.emplace_back(s->slot, &e);
  std::stable_sort(all.begin(), all.end(), [](const auto& x, const auto& y) {
    return std::tie(x.second->time_ns, x.first, x.second->seq) < std::tie(y.second->time_ns, y.first, y.second->seq);
  });
  json out = json::array();
  for (const auto& [slot, e] : all) out.push_back(entry_json(slot, *e));
  return out;
}

std::optional<Divergence> first_divergence(const Side& a, const Side& b, uint64_t* compared, uint64_t* not_applied) {
  std::optional<Found> best;
  uint64_t n = 0, missing = 0;
  compare(a, b, &best, &n, &missing);
  compare(b, a, &best, &n, &missing);
  if (compared != nullptr) *compared = n;
  if (not_applied != nullptr) *not_applied = missing;
  if (!best) return std::nullopt;
  return std::move(best->d);
}

json divergence_json(const std::optional<Divergence>& d, uint64_t compared, uint64_t not_applied) {
  json j{{"found", d.has_value()}, {"compared", compared}, {"not_applied", not_applied}};
  if (!d) return j;
  j["what"] = d->what;
  j["sap"] = d->sap, j["epoch"] = d->epoch, j["ha_seqno"] = d->ha_seqno, j["db"] = d->index;
  j["uuid"] = d->uuid, j["service"] = printable(d->service);
  j["sender_slot"] = d->sender_slot, j["applier_slot"] = d->applier_slot;
  if (d->sent) j["sent"] = entry_json(d->sender_slot, *d->sent);
  if (d->applied) j["applied"] = entry_json(d->applier_slot, *d->applied);
  return j;
}

}  // namespace hadra::sysmgrd::history
