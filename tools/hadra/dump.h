// hadra dump: the records of one store of this supervisor, read in one read-only
// transaction (a consistent view, while the service goes on writing).
#pragma once

#include <string>

namespace hadra::tool {

// Prints every record of the store uri under root; 0, or 1 with one line on stderr.
int dump_store(const std::string& root, const std::string& uri, bool json);

}  // namespace hadra::tool
