// Memory that is missing at one place: what the run does without it, and what it says.

#include "system/session.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

std::size_t refused_size = 0; // the next allocation of this size fails; 0: none

} // namespace

[[gnu::noinline]] void* operator new(std::size_t size)
{
  if (size == refused_size) {
    refused_size = 0;
    throw std::bad_alloc();
  }
  if (void* const p = std::malloc(size)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept
{
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept
{
  std::free(p);
}

namespace torvale::tests {

namespace {

// Without room for the index of the subjects they are taken as they stand in the file, as with NOSORTSUB.
TEST(Memory, SubjectsAreNotSorted)
{
  constexpr int rows = 10007; // a size that nothing else has
  std::string text = "id,y\n";
  for (int i = 0; i < rows; ++i) text += std::to_string(i / 10 % 100) + "," + std::to_string(i % 7) + "\n";
  const TemporaryFile data("unsorted.csv", text);
  const auto fit = [&](const std::string& options, std::size_t refused) {
    const std::string program =
        "TORVALE DATA=unsorted QPOINTS=1 " + options +
        "; PARMS m=3 v=4 vu=0.1; MODEL y ~ NORMAL(m + u, v); RANDOM u ~ NORMAL(0, vu) SUBJECT=id; RUN;";
    refused_size = refused;
    auto run = run_text(program, "examples", 0, {{"unsorted", data.path()}});
    refused_size = 0;
    return run;
  };
  const auto tight = fit("", rows * sizeof(std::int32_t)), asked = fit("NOSORTSUB", 0), roomy = fit("", 0);
  EXPECT_TRUE(tight.said(503, 754)) << tight.log;
  EXPECT_FALSE(tight.said(503, 753)) << tight.log;
  EXPECT_TRUE(roomy.said(503, 753)) << roomy.log;
  EXPECT_FALSE(asked.said(503, 754)) << asked.log;
  EXPECT_EQ(tight.column("ParameterEstimates", "Estimate"), asked.column("ParameterEstimates", "Estimate"));
  EXPECT_EQ(tight.number("Dimensions", "Subjects", "Value"), asked.number("Dimensions", "Subjects", "Value"));
}

} // namespace

} // namespace torvale::tests
