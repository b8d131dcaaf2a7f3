#include "host/values/missing.h"
#include "host/values/text.h"
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>

namespace torvale::host {

TEST(NumberText, ShortestReadsBackAsTheSameDouble)
{
  std::mt19937_64 bits(11);
  for (int i = 0; i < 20000; ++i) {
    const double x = std::bit_cast<double>(bits());
    if (!std::isfinite(x)) continue;
    const auto back = parse_number(shortest(x));
    ASSERT_TRUE(back) << shortest(x);
    ASSERT_EQ(std::bit_cast<std::uint64_t>(*back), std::bit_cast<std::uint64_t>(x)) << shortest(x);
  }
}

TEST(NumberText, WhatIsANumber)
{
  const std::pair<const char*, double> good[] = {{"1", 1},        {"+1.5", 1.5},   {".5", .5}, {"5.", 5},
                                                 {"-1e3", -1000}, {"1E+2", 100},   {"007", 7}, {"1e-400", 0.0},
                                                 {"0e999", 0.0},  {"0.0001e5", 10}};
  for (const auto& [text, value] : good) {
    const auto x = parse_number(text);
    ASSERT_TRUE(x) << text;
    EXPECT_EQ(*x, value) << text;
  }
  for (const char* bad : {"", ".", "+", "e5", "1e", "1e+", "0x10", "inf", "nan", "1,5", "1 2", "1e999", "-1e9999999999",
                          "1.2.3", "--1", "+-1", "1d5", "NA"})
    EXPECT_FALSE(parse_number(bad)) << bad;
  EXPECT_FALSE(parse_number("123456789e400"));
  EXPECT_EQ(parse_number("0.000000001e-330"), 0.0);
}

TEST(NumberText, SpellingsOfMissingValues)
{
  for (const char* text : {"", "."}) EXPECT_EQ(missing_letter(*parse_missing(text)), '.');
  EXPECT_EQ(missing_letter(*parse_missing(".z")), 'Z');
  EXPECT_EQ(missing_letter(*parse_missing("._")), '_');
  for (const char* text : {"NA", "..", ".AB", ".1", "A", "-"}) EXPECT_FALSE(parse_missing(text)) << text;
}

TEST(NumberText, Formats)
{
  const struct {
    double x;
    const char* format;
    const char* shown;
  } cases[] = {
      {286.43296, "10.4", "286.4330"},
      {-0.00001, "8.3", "0.000"}, // no minus before nothing
      {1e12, "8.2", "1e+12"},     // too wide for its format
      {0.00004, "PVALUE6.4", "<.0001"},
      {0.0001, "PVALUE6.4", "0.0001"},
      {0.0, "PVALUE6.4", "<.0001"},
      {1.0, "PVALUE6.4", "1.0000"},
      {missing, "PVALUE6.4", "."},
      {special_missing('B'), "8.2", "B"},
      {95.0, "BEST6", "95"},
      {0.1 + 0.2, "BEST8", "0.3"},
      {1234567.0, "BEST12", "1234567"},
      {123456789012.0, "BEST8", "1.23e+11"},
      {1.0 / 3.0, "D8.4", "0.3333"},
      {4.0, "D8.3", "4.00"},
      {1.5e-9, "D8.3", "1.50e-09"},
      {-1.7976931348623157e308, "D9.4", "-1.8e+308"},
      {HUGE_VAL, "BEST8", "I"},
      {-HUGE_VAL, "8.2", "-I"},
  };
  for (const auto& c : cases) EXPECT_EQ(format_number(c.x, parse_format(c.format)), c.shown) << c.format << " " << c.x;
}

TEST(NumberText, BestFitGivesAColumnCommonDecimalsWhereTheyFit)
{
  const auto shown = format_column({0.0302, 12.5, -3.25, missing, 0.0}, parse_format("D9.3"));
  EXPECT_EQ(shown, (std::vector<std::string>{"0.0302", "12.5000", "-3.2500", ".", "0.0000"}));
  // One small value does not cost the others their readability; a tiny one keeps its own form.
  EXPECT_EQ(format_column({-3.3593811, 0.0008329}, parse_format("D9.4")),
            (std::vector<std::string>{"-3.359381", "0.000833"}));
  EXPECT_EQ(format_column({3.25, 1.5e-7}, parse_format("D9.4")), (std::vector<std::string>{"3.250", "1.500e-07"}));
  EXPECT_EQ(format_column({1.0, 2000.0, 35.0}, parse_format("D9.3")), (std::vector<std::string>{"1", "2000", "35"}));
  for (const std::string& text : format_column({1e-7, 123456.789, 3.0}, parse_format("D9.4")))
    EXPECT_LE(text.size(), 9u);
}

// Whatever the number and format, the shown text reads back close to it.
TEST(NumberText, ShownNumbersAreNearTheirValue)
{
  std::mt19937_64 bits(5);
  for (int i = 0; i < 20000; ++i) {
    const double x = std::bit_cast<double>(bits());
    if (!std::isfinite(x) || std::fabs(x) < 1e-290 || std::fabs(x) > 1e290) continue;
    for (const char* format : {"BEST12", "D9.4", "D14.7.2"}) {
      const auto back = parse_number(format_number(x, parse_format(format)));
      ASSERT_TRUE(back);
      ASSERT_NEAR(*back / x, 1.0, 0.06) << format_number(x,
                                                         parse_format(format)); // "-1.8e+308" has two digits
    }
  }
}

TEST(Names, CaseDoesNotMatterAndTyposAreFound)
{
  EXPECT_TRUE(equal_names("ConC", "conc"));
  EXPECT_FALSE(equal_names("conc", "conc2"));
  EXPECT_EQ(edit_distance("beta", "bta"), 1);
  EXPECT_EQ(edit_distance("dose", "does"), 1); // neighbours swapped
  EXPECT_EQ(nearest_name("tiem", {"dose", "TIME", "conc"}), "TIME");
  EXPECT_EQ(nearest_name("x", {"y", "z"}), ""); // one letter replaced is another name
  EXPECT_EQ(compare_padded("A", "A  "), 0);
  EXPECT_LT(compare_padded("A", "AB"), 0);
  EXPECT_GT(compare_padded("A", "A\t"), 0); // a tab sorts before a blank
}

TEST(Lines, WrapAndUtf8)
{
  EXPECT_EQ(cut_name("ab\xC3\xA9", 3), "ab"); // not half a character
  EXPECT_EQ(wrapped("NOTE: one two three", 12, 6), (std::vector<std::string>{"NOTE: one", "      two", "      three"}));
  EXPECT_EQ(wrapped("x averyveryverylongword y", 8, 2).size(), 3u);
  EXPECT_EQ(display_width("\xC3\xA9t\xC3\xA9"), 3u);
  EXPECT_EQ(valid_utf8("a\xFF\xC3(\xE2\x82\xAC"), "a\xEF\xBF\xBD\xEF\xBF\xBD(\xE2\x82\xAC");
}

} // namespace torvale::host
