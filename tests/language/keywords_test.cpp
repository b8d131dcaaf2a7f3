// Keywords are contextual: every word of the table can name a variable, a parameter or a data set.
#include "language/grammar.h"
#include "parse_text.h"

#include <cctype>
#include <set>

namespace torvale::language::test {

namespace {

std::vector<std::string> all_words()
{
  const PARSECONTROL control = tvlg();
  std::set<std::string> words;
  for (int t = control.classes + 1; t < control.maxterminal; ++t) {
    std::string s(control.spelling(t));
    if (!std::isalpha(static_cast<unsigned char>(s[0])) && s[0] != '_') continue;
    if (s.back() == '$' || s.back() == '=') s.pop_back();
    words.insert(s);
  }
  return {words.begin(), words.end()};
}

std::string replaced(std::string form, const std::string& word)
{
  for (std::size_t at = form.find('@'); at != std::string::npos; at = form.find('@', at + word.size()))
    form.replace(at, 1, word);
  return form;
}

} // namespace

TEST(Grammar, HoldsEverySpellingOnceInOrder)
{
  const PARSECONTROL control = tvlg();
  EXPECT_GE(control.maxterminal, 19 + 567 + 1); // and the semicolon; words of our own are more
  EXPECT_EQ(control.spelling(control.maxterminal), "$$$");
  EXPECT_EQ(control.spelling(1), "ENDJB");
  for (int t = control.classes + 2; t < control.maxterminal; ++t)
    EXPECT_LT(control.spelling(t - 1), control.spelling(t));
  const auto cost = [&](const std::uint8_t* table, std::string_view name) {
    for (int t = 1; t <= control.maxterminal; ++t)
      if (control.spelling(t) == name) return static_cast<int>(table[t - 1]);
    return -1;
  };
  EXPECT_EQ(cost(control.delcost, "NAMEX"), 50);
  EXPECT_EQ(cost(control.delcost, "MODEL"), 10);
  EXPECT_EQ(cost(control.inscost, "NAMEX"), 1);
  EXPECT_EQ(cost(control.inscost, "FMT"), 3);
  EXPECT_EQ(cost(control.inscost, "MODEL"), 10);
  EXPECT_EQ(cost(control.inscost, "$$$"), 127);
}

TEST(Keywords, NameVariablesParametersAndDataSets)
{
  // Signs and NOT and the conditional expression begin operands, so as operands these two need a name literal.
  const std::set<std::string> prefix = {"NOT", "IF"};
  // With a bracket behind them these are statements, and PUT a function.
  const std::set<std::string> always_keyword = {"IF", "DO", "SELECT", "WHEN", "RETURN", "PUT", "NOT"};
  for (const std::string& word : all_words()) {
    for (const char* form : {"@ = 1;", "@ + 1;", "array @[3]; @[2] = 3; @{3} = 4;", "parms @ = 1;",
                             "parms a = 1 x b @ = 2;", "model @ ~ normal(a, b);", "random @ ~ normal(0, v) subject=@;",
                             "id @;", "replicate @;", "predict a out=@;", "do @ = 1 to 3; end;"}) {
      const auto parsed = parse_text(replaced("torvale data=@;" + std::string(form), word) + " run;");
      EXPECT_EQ(parsed->errors(), 0) << replaced(form, word) << "\n" << parsed->rendered;
    }
    if (!always_keyword.count(word)) {
      EXPECT_EQ(parse_text(replaced("torvale; array @[3]; @(1) = 2; x = @(1); run;", word))->errors(), 0) << word;
    }
    if (prefix.count(word)) continue;
    for (const char* form :
         {"x = @;", "x = a*@ + @**@ - @ / @;", "x = -@ < @ and @ > 1;", "x = f(@, @);", "if @ then y = @; else y = 1;",
          "estimate 'l' @ - @ df=3;", "x = (1 in (1)) + @;", "parms a=1 / data=@;"}) {
      const auto parsed = parse_text("torvale;" + replaced(form, word) + " run;");
      EXPECT_EQ(parsed->errors(), 0) << replaced(form, word) << "\n" << parsed->rendered;
    }
  }
}

TEST(Keywords, SecondSpellingsAreTakenWithoutTheirMark)
{
  const auto parsed = parse_text("torvale tech=quanew; bound a < 1; random u ~ normal(0,v) s=id; run;");
  EXPECT_EQ(parsed->errors(), 0) << parsed->rendered;
  EXPECT_EQ(parsed->statement("TORVALE").slot(11).number, 10);
  EXPECT_GT(parse_text("torvale tech$=quanew; run;")->errors(), 0);
  // They are never suggested.
  const auto wrong = parse_text("torvale 5; run;");
  for (const Diagnostic& d : wrong->diagnostics)
    for (const std::string& e : d.expected) EXPECT_EQ(e.find('$'), std::string::npos) << e;
  EXPECT_EQ(parse_text("torvale never=1; run;")->errors(), 1);
}

TEST(Keywords, TokensThatHoldAnEqualsSignBelongToFile)
{
  EXPECT_EQ(program_of("ll=-0.5*y; n=5; ls=3; line = 2;"), "ll = (-0.5)*y;\nn = 5;\nls = 3;\nline = 2;\n");
  EXPECT_EQ(parse_text("torvale; file 'x' ll=80 ls = 70; run;")->errors(), 0);
}

TEST(Keywords, StatementWordAndAssignmentAreToldApartByWhatFollows)
{
  const auto parsed = parse_text("torvale; p=1; id=5; model=3; data=4; do=1; by+1; stop=2; array time{2}; time{2}=4; "
                                 "time(1)=5; end: x=1; run = 5; run;");
  EXPECT_EQ(parsed->errors(), 0) << parsed->rendered;
  EXPECT_EQ(parsed->program(),
            "p = 1;\nid = 5;\nmodel = 3;\ndata = 4;\ndo = 1;\nby + 1;\nstop = 2;\narray time[1:2] time1 time2;\n"
            "time[2] = 4;\ntime[1] = 5;\nend: x = 1;\nrun = 5;\n");
}

} // namespace torvale::language::test
