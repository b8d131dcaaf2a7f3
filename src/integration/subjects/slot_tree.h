#pragma once
// The one order in which numbers of slots are added up: blocks of 64 slots in their order, then pairs of blocks
// upwards; a block without a neighbour goes up as it is. It depends on the number of slots alone, so that any number of
// workers may sum the blocks, each whichever it gets.

#include "parallel/worker_pool.h"

#include <algorithm>
#include <bit>
#include <vector>

namespace torvale::integration {

class SlotTree {
public:
  // Room for sums of `width` numbers over `slots` slots; grows only.
  SlotTree(std::vector<double>& room, long slots, std::size_t width)
      : room_(room), slots_(slots), width_(static_cast<long>(width)),
        leaves_(std::max(1L, (slots + leaf_slots - 1) / leaf_slots))
  {
    const auto fitting = static_cast<unsigned long>(std::clamp(most_room / width_, 64L, leaves_));
    group_ = static_cast<long>(std::bit_ceil(fitting));
    const auto size = static_cast<std::size_t>((group_ + most_levels) * width_);
    if (room_.size() < size) room_.resize(size);
  }

  // add(first, last, sum) adds the numbers of the slots first..last-1 to `sum`, in their order, on any worker. Returns
  // the sums. Null workers: serial.
  template <class Add> const double* sum(parallel::WorkerPool* workers, Add&& add)
  {
    double* const upper = room_.data() + group_ * width_; // sums of 1, 2, 4, ... groups that wait for a neighbour
    unsigned long done = 0;                               // groups: its bits say which sums wait
    for (long first = 0; first < leaves_; first += group_) {
      const long count = std::min(group_, leaves_ - first);
      auto leaf = [&](int, long k) {
        double* const to = room_.data() + k * width_;
        std::fill_n(to, width_, 0.0);
        add((first + k) * leaf_slots, std::min(slots_, (first + k + 1) * leaf_slots), to);
      };
      if (workers != nullptr && count >= leaves_worth_workers)
        workers->run(count, leaf);
      else
        for (long k = 0; k < count; ++k) leaf(0, k);
      join_pairs(count);
      int level = 0;
      for (; ((done >> level) & 1U) != 0; ++level) join(upper + level * width_);
      std::copy_n(room_.data(), width_, upper + level * width_);
      ++done;
    }
    // What is left without a neighbour, from the smallest up.
    std::copy_n(upper + std::countr_zero(done) * width_, width_, room_.data());
    for (int level = std::countr_zero(done) + 1; (done >> level) != 0; ++level)
      if (((done >> level) & 1U) != 0) join(upper + level * width_);
    return room_.data();
  }

private:
  static constexpr long leaf_slots = 64, leaves_worth_workers = 64;
  static constexpr long most_room = 1L << 20; // doubles: a group has fewer leaves where sums are wide
  static constexpr int most_levels = 40;

  void join_pairs(long count)
  {
    for (long step = 1; step < count; step *= 2)
      for (long k = 0; k + step < count; k += 2 * step) {
        double* const to = room_.data() + k * width_;
        for (long j = 0; j < width_; ++j) to[j] += to[step * width_ + j];
      }
  }
  void join(const double* earlier)
  {
    for (long j = 0; j < width_; ++j)
      room_[static_cast<std::size_t>(j)] = earlier[j] + room_[static_cast<std::size_t>(j)];
  }

  std::vector<double>& room_;
  long slots_, width_, leaves_, group_ = 0; // group_: leaves that are summed at once, a power of two
};

} // namespace torvale::integration
