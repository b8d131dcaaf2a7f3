#include "host/values/missing.h"
#include <gtest/gtest.h>
#include <limits>
#include <vector>

namespace torvale::host {

TEST(Missing, OrderIsUnderscorePointLettersNumbers)
{
  std::vector<double> rising{special_missing('_'), missing};
  for (char c = 'A'; c <= 'Z'; ++c) rising.push_back(special_missing(c));
  rising.push_back(-std::numeric_limits<double>::infinity());
  rising.push_back(-1e300);
  rising.push_back(0.0);
  rising.push_back(5e-324);
  for (std::size_t i = 0; i < rising.size(); ++i)
    for (std::size_t j = 0; j < rising.size(); ++j)
      EXPECT_EQ(compare_values(rising[i], rising[j]), i < j ? -1 : i > j ? 1 : 0) << i << " " << j;
  EXPECT_EQ(compare_values(-0.0, 0.0), 0);
}

TEST(Missing, BitPatternsAndHardwareNaN)
{
  EXPECT_EQ(std::bit_cast<std::uint64_t>(missing), 0xFFFFFE0000000000u);
  EXPECT_EQ(std::bit_cast<std::uint64_t>(special_missing('.')), 0xFFFFFE0000000000u);
  volatile double zero = 0.0; // 0/0 at run time gives the hardware's own NaN
  const double hardware = zero / zero;
  EXPECT_FALSE(wzmis(hardware));
  EXPECT_TRUE(wzmis(canonical_missing(hardware)));
  EXPECT_EQ(missing_letter(canonical_missing(special_missing('q'))), 'Q');
  EXPECT_EQ(compare_values(hardware, missing), 0);
  // A kind survives arithmetic with a number on the left and on the right.
  volatile double one = 1.0, none = missing; // at run time: the compiler folds constant NaNs in its own way
  EXPECT_TRUE(wzmis(one + none));
  EXPECT_TRUE(wzmis(none * one));
}

} // namespace torvale::host
