#pragma once
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <memory_resource>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace torvale::host {

// Where arrays with an entry for every row of the data lie: the heap, or a scratch file. Null: the heap.
using RowMemory = std::shared_ptr<std::pmr::memory_resource>;

template <class T> class RowAllocator {
public:
  using value_type = T;
  using propagate_on_container_move_assignment = std::true_type;
  using propagate_on_container_copy_assignment = std::true_type;
  using propagate_on_container_swap = std::true_type;

  RowAllocator() = default;
  explicit RowAllocator(RowMemory memory) : memory_(std::move(memory)) {}
  template <class U> RowAllocator(const RowAllocator<U>& other) : memory_(other.memory()) {}

  T* allocate(std::size_t n)
  {
    if (n > static_cast<std::size_t>(-1) / sizeof(T) / 2) throw std::bad_alloc();
    return static_cast<T*>(resource().allocate(n * sizeof(T), alignof(T)));
  }
  void deallocate(T* at, std::size_t n) { resource().deallocate(at, n * sizeof(T), alignof(T)); }
  const RowMemory& memory() const { return memory_; }
  bool operator==(const RowAllocator& other) const { return memory_ == other.memory_; }

private:
  std::pmr::memory_resource& resource() const { return memory_ ? *memory_ : *std::pmr::new_delete_resource(); }
  RowMemory memory_;
};

template <class T> using RowVector = std::vector<T, RowAllocator<T>>;

// Memory for data that need not fit into memory: pieces of a file without a name in the folder for temporary files,
// mapped into the address space. The system brings blocks of it in when they are used and takes them out when memory
// is short; values and addresses are as in any other memory. Small pieces come from the heap. The file goes with the
// last piece's owner. For several threads.
class ScratchFile final : public std::pmr::memory_resource {
public:
  static constexpr std::size_t smallest = 1 << 20; // bytes from which on pieces lie in the file

  ScratchFile() = default;
  ~ScratchFile() override;
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  std::int64_t size() const { return end_; } // bytes of the file

private:
  void* do_allocate(std::size_t bytes, std::size_t alignment) override; // std::bad_alloc when there is no room
  void do_deallocate(void* at, std::size_t bytes, std::size_t alignment) override;
  bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override { return this == &other; }

  std::mutex lock_;
  int file_ = -1;
  std::int64_t end_ = 0;
  std::map<void*, std::int64_t> places_; // address of a mapped piece -> its place in the file
};

// Bytes of memory that this process may still take: what the system has free, within the limits of the process and of
// its control group. 0 when nothing can be found out.
std::uint64_t free_memory();

std::string bytes_text(double bytes); // "1.3 GB"

} // namespace torvale::host
