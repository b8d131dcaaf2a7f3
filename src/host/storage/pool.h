#pragma once
#include "host/storage/scratch_file.h"
#include <cstddef>
#include <memory>
#include <memory_resource>
#include <new>
#include <span>
#include <string>
#include <type_traits>

namespace torvale::host {

// A memory pool: everything taken from it lives until the pool goes or is released. The lifetime is the run, the BY
// group or one call; there is no way to give back a part. Not for several threads at once.
class Pool {
public:
  static constexpr std::size_t alignment = 64; // of arrays: a cache line, and the widest vector register

  explicit Pool(std::string name, RowMemory memory = {}, std::size_t first_block = 1 << 16)
      : name_(std::move(name)), memory_(std::move(memory)),
        arena_(first_block, memory_ ? memory_.get() : std::pmr::new_delete_resource())
  {
  }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  // n elements, zeroed, 64-byte aligned; an empty span for n = 0. Only for types that need no destructor.
  template <class T> std::span<T> array(std::size_t n)
  {
    static_assert(std::is_trivially_destructible_v<T>);
    if (n == 0) return {};
    if (n > static_cast<std::size_t>(-1) / sizeof(T) / 2) throw std::bad_alloc();
    T* const p = static_cast<T*>(arena_.allocate(n * sizeof(T), alignment));
    std::uninitialized_value_construct_n(p, n);
    taken_ += n * sizeof(T);
    return {p, n};
  }
  std::span<double> doubles(std::size_t n) { return array<double>(n); }

  void release() // all arrays are gone
  {
    arena_.release();
    taken_ = 0;
  }

  const std::string& name() const { return name_; }
  std::size_t taken() const { return taken_; }              // bytes asked for since the last release
  std::pmr::memory_resource* resource() { return &arena_; } // for pmr containers of the same lifetime

private:
  std::string name_;
  RowMemory memory_; // null: the heap
  std::pmr::monotonic_buffer_resource arena_;
  std::size_t taken_ = 0;
};

// xmpoolc: create a pool. (x host, mpool memory pool, c create.)  It is deleted by letting the pointer go (xmpoold).
inline std::unique_ptr<Pool> xmpoolc(std::string name, RowMemory memory = {})
{
  return std::make_unique<Pool>(std::move(name), std::move(memory));
}

} // namespace torvale::host
