#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

namespace torvale::host {

// A utility file: bytes written once and read back at noted positions, kept in memory. Positions are byte offsets from
// 0; -1 is never a position. Reads and writes move on from the position that xcpoint sets.
class UtilityFile {
public:
  explicit UtilityFile(std::string name) : name_(std::move(name)) {}

  std::int64_t position() const { return static_cast<std::int64_t>(position_); }
  std::int64_t size() const { return static_cast<std::int64_t>(bytes_.size()); }
  const std::string& name() const { return name_; }

  // xcpoint: move to a position. 0, or -1 when it lies outside the file (the position is unchanged).
  int xcpoint(std::int64_t position);

  // xcwrite: write at the position, over what is there or behind the end. Always 0.
  int xcwrite(const void* data, std::size_t bytes);

  // xcread: read exactly that many bytes. 0, or -1 when the file ends before (nothing is read).
  int xcread(void* data, std::size_t bytes);

  template <class T> int write(std::span<const T> values)
  {
    static_assert(std::is_trivially_copyable_v<T>);
    return xcwrite(values.data(), values.size_bytes());
  }
  template <class T> int read(std::span<T> values)
  {
    static_assert(std::is_trivially_copyable_v<T>);
    return xcread(values.data(), values.size_bytes());
  }

private:
  std::string name_;
  std::vector<std::byte> bytes_;
  std::size_t position_ = 0;
};

// A sort key of a record of doubles.
struct SortKey {
  std::size_t field = 0;   // index of the double in the record
  bool descending = false; // largest first; missing values last then
};

// zsortxo: sort records of `width` doubles by keys, stable, missing values below numbers.
void zsortxo(std::span<double> records, std::size_t width, std::span<const SortKey> keys);

} // namespace torvale::host
