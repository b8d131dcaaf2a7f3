#include "parallel/worker_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

namespace torvale::parallel {

class Pools : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Contexts, Pools, testing::Values(0, 1, 2, 3, 5));

TEST_P(Pools, EveryItemIsDoneOnceAndContextsAreNotShared)
{
  WorkerPool pool(GetParam());
  std::vector<std::atomic<int>> busy(static_cast<std::size_t>(pool.contexts()));
  for (const long items : {0L, 1L, 2L, 7L, 1000L}) {
    std::vector<std::atomic<int>> done(static_cast<std::size_t>(items));
    std::atomic<int> overlaps{0};
    auto kernel = [&](int context, long item) {
      if (busy[static_cast<std::size_t>(context)].exchange(1) != 0) ++overlaps;
      ++done[static_cast<std::size_t>(item)];
      busy[static_cast<std::size_t>(context)] = 0;
    };
    pool.run(items, kernel);
    for (const auto& count : done) EXPECT_EQ(count, 1);
    EXPECT_EQ(overlaps, 0);
  }
}

TEST_P(Pools, ItemsStartInOrder)
{
  WorkerPool pool(GetParam());
  // When an item starts, all lower ones have been dealt: no more of them than contexts can be unfinished.
  std::atomic<long> started{0};
  std::atomic<int> late{0};
  auto kernel = [&](int, long item) {
    if (item > started.fetch_add(1) + pool.contexts()) ++late;
  };
  for (int round = 0; round < 50; ++round) {
    started = 0;
    pool.run(200, kernel);
    ASSERT_EQ(started, 200);
  }
  EXPECT_EQ(late, 0);
}

} // namespace torvale::parallel
