#include "host/storage/row_heap.h"
#include <sys/mman.h>

namespace torvale::host {

namespace {

class RowHeap final : public std::pmr::memory_resource {
private:
  static constexpr std::size_t large_page = 1 << 21;

  // The same when a piece is taken and given back.
  static std::size_t aligned(std::size_t bytes, std::size_t alignment)
  {
    return bytes < 2 * large_page ? alignment : large_page;
  }
  void* do_allocate(std::size_t bytes, std::size_t alignment) override
  {
    void* const at = std::pmr::new_delete_resource()->allocate(bytes, aligned(bytes, alignment));
#ifdef MADV_HUGEPAGE
    if (bytes >= 2 * large_page) ::madvise(at, bytes / large_page * large_page, MADV_HUGEPAGE); // a wish
#endif
    return at;
  }
  void do_deallocate(void* at, std::size_t bytes, std::size_t alignment) override
  {
    std::pmr::new_delete_resource()->deallocate(at, bytes, aligned(bytes, alignment));
  }
  bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override
  {
    return this == &other;
  }
};

} // namespace

RowMemory row_heap()
{
  static const RowMemory heap = std::make_shared<RowHeap>();
  return heap;
}

} // namespace torvale::host
