// Statements of every kind, from text: programs that set z (and w), against values worked out by hand.

#include "engine/model_fixture.h"
#include "engine/program_text.h"

#include <cmath>

namespace torvale::test {

namespace {

const double none = std::nan("");

struct StatementCase {
  const char* name;
  const char* program; // x = 1, 2, 3, 4; y = ., 0, -1, 2; sex = M, F, (blank), M
  std::vector<double> z;
};

void PrintTo(const StatementCase& c, std::ostream* out)
{
  *out << c.name;
}

const StatementCase cases[] = {
    {"DoListAndUntil", "z = 0; do i = 1, 5, 7 to 9; z + i; end;", {30, 30, 30, 30}},
    {"DoByFractions", "z = 0; do t = 0 to 0.3 by 0.1; z = z + 1; end;", {4, 4, 4, 4}},
    {"DoDownwards", "z = 0; do i = 3 to x by -1; z = z + i; end;", {6, 5, 3, 0}},
    {"DoUntilRunsOnce", "z = 0; do until (z >= x - 1); z = z + 1; end;", {1, 1, 2, 3}},
    {"LoopConditionEndsRange",
     "z = 0; do i = 1 to 10 while (i < x); z = z + 1; end; z = 100*i + z;",
     {100, 201, 302, 403}},
    {"ContinueAndLeave",
     "z = 0; do i = 1 to 6; if mod(i, 2) = 0 then continue; if i > x then leave; z = z + i; end;",
     {1, 1, 4, 4}},
    {"NestedDataLoops", "z = 0; do i = 1 to x; do j = 1 to i; z = z + j; end; end;", {1, 4, 10, 20}},
    {"SelectWithValues",
     "select (x); when (1, 3) z = 10; when (2) do; z = 20; end; otherwise z = 30; end;",
     {10, 20, 10, 30}},
    {"SelectWithoutValue", "z = 0; select; when (x > 2) z = 1; when (x > 1) z = 2; end;", {0, 2, 1, 1}},
    {"ChainOfComparisons", "z = 1 < x <= 3;", {0, 1, 1, 0}},
    {"InLists",
     "z = (x in (1, 3:4)) + 10*(x notin (2)) + 100*(y in (., 2)) + 1000*(not x in (1 2));",
     {111, 0, 1011, 1111}},
    {"PowerBindsTighterThanSign", "z = -x**2 + 2**-1;", {-0.5, -3.5, -8.5, -15.5}},
    {"MinimumAndMaximum", "z = (x >< y) + 10*(2 <> y);", {none, 20, 19, 22}},
    {"MissingInLogic", "z = (not .) + 10*(. or 1) + 100*(. and 1) + 1000*(y > .);", {11, 1011, 1011, 1011}},
    {"MissingPropagates", "z = 0*y;", {none, 0, 0, 0}},
    {"StatisticsSkipMissing",
     "z = n(x, y) + 10*nmiss(x, y) + 100*sum(x, y) + 10000*min(x, y);",
     {10111, 202, -9798, 20602}},
    {"ConditionalExpression", "z = if x > 2 then if y > 0 then 1 else 2 else 3;", {3, 3, 2, 1}},
    {"FunctionWithReturn",
     "function f(a, b); if a > b then return (a - b); return (b - a); endsub; z = f(x, 2) + 10*f(1, x);",
     {1, 10, 21, 32}},
    {"SubroutineWithOutput",
     "subroutine s(a, r); outargs r; r = a*2; a = 100; endsub; call s(x, z); z = z + x;",
     {3, 6, 9, 12}},
    {"ArrayOfTwoDimensions",
     "array m[2, 0:1] m1-m4; do i = 1 to 2; do j = 0 to 1; m[i, j] = 10*i + j; end; end; z = m[1 + (x > 2), mod(x, 2)] "
     "+ 100*m4;",
     {2111, 2110, 2121, 2120}},
    {"TemporaryArray", "array c[4] _temporary_ (2 4 8 16); z = c[x] + 100*dim(c);", {402, 404, 408, 416}},
    {"ElementWrittenByData",
     "array a[4] a1-a4; do i = 1 to 4; a[i] = 0; end; a[x] = 5; z = a1 + 10*a2 + 100*a3 + 1000*a4;",
     {5, 50, 500, 5000}},
    {"RetainedCount", "retain k 10; k = k + 1; z = k;", {11, 12, 13, 14}},
    {"SumSkipsMissing", "total + y; z = total;", {0, 0, -1, 1}},
    {"LagsAndDifferences", "z = lag2(x) + 10*dif(x);", {none, none, 11, 12}},
    {"RetainOfDataHasNoEffect", "retain x 7; z = x;", {1, 2, 3, 4}},
    {"DataOverwrittenIsFresh", "x = x*10; z = x; x = 0;", {10, 20, 30, 40}},
    {"GotoOverStatements", "z = 1; if x > 2 then goto done; z = 2; done: z = z + 10;", {12, 12, 11, 11}},
    {"ReturnEndsTheRun", "z = 1; if x > 2 then return; z = 2;", {2, 2, 1, 1}},
    {"LinkComesBack", "z = 0; link add; link add; return; add: z = z + x; return;", {2, 4, 6, 8}},
    {"TextsAndLengths",
     "length g $ 3; g = sex || 'abc'; z = length(g) + 10*(g = 'Mab') + 100*(sex =: 'Mx') + 1000*index('xMy', "
     "trim(sex));",
     {2113, 3, 3, 2113}},
    {"TextLeftSide",
     "t = 'abcd'; substr(t, 2, 2) = 'XY'; z = (t = 'aXYd') + 10*(upcase(substr(t, 1, 1)) = 'A') + 100*input('12.5', "
     "8.);",
     {1261, 1261, 1261, 1261}},
    {"NumbersAsTexts",
     "t = put(x, 5.2); z = (strip(t) = '2.00') + 10*(scan('a b c', 2) = 'b') + 100*count('xaxa', 'xa');",
     {210, 211, 210, 210}},
    {"NestedCallOfArray",
     "array a[3] a1-a3 (1 2 3); function total(v[*]); s = 0; do i = 1 to dim(v); s = s + v[i]; end; return (s); "
     "endsub; z = total(a) + sum(of a[*]);",
     {12, 12, 12, 12}},
};

} // namespace

class StatementCases : public testing::TestWithParam<StatementCase> {};

TEST_P(StatementCases, GiveTheirValues)
{
  const StatementCase& c = GetParam();
  const auto text = parse_program(c.program);
  Model m;
  m.data("x", {1, 2, 3, 4});
  m.data("y", {none, 0, -1, 2});
  m.characters("sex", {"M", "F", "", "M"});
  m.compile(text->step.proc.program.statements, {});
  const auto v = m.run({m.symbol("z")});
  ASSERT_EQ(cmperrors(*m.compiler), 0) << m.messages();
  for (std::size_t i = 0; i < 4; ++i) {
    if (std::isnan(c.z[i])) {
      EXPECT_TRUE(std::isnan(v[0][i])) << "row " << i << " is " << v[0][i];
      continue;
    }
    EXPECT_NEAR(v[0][i], c.z[i], 1e-12) << "row " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(All, StatementCases, testing::ValuesIn(cases),
                         [](const auto& one) { return std::string(one.param.name); });

// What cannot be compiled is refused with a message that names the cause.
TEST(StatementFaults, AreRefusedWithTheirCause)
{
  const struct {
    const char* program;
    const char* says;
  } faults[] = {
      {"z = foo(x);", "no function foo"},
      {"function f(a); return (f(a - 1)); endsub; z = f(x);", "calls itself"},
      {"z = exp(x, 2);", "EXP"},
      {"array a[3] a1-a3; z = a[4];", "outside its bounds"},
      {"goto inside; do; inside: z = 1; end;", "can be reached from here"},
      {"z = 1; leave;", "only in loops"},
      {"n = 0; do i = 1 to 5 by n; z = i; end;", "BY value"},
      {"if p > 1 then delete; z = 1;", "DELETE depends on parameters"},
      {"z = undefined_name + 1;", "undefined_name"},
  };
  for (const auto& f : faults) {
    const auto text = parse_program(f.program);
    Model m;
    m.data("x", {1, 2});
    m.compile(text->step.proc.program.statements, {"p"});
    m.theta = {1.0};
    int undefined = 0, unused = 0, counted = 0;
    cmpchck(*m.compiler, undefined, unused, counted);
    CMPDER d;
    const int failed = cmpder(d, CMPLIST{{m.symbol("z")}}, CMPLIST{m.parameters}, *m.compiler);
    const std::string messages = m.messages();
    EXPECT_GT(undefined + counted + failed, 0) << f.program;
    EXPECT_NE(messages.find(f.says), std::string::npos) << f.program << ": " << messages;
  }
}

} // namespace torvale::test
