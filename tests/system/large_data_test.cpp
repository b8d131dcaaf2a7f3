// Data beyond memory: the scratch file gives the bits of memory, and what does not fit is told before it is read.

#include "system/session.h"

#include <gtest/gtest.h>

namespace torvale::tests {

namespace {

// 300,000 records of 30,000 subjects: more than one block of the reader: columns of more than a megabyte lie in the scratch file.
const TemporaryFile& records()
{
  static const TemporaryFile file = [] {
    std::string text = "id,x,site,y\n";
    unsigned state = 1;
    double effect = 0.0;
    for (int i = 0; i < 300000; ++i) {
      state = 1664525u * state + 1013904223u;
      const double noise = static_cast<double>(state >> 8) / 16777216.0 - 0.5;
      if (i % 10 == 0) effect = 2.0 * noise;
      text += std::to_string(i / 10) + "," + std::to_string(i % 7) + (i % 3 == 0 ? ",a," : ",b,") +
              std::to_string(1.0 + 0.5 * (i % 7) + effect + noise) + "\n";
    }
    return TemporaryFile("records.csv", text);
  }();
  return file;
}

Run fit(const std::string& options, std::uint64_t memory = 0)
{
  const std::string program =
      "TORVALE DATA=records QPOINTS=1 " + options +
      "; PARMS b0=1 b1=0.5 v=0.1 vu=0.3; shift = 0.001*(site = 'a'); slow = x*x; "
      "MODEL y ~ NORMAL(b0 + b1*x + shift + 1e-6*slow + u, v); RANDOM u ~ NORMAL(0, vu) SUBJECT=id; RUN;";
  return run_text(program, "examples", 0, {{"records", records().path()}}, false, memory);
}

} // namespace

TEST(LargeData, TheScratchFileGivesTheBitsOfMemory)
{
  const tests::Run memory = fit(""), file = fit("NOSORTSUB");
  ASSERT_EQ(memory.outcome.exit_code, 0) << memory.log;
  ASSERT_EQ(file.outcome.exit_code, 0) << file.log;
  for (const char* column : {"Estimate", "StandardError", "Gradient"})
    EXPECT_EQ(memory.column("ParameterEstimates", column), file.column("ParameterEstimates", column)) << column;
}

TEST(LargeData, WhatDoesNotFitIsToldBeforeItIsRead)
{
  const tests::Run refused = fit("", 4000000);
  EXPECT_EQ(refused.outcome.exit_code, 4) << refused.log;
  EXPECT_TRUE(refused.said(503, 9507)) << refused.log;
  EXPECT_NE(refused.log.find("4 MB"), std::string::npos) << refused.log;
  EXPECT_EQ(fit("NOSORTSUB", 4000000).outcome.exit_code, 0);
}

// A group that turns out not to fit goes into the scratch file, in subject order all the same; threads are given up.
TEST(LargeData, AGroupThatDoesNotFitIsKeptInAScratchFile)
{
  std::string text = "id,y\n";
  for (int i = 0; i < 60; ++i)
    text += std::to_string(i % 6) + "," + std::to_string(1.0 + 0.1 * (i % 6) + 0.01 * (i % 5)) + "\n";
  const TemporaryFile data("small.csv", text);
  const std::string program = "TORVALE DATA=small NTHREADS=2; PARMS m=1 v=0.01 vu=0.02; MODEL y ~ NORMAL(m + u, v); "
                              "RANDOM u ~ NORMAL(0, vu) SUBJECT=id; RUN;";
  const tests::Run roomy = run_text(program, "examples", 0, {{"small", data.path()}});
  const tests::Run tight = run_text(program, "examples", 0, {{"small", data.path()}}, false, 1000);
  EXPECT_EQ(tight.outcome.exit_code, 0) << tight.log;
  EXPECT_TRUE(tight.said(503, 9508) && tight.said(503, 653)) << tight.log;
  EXPECT_EQ(tight.column("ParameterEstimates", "Estimate"), roomy.column("ParameterEstimates", "Estimate"));
}

} // namespace torvale::tests
