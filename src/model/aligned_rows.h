#pragma once
// Arrays of doubles that begin where the widest vectors may: none of those that are read or added to straddles two
// lines of the caches.

#include <cstddef>
#include <new>
#include <vector>

namespace torvale::model {

template <class T> struct AlignedAllocator {
  using value_type = T;
  static constexpr std::align_val_t alignment{64};
  AlignedAllocator() = default;
  template <class Other> AlignedAllocator(const AlignedAllocator<Other>&) {}
  T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T), alignment)); }
  void deallocate(T* at, std::size_t) { ::operator delete(at, alignment); }
  template <class Other> bool operator==(const AlignedAllocator<Other>&) const { return true; }
};

using AlignedRows = std::vector<double, AlignedAllocator<double>>;

} // namespace torvale::model
