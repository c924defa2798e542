// Heap memory that one call of the library owns: freed on every path out of the call.
//
// The library allocates little (the batch buffer, kept for the life of the process, and a
// few per-call blocks on the standby and in list deletes), with malloc so that a failed
// allocation is a null to report rather than an exception. These owners free such a block
// whatever way the call leaves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <type_traits>

namespace hadra {

struct FreeDeleter {
  void operator()(void *p) const noexcept { std::free(p); }
};

template <class T>
using HeapArray = std::unique_ptr<T[], FreeDeleter>;

// count zeroed elements of T (a trivial type), or null when the size does not fit or the
// allocation fails.
template <class T>
HeapArray<T> heap_array(uint64_t count) noexcept {
  static_assert(std::is_trivial_v<T>, "zeroed bytes must be a valid T");
  if (count > SIZE_MAX / sizeof(T)) return HeapArray<T>();
  return HeapArray<T>(static_cast<T *>(std::calloc(count != 0 ? count : 1, sizeof(T))));
}

// A malloc'd block that a C call may replace with a larger one through a void ** (as the
// platform's TLV encoder does): whatever the block is at the end is freed.
class HeapBlock {
 public:
  explicit HeapBlock(size_t size) noexcept : p_(std::malloc(size)) {}
  ~HeapBlock() { std::free(p_); }
  HeapBlock(const HeapBlock &) = delete;
  HeapBlock &operator=(const HeapBlock &) = delete;

  void *get() const noexcept { return p_; }
  void **slot() noexcept { return &p_; }

 private:
  void *p_;
};

}  // namespace hadra
