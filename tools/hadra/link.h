// The tool's link to the daemon of its supervisor: one command, one JSON answer, a bounded
// wait. No daemon, no answer in time, a malformed answer: a result that says which.
#pragma once

#include <nlohmann/json.hpp>
#include <functional>
#include <string>

#include "sysmgr/proto.h"

namespace hadra::tool {

struct Answer {
  int exit = 0;          // 0 done; 1 refused or failed; 3 no daemon or no answer
  std::string error;     // one line when exit != 0
  nlohmann::json body;   // the daemon's JSON answer (may carry "error")
};

// true when a daemon holds the lock of root.
bool daemon_running(const std::string& root);

Answer send_command(const std::string& root, hadra::plat::sysmgr::proto::Cmd cmd, const std::string& arg,
                    int timeout_ms);

// As send_command, for a command the daemon answers only when it is over: every every_ms
// while waiting, the daemon's status is asked for on the same link and handed to on_status
// (a status answer is told from the command's by its status 0 and the absence of result_key).
Answer send_command_watching(const std::string& root, hadra::plat::sysmgr::proto::Cmd cmd, const std::string& arg,
                             int timeout_ms, const char* result_key, int every_ms,
                             const std::function<void(const nlohmann::json&)>& on_status);

}  // namespace hadra::tool
