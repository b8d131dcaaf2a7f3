#include "host/storage/utility_file.h"
#include "host/values/missing.h"
#include <algorithm>
#include <cassert>
#include <cstring>
#include <numeric>

namespace torvale::host {

int UtilityFile::xcpoint(std::int64_t position)
{
  if (position < 0 || position > size()) return -1;
  position_ = static_cast<std::size_t>(position);
  return 0;
}

int UtilityFile::xcwrite(const void* data, std::size_t bytes)
{
  if (bytes == 0) return 0;
  if (position_ + bytes > bytes_.size()) bytes_.resize(position_ + bytes);
  std::memcpy(bytes_.data() + position_, data, bytes);
  position_ += bytes;
  return 0;
}

int UtilityFile::xcread(void* data, std::size_t bytes)
{
  if (bytes > bytes_.size() - position_) return -1;
  if (bytes > 0) std::memcpy(data, bytes_.data() + position_, bytes);
  position_ += bytes;
  return 0;
}

void zsortxo(std::span<double> records, std::size_t width, std::span<const SortKey> keys)
{
  assert(width > 0 && records.size() % width == 0);
  std::vector<std::size_t> order(records.size() / width);
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    for (const SortKey& key : keys) {
      const int c = compare_values(records[a * width + key.field], records[b * width + key.field]);
      if (c != 0) return key.descending ? c > 0 : c < 0;
    }
    return false;
  });
  std::vector<double> sorted;
  sorted.reserve(records.size());
  for (const std::size_t r : order)
    sorted.insert(sorted.end(), records.begin() + static_cast<std::ptrdiff_t>(r * width),
                  records.begin() + static_cast<std::ptrdiff_t>((r + 1) * width));
  std::copy(sorted.begin(), sorted.end(), records.begin());
}

} // namespace torvale::host
