// Programming statements: each form, as the tree that it becomes.
#include "parse_text.h"

namespace torvale::language::test {

TEST(Statements, ControlFlow)
{
  EXPECT_EQ(program_of("if a then x=1; else if b then do; x=2; end; else;"),
            "if a then\n  x = 1;\nelse\n  if b then\n    do;\n      x = 2;\n    end;\n  else\n    ;\n");
  EXPECT_EQ(program_of("do i = 1 to 9 by 2 while (x<3), 7, n to 1 by -1 until (y); x+i; end;"),
            "do i = 1 to 9 by 2 while (x < 3), 7, n to 1 by -1 until (y);\n  x + i;\nend;\n");
  EXPECT_EQ(program_of("do i = 9 by -1 to 1; end; do while(a); leave; end; do until (b); continue; end; do; end; do "
                       "while = 1 to 2; end;"),
            "do i = 9 to 1 by -1;\nend;\ndo while (a);\n  leave;\nend;\ndo until (b);\n  "
            "continue;\nend;\ndo;\nend;\ndo while = 1 to 2;\nend;\n");
  EXPECT_EQ(
      program_of("select (x); when (1, 2) y=1; when (3) do; y=2; end; otherwise; end; select; when (a) y=1; end;"),
      "select (x);\n  when (1, 2)\n    y = 1;\n  when (3)\n    do;\n      y = 2;\n    end;\n  otherwise\n    "
      ";\nend;\nselect;\n  when (a)\n    y = 1;\nend;\n");
  EXPECT_EQ(
      program_of("again: x=1; goto again; go to again; link again; return; return (x); stop; abort; abort 3; delete;"),
      "again: x = 1;\ngoto again;\ngoto again;\nlink again;\nreturn;\nreturn (x);\nstop;\nabort;\nabort "
      "(3);\ndelete;\n");
}

TEST(Statements, AssignmentsAndCalls)
{
  EXPECT_EQ(
      program_of(
          "x = a = b; n + 1; substr(s, 2) = 'a'; substr(s, 1, 2) = 'ab'; t = substr(s, 1); call f(a, 2); call g;"),
      "x = a = b;\nn + 1;\nsubstr(s, 2) = 'a';\nsubstr(s, 1, 2) = 'ab';\nt = substr(s, 1);\ncall f(a, 2);\ncall "
      "g();\n");
  EXPECT_EQ(program_of("array substr[3]; substr(2) = 1;"),
            "array substr[1:3] substr1 substr2 substr3;\nsubstr[2] = 1;\n");
}

TEST(Statements, Output)
{
  EXPECT_EQ(program_of("put 'a' x x= y 8.2 z= $10. @5 @c @(a+1) +3 / // _page_ _all_ _pdv_ @; put('ERROR: it''s'); "
                       "file log; file print; file 'x.txt'; put;"),
            "put 'a' x x= y 8.2 z= $10. @(5) @(c) @(a+1) +(3) / / / _page_ _all_ _pdv_ @;\nput 'ERROR: it''s';\nfile "
            "log;\nfile print;\nfile 'x.txt';\nput;\n");
}

TEST(Statements, Arrays)
{
  EXPECT_EQ(program_of("array a[3]; array b{0:1} x y; array c x1-x3 (1 2, .); array d[2,2] _temporary_ (4*0); array "
                       "e(*) $ 8 s1-s2 ('a' 'b');"),
            "array a[1:3] a1 a2 a3;\narray b[0:1] x y;\narray c[1:3] x1 x2 x3 (1 2 .);\narray d[1:2, 1:2] _temporary_ "
            "(0 0 0 0);\narray e[1:2] $ 8 s1 s2 ('a' 'b');\n");
  for (const char* wrong : {"array a[3] x y;", "array a[2] x y (1 2 3);", "array a[0];", "array a[5:2];", "array a[*];",
                            "array a[1000000];", "array a[*,2] x y;"})
    EXPECT_TRUE(parse_text(std::string("torvale; ") + wrong + " run;")->has(Problem::bad_array)) << wrong;
  const auto parsed = parse_text("torvale; array n _numeric_; array c _character_; run;",
                                 {{"id", false}, {"name", true}, {"y", false}});
  EXPECT_EQ(parsed->program(), "array n[1:2] id y;\narray c[1:1] name;\n") << parsed->rendered;
}

TEST(Statements, Declarations)
{
  EXPECT_EQ(program_of("length a b $ 8 c 4; label a='x' b='y'; format a b 8.2 c $f10.; attrib a length=$8 label='x' "
                       "format=8.2 b c length=4;"),
            "attrib a b length=$8;\nattrib c length=4;\nattrib a label='x';\nattrib b label='y';\nattrib a b "
            "format=8.2;\nattrib c format=$f10.;\n"
            "attrib a length=$8 label='x' format=8.2;\nattrib b c length=4;\n");
  EXPECT_EQ(program_of("keep a b; drop x1-x2; retain d1 - d3 . a 5 b -4 c (1) e 'x' f; static s 0; retain;"),
            "keep a b;\ndrop x1 x2;\nretain d1 . d2 . d3 . a 5 b -4 c 1 e 'x' f;\nstatic s 0;\nretain;\n");
}

TEST(Statements, Subprograms)
{
  EXPECT_EQ(program_of("function f(a, b $, c[*]) $ 8; if a then return ('x'); return ('y'); endsub; subroutine g(a, "
                       "b); outargs b; b = a; endfunc; x = f(1,'a',y);"),
            "function f(a, b $, c[*]) $;\n  if a then\n    return ('x');\n  return ('y');\nendsub;\nsubroutine g(a, "
            "b);\n  outargs b;\n  b = a;\nendsub;\nx = f(1, 'a', y);\n");
  EXPECT_TRUE(parse_text("torvale; subroutine g(a); outargs z; endsub; run;")->has(Problem::bad_subprogram));
}

TEST(Statements, CommentsAreRaw)
{
  EXPECT_EQ(program_of("* it's a comment, x=2 %do; x=1; /* y=2; * ' */ cmt don't; if a then * none; x=2; l: * no; y = "
                       "3 /* in */ + 4;"),
            "x = 1;\nif a then\n  x = 2;\nl: y = 3+4;\n");
  const auto open = parse_text("torvale; x=1;\n/* never\nclosed; run;");
  ASSERT_EQ(open->errors(), 1) << open->rendered;
  EXPECT_EQ(open->diagnostics[0].where.line, 2); // where it opens
}

TEST(Statements, ThatCannotStandHereAreRefused)
{
  for (const char* wrong :
       {"do; model y ~ normal(a,b); end;", "if a then parms b=1;", "select; when (a) id x; end;", "if a then by z;"})
    EXPECT_TRUE(parse_text(std::string("torvale; ") + wrong + " run;")->has(Problem::misplaced_statement)) << wrong;
  EXPECT_TRUE(parse_text("torvale; goto nowhere; run;")->has(Problem::unknown_label));
  EXPECT_TRUE(parse_text("torvale; a: x=1; a: x=2; run;")->has(Problem::unknown_label));
  EXPECT_TRUE(parse_text("torvale; do i = 1 to 3 by 0; end; run;")->has(Problem::bad_sequence));
  for (const char* wrong : {"declare hash h;", "declare hash h(a: 'x', 3);", "struct s int a double b[3];"})
    EXPECT_TRUE(parse_text(std::string("torvale; ") + wrong + " run;")->has(Problem::not_available)) << wrong;
  for (const char* idle : {"restrict a + 2*b = 3, a < b;", "file 'x' old col=3;", "listfunc f;", "__pgsegment__;"}) {
    const auto parsed = parse_text(std::string("torvale; ") + idle + " run;");
    EXPECT_EQ(parsed->errors(), 0) << parsed->rendered;
    EXPECT_TRUE(parsed->has(Problem::without_effect)) << idle;
  }
}

TEST(Statements, ConditionsThatAreMaximaAreWarnedOf)
{
  for (const char* text : {"if a <> b then x=1;", "do while (a <> b); end;", "select; when (a >< b) x=1; end;",
                           "x = if a <> b then 1 else 2;"})
    EXPECT_TRUE(parse_text(std::string("torvale; ") + text + " run;")->has(Problem::ambiguous_reading)) << text;
  EXPECT_TRUE(parse_text("torvale; if (a <> b) > 0 then x=1; run;")->diagnostics.empty());
}

} // namespace torvale::language::test
