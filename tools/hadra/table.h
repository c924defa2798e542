// What hadra prints for people: the status table and the verify report, from the daemon's
// JSON answers.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace hadra::tool {

// One row per service and database: sequence numbers sent and applied on each side, the lag
// in messages and whether the standby is behind. colour: ANSI colours (a terminal only).
std::string status_table(const nlohmann::json& status, bool colour);

// The merged history of the daemon's answer to `history`, one line per record, then what
// --diverge found.
std::string history_report(const nlohmann::json& answer);

std::string verify_report(const nlohmann::json& result);

}  // namespace hadra::tool
