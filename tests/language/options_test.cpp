// Every option in every spelling, against a table that was written from the description of the language, not from the
// grammar: slot, stored value, flags, limits, and rejection one step outside.
#include "language/grammar.h"
#include "parse_text.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace torvale::language::test {

namespace {

struct Option {
  std::string statement;
  std::vector<std::string> spellings;
  std::string kind;
  bool optional = false, whole = false;
  int slot = -1, second_slot = -1, bracket_slot = -1;
  bool has_low = false, has_high = false;
  double low = 0, high = 0, bracket_low = 0;
  std::vector<int> flags;
  std::vector<std::pair<std::string, int>> codes;
};

std::vector<std::string> split(const std::string& s, char by)
{
  std::vector<std::string> out;
  std::stringstream in(s);
  for (std::string part; std::getline(in, part, by);)
    if (!part.empty()) out.push_back(part);
  return out;
}

std::string plain(std::string s)
{
  if (s.back() == '$') s.pop_back();
  return s;
}

std::vector<Option> read_options()
{
  std::ifstream in(TORVALE_SOURCE_DIR "/tests/data/programs/options.tsv");
  std::vector<Option> out;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const auto c = split(line, '\t');
    Option o;
    o.statement = c[0];
    for (const auto& s : split(c[1], ' ')) o.spellings.push_back(s);
    o.kind = c[2];
    o.optional = c[3] == "optional";
    if (c[4] != "-") o.slot = std::stoi(c[4]);
    if (c[5] != "-") o.second_slot = std::stoi(c[5]);
    if ((o.has_low = c[6] != "-")) o.low = std::stod(c[6]);
    if ((o.has_high = c[7] != "-")) o.high = std::stod(c[7]);
    o.whole = c[8] == "whole";
    if (c[9] != "-")
      for (const auto& f : split(c[9], ' ')) o.flags.push_back(std::stoi(f));
    if (c[10] != "-")
      for (const auto& group : split(c[10], ';')) {
        auto words = split(group, ' ');
        int code = 0;
        if (o.kind == "word") {
          code = std::stoi(words.back());
          words.pop_back();
        }
        for (const auto& w : words) o.codes.push_back({w, code});
      }
    if (c[11] != "-") {
      const auto b = split(c[11], ' ');
      o.bracket_slot = std::stoi(b[0]);
      o.bracket_low = std::stod(b[1]);
    }
    out.push_back(std::move(o));
  }
  return out;
}

std::string program_with(const std::string& statement, const std::string& option)
{
  static const std::map<std::string, std::string> forms = {{"TORVALE", "torvale @;"},
                                                           {"RANDOM", "torvale; random u ~ normal(0, v) subject=id @;"},
                                                           {"PARMS", "torvale; parms a=1 / @;"},
                                                           {"MCMC", "torvale; mcmc @;"},
                                                           {"ESTIMATE", "torvale; estimate 'l' a @;"},
                                                           {"CONTRAST", "torvale; contrast 'l' a @;"},
                                                           {"PREDICT", "torvale; predict a out=p @;"},
                                                           {"CMPTMODEL", "torvale; cmptmodel @;"},
                                                           {"EVENTS", "torvale; cmptmodel (@);"}};
  std::string text = forms.at(statement);
  return text.replace(text.find('@'), 1, option);
}

std::set<int> flags_of(const syntax::STMT& s)
{
  std::set<int> out;
  for (int f = 0; f < 256; ++f)
    if (s.flag(f)) out.insert(f);
  return out;
}

// Options in parentheses behind EVENTS are kept with their statement.
std::string record_of(const Option& o)
{
  return o.statement == "EVENTS" ? "CMPTMODEL" : o.statement;
}

class EveryOption : public ::testing::Test {
protected:
  static const std::vector<Option>& options()
  {
    static const std::vector<Option> all = read_options();
    return all;
  }
  // Parses the statement with the option; `check` sees it.
  template <class F> static void with(const Option& o, const std::string& text, F&& check)
  {
    const auto parsed = parse_text(program_with(o.statement, text));
    SCOPED_TRACE(o.statement + " " + text + "\n" + parsed->rendered);
    EXPECT_EQ(parsed->errors(), 0);
    if (parsed->steps.size() == 1) check(parsed->statement(record_of(o)));
  }
  static void refused(const Option& o, const std::string& text, Problem problem, int slot)
  {
    const auto parsed = parse_text(program_with(o.statement, text));
    SCOPED_TRACE(o.statement + " " + text + "\n" + parsed->rendered);
    EXPECT_TRUE(parsed->has(problem));
    EXPECT_TRUE(parsed->step().proc.error);
    EXPECT_FALSE(parsed->statement(record_of(o)).given(slot)) << "a refused value must not be stored";
  }
};

std::string number(double x)
{
  std::ostringstream out;
  out << x;
  return out.str();
}

} // namespace

TEST_F(EveryOption, IsStoredInItsSlotAndFlagsBySpelling)
{
  ASSERT_GT(options().size(), 160u);
  for (const Option& o : options())
    for (const std::string& spelling : o.spellings) {
      const std::string word = plain(spelling);
      const std::set<int> flags(o.flags.begin(), o.flags.end());
      if (o.kind == "flag" || o.optional)
        with(o, word, [&](const syntax::STMT& s) {
          EXPECT_EQ(flags_of(s), flags);
          if (o.slot >= 0) {
            EXPECT_FALSE(s.given(o.slot)) << "without a value only the flag is stored";
          }
        });
      if (o.kind == "number") {
        const double value = o.has_high ? (o.whole ? o.high : 0.5) : o.has_low ? o.low + 2 : 3;
        with(o, word + "=" + number(value), [&](const syntax::STMT& s) {
          EXPECT_EQ(s.slot(o.slot).type, 'n');
          EXPECT_EQ(s.slot(o.slot).number, value);
          EXPECT_EQ(flags_of(s), flags);
        });
      }
      if (o.kind == "word")
        for (const auto& [w, code] : o.codes)
          with(o, word + " = " + plain(w), [&, c = code](const syntax::STMT& s) {
            EXPECT_EQ(s.slot(o.slot).type, 'n');
            EXPECT_EQ(s.slot(o.slot).number, c);
            EXPECT_EQ(flags_of(s), flags);
          });
      if (o.kind == "keep")
        for (const auto& c : o.codes)
          with(o, word + "=" + c.first,
               [&](const syntax::STMT& s) { EXPECT_EQ(s.slot(o.slot).list.at(0).text, c.first); });
      if (o.kind == "data" || o.kind == "name")
        with(o, word + "=" + (o.kind == "data" ? "lib.one(keep=a)" : "time"), [&](const syntax::STMT& s) {
          ASSERT_EQ(s.slot(o.slot).list.size(), 1u);
          EXPECT_EQ(s.slot(o.slot).list[0].text, o.kind == "data" ? "lib.one" : "time");
          EXPECT_EQ(s.slot(o.slot).list[0].options, o.kind == "data" ? "keep=a" : "");
          EXPECT_EQ(flags_of(s), flags);
        });
    }
}

TEST_F(EveryOption, TakesItsLimitsAndNothingBeyond)
{
  for (const Option& o : options()) {
    if (o.slot < 0 || o.kind == "data" || o.kind == "name" || o.kind == "keep") continue;
    const std::string word = plain(o.spellings[0]) + "=";
    const int slot = o.second_slot >= 0 ? o.second_slot : o.slot; // FD takes words in one slot, a number in another
    const double step = o.whole || o.kind == "word" ? 1.0 : 1e-9;
    const bool low = o.has_low || o.second_slot >= 0;
    if (low) {
      with(o, word + number(o.low), [&](const syntax::STMT& s) { EXPECT_EQ(s.slot(slot).number, o.low); });
      std::ostringstream below;
      below.precision(17);
      below << o.low - step;
      refused(o, word + below.str(), Problem::out_of_range, slot);
    }
    if (o.has_high) {
      with(o, word + number(o.high), [&](const syntax::STMT& s) { EXPECT_EQ(s.slot(slot).number, o.high); });
      std::ostringstream above;
      above.precision(17);
      above << o.high + step;
      refused(o, word + above.str(), Problem::out_of_range, slot);
    }
    if (o.kind == "number" && !o.has_low)
      with(o, word + "-1e6", [&](const syntax::STMT& s) { EXPECT_EQ(s.slot(slot).number, -1e6); });
    if (o.whole) refused(o, word + number(o.has_low ? o.low + 0.5 : 2.5), Problem::not_whole, slot);
    if (o.bracket_slot < 0) continue;
    with(o, word + "2[7]", [&](const syntax::STMT& s) {
      EXPECT_EQ(s.slot(o.slot).number, 2);
      EXPECT_EQ(s.slot(o.bracket_slot).number, 7);
    });
    refused(o, word + "2 [" + number(o.bracket_low - 1) + "]", Problem::out_of_range, o.bracket_slot);
    refused(o, word + "2[1.5]", Problem::not_whole, o.bracket_slot);
  }
}

TEST_F(EveryOption, OfTheGrammarIsInTheTable)
{
  std::set<std::pair<std::string, std::string>> known;
  for (const Option& o : options())
    for (const std::string& s : o.spellings) known.insert({o.statement, s});
  for (const OptionRow& row : option_rows())
    for (std::string_view w : row.words) {
      if (!row.traces.empty() || (row.statement == "PREDICT" && w == "OUT")) continue; // tested apart
      EXPECT_EQ(known.count({std::string(row.statement), std::string(w)}), 1u) << row.statement << " " << w;
    }
}

TEST(Options, AbsentOnesLeaveNothing)
{
  const auto parsed = parse_text("torvale; model y ~ normal(a, b); run;");
  const syntax::STMT& s = parsed->statement("TORVALE");
  EXPECT_EQ(s.nfld, 110);
  EXPECT_TRUE(flags_of(s).empty());
  for (int n = 0; n <= s.nfld; ++n) EXPECT_FALSE(s.given(n)) << n;
}

TEST(Options, TraceClassesAreKeptApartFromFlags)
{
  const auto parsed = parse_text("torvale flow trace details notrace debugd opt;");
  EXPECT_EQ(parsed->errors(), 0) << parsed->rendered;
  EXPECT_TRUE(flags_of(parsed->statement("TORVALE")).empty());
  EXPECT_EQ(parsed->step().proc.traces, (std::vector<int>{10, 12, 17})); // NOTRACE ends 1, 2, 3
}

TEST(Options, GivenTwiceTheLastHoldsWithAWarning)
{
  const auto parsed = parse_text("torvale qpoints=3 np=7 maxiter=5[2] maxit=9 fd=central fd=100;");
  EXPECT_EQ(parsed->errors(), 0);
  EXPECT_EQ(std::count_if(parsed->diagnostics.begin(), parsed->diagnostics.end(),
                          [](const Diagnostic& d) { return d.problem == Problem::given_twice; }),
            3);
  const syntax::STMT& s = parsed->statement("TORVALE");
  EXPECT_EQ(s.slot(6).number, 7);
  EXPECT_EQ(s.slot(42).number, 9);
  EXPECT_FALSE(s.given(75));
  EXPECT_FALSE(s.given(32));
  EXPECT_EQ(s.slot(33).number, 100);
}

TEST(Options, MissingValuesAreTakenWhereCountsMayBeOpen)
{
  const auto parsed = parse_text("torvale maxiter=.[.];");
  EXPECT_EQ(parsed->errors(), 0) << parsed->rendered;
  EXPECT_TRUE(parsed->statement("TORVALE").given(42));
  EXPECT_GT(parse_text("torvale qpoints=.;")->errors(), 0);
}

} // namespace torvale::language::test
