// A structural check of an SDB environment file before LMDB maps it.
//
// LMDB trusts its files: a page number past the end of a truncated file, a node that claims
// more bytes than its page holds, or an overflow run that reaches past the end makes its read
// path touch memory outside the file (SIGBUS or SIGSEGV); nothing on that path checks. A
// snapshot comes from the other supervisor, so the reader checks the file first.
#pragma once

#include <string>

namespace hadra::plat::sdb {

// True when every page that a read-only walk of the file at path can reach lies in the file
// and has the layout LMDB writes: both meta pages, and from the newer one the main database
// and every named sub-database in it (flags none or MDB_DUPSORT), their branch, leaf and
// overflow pages, and their duplicate sub-pages and sub-trees; no page is reached twice.
// False for anything else, for a file that cannot be read, and for an empty one.
bool lmdb_file_sound(const std::string& path);

}  // namespace hadra::plat::sdb
