// The system-manager daemons of a two-supervisor run: starting and stopping hadra-sysmgrd
// for a supervisor of a base directory, and its command interface from the driver.
//
// The daemon binary is the one built with this kit, or the one named by HADRA_SYSMGRD.
// Every wait is bounded.
#pragma once

#include <sys/types.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace hadra::pairkit {

std::string sysmgrd_path();

// Runs every later process of supervisor slot (its daemon, its commands, the children spawn()
// makes for it) in the network namespace name (as made by "ip netns add"; "" for the
// driver's own), and gives its daemon and commands the platform keys of settings (e.g. tcp
// transport addresses). For the two-hosts runs.
void use_netns(int slot, const std::string& name,
               const std::vector<std::pair<std::string, std::string>>& settings = {});
// Enters the namespace set for slot, if any; false when it cannot be entered.
bool enter_netns(int slot);

// Starts the daemon of supervisor slot under base (root <base>/sup<slot>) with supstate as its
// first role and the further platform keys of extra; waits until it answers a status command
// (at most timeout_ms). The pid, or -1 with *why.
pid_t start_daemon(const std::string& base, int slot, const std::string& supstate,
                   const std::vector<std::pair<std::string, std::string>>& extra, int timeout_ms, std::string* why);

// Sends command (status, switchover, takeover, gsync, config-save) to the daemon of slot;
// its JSON answer in *out. The command's exit status (0 done, 1 refused, 3 no daemon), or -1
// when it could not be run.
int daemon_command(const std::string& base, int slot, const std::string& command, nlohmann::json* out,
                   const std::string& arg = "");

// Asks for status until pred holds (true) or timeout_ms passes (false); *last gets the last
// status seen.
bool wait_status(const std::string& base, int slot, const std::function<bool(const nlohmann::json&)>& pred,
                 int timeout_ms, nlohmann::json* last = nullptr);

// SIGTERM, then waits at most timeout_ms (SIGKILL at the deadline). The exit status, or -1
// when the daemon had to be killed.
int stop_daemon(pid_t pid, int timeout_ms);

}  // namespace hadra::pairkit
