// Differential tests over records: programs grown at random as text, with kept numbers and texts, lags, loops of every
// kind, jumps and subprograms, run over the records of several subjects by the engine and by the plain evaluator. All
// numbers are whole and small, so that both must agree to the last bit, the kinds of missing values included.

#include "engine/model_fixture.h"
#include "engine/plain_evaluator.h"
#include "engine/program_text.h"
#include "host/values/missing.h"

#include <random>

namespace torvale::test::random_records {

namespace {

constexpr std::size_t records = 23;
const std::vector<std::string> outputs = {"v1", "v2", "v3", "r1", "r2", "acc", "m1", "m2", "m3", "m4",
                                          "l1", "l2", "l3", "l4", "hc", "hd",  "he", "i1", "i2", "i3"};

class Grower {
public:
  // inputs: parameters and random effects take part. Texts that are kept are then made afresh, never from each other.
  Grower(unsigned seed, bool inputs) : random_(seed), inputs_(inputs) {}

  std::string program()
  {
    std::string s =
        "length c d e $ 4; retain r1 0 r2 .A c 'ab' d; array m[2, 0:1] m1-m4; array t[3] _temporary_ (1 2 3);\n";
    s += "function f(a, b); static n 1; n = n + 1; if a > b then return (n); w = mod(a + b, 5); return (w); endsub;\n";
    s += "subroutine g(a, b); outargs b; calls + 1; do j = 1 to a; b = mod(b + j, 7); if b = 3 then leave; end; b = b "
         "+ calls; endsub;\n";
    s += "acc + k; l1 = lag(x); l2 = dif2(k); l3 = lag(r1); l4 = (lag(s) = 'ab');\n";
    s += "v1 = k; v2 = x; v3 = 0; e = s; m1 = 1; m2 = 2; m3 = x; m4 = k; i1 = 0; i2 = 0; i3 = 0;\n";
    for (int k = 0; k < 7; ++k) s += statement(3);
    s += "skip: hc = " + fingerprint("c") + "; hd = " + fingerprint("d") + "; he = " + fingerprint("e") + ";\n";
    s += "return;\nsub: v1 = mod(" + number(1) + ", 9); if v1 = 2 then return; v2 = mod(v2 + 1, 11); return;\n";
    return s;
  }

private:
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }
  std::string one_of(std::initializer_list<const char*> names)
  {
    return names.begin()[pick(static_cast<int>(names.size()))];
  }

  static std::string fingerprint(const std::string& v)
  {
    std::string sum;
    for (int k = 1; k <= 4; ++k)
      sum += (k > 1 ? " + " : "") +
             std::to_string(k == 1   ? 1
                            : k == 2 ? 200
                            : k == 3 ? 40000
                                     : 8000000) +
             "*rank(substr(" + v + ", " + std::to_string(k) + "))";
    return sum;
  }

  std::string leaf()
  {
    switch (pick(inputs_ ? 6 : 5)) {
    case 0:
      return std::to_string(pick(7) - 3);
    case 1:
      return one_of({"._", ".", ".A", ".B", "x"});
    case 5:
      return one_of({"p", "u"});
    default:
      return one_of({"x", "k", "v1", "v2", "v3", "r1", "r2", "acc", "l1", "i1"});
    }
  }

  std::string number(int depth)
  {
    if (depth == 0) return leaf();
    const auto sub = [&] { return number(depth - 1); };
    switch (pick(14)) {
    case 0:
    case 1:
      return "mod(" + sub() + one_of({" + ", " - ", "*"}) + sub() + ", 13)";
    case 2:
      return "(" + sub() + one_of({" >< ", " <> "}) + sub() + ")";
    case 3:
      return one_of({"min", "max", "sum", "coalesce", "n"}) + "(" + sub() + ", " + sub() + ", " + sub() + ")";
    case 4:
      return "(if " + condition(1) + " then " + sub() + " else " + sub() + ")";
    case 5:
      return "m[1 + (" + condition(0) + "), " + condition(0) + "]";
    case 6:
      return "t[k]";
    case 7:
      return "f(" + sub() + ", " + leaf() + ")";
    case 8:
      return one_of({"length(", "rank("}) + text(1) + ")";
    case 9:
      return "index(" + text(1) + ", " + one_of({"'a'", "'b'", "trim(s)"}) + ")";
    case 10:
      return "(" + condition(1) + ")";
    default:
      return leaf();
    }
  }

  std::string condition(int depth)
  {
    switch (pick(depth == 0 ? 4 : 7)) {
    case 0:
      return "missing(" + leaf() + ")";
    case 1:
      return text(0) + one_of({" = ", " < ", " ^= "}) + text(0);
    case 4:
      return "(" + condition(0) + one_of({") and (", ") or ("}) + condition(0) + ")";
    case 5:
      return leaf() + " in (1, .A, 3:5, .)";
    case 6:
      return leaf() + " < " + leaf() + " <= " + leaf();
    default:
      return leaf() + one_of({" = ", " < ", " >= ", " ^= "}) + leaf();
    }
  }

  // Texts of the record, or of whatever has been kept.
  std::string text(int depth)
  {
    return depth == 0 ? one_of({"s", "c", "d", "e", "'ab'", "'b'"}) : made(one_of({"s", "c", "d", "e"}));
  }

  std::string made(const std::string& of)
  {
    switch (pick(6)) {
    case 0:
      return "upcase(" + of + ")";
    case 1:
      return "substr(" + of + ", k)";
    case 2:
      return "trim(" + of + ") || 'b'";
    case 3:
      return "reverse(" + of + ")";
    default:
      return of;
    }
  }

  std::string assignment()
  {
    switch (pick(8)) {
    case 0: {
      const std::string to = one_of({"c", "d", "e"});
      return to + " = " + (inputs_ ? made("s") : text(1)) + ";";
    }
    case 1:
      return one_of({"r1", "r2"}) + " = " + number(2) + ";";
    case 2:
      return "acc + mod(" + number(1) + ", 3); acc = mod(acc, 50);";
    case 3:
      return "m[1 + (" + condition(0) + "), " + condition(0) + "] = " + number(2) + ";";
    case 4:
      return "t[k] = mod(" + number(1) + ", 5);";
    default:
      return one_of({"v1", "v2", "v3"}) + " = " + number(2) + ";";
    }
  }

  std::string group(int depth)
  {
    std::string s = "do; ";
    for (int k = 1 + pick(2); k > 0; --k) s += statement(depth - 1);
    return s + "end;\n";
  }

  std::string loop(const std::string& head, int depth)
  {
    const char* const early[] = {"", "", " then leave; ", " then continue; "};
    const std::string out = early[pick(4)];
    const std::string body = group(depth);
    return head + (out.empty() ? "" : "if " + condition(0) + out) + body.substr(4);
  }

  std::string statement(int depth)
  {
    if (depth == 0) return assignment() + "\n";
    const std::string i = "i" + std::to_string(depth);
    switch (pick(14)) {
    case 0:
    case 1:
      return "if " + condition(1) + " then " + group(depth) + (pick(2) == 0 ? "else " + group(depth) : "");
    case 2:
      return loop("do " + i + " = 1 to 3, 7, 9 to 5 by -2 while (" + condition(0) + "); ", depth);
    case 3:
      return loop("do " + i + " = 1 to k; ", depth);
    case 4:
      return loop("do " + i + " = k to 0 by -1 until (" + condition(0) + "), 4; ", depth);
    case 5: // ends because its counter grows, whatever else it does
      return i + " = 0; do while (" + i + " < k + 1); " + i + " = " + i + " + 1; " + group(depth) + "end;\n";
    case 6:
      return "select (" + leaf() + "); when (1, .A, 3) " + group(depth) + "when (., 2) " + group(depth) +
             (pick(2) == 0 ? "otherwise " + group(depth) : "") + "end;\n";
    case 7:
      return "select; when (" + condition(1) + ") " + group(depth) + "when (" + condition(1) + ") " + group(depth) +
             "end;\n";
    case 8:
      return "link sub;\n";
    case 9:
      return "call g(k, " + one_of({"v1", "v2", "v3", "r1"}) + ");\n";
    case 10:
      return "if " + condition(1) + " then goto skip;\n";
    default:
      return assignment() + "\n";
    }
  }

  std::mt19937 random_;
  bool inputs_;
};

bool same(double a, double b)
{
  if (std::isnan(a) || std::isnan(b))
    return std::isnan(a) && std::isnan(b) &&
           host::missing_letter(host::canonical_missing(a)) == host::missing_letter(host::canonical_missing(b));
  return a == b;
}

} // namespace

class RandomRecords : public testing::TestWithParam<unsigned> {};

TEST_P(RandomRecords, KeptValuesTextsAndKindsAgree)
{
  for (unsigned seed = GetParam(); seed < GetParam() + 100; ++seed) {
    const bool inputs = seed % 2 == 0;
    const std::string program = Grower(seed, inputs).program();
    const auto parsed = parse_program(program);
    if (HasFailure()) return;
    Model m;
    std::mt19937 random(seed + 77);
    const auto pick = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); };
    std::vector<double> x, k;
    std::vector<std::string> s;
    std::int32_t start = 0;
    for (std::size_t i = 0; i < records; ++i) {
      const int kind = pick(8);
      x.push_back(kind == 0 ? host::missing : kind == 1 ? host::special_missing('A') : pick(7) - 3.0);
      k.push_back(1.0 + pick(3));
      s.push_back(std::vector<std::string>{"ab", "b", "", "xyz"}[static_cast<std::size_t>(pick(4))]);
      if (pick(5) == 0) start = static_cast<std::int32_t>(i);
      m.starts.push_back(start);
    }
    m.data("x", x);
    m.data("k", k);
    m.characters("s", s);
    m.variables[0].special_missing = true;
    m.theta = {2.0};
    m.compile(parsed->step.proc.program.statements, {"p"}, {"u"});
    std::vector<CMPSYM*> wanted;
    for (const std::string& name : outputs) wanted.push_back(m.symbol(name));
    const auto v = m.run(wanted, {1.0});
    ASSERT_EQ(cmperrors(*m.compiler), 0) << program << m.messages();
    PlainEvaluator plain;
    const std::size_t width = static_cast<std::size_t>(m.variables[2].width);
    for (std::size_t row = 0; row < records; ++row) {
      std::string padded = s[row];
      padded.resize(width, ' ');
      if (m.starts[row] == static_cast<std::int32_t>(row)) plain.begin_subject();
      plain.begin_record({{"x", x[row]}, {"k", k[row]}, {"s", padded}, {"p", 2.0}, {"u", 1.0}});
      plain.run(m.program);
      for (std::size_t o = 0; o < outputs.size(); ++o)
        ASSERT_TRUE(same(v[o][row], plain.read(outputs[o])))
            << "seed " << seed << ", row " << row << " (subject from " << m.starts[row] << "), " << outputs[o] << ": "
            << v[o][row] << " and " << plain.read(outputs[o]) << "\n"
            << program;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomRecords, testing::Values(1u, 1001u, 2001u, 3001u));

} // namespace torvale::test::random_records
