// Procedure statements: lists in slots, name ranges, steps, and the action at a statement's end.
#include "host/values/missing.h"
#include "parse_text.h"

namespace torvale::language::test {

using syntax::StItem;

namespace {

// The items of a slot, as the listing writes them.
std::string slot_text(const ParsedText& parsed, std::string_view name, int slot)
{
  for (const ListedStatement& s : list_statements(parsed.step().proc))
    if (s.name == name)
      for (const ListedSlot& l : s.slots)
        if (l.slot == slot) {
          std::string out;
          for (const auto& i : l.items) out += (out.empty() ? "" : " ") + i;
          return l.type == 'n' ? std::to_string(static_cast<int>(l.number)) : out;
        }
  return "absent";
}

std::string slot_of(const std::string& statement, std::string_view name, int slot,
                    std::vector<InputVariable> variables = {})
{
  const auto parsed = parse_text("torvale; " + statement + " run;", std::move(variables));
  EXPECT_EQ(parsed->errors(), 0) << parsed->rendered;
  return slot_text(*parsed, name, slot);
}

const std::vector<InputVariable> data = {{"id", false}, {"x1", false}, {"name", true}, {"x2", false}, {"yield", false}};

} // namespace

TEST(ProcedureStatements, DistributionsHaveTheirCodes)
{
  const std::pair<const char*, int> codes[] = {
      {"NORMAL", 0}, {"N", 0},    {"GAUSSIAN", 0},  {"GAUSS", 0},    {"T", 1},       {"TDIST", 1},
      {"BINARY", 2}, {"BERN", 2}, {"BERNOULLI", 2}, {"BINOMIAL", 3}, {"POISSON", 4}, {"GENERAL", 5},
      {"NEGBIN", 6}, {"NB", 6},   {"GAMMA", 7},     {"GAM", 7},      {"GAMDIST", 7}, {"DISCRETE", 8}};
  for (const auto& [word, code] : codes) {
    EXPECT_EQ(slot_of(std::string("model y ~ ") + word + "(a, b);", "MODEL", 4), std::to_string(code)) << word;
    EXPECT_EQ(slot_of(std::string("random u ~ ") + word + "(a, b) subject=s;", "RANDOM", 4), std::to_string(code))
        << word;
  }
}

TEST(ProcedureStatements, ModelAndRandomKeepTheirExpressionsInTheProgram)
{
  const auto parsed =
      parse_text("torvale; a = 1; model y ~ normal(a + b, exp(c)); b = 2;\n"
                 "random u v1-v2 ~ normal([0,0,0],[a,b,c,d,e,f]) s = id (clinic * ward) alpha=.1 out=r; run;");
  ASSERT_EQ(parsed->errors(), 0) << parsed->rendered;
  EXPECT_EQ(parsed->program(), "a = 1;\n* MODEL: a+b, exp(c);\nb = 2;\n* RANDOM: 0, 0, 0, a, b, c, d, e, f;\n");
  EXPECT_EQ(slot_text(*parsed, "MODEL", 1), "y");
  EXPECT_EQ(slot_text(*parsed, "MODEL", 2), "a+b exp(c)");
  EXPECT_EQ(slot_text(*parsed, "RANDOM", 1), "u v1 v2");
  EXPECT_EQ(slot_text(*parsed, "RANDOM", 2), "0:0 0:0 0:0 1:a 1:b 1:c 1:d 1:e 1:f");
  EXPECT_EQ(slot_text(*parsed, "RANDOM", 5), "0:id 1:clinic 1:ward");
  EXPECT_EQ(parsed->statement("MODEL").slot(2).list[1].expr,
            static_cast<const syntax::ExpressionSite*>(parsed->step().proc.program.statements[1])->expressions[1]);
  EXPECT_TRUE(parse_text("torvale; random u ~ normal(0, v); run;")->has(Problem::missing_part));
}

TEST(ProcedureStatements, ParmsGroupsValuesWithNames)
{
  const std::pair<const char*, const char*> cases[] = {
      {"parms a=1 b=-2 c 3;", "0:a 0:1 1:b 1:-2 2:c 2:3"},
      {"parms a b c = 1 2, 3;", "0:a 0:b 0:c 0:1 0:2 0:3"},
      {"parms a -1 b=+2 c=.;", "0:a 0:-1 1:b 1:2 2:c 2:."},
      {"parms x1-x3 -5 y;", "0:x1 0:x2 0:x3 0:-5 1:y"},
      {"parms t1 - t2 = 1 to 9 by 2, 4 -1 to -3 by -.5;", "0:t1 0:t2 0:1 TO 9 BY 2 0:4 0:-1 TO -3 BY -0.5"},
      {"parms a 1 to 3 4 to 5 b 2;", "0:a 0:1 TO 3 BY 1 0:4 TO 5 BY 1 1:b 1:2"},
      {"parms x08-x10=0;", "0:x08 0:x09 0:x10 0:0"},
      {"parms id--x2 = 1;", "0:id 0:x1 0:name 0:x2 0:1"},
      {"parms id-numeric-x2 = 1;", "0:id 0:x1 0:x2 0:1"},
      {"parms id-character-yield = 1;", "0:name 0:1"},
      {"parms x: = 1;", "0:x1 0:x2 0:1"},
      {"parms numeric -1 a 2;", "0:numeric 0:-1 1:a 1:2"},
      {"parms a='1jan1960'd;", "0:a 0:0"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(slot_of(text, "PARMS", 1, data), expected) << text;
  for (const char* word : {"parm", "parameter", "parameters"})
    EXPECT_EQ(slot_of(std::string(word) + " a=1 / bydata best=2 data=s;",
                      word == std::string("parm")        ? "PARM"
                      : word == std::string("parameter") ? "PARAMETER"
                                                         : "PARAMETERS",
                      4),
              "2");
}

TEST(ProcedureStatements, SequencesThatLeadNowhereAreErrors)
{
  for (const char* wrong : {"1 to 3 by 0", "1 to 3 by -1", "3 to 1"})
    EXPECT_TRUE(parse_text(std::string("torvale; parms a=") + wrong + "; run;")->has(Problem::bad_sequence)) << wrong;
  EXPECT_EQ(parse_text("torvale; parms a=0 to .3 by .1 b=3 to 1 by -1; run;")->errors(), 0);
}

TEST(ProcedureStatements, BoundsAreListsJoinedByOperators)
{
  const auto parsed =
      parse_text("torvale; parms a b c=1; bounds 0 < a b <= 5, x1-x2 > -1e-3, a--c < 4, . < b, c >= 2; run;");
  ASSERT_EQ(parsed->errors(), 0) << parsed->rendered;
  EXPECT_EQ(slot_text(*parsed, "BOUNDS", 1), "0:0 1:a 1:b 2:5 3:x1 3:x2 4:-0.001 5:a 5:b 5:c 6:4 8:b 9:c 10:2");
  EXPECT_EQ(slot_text(*parsed, "BOUNDS", 2), "0:< 1:<= 3:> 5:< 9:>=");
}

TEST(ProcedureStatements, NameRangesThatCannotBeResolvedAreErrors)
{
  for (const char* wrong : {"parms a1-b3=1;", "parms a-b=1;", "parms a5-a1=1;", "parms a1-a99999999=1;",
                            "parms nosuch--x2=1;", "parms x2--id=1;", "parms q:=1;", "bounds a-b < 3;"})
    EXPECT_TRUE(parse_text(std::string("torvale; ") + wrong + " run;", data)->has(Problem::bad_list)) << wrong;
}

TEST(ProcedureStatements, LabelsAreKeptAsTyped)
{
  EXPECT_EQ(slot_of("estimate '  it''s' a-b alpha=.1 der df=3;", "ESTIMATE", 4), "'  it's'");
  EXPECT_EQ(slot_of("estimate '' a - b;", "ESTIMATE", 4), "'a-b'");
  EXPECT_EQ(slot_of("contrast 'c' a-b, c df=3;", "CONTRAST", 2), "a-b c");
  EXPECT_EQ(slot_of("predict out*b der out=q df=2;", "PREDICT", 4), "q"); // before an operand a word is a name
}

TEST(ProcedureStatements, IdJoinsAndByComesOnce)
{
  EXPECT_EQ(slot_of("id a; id x1-x2 b;", "TORVALE", 80), "a x1 x2 b");
  EXPECT_EQ(slot_of("by a descending b notsorted;", "TORVALE", 0), "a b DESCENDING");
  EXPECT_EQ(parse_text("torvale; by a notsorted; run;")->statement("TORVALE").slot(0).mode, 1);
  EXPECT_TRUE(parse_text("torvale; by a; by b; run;")->has(Problem::given_twice));
}

TEST(ProcedureStatements, FindStmtComparesFirstWords)
{
  auto parsed = parse_text("torvale; parms a=1; parameters b=2; model y ~ normal(a,b); run;");
  syntax::STMT* found = nullptr;
  syntax::PROCSTR& proc = parsed->steps[0].proc;
  EXPECT_EQ(syntax::FindStmt(proc, "PAR", &found), 2);
  EXPECT_EQ(found->name, "PARAMETERS");
  EXPECT_EQ(syntax::FindStmt(proc, "model", &found), 1);
  EXPECT_EQ(syntax::FindStmt(proc, "RANDOM", &found), 0);
  EXPECT_EQ(found, nullptr);
}

TEST(Steps, EndAtRunQuitTheNextStepAndTheEnd)
{
  const auto parsed =
      parse_text("run; torvale data=a; x=1; run; torvale data=b; y=2; quit; torvale; z=3; torvale; w=4");
  ASSERT_EQ(parsed->steps.size(), 4u);
  EXPECT_EQ(parsed->program(0), "x = 1;\n");
  EXPECT_EQ(parsed->program(1), "y = 2;\n");
  EXPECT_EQ(parsed->program(2), "z = 3;\n");
  EXPECT_EQ(parsed->errors(), 1); // only the last semicolon is missing
  EXPECT_FALSE(parsed->step(2).proc.error);
  EXPECT_TRUE(parsed->step(3).proc.error);
  EXPECT_TRUE(parse_text("x = 1; torvale; run;")->has(Problem::before_first_step));
  EXPECT_TRUE(parse_text("* only a comment;\n")->diagnostics.empty());
}

TEST(Steps, AMistakeDoesNotStopTheNextOnes)
{
  const auto parsed = parse_text("torvale; x = (1; do; y = ; run; torvale; parms a = 1; run; torvale qpoints=0; run;");
  ASSERT_EQ(parsed->steps.size(), 3u);
  EXPECT_TRUE(parsed->step(0).proc.error);
  EXPECT_FALSE(parsed->step(1).proc.error);
  EXPECT_TRUE(parsed->step(2).proc.error);
}

TEST(Actions, RunAtTheSemicolonAndPushInFrontOfTheRest)
{
  std::vector<int> seen;
  const auto parsed =
      parse_text("torvale; model y ~ normal(a, b); after = 1; predict a out=p; replicate r; estimate 'e' a; contrast "
                 "'c' a; cmptmodel ncomps=1; run;",
                 {}, [&](const SEMARG& action, syntax::PROCSTR& proc, TokenStream& stream) {
                   seen.push_back(action.action);
                   if (action.action != 78) return 0;
                   EXPECT_EQ(proc.current->name, "MODEL");
                   EXPECT_NE(xttpshb(stream, "too early"), 0);
                   EXPECT_NE(xttpshx(stream), 0) << "not anchored";
                   EXPECT_EQ(xtanch(stream), 0);
                   EXPECT_EQ(xttpshx(stream), 0);
                   for (const char* line : {"if y = . then _ll = .;", "else do; one = 1; two", "= 2; end;"})
                     EXPECT_EQ(xttpshb(stream, line), 0);
                   return 0;
                 });
  ASSERT_EQ(parsed->errors(), 0) << parsed->rendered;
  EXPECT_EQ(seen, (std::vector<int>{78, 82, 83, 81, 80, 77}));
  EXPECT_EQ(parsed->program(),
            "* MODEL: a, b;\nif y = . then\n  _ll = .;\nelse\n  do;\n    one = 1;\n    two = 2;\n  end;\nafter = 1;\n");
}

TEST(Actions, GeneratedTextIsNamedInMessages)
{
  const auto push = [](const char* line) {
    return [line](const SEMARG&, syntax::PROCSTR&, TokenStream& stream) {
      return xtanch(stream) || xttpshx(stream) || xttpshb(stream, line);
    };
  };
  const auto parsed = parse_text("torvale;\n\nmodel y ~ normal(a, b); run;", {}, push("x = 1 +;"));
  ASSERT_EQ(parsed->errors(), 1);
  EXPECT_NE(parsed->rendered.find("generated by MODEL at test.tvl, line 3"), std::string::npos) << parsed->rendered;
  EXPECT_TRUE(parsed->step().proc.error);
}

TEST(Actions, DoNotRunWhenTheStepIsWrongAndMayMakeItWrong)
{
  int calls = 0;
  const auto count = [&](const SEMARG&, syntax::PROCSTR&, TokenStream&) { return ++calls, 1; };
  const auto parsed =
      parse_text("torvale; model y ~ normal(a, b); run; torvale; x = ; model y ~ normal(a, b); run;", {}, count);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(parsed->step(0).proc.error);
}

TEST(Actions, APushThatFeedsItselfEnds)
{
  const auto again = [](const SEMARG&, syntax::PROCSTR&, TokenStream& stream) {
    return xtanch(stream) || xttpshx(stream) || xttpshb(stream, "model y ~ normal(a, b);") ? 1 : 0;
  };
  EXPECT_TRUE(parse_text("torvale; model y ~ normal(a, b); run;", {}, again)->step().proc.error);
}

} // namespace torvale::language::test
