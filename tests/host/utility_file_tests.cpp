#include "host/storage/pool.h"
#include "host/storage/utility_file.h"
#include "host/values/missing.h"
#include <gtest/gtest.h>

namespace torvale::host {

TEST(UtilityFile, PositionsAndOverwriting)
{
  UtilityFile file("matrices");
  const double a[] = {1.0, 2.0, 3.0};
  const std::int64_t where = file.position();
  EXPECT_EQ(file.write(std::span<const double>(a)), 0);
  EXPECT_EQ(file.position(), 24);
  double b[3] = {};
  EXPECT_EQ(file.read(std::span<double>(b)), -1); // at the end
  ASSERT_EQ(file.xcpoint(where), 0);
  ASSERT_EQ(file.read(std::span<double>(b)), 0);
  EXPECT_EQ(b[2], 3.0);
  ASSERT_EQ(file.xcpoint(8), 0);
  const double c = 9.0;
  EXPECT_EQ(file.xcwrite(&c, sizeof c), 0); // over what is there
  EXPECT_EQ(file.size(), 24);
  EXPECT_EQ(file.xcpoint(-1), -1);
  EXPECT_EQ(file.xcpoint(25), -1);
  EXPECT_EQ(file.position(), 16);
  EXPECT_EQ(file.xcread(b, 9), -1);
  EXPECT_EQ(file.position(), 16);
}

TEST(Sort, IsStableAndPutsMissingValuesFirst)
{
  std::vector<double> records{2, 1, 1, 2, missing, 3, 1, 4, 2, 5};
  const SortKey key{0, false};
  zsortxo(records, 2, {&key, 1});
  const std::vector<double> seconds{records[1], records[3], records[5], records[7], records[9]};
  EXPECT_EQ(seconds, (std::vector<double>{3, 2, 4, 1, 5}));
  const SortKey keys[] = {{0, true}, {1, true}};
  zsortxo(records, 2, keys);
  const std::vector<double> falling{records[1], records[3], records[5], records[7], records[9]};
  EXPECT_EQ(falling, (std::vector<double>{5, 1, 4, 2, 3}));
}

TEST(Pool, ArraysAreAlignedZeroedAndGoWithTheRelease)
{
  const auto pool = xmpoolc("group");
  for (int round = 0; round < 3; ++round) {
    for (const std::size_t n : {1u, 7u, 8u, 100000u}) {
      const auto values = pool->doubles(n);
      ASSERT_EQ(values.size(), n);
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(values.data()) % Pool::alignment, 0u);
      for (double& x : values) {
        ASSERT_EQ(x, 0.0);
        x = 1.0; // what was released and is taken again must be zeroed again
      }
    }
    EXPECT_EQ(pool->taken(), 8u * (1 + 7 + 8 + 100000));
    EXPECT_TRUE(pool->doubles(0).empty());
    pool->release();
  }
  EXPECT_THROW(pool->doubles(static_cast<std::size_t>(-1) / 9), std::bad_alloc);
}

} // namespace torvale::host
