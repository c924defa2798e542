// A structural check of an LMDB file before LMDB maps it.
//
// LMDB trusts its files: a page number past the end of a truncated file, a node that claims
// more bytes than its page holds, or an overflow run that reaches past the end makes its read
// path touch memory outside the file (SIGBUS or SIGSEGV); nothing on that path checks. Files
// that come from the other supervisor (SDB snapshots, shipped PSS copies) are checked first.
#pragma once

#include <string>

namespace hadra::plat {

// True when every page that a walk of the file at path can reach lies in the file and has
// the layout LMDB writes: both meta pages, and from the newer one the main database and every
// named sub-database in it (flags none or MDB_DUPSORT), their branch, leaf and overflow pages,
// their duplicate sub-pages and sub-trees, and the free database with the pages it lists for
// reuse; no page is reached twice.
// False for anything else, for a file that cannot be read, and for an empty one.
bool lmdb_file_sound(const std::string& path);

// True when the file at path starts with LMDB's first meta page marker. LMDB refuses a file
// without it on its own (it reads the header before mapping anything), so only files that
// pass this need lmdb_file_sound to tell a damaged store from a sound one.
bool lmdb_file_marked(const std::string& path);

}  // namespace hadra::plat
