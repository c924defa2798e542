// A structural check of an LMDB file before LMDB maps it.
//
// LMDB trusts its files: a page number past the end of a truncated file, a node that claims
// more bytes than its page holds, or an overflow run that reaches past the end makes its read
// path touch memory outside the file (SIGBUS or SIGSEGV); nothing on that path checks. Files
// that come from the other supervisor (SDB snapshots, shipped PSS copies) are checked first.
#pragma once

#include <string>

namespace hadra::plat {

// What a check of the file at path finds:
//  kForeign  not an LMDB file (no meta marker at its start), or a file that cannot be read:
//            LMDB refuses such a file on its own, reading its header before mapping anything;
//  kSound    every page that a walk can reach lies in the file and has the layout LMDB writes:
//            both meta pages, and from the newer one the main database and every named
//            sub-database in it (flags none or MDB_DUPSORT), their branch, leaf and overflow
//            pages, their duplicate sub-pages and sub-trees, and the free database with the
//            pages it lists for reuse; no page is reached twice;
//  kDamaged  an LMDB file that is anything less.
enum class LmdbFile { kForeign, kSound, kDamaged };
LmdbFile lmdb_file_check(const std::string& path);

}  // namespace hadra::plat
