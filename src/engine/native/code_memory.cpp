#include "engine/native/code_memory.h"

#include <cstring>
#include <mutex>
#include <sys/mman.h>
#include <unistd.h>

namespace torvale::engine {

namespace {

class Mapping {
public:
  Mapping(std::size_t size, int access, int kind, int file)
      : size_(size), at_(mmap(nullptr, size, access, kind, file, 0))
  {
  }
  ~Mapping()
  {
    if (granted()) munmap(at_, size_);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  bool granted() const { return at_ != MAP_FAILED; }
  std::uint8_t* data() const { return static_cast<std::uint8_t*>(at_); }
  std::size_t size() const { return size_; }

private:
  std::size_t size_;
  void* at_;
};

// Memory with two views. Pages that nothing is written to take no memory.
class Chunk {
public:
  static constexpr std::size_t size = std::size_t{1} << 20;

  static std::shared_ptr<Chunk> make()
  {
#if defined(__linux__)
    const int file = memfd_create("code", MFD_CLOEXEC);
    if (file < 0) return nullptr;
    std::shared_ptr<Chunk> chunk;
    if (ftruncate(file, size) == 0) chunk.reset(new Chunk(file));
    close(file);
    if (chunk != nullptr && chunk->written_.granted() && chunk->executed_.granted()) return chunk;
#endif
    return nullptr;
  }

  // Null when there is no room.
  const std::uint8_t* add(std::span<const std::uint8_t> code)
  {
    constexpr std::size_t boundary = 64;
    if (code.size() > size - used_) return nullptr;
    const std::size_t at = used_;
    std::memcpy(written_.data() + at, code.data(), code.size());
    used_ = std::min(size, (at + code.size() + boundary - 1) / boundary * boundary);
    return executed_.data() + at;
  }

private:
  explicit Chunk(int file)
      : written_(size, PROT_READ | PROT_WRITE, MAP_SHARED, file),
        executed_(size, PROT_READ | PROT_EXEC, MAP_SHARED, file)
  {
  }
  Mapping written_, executed_;
  std::size_t used_ = 0;
};

PlacedCode place_alone(std::span<const std::uint8_t> code)
{
  const auto pages = std::make_shared<Mapping>(code.size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1);
  if (!pages->granted()) return {};
  std::memcpy(pages->data(), code.data(), code.size());
  if (mprotect(pages->data(), pages->size(), PROT_READ | PROT_EXEC) != 0) return {};
  return {pages, pages->data()};
}

} // namespace

PlacedCode place_code(std::span<const std::uint8_t> code)
{
  static std::mutex placing;
  static std::weak_ptr<Chunk> last; // kept by the code in it
  static bool refused = false;
  if (code.size() > Chunk::size / 4) return place_alone(code);
  const std::lock_guard<std::mutex> lock(placing);
  std::shared_ptr<Chunk> chunk = last.lock();
  const std::uint8_t* entry = chunk == nullptr ? nullptr : chunk->add(code);
  if (entry == nullptr && !refused) {
    chunk = Chunk::make();
    refused = chunk == nullptr;
    last = chunk;
    entry = refused ? nullptr : chunk->add(code);
  }
  return entry == nullptr ? place_alone(code) : PlacedCode(chunk, entry);
}

} // namespace torvale::engine
