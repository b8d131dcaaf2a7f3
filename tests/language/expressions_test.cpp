// Expressions: what binds to what, chains, lists, literals, and texts that parse back to the same tree.
#include "host/values/missing.h"
#include "parse_text.h"

namespace torvale::language::test {

namespace {

// The tree of an expression as fully bracketed text.
std::string tree(const std::string& expression)
{
  std::string text = program_of("x = " + expression + ";");
  return text.size() > 6 ? text.substr(4, text.size() - 6) : text;
}

} // namespace

TEST(Expressions, BindAsTheLanguageSays)
{
  const std::pair<const char*, const char*> cases[] = {
      {"-x**2/2", "(-(x**2))/2"}, // a sign is looser than a power
      {"2**-1", "2**(-1)"},
      {"a**-b**2", "a**(-(b**2))"},
      {"a**b**c", "a**(b**c)"},
      {"a-b-c", "(a-b)-c"},
      {"a/b*c", "(a/b)*c"},
      {"a+b*c", "a+(b*c)"},
      {"a||b+c", "a||(b+c)"},
      {"a = b || c", "a = (b||c)"},
      {"a or b and c", "a or (b and c)"},
      {"a | b & c ! d", "(a or (b and c)) or d"},
      {"a < b and c >= d", "(a < b) and (c >= d)"},
      {"^a and ~b", "(not a) and (not b)"},
      {"a >< b <> c", "a><(b<>c)"},
      {"a*-b", "a*(-b)"},
      {"not a*b", "(not a)*b"},
      {"1 + if a then b else c + 2", "1+(if a then b else (c+2))"},
      {"if a then if b then c else d else e", "if a then (if b then c else d) else e"},
      {"if if a then b else c then d else e", "if (if a then b else c) then d else e"},
      {"f() + g(a, h(b))", "f()+g(a, h(b))"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(tree(text), expected) << text;
}

TEST(Expressions, EveryComparisonHasItsSpellings)
{
  for (const char* s : {"<", "lt", "LT"}) EXPECT_EQ(tree(std::string("a ") + s + " b"), "a < b");
  for (const char* s : {"<=", "le", "^>", "~>"}) EXPECT_EQ(tree(std::string("a ") + s + " b"), "a <= b");
  for (const char* s : {">", "gt"}) EXPECT_EQ(tree(std::string("a ") + s + " b"), "a > b");
  for (const char* s : {">=", "ge", "^<", "~<"}) EXPECT_EQ(tree(std::string("a ") + s + " b"), "a >= b");
  for (const char* s : {"=", "eq"}) EXPECT_EQ(tree(std::string("a ") + s + " b"), "a = b");
  for (const char* s : {"^=", "ne", "~="}) EXPECT_EQ(tree(std::string("a ") + s + " b"), "a ^= b");
  EXPECT_EQ(tree("a =: 'b'"), "a =: 'b'");
  EXPECT_EQ(tree("a ge: 'b'"), "a >=: 'b'");
}

TEST(Expressions, ChainsOfComparisonsAreOneNode)
{
  const auto parsed = parse_text("torvale; x = 0 < y <= 5; z = (0 < y) < 5; w = a = b; run;");
  ASSERT_EQ(parsed->errors(), 0) << parsed->rendered;
  const auto value = [&](std::size_t i) {
    return static_cast<const syntax::Assignment*>(parsed->step().proc.program.statements[i])->value;
  };
  EXPECT_EQ(value(0)->kind, syntax::ExprKind::chain);
  ASSERT_EQ(value(0)->args.size(), 3u);
  EXPECT_EQ(value(0)->ops[1], syntax::Op::less_equal);
  EXPECT_EQ(value(1)->kind, syntax::ExprKind::binary); // parentheses close a chain
  EXPECT_EQ(value(2)->kind, syntax::ExprKind::binary);
}

TEST(Expressions, NotBeforeAnInListNegatesTheList)
{
  EXPECT_EQ(tree("not y in (-1, -2)"), "y notin (-1, -2)");
  EXPECT_EQ(tree("y notin (1 2, 3:5)"), "y notin (1, 2, 3:5)");
  EXPECT_EQ(tree("not y notin (1)"), "y in (1)");
  EXPECT_EQ(tree("s in ('a' 'b''c')"), "s in ('a', 'b''c')");
  EXPECT_GT(parse_text("torvale; x = y in (1, 'a'); run;")->errors(), 0);
  EXPECT_GT(parse_text("torvale; x = y in (5:1); run;")->errors(), 0);
  const auto parsed = parse_text("torvale; x = not a = b; run;");
  EXPECT_EQ(parsed->errors(), 0);
  EXPECT_TRUE(parsed->has(Problem::ambiguous_reading)); // (NOT a) = b, said with both readings
  EXPECT_EQ(parsed->program(), "x = (not a) = b;\n");
}

TEST(Expressions, LiteralsHaveTheirValues)
{
  const std::pair<const char*, double> cases[] = {
      {"0ffx", 255},
      {"1e3", 1000},
      {".5", 0.5},
      {"5.", 5},
      {"1.5E-2", 0.015},
      {"'01jan1960'd", 0},
      {"'31DEC1959'd", -1},
      {"'1960-03-01'd", 60},
      {"'29feb2000'd", 14669},
      {"'12:30't", 45000},
      {"'0:00:01.5't", 1.5},
      {"'02jan1960:00:00:10'dt", 86410},
      {"12345678901234567890", 12345678901234567890.0},
      {"1e-400", 0},
      {"0.1", 0.1},
  };
  for (const auto& [text, expected] : cases) {
    const auto parsed = parse_text(std::string("torvale; x = ") + text + "; run;");
    ASSERT_EQ(parsed->errors(), 0) << parsed->rendered;
    EXPECT_EQ(static_cast<const syntax::Assignment*>(parsed->step().proc.program.statements[0])->value->number,
              expected)
        << text;
  }
  EXPECT_EQ(tree(".A + ._ + . + .z"), "((.A+._)+.)+.Z");
  for (const char* wrong : {"'30feb2001'd", "'25:99't", "1e999", "'x'dt", "'1jan'd"})
    EXPECT_TRUE(parse_text(std::string("torvale; x = ") + wrong + "; run;")->has(Problem::bad_literal)) << wrong;
  EXPECT_TRUE(parse_text("torvale; y = 2x; run;")->has(Problem::ambiguous_reading));
  EXPECT_FALSE(parse_text("torvale; y = 0fx; run;")->has(Problem::ambiguous_reading));
}

TEST(Expressions, DotsAreToldApart)
{
  EXPECT_EQ(tree("first.id + last.a.b"), "first.id+last.a.b");
  EXPECT_GT(parse_text("torvale; x=.e5; run;")->errors(), 0);
  EXPECT_EQ(program_of("x=.5; y=.; z=.a;"), "x = 0.5;\ny = .;\nz = .A;\n");
  EXPECT_GT(parse_text("torvale; parms a=.b=1; run;")->errors(), 0);
  EXPECT_EQ(parse_text("torvale; parms a=. b=1; run;")->errors(), 0);
}

TEST(Expressions, TextAndNameLiterals)
{
  EXPECT_EQ(tree("\"it's\" || 'it''s' || '/* ; & %x */'"), "('it''s'||'it''s')||'/* ; & %x */'");
  EXPECT_EQ(program_of("'odd name'n = 'if'n + 1;"), "'odd name'n = 'if'n+1;\n");
  const std::string longest(32, 'a');
  EXPECT_EQ(program_of(longest + " = 1;"), longest + " = 1;\n");
  EXPECT_TRUE(parse_text("torvale; " + longest + "a = 1; run;")->has(Problem::name_too_long));
}

TEST(Expressions, ArraysAndFunctionsAreToldApartByDeclarations)
{
  EXPECT_EQ(program_of("array a[2]; x = a(1) + b(1) + a{2} + sum(of a[*], of x1-x3, 2);"),
            "array a[1:2] a1 a2;\nx = ((a[1]+b(1))+a[2])+sum(of a[*], x1, x2, x3, 2);\n");
  EXPECT_TRUE(parse_text("torvale; x = a[1]; run;")->has(Problem::bad_array));
  EXPECT_GT(parse_text("torvale; array a[2]; x = a(1]; run;")->errors(), 0);
  EXPECT_EQ(program_of("x = of + log(of); y = put(x, 8.2);"), "x = of+log(of);\ny = put(x, '8.2');\n");
}

TEST(Expressions, WrittenTextParsesBackToTheSameText)
{
  for (const char* text : {"-x**2/2 + a*(b-c)**-d", "not (a in (1, 2:4, .)) or b ^= 'x''y' and 0 < c < 3",
                           "if a >< b then f(of t[*], -1e-300) else 'odd n'n || 's'", "1e300*1e10 - (-3)**2 + .B",
                           "a = b =: c <> d", "0.1 + 1e22 + 123456789.125"}) {
    const std::string first = program_of(std::string("array t[2]; x = ") + text + ";");
    std::string again = program_of(first);
    EXPECT_EQ(first, again) << text;
  }
}

TEST(Expressions, DeepNestingIsRefusedNotFollowed)
{
  const std::string open(20000, '('), close(20000, ')'), signs(20000, '-');
  EXPECT_TRUE(parse_text("torvale; x = " + open + "1" + close + "; y = 2; run;")->has(Problem::too_deep));
  EXPECT_TRUE(parse_text("torvale; x = " + signs + "1; run;")->has(Problem::too_deep));
  std::string sum = "1";
  for (int i = 0; i < 4000; ++i) sum += "+1";
  EXPECT_TRUE(parse_text("torvale; x = " + sum + "; run;")->has(Problem::too_deep));
}

} // namespace torvale::language::test
