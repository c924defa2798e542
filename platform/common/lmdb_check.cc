// The structural check of an LMDB file (lmdb_check.h).
//
// LMDB keeps its structures in host byte order with pointer-sized page numbers (W bytes):
//
//   page      W pgno, u16 pad, u16 flags, u16 lower, u16 upper (overflow: u32 page count),
//             then the u16 node offsets up to `lower`; the nodes live between `upper` and the
//             page's end
//   node      u16 lo, u16 hi (data size; in a branch the child page, with flags as its top
//             bits), u16 flags, u16 key size, the key, then the data
//   database  u32 pad, u16 flags, u16 depth, W branch, W leaf, W overflow, W entries, W root
//   meta      (after a page header) u32 magic, u32 version, W address, W map size, the free
//             and main databases (the free one's pad is the page size), W last page, W txn id
//
// A reader uses the meta page with the larger transaction id (meta 0 on a tie) and reaches
// the pages below it; a writer also reuses the pages its free database lists. The check walks
// exactly those, holds every node to its page and every page to one use: a file that passes
// can be read and written by LMDB without leaving the file or overwriting a live page.
#include "common/lmdb_check.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace hadra::plat {
namespace {

constexpr size_t W = sizeof(size_t);
constexpr size_t kPageHdr = W + 8;
constexpr size_t kNodeHdr = 8;
constexpr size_t kDbSize = 8 + 5 * W;
constexpr size_t kMetaSize = 8 + 2 * W + 2 * kDbSize + 2 * W;
constexpr uint32_t kMagic = 0xBEEFC0DEu;
constexpr uint32_t kDataVersion = 1;
constexpr uint64_t kNoPage = ~uint64_t{0} >> (64 - 8 * W);
constexpr int kMaxDepth = 32;  // LMDB's cursor stack: a deeper tree is refused by it anyway

enum : uint16_t { kBranch = 0x01, kLeaf = 0x02, kOverflow = 0x04, kMeta = 0x08, kLeaf2 = 0x20, kSubPage = 0x40 };
constexpr uint16_t kTypeBits = kBranch | kLeaf | kOverflow | kMeta | kLeaf2 | kSubPage;
enum : uint16_t { kBigData = 0x01, kSubData = 0x02, kDupData = 0x04 };

template <class T>
T rd(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
uint64_t rd_word(const uint8_t* p) { return W == 8 ? rd<uint64_t>(p) : rd<uint32_t>(p); }

struct DbRec {
  uint16_t flags = 0;
  uint64_t root = kNoPage;
};
DbRec db_at(const uint8_t* p) { return DbRec{rd<uint16_t>(p + 4), rd_word(p + 8 + 4 * W)}; }

// Where a tree hangs: the main database (its leaves name the sub-databases), a named
// sub-database, the duplicates of one key (keys only), or the free-page database (its leaves
// list pages that earlier transactions freed, which a writer will reuse).
enum class Kind { kMain, kNamed, kDups, kFree };

struct Node {
  uint16_t flags, ksize;
  uint64_t lo_hi;       // data size, or in a branch the child page's low 32 bits
  const uint8_t* data;  // after the key
  size_t room;          // bytes from data to the end of the page
};

class Checker {
 public:
  Checker(const uint8_t* file, size_t size) : f_(file), size_(size) {}
  bool run();

 private:
  bool read_meta(size_t at, uint64_t* txnid, uint64_t* last, DbRec* free, DbRec* main);
  const uint8_t* claim(uint64_t pgno, uint64_t count);
  bool tree(const DbRec& db, Kind kind);
  bool page(uint64_t pgno, int depth, Kind kind, bool dupsort);
  static long node_count(const uint8_t* pg, size_t size, uint16_t want);
  static bool node_at(const uint8_t* pg, size_t size, long i, Node* n);
  bool leaf_node(const Node& n, Kind kind, bool dupsort);
  bool sub_page(const Node& n);
  bool overflow(const Node& n);
  bool free_list(const uint8_t* ids, uint64_t size);

  const uint8_t* f_;
  size_t size_;
  size_t psize_ = 0;
  uint64_t npages_ = 0;
  std::vector<bool> seen_;
};

bool Checker::read_meta(size_t at, uint64_t* txnid, uint64_t* last, DbRec* free, DbRec* main) {
  if (size_ < at || size_ - at < kPageHdr + kMetaSize) return false;
  const uint8_t* pg = f_ + at;
  const uint8_t* m = pg + kPageHdr;
  if ((rd<uint16_t>(pg + W + 2) & kMeta) == 0 || rd<uint32_t>(m) != kMagic || rd<uint32_t>(m + 4) != kDataVersion)
    return false;
  uint32_t psize = rd<uint32_t>(m + 8 + 2 * W);
  if (psize < 512 || psize > 32768 || !std::has_single_bit(psize) || (psize_ != 0 && psize != psize_)) return false;
  psize_ = psize;
  *free = db_at(m + 8 + 2 * W);
  *main = db_at(m + 8 + 2 * W + kDbSize);
  *last = rd_word(m + 8 + 2 * W + 2 * kDbSize);
  *txnid = rd_word(m + 8 + 3 * W + 2 * kDbSize);
  return true;
}

bool Checker::run() {
  uint64_t txn[2], last[2];
  DbRec free[2], main[2];
  if (!read_meta(0, &txn[0], &last[0], &free[0], &main[0]) ||
      !read_meta(psize_, &txn[1], &last[1], &free[1], &main[1]))
    return false;
  int use = txn[1] > txn[0] ? 1 : 0;
  if (last[use] < 1 || last[use] >= size_ / psize_) return false;  // a truncated file ends here
  npages_ = last[use] + 1;
  seen_.assign(npages_, false);
  seen_[0] = seen_[1] = true;
  // A writer reuses the pages the free database lists: they must lie in the file and be
  // apart from every page the trees reach, or a write would overwrite live pages.
  return main[use].flags == 0 && tree(main[use], Kind::kMain) && (free[use].flags & MDB_INTEGERKEY) != 0 &&
         tree(free[use], Kind::kFree);
}

// The count pages from pgno, each reached for the first time; null otherwise.
const uint8_t* Checker::claim(uint64_t pgno, uint64_t count) {
  if (count == 0 || pgno >= npages_ || count > npages_ - pgno) return nullptr;
  for (uint64_t p = pgno; p < pgno + count; ++p) {
    if (seen_[p]) return nullptr;
    seen_[p] = true;
  }
  return f_ + pgno * psize_;
}

bool Checker::tree(const DbRec& db, Kind kind) {
  return db.root == kNoPage || page(db.root, 0, kind, (db.flags & MDB_DUPSORT) != 0);
}

// Nodes of a page of size bytes whose type bits are want: at least one, offsets in bounds.
long Checker::node_count(const uint8_t* pg, size_t size, uint16_t want) {
  if (size < kPageHdr || (rd<uint16_t>(pg + W + 2) & kTypeBits) != want) return -1;
  size_t lower = rd<uint16_t>(pg + W + 4), upper = rd<uint16_t>(pg + W + 6);
  if (lower <= kPageHdr || lower > upper || upper > size || (lower - kPageHdr) % 2 != 0) return -1;
  return static_cast<long>((lower - kPageHdr) / 2);
}

bool Checker::node_at(const uint8_t* pg, size_t size, long i, Node* n) {
  size_t off = rd<uint16_t>(pg + kPageHdr + 2 * static_cast<size_t>(i));
  if (off < kPageHdr || off > size || size - off < kNodeHdr) return false;
  const uint8_t* p = pg + off;
  uint16_t lo = rd<uint16_t>(p), hi = rd<uint16_t>(p + 2);
  if constexpr (std::endian::native == std::endian::big) std::swap(lo, hi);
  n->lo_hi = lo | (uint64_t{hi} << 16);
  n->flags = rd<uint16_t>(p + 4);
  n->ksize = rd<uint16_t>(p + 6);
  size_t room = size - off - kNodeHdr;
  if (n->ksize > room) return false;
  n->data = p + kNodeHdr + n->ksize;
  n->room = room - n->ksize;
  return true;
}

bool Checker::page(uint64_t pgno, int depth, Kind kind, bool dupsort) {
  const uint8_t* pg = depth < kMaxDepth ? claim(pgno, 1) : nullptr;
  if (pg == nullptr) return false;
  bool branch = (rd<uint16_t>(pg + W + 2) & kTypeBits) == kBranch;
  long count = node_count(pg, psize_, branch ? kBranch : kLeaf);
  if (count < 1) return false;
  for (long i = 0; i < count; ++i) {
    Node n;
    if (!node_at(pg, psize_, i, &n)) return false;
    if (!branch) {
      if (!leaf_node(n, kind, dupsort)) return false;
      continue;
    }
    uint64_t child = W > 4 ? n.lo_hi | (uint64_t{n.flags} << 32) : n.lo_hi;
    if (!page(child, depth + 1, kind, dupsort)) return false;
  }
  return true;
}

bool Checker::leaf_node(const Node& n, Kind kind, bool dupsort) {
  if (kind == Kind::kFree) {  // a transaction id, then its freed pages inline or in an overflow run
    if (n.ksize != W) return false;
    if (n.flags == 0) return n.lo_hi <= n.room && free_list(n.data, n.lo_hi);
    return n.flags == kBigData && overflow(n) && free_list(f_ + rd_word(n.data) * psize_ + kPageHdr, n.lo_hi);
  }
  switch (n.flags) {
    case 0:
      return kind == Kind::kDups ? n.lo_hi == 0 : n.lo_hi <= n.room;
    case kBigData:
      return kind != Kind::kDups && overflow(n);
    case kSubData: {  // a named sub-database, only in the main database
      if (kind != Kind::kMain || n.lo_hi != kDbSize || n.room < kDbSize) return false;
      DbRec db = db_at(n.data);
      return (db.flags == 0 || db.flags == MDB_DUPSORT) && tree(db, Kind::kNamed);
    }
    case kDupData:  // the key's values in a page of their own inside the node
      return kind == Kind::kNamed && dupsort && sub_page(n);
    case kDupData | kSubData: {  // the key's values in a tree of their own
      if (kind != Kind::kNamed || !dupsort || n.lo_hi != kDbSize || n.room < kDbSize) return false;
      DbRec db = db_at(n.data);
      return db.flags == 0 && tree(db, Kind::kDups);
    }
    default:
      return false;
  }
}

bool Checker::sub_page(const Node& n) {
  if (n.lo_hi > n.room) return false;
  size_t size = static_cast<size_t>(n.lo_hi);
  long count = node_count(n.data, size, kLeaf | kSubPage);
  if (count < 1) return false;
  for (long i = 0; i < count; ++i) {
    Node v;
    if (!node_at(n.data, size, i, &v) || v.flags != 0 || v.lo_hi != 0) return false;
  }
  return true;
}

bool Checker::overflow(const Node& n) {
  if (n.room < W) return false;
  uint64_t pgno = rd_word(n.data);
  if (pgno >= npages_) return false;
  const uint8_t* first = f_ + pgno * psize_;
  uint32_t pages = rd<uint32_t>(first + W + 4);
  if ((rd<uint16_t>(first + W + 2) & kTypeBits) != kOverflow || claim(pgno, pages) == nullptr) return false;
  return kPageHdr + n.lo_hi <= uint64_t{pages} * psize_;
}

// A list of freed pages: its length, then that many page numbers, each a page of its own.
bool Checker::free_list(const uint8_t* ids, uint64_t size) {
  if (size < W || size % W != 0 || rd_word(ids) != size / W - 1) return false;
  for (uint64_t i = 1; i < size / W; ++i)
    if (claim(rd_word(ids + i * W), 1) == nullptr) return false;
  return true;
}

// The file mapped for reading, unmapped when done.
struct Mapping {
  const uint8_t* p = nullptr;
  size_t size = 0;
  ~Mapping() {
    if (p != nullptr) ::munmap(const_cast<uint8_t*>(p), size);
  }
};

}  // namespace

LmdbFile lmdb_file_check(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return LmdbFile::kForeign;
  struct stat st;
  Mapping m;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
    void* p = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    if (p != MAP_FAILED) {
      m.p = static_cast<const uint8_t*>(p);
      m.size = static_cast<size_t>(st.st_size);
    }
  }
  ::close(fd);
  if (m.p == nullptr || m.size < kPageHdr + 4 || rd<uint32_t>(m.p + kPageHdr) != kMagic) return LmdbFile::kForeign;
  return Checker(m.p, m.size).run() ? LmdbFile::kSound : LmdbFile::kDamaged;
}

}  // namespace hadra::plat
