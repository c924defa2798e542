// Every record of every PSS file, SDB and MSDB under a supervisor root, read back through the
// platform's own read calls, and a comparison of two such dumps.
//
// The dump works on stores at rest: call it in a process that does not have them open for
// writing (the driver of an end-to-end test, after its children ended). It points the
// platform at the root (plat_test_set_root), finds the stores by walking the root's areas,
// reads each one completely, and resets the platform again (plat_test_reset), so the calling
// process may dump several roots one after the other.
//
// What is compared is what a client can observe: per store its URI and kind, and per record
// its key, its value and, for SDBs, the set of its secondary keys with their tags. Internal
// bookkeeping (write generations, creating service, file sizes) is left out on purpose: the
// two supervisors reach the same contents by different sequences of writes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace hadra::pairkit {

using Bytes = std::vector<uint8_t>;

struct Record {
  Bytes key;
  Bytes value;
  std::vector<std::pair<uint32_t, Bytes>> skeys;  // (tag, secondary key), sorted
  bool operator==(const Record&) const = default;
};

struct StoreDump {
  std::string kind;  // "pss" or "sdb"; "unreadable: ..." when the store could not be read
  std::vector<Record> records;  // in key order
  bool operator==(const StoreDump&) const = default;
};

// URI ("<area>:/<path>") -> contents.
using RootDump = std::map<std::string, StoreDump>;

// Dumps every store under root. areas: the top-level directories to look in (the part of a
// URI before ":/"); empty means every area except the platform's own "sock" and "log".
RootDump dump_root(const std::string& root, const std::vector<std::string>& areas = {});

// "" when equal; otherwise a readable account of the first differences (a few lines).
std::string compare_dumps(const RootDump& a, const RootDump& b, const char* name_a = "active",
                          const char* name_b = "standby");

// Number of records over all stores, for checks that a test did not compare empty roots.
size_t record_count(const RootDump& d);

}  // namespace hadra::pairkit
