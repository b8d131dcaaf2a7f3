#include "host/data/csv.h"
#include "host/data/data_set_options.h"
#include "host/data/where.h"
#include "support.h"
#include <random>

namespace torvale::host {

namespace {

DataSet sample()
{
  CaughtMessages log;
  return *read_csv_text("x,y,s,d.e\n1,10,Alpha,1\n2,.,beta,2\n3,.A,,3\n-4,0,alpha,4\n0.5,7,b'c,5\n", "t.csv", log);
}

// Numbers of the rows that satisfy the condition, or what is wrong with it.
std::string rows(std::string_view condition)
{
  const DataSet data = sample();
  std::string problem;
  const auto where = parse_where(condition, problem);
  if (!where || where->bind(data, problem) != 0) return problem;
  std::string out;
  for (const std::size_t row : where->matching_rows(data)) out += std::to_string(row + 1);
  return out;
}

} // namespace

TEST(Where, Conditions)
{
  const std::pair<const char*, const char*> cases[] = {
      {"x > 1", "23"},
      {"x ge 2 or y = 7", "235"},
      {"X>0 and not (x=1)", "235"},
      {"x", "12345"}, // a number is a condition: not 0 and not missing
      {"y", "15"},
      {"y < 0", "23"}, // missing values sort below numbers
      {"y = .", "2"},
      {"y = .a", "3"},
      {"y > . and y <= 7", "345"},
      {"y is missing", "23"},
      {"y is not null", "145"},
      {"s is missing", "3"},
      {"y ^= . & y ~= .A", "145"},
      {"y + 1 > 0", "145"},       // arithmetic with a missing value gives a missing value
      {"1/(x-1) = .", "1"},       // as does a division by 0
      {"-x**2 = -16", "4"},       // the power first
      {"2**3**2 = 512", "12345"}, // to the right
      {"x*-1 > 0", "4"},
      {"1 ** y > 0", "145"}, // pow(1, NaN) would be 1
      {"x in (1 2, -4)", "124"},
      {"x notin (1,2)", "345"},
      {"x not in (1)", "2345"},
      {"s in ('Alpha' \"beta\")", "12"},
      {"s = 'alpha'", "4"},   // letters' case matters in values
      {"s = 'beta   '", "2"}, // trailing blanks do not
      {"s < 'a'", "13"},
      {"s contains 'lph'", "14"},
      {"s = 'b''c'", "5"},
      {"s || 'x' = 'betax'", "2"},
      {"x between 1 and 3 and y > 5", "1"},
      {"'d.e'n > 3", "45"},
      {"x eq 1 or x lt -3 or x ne x", "14"},
      {"(x = 1) + (y = 10) = 2", "1"},
      {"1e0 = x", "1"},
      {"not x > 1 and x < 1", "45"},
      {"x = '2' or '3' = x", "23"}, // a text that spells a number
      {"s > 1", ""},                // the texts of the column spell none: missing
      {"s not in (1, 2)", "12345"},
      {"s like 'al%'", "4"},
      {"s like '_l%a' and s not like 'a%'", "1"},
      {"s like '%%' or s like ''", "12345"},
      {"upcase(s) = 'ALPHA' and substr(s, 2, 3) = 'lph'", "14"},
      {"length(s) > 4 and max(x, y, .) = 10", "1"},
      {"missing(s) or missing(y)", "23"},
      {"sqrt(x) = .", "4"}, // a value that does not exist
      {"mod(abs(x), 2) = 0 and round(x, 5) < 5", "24"},
      {"x + '01jan1960'd = year('2024-01-31'd) - 2023", "1"},
      {"'13:30't = 48600 and '01jan1960:00:01'dt = 60", "12345"},
  };
  for (const auto& [condition, expected] : cases) EXPECT_EQ(rows(condition), expected) << condition;
}

TEST(Where, DatesAreComparedWithTheirTexts)
{
  CaughtMessages log;
  DataSet data = *read_csv_text("day,at\n2024-01-31,09:00\n2024-02-01,13:30\n,\n", "t.csv", log);
  std::string problem;
  const auto options = parse_data_set_options("where=(day > '2024-01-31' and at <> '09:00')", log);
  ASSERT_TRUE(options);
  ASSERT_EQ(apply_input_options(data, *options, log), 0);
  EXPECT_EQ(data.rows(), 1u);
  EXPECT_EQ(data.columns()[0].format(), "YYMMDD10.");
  EXPECT_EQ(log.count(9505), 1);
  EXPECT_EQ(log.count(9506), 1);
  for (const char* condition :
       {"day >= '2024-01-31T00:00:00'", "'12:00' < day", "at between '08:00' and '2024-01-31'"}) {
    CaughtMessages refused;
    const auto wrong = parse_data_set_options(std::string("where=(") + condition + ")", refused);
    ASSERT_TRUE(wrong);
    EXPECT_NE(apply_input_options(data, *wrong, refused), 0) << condition;
    EXPECT_TRUE(refused.has_errors()) << condition;
  }
}

TEST(Where, MistakesSayWhatAndWhere)
{
  const std::pair<const char*, const char*> cases[] = {
      {"", "ends where a value is needed"},
      {"x >", "ends where a value is needed (character 4)"},
      {"x > 1 2", "left over"},
      {"(x > 1", "closing parenthesis"},
      {"x = 'a", "not closed"},
      {"x in 1", "list in parentheses"},
      {"x in ()", "a list holds"},
      {"x between 1", "AND must stand"},
      {"x # 1", "the character #"},
      {"1.2.3 = x", "not a number"},
      {"12ab = x", "not a number"},
      {"zz = 1", "no variable zz"},
      {"xx = 1", "no variable xx; did you mean x?"},
      {"x = 'a'", "'a', which spells no number"},
      {"sqr(x) = 1", "no function sqr here; there are ABS, SQRT"},
      {"mod(x) = 1", "mod takes 2 to 2 arguments"},
      {"upcase(x) = 'A'", "UPCASE takes characters"},
      {"sqrt(s) > 1", "SQRT takes numbers"},
      {"sqrt(x > 1", "closing parenthesis"},
      {"x = '31feb2024'd", "is no date"},
      {"x like 'a'", "take characters"},
      {"s + 1 = 2", "a number is needed"},
      {"s", "is a text"},
      {"x contains 'a'", "take characters"},
      {"x is 1", "IS must be followed"},
      {"x not > 1", "NOT must be followed"},
  };
  for (const auto& [condition, part] : cases)
    EXPECT_NE(rows(condition).find(part), std::string::npos) << condition << ": " << rows(condition);
  EXPECT_NE(rows(std::string(5000, '(')).find("nested too deep"), std::string::npos);
  EXPECT_NE(rows(std::string(5000, '-') + "x").find("nested too deep"), std::string::npos);
}

TEST(Where, RandomConditionsNeverCrash)
{
  std::mt19937 random(23);
  constexpr const char* words[] = {"x",   "y",  "s",        "(",    ")",       "and",   "or",
                                   "not", "in", "=",        "<",    "**",      "-",     "+",
                                   "1",   ".",  ".a",       "'q'",  "between", "is",    "missing",
                                   "||",  ",",  "contains", "like", "mod(",    "trim(", "'1960-01-01'd"};
  int good = 0;
  for (int round = 0; round < 30000; ++round) {
    std::string text;
    for (std::size_t n = random() % 9; n > 0; --n) text += std::string(words[random() % std::size(words)]) + " ";
    const std::string result = rows(text);
    good += result.find_first_not_of("12345") == std::string::npos;
  }
  EXPECT_GT(good, 100);
}

} // namespace torvale::host
