// What every benchmark program sets up first: a platform of its own under a scratch root.
#pragma once

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>

#include "hadra/hadra.h"
#include "hadra_platform_testing.h"

namespace hadra::bench {

// A scratch platform root for one benchmark run: the platform reset onto it, the supervisor
// active, the library's handle on sap and opcode, and the debug switches off, so that
// nothing is formatted while measuring. Reset and removed, with all that the run stored,
// when the object goes; a fixture holds it as its first member so that it goes last.
class ScratchRoot {
 public:
  ScratchRoot(uint32_t sap, uint32_t opcode) {
    char tmpl[] = "/tmp/hadra-bench-XXXXXX";
    root_ = mkdtemp(tmpl) != nullptr ? tmpl : "";
    plat_test_reset();
    plat_test_set_root(root_.c_str());
    plat_test_sysmgr_set_supstate(HADRA_SUP_ACTIVE);
    hadra_ha_handle.sap = sap;
    hadra_ha_handle.opcode = opcode;
    hadra_ha_disable_debug();
    hadra_sdwrap_dbg_elem_set(0, nullptr);
  }
  ~ScratchRoot() {
    plat_test_reset();
    std::error_code ec;
    if (!root_.empty()) std::filesystem::remove_all(root_, ec);
  }
  ScratchRoot(const ScratchRoot&) = delete;
  ScratchRoot& operator=(const ScratchRoot&) = delete;

 private:
  std::string root_;
};

}  // namespace hadra::bench
