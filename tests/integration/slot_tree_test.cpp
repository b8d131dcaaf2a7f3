// Sums over slots: one order, whatever the workers and the room.

#include "integration/subjects/slot_tree.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace torvale::tests {

namespace {

// The same tree by its definition: blocks of 64, then pairs from below.
double tree_of(const std::vector<double>& x)
{
  std::vector<double> sums;
  for (std::size_t first = 0; first < x.size(); first += 64) {
    double sum = 0.0;
    for (std::size_t k = first; k < std::min(first + 64, x.size()); ++k) sum += x[k];
    sums.push_back(sum);
  }
  while (sums.size() > 1) {
    std::vector<double> upper;
    for (std::size_t k = 0; k < sums.size(); k += 2) upper.push_back(k + 1 < sums.size() ? sums[k] + sums[k + 1] : sums[k]);
    sums = upper;
  }
  return sums.empty() ? 0.0 : sums[0];
}

} // namespace

TEST(SlotTree, OneOrderForAnyWorkersAndWidth)
{
  std::mt19937 random(5);
  std::uniform_real_distribution<double> exponent(-12.0, 12.0);
  for (const long slots : {0L, 1L, 64L, 65L, 700L, 64L * 129 + 5, 300000L}) {
    std::vector<double> x(static_cast<std::size_t>(slots));
    for (double& v : x) v = std::exp(exponent(random)) * (random() % 2 == 0 ? 1.0 : -1.0);
    const double expected = tree_of(x);
    for (const std::size_t width : {std::size_t{1}, std::size_t{3}, std::size_t{20000}}) { // the widest in groups of 64 leaves
      if (width > 3 && slots > 100000) continue;
      const auto add = [&](long first, long last, double* sum) {
        for (long k = first; k < last; ++k)
          for (std::size_t j = 0; j < width; ++j) sum[j] += x[static_cast<std::size_t>(k)];
      };
      for (const int workers : {1, 2, 3}) {
        parallel::WorkerPool pool(workers);
        std::vector<double> room;
        integration::SlotTree tree(room, slots, width);
        const double* const sum = tree.sum(&pool, add);
        EXPECT_EQ(sum[0], expected) << slots << " " << width << " " << workers;
        EXPECT_EQ(sum[width - 1], expected);
      }
    }
  }
}

} // namespace torvale::tests
