// Statements of every kind, from text: programs that set z (and w), against values worked out by hand.

#include "engine/model_fixture.h"
#include "engine/program_text.h"

#include <cmath>
#include <set>

namespace torvale::test {

namespace {

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
    {"DoWithoutEnd", "z = 0; do i = 1 by 2 while (i < 2*x); z = z + i; end;", {1, 4, 9, 16}},
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
    {"LongLoopsOverArrays",
     "array a[600] _temporary_; do i = 1 to 600; a[i] = x*i; end; z = 0; do k = 600 to 1 by -1; if k > 598 then z = z "
     "+ "
     "a[k]; if k = 2 then leave; end; z = z + 10000*(i = 601) + 100000*(k = 2);",
     {111199, 112398, 113597, 114796}},
    {"LoopsTooLongToBeUnrolled",
     "array a[3] a1-a3; do i = 1 to 3; a[i] = 0; end; do i = 1 to 40000; a[1 + mod(i, 3)] = a[1 + mod(i, 3)] + exp(x*i "
     "- x*i); end; z = a1 + "
     "2*a2 + 4*a3 + (i = 40001);",
     {93334, 93334, 93334, 93334}},
    {"LoopsOverArraysInLongLoops",
     "array a[450] _temporary_; do i = 1 to 450; a[i] = i; end; z = x; do i = 1 to 401; do j = 1 to 240; z = z + a[1 + "
     "mod(i*j, 450)]; end; end;",
     {21302761, 21302762, 21302763, 21302764}},
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
    {"KindsOfMissingValuesAreOrdered",
     "w = if x = 1 then .B else if x = 2 then . else if x = 3 then ._ else x; z = (w = .B) + 10*(w < .) + "
     "100*(w in (._, .)) + 1000*(.A < w) + 10000*missing(w) + 100000*(. <= w) + 1000000*(w ^= .);",
     {1111001, 110100, 1010110, 1101000}},
    {"KindsDecideBetweenMissingValues",
     "select (if x > 2 then .Z else .C); when (.) z = 1; when (.C) z = 2; otherwise z = 3; end; z = z + 10*((.A <> .C) "
     "= "
     ".C) + 100*((._ >< .) = ._) + 1000*(max(., .D, ._) = .D) + 10000*(min(.D, .A) = .A) + 100000*(coalesce(.A, .Q) = "
     ".Q);",
     {111112, 111112, 111113, 111113}},
    {"ArithmeticForgetsTheKind",
     "w = if x > 2 then .A else x; z = (w + 0 = .) + 10*(1*w = .) + 100*(-w = .) + 1000*(abs(w) = .) + 10000*(w**1 = .)"
     " + 100000*(w = .A) + 1000000*(sum(w, .B) = .);",
     {0, 0, 1111111, 1111111}},
    {"RetainedKindsAndLags",
     "retain k .A; z = (k = .A) + 10*(k = .) + 100*(lag(k) = .A); k = if x = 1 then .A else .;",
     {1, 101, 110, 10}},
    {"KindsAsText",
     "t = put(if x = 2 then .A else if x = 3 then ._ else ., 1.); z = (t = 'A') + 10*(t = '_') + 100*(t = '.');",
     {100, 1, 10, 100}},
    {"StaticKeepsItsValueFromCallToCall",
     "function next(step); static n 100; n = n + step; return (n); endsub; z = next(1); if x > 2 then z = next(x);",
     {101, 102, 106, 111}},
    {"StaticTextsAndArrays",
     "function seen(s $); static last; before = (last = s); last = s; return (before); endsub; "
     "function slot(k); array c[2, 2]; static c 1; c[2, k] = c[2, k]*2; return (c[1, k] + c[2, k]); endsub; "
     "z = seen(sex) + 10*slot(1 + (x > 2));",
     {30, 50, 30, 50}},
    {"SumsInSubprogramsAreKept",
     "function count(v); n + v; return (n); endsub; z = count(x) + 10*count(y);",
     {11, 33, 56, 119}},
    {"LocalArraysBeginAnew",
     "function f(v); array t[0:2] _temporary_ (1 2 3); array w[2] w1 w2 (5 6); w1 = w1 + v; t[0] = t[0] + v; return "
     "(100*w[1] + w[2] + 10000*t[0]); endsub; z = f(x);",
     {20606, 40706, 70806, 110906}},
    {"ArraysAreCopiedUnlessOutputs",
     "array a[2] a1 a2 (1 2); subroutine s(v[*]); v[1] = 7; endsub; subroutine o(v[*]); outargs v; v[2] = 9; endsub; "
     "a1 = x; call s(a); call o(a); z = a1 + 10*a2;",
     {91, 92, 93, 94}},
    {"ArraysOfDataGoToSubprograms",
     "array d[2] x y; array q[2]; function total(v[*]); return (sum(v[1], v[2])); endsub; subroutine fill(v[*], k); "
     "outargs "
     "v; do i = 1 to dim(v); v[i] = k*i; end; endsub; call fill(q, 3); z = total(d) + 10*q[2];",
     {61, 62, 62, 66}},
    {"FunctionsOfTexts",
     "function code(v) $; length r $ 5; if v > 2 then r = 'long'; else r = 's'; return (r || '!'); endsub; z = "
     "(code(x) "
     "= 's    !') + 10*(code(x) = 'long !');",
     {1, 1, 10, 10}},
    {"ValuesOfTextFunctionsKeepTheirLength",
     "function word(k) $; if k = 1 then return ('a'); return ('bcd'); endsub; z = length(word(x)) + 10*(word(3) = "
     "'bcd');",
     {11, 13, 13, 13}},
    {"DoListsOfTexts", "z = 0; do g = 'M', 'F', sex; z = 10*z + (g = sex); end;", {101, 11, 1, 101}},
    {"RetainedTexts",
     "retain c 'none ' d; z = (c = 'none') + 10*(c = 'M') + 100*(d = 'ab') + 1000*(d = ''); if sex = 'M' then c = sex; "
     "d = "
     "substr('abcd', x, 2);",
     {1001, 110, 10, 10}},
    {"TextsThatGrow",
     "length path $ 6; retain path; path = trim(path) || substr('wxyz', x, 1); z = length(path) + 10*(path = 'wxy');",
     {1, 2, 13, 4}},
    {"LagsOfTexts", "z = (lag(sex) = 'M') + 10*(lag2(sex) = 'M') + 100*(lag(sex) = '');", {100, 1, 10, 100}},
    {"TextsInLoopsOfData",
     "length s $ 8; s = ''; do i = 1 to x; s = trim(s) || 'ab'; if i = 3 then leave; end; z = length(s);",
     {2, 4, 6, 6}},
    {"LagsInLoopsOfData",
     "do i = 1 to x; a = lag(i) + 0; b = lag2(x); end; z = a + 100*coalesce(b, 0);",
     {none, 1, 102, 203}},
    {"LoopsInUntakenBranchesDoNotRun",
     "z = 0; if x > 2 then do while (z < 10); z = z + x; end; else if x = 1 then do; again: z = z - 1; if z > -3*x "
     "then "
     "goto again; end;",
     {-3, 0, 12, 12}},
    {"LinksInSubprogramsStayThere",
     "function f(v); r = v; link twice; return (r); twice: r = 2*r; return; endsub; z = f(x) + 1;",
     {3, 5, 7, 9}},
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

std::vector<std::string> put_lines(const std::string& program, std::int64_t row)
{
  const auto text = parse_program(program);
  Model m;
  m.data("x", {1, 2, 3, 4});
  m.compile(text->step.proc.program.statements, {});
  Frame f = m.frame();
  (void)cmpspec(*m.compiler, std::vector<CMPSYM*>{m.symbol("x")});
  EXPECT_EQ(cmperrors(*m.compiler), 0) << m.messages();
  std::vector<PutLine> lines;
  f.run_put(row, 0, lines);
  std::vector<std::string> all;
  for (const PutLine& l : lines) all.push_back(l.target + ": " + l.text);
  return all;
}

// PUT in loops writes in every pass, between what stands before and behind, and sees the values of the pass.
TEST(PutLines, FollowThePassesOfLoops)
{
  const std::string loops =
      "retain n 0; n + 1; total = 0; put 'begin ' n=; do i = 1 to x; total + i; put 'outer ' i= "
      "total=; do j = 1 to i; if j < i then put '  inner ' j @; end; if i = 2 then put 'two'; end; "
      "put 'end ' total=;";
  EXPECT_EQ(put_lines(loops, 0),
            (std::vector<std::string>{"LOG: begin n=1 ", "LOG: outer i=1 total=1 ", "LOG: end total=1 "}));
  EXPECT_EQ(put_lines(loops, 2),
            (std::vector<std::string>{"LOG: begin n=3 ", "LOG: outer i=1 total=1 ", "LOG: outer i=2 total=3 ",
                                      "LOG:   inner 1 two", "LOG: outer i=3 total=6 ",
                                      "LOG:   inner 1   inner 2 end total=6 "}));
  EXPECT_EQ(put_lines("k = 0; again: k = k + 1; put k=; if k < x then goto again; if x > 2 then do while (k > 2); file "
                      "PRINT; put 'down ' k; k = k - 1; end; file 'a.txt'; put k;",
                      3),
            (std::vector<std::string>{"LOG: k=1 ", "LOG: k=2 ", "LOG: k=3 ", "LOG: k=4 ", "PRINT: down 4 ",
                                      "PRINT: down 3 ", "a.txt: 2 "}));
  EXPECT_EQ(
      put_lines("array c[1] $ name; retain; put name last x=; name = 'record'; last = cats(last, put(x, 2.));", 3),
      (std::vector<std::string>{"LOG: record 123 x=4 "}));
  EXPECT_EQ(put_lines("length t $ 6; format w 6.2; w = x/4; t = 'abc'; put t '|' t= w; put t $2. w 8.1 t $5. '|';", 0),
            (std::vector<std::string>{"LOG: abc |t=abc   0.25 ", "LOG: ab      0.2 abc   |"}));
  EXPECT_EQ(put_lines("a = .A; b = ._; put 'held ' @; file PRINT; put x=; put _page_ a b;", 0),
            (std::vector<std::string>{"LOG: held ", "PRINT: x=1 ", "PRINT: ", "PRINT: A _ "}));
}

// A random function draws a new number each time it is executed, the same ones whether a loop is unrolled or not, and
// none for what the record does not execute.
TEST(RandomFunctions, DrawAnewInEveryPass)
{
  const std::string draws =
      "a = 0; u = uniform(); array r[4] r1-r4; do i = 1 to COUNT; if i ^= 3 then r[i] = uniform(); else r[i] = 0; end;"
      "z1 = r1; z2 = r2; z3 = r4; z4 = u;";
  const auto run = [&](std::string count) {
    std::string program = draws;
    program.replace(program.find("COUNT"), 5, count);
    const auto text = parse_program(program);
    Model m;
    m.data("x", {4, 4, 2, 4});
    m.compile(text->step.proc.program.statements, {});
    return m.run({m.symbol("z1"), m.symbol("z2"), m.symbol("z3"), m.symbol("z4")});
  };
  const auto unrolled = run("4"), carried = run("x");
  std::set<double> distinct;
  for (std::size_t row : {0u, 1u, 3u})
    for (std::size_t k = 0; k < 4; ++k) {
      EXPECT_EQ(unrolled[k][row], carried[k][row]) << k;
      distinct.insert(carried[k][row]);
    }
  EXPECT_EQ(distinct.size(), 12u);
  EXPECT_EQ(carried[1][2], unrolled[1][2]);
  EXPECT_TRUE(std::isnan(carried[2][2]));
}

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
      {"goto inside; do; inside: z = 1; end;", "GOTO inside: the label stands in line 2, inside a group"},
      {"link inside; z = 1; if z then do; inside: z = 2; end;", "LINK inside: the label stands in line 2"},
      {"retain c; c = put(p*x, 8.2); z = c = 'a';", "made from a number that depends on parameters"},
      {"function f(a); static a; return (a); endsub; z = f(x);", "has a new value in every call"},
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
