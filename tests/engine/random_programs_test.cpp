// Differential tests: programs grown at random, run by the lane engine and by the plain evaluator. Values, missing
// patterns, faults and derivatives must agree, at one lane and at many.

#include "engine/model_fixture.h"
#include "engine/plain_evaluator.h"
#include "engine/stages/native_stage.h"

#include <bit>
#include <random>

namespace torvale::test {

namespace {

constexpr int records = 41; // not a multiple of any vector width; with padding one of pairs

class Grower {
public:
  Grower(Trees& trees, unsigned seed) : t_(trees), random_(seed) {}

  std::vector<Statement*> program()
  {
    std::vector<Statement*> s;
    s.push_back(t_.array("a", 3, {"a1", "a2", "a3"}));
    for (const char* name : {"v1", "v2", "v3", "a1", "a2", "a3"}) s.push_back(t_.assign(name, expression(2)));
    for (int k = 0; k < 6; ++k) s.push_back(statement(3));
    s.push_back(t_.assign(
        "f", t_.add(t_.add(t_.var("v1"), t_.var("v2")), t_.add(t_.var("v3"), t_.call("sum", {t_.whole("a")})))));
    return s;
  }

private:
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }
  Expr* constant() { return t_.number(std::round(std::uniform_real_distribution<double>(-3, 3)(random_) * 8) / 8); }
  const char* variable()
  {
    static const char* const names[] = {"v1", "v2", "v3", "a1", "a2", "a3"};
    return names[pick(6)];
  }

  Expr* leaf()
  {
    static const char* const inputs[] = {"x", "y", "k", "p", "q", "u"};
    switch (pick(5)) {
    case 0:
      return constant();
    case 1:
      return t_.var(variable());
    default:
      return t_.var(inputs[pick(6)]);
    }
  }

  // Conditions look at inputs only: a rounding difference between the two evaluators must not decide a branch.
  Expr* condition()
  {
    static const Op ops[] = {Op::less, Op::less_equal, Op::greater, Op::greater_equal, Op::equal, Op::not_equal};
    static const char* const inputs[] = {"x", "y", "k", "q"};
    Expr* const link =
        t_.binary(ops[pick(6)], t_.var(inputs[pick(4)]), pick(4) == 0 ? t_.number(std::nan("")) : constant());
    switch (pick(5)) {
    case 0:
      return t_.binary(Op::and_, link, condition());
    case 1:
      return t_.binary(Op::or_, link, condition());
    case 2:
      return t_.unary(Op::not_, link);
    default:
      return link;
    }
  }

  Expr* expression(int depth)
  {
    if (depth == 0) return leaf();
    const auto sub = [&] { return expression(depth - 1); };
    switch (pick(16)) {
    case 0:
    case 1:
      return t_.add(sub(), sub());
    case 2:
    case 3:
      return t_.mul(sub(), sub());
    case 4:
      return t_.sub(sub(), sub());
    case 5:
      return t_.div(sub(), pick(3) == 0 ? sub() : t_.add(t_.number(2), t_.call("abs", {sub()})));
    case 6:
      return t_.call("tanh", {sub()});
    case 7:
      return t_.call("log", {pick(3) == 0 ? sub() : t_.add(t_.number(1), t_.call("abs", {sub()}))});
    case 8:
      return t_.call("exp", {t_.unary(Op::minus, t_.call("abs", {sub()}))});
    case 9:
      return t_.call(pick(2) == 0 ? "sqrt" : "logistic", {sub()});
    case 10:
      return t_.power(sub(), t_.number(pick(4)));
    case 11:
      return t_.power(t_.call("abs", {sub()}), t_.add(t_.number(1.5), t_.call("tanh", {t_.var("p")})));
    case 12:
      return t_.conditional(condition(), sub(), sub());
    case 13:
      return t_.call(pick(2) == 0 ? "sum" : "coalesce", {sub(), sub(), sub()});
    case 14:
      return t_.element("a", {pick(2) == 0 ? t_.number(1 + pick(3)) : t_.add(t_.var("k"), t_.number(1))});
    default:
      return t_.call("sin", {sub()});
    }
  }

  Statement* statement(int depth)
  {
    Statement* const assignment = t_.assign(variable(), expression(3));
    if (depth == 0) return assignment;
    const auto body = [&] {
      std::vector<Statement*> s;
      for (int k = 1 + pick(2); k > 0; --k) s.push_back(statement(depth - 1));
      return s;
    };
    switch (pick(9)) {
    case 0:
    case 1:
      return t_.if_(condition(), t_.group(body()), pick(2) == 0 ? nullptr : statement(depth - 1));
    case 2: { // a loop that is unrolled
      const std::string index = "i" + std::to_string(depth);
      return t_.loop(index, t_.number(1), t_.number(3), body(), pick(3) == 0 ? condition() : nullptr);
    }
    case 3: { // a loop whose count is data
      const std::string index = "j" + std::to_string(depth);
      std::vector<Statement*> s = body();
      if (pick(2) == 0)
        s.insert(s.begin(), t_.if_(t_.binary(Op::equal, t_.var(index), t_.number(2)),
                                   t_.plain(pick(2) == 0 ? StatementKind::leave : StatementKind::continue_)));
      return t_.loop(index, t_.number(1), t_.var("k"), s);
    }
    case 4: {
      auto* const s = t_.statement<SelectStatement>(StatementKind::select);
      s->selector = t_.var("k");
      std::vector<WhenClause> whens(2);
      whens[0].values = t_.arena.copy(std::vector<Expr*>{t_.number(0), t_.number(2)});
      whens[0].body = statement(depth - 1);
      whens[1].values = t_.arena.copy(std::vector<Expr*>{t_.number(1)});
      whens[1].body = statement(depth - 1);
      s->whens = t_.arena.copy(whens);
      if (pick(2) == 0) s->otherwise = statement(depth - 1);
      return s;
    }
    case 5:
      return t_.assign(t_.element("a", {t_.add(t_.var("k"), t_.number(1))}), expression(2));
    default:
      return assignment;
    }
  }

  Trees& t_;
  std::mt19937 random_;
};

struct Case {
  Model m;
  double u = 0.4;

  explicit Case(unsigned seed)
  {
    std::mt19937 random(seed + 1000);
    std::uniform_real_distribution<double> uniform(-2, 2);
    std::vector<double> x, y, k;
    for (int i = 0; i < records; ++i) {
      x.push_back(i % 7 == 3 ? 0.0 : uniform(random));
      y.push_back(i % 11 == 5 ? std::nan("") : uniform(random));
      k.push_back(static_cast<double>(i % 3));
    }
    m.data("x", x);
    m.data("y", y);
    m.data("k", k);
    m.theta = {uniform(random), uniform(random)};
    u = uniform(random);
    Grower grower(m.trees, seed);
    m.compile(grower.program(), {"p", "q"}, {"u"});
  }

  PlainEvaluator plain(std::size_t row, double p, double q, double effect)
  {
    PlainEvaluator e;
    e.variables = {{"x", m.columns[0][row]},
                   {"y", m.columns[1][row]},
                   {"k", m.columns[2][row]},
                   {"p", p},
                   {"q", q},
                   {"u", effect}};
    e.run(m.program);
    return e;
  }
};

bool close(double a, double b, double tolerance)
{
  if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
  if (std::isinf(a) || std::isinf(b)) return a == b;
  return std::fabs(a - b) <= tolerance * (1.0 + std::max(std::fabs(a), std::fabs(b)));
}

} // namespace

class RandomPrograms : public testing::TestWithParam<unsigned> {};

TEST_P(RandomPrograms, ValuesMissingPatternsAndFaultsAgree)
{
  static constexpr const char* builds[] = {"baseline", "avx2", "avx512"};
  const std::string best = isa_name();
  const std::int64_t pairs_after = native_pairs_after();
  for (unsigned seed = GetParam(); seed < GetParam() + 100; ++seed) {
    (void)set_isa(builds[seed % 3]); // refused where the processor lacks it
    set_native_pairs_after(seed % 4 < 2 ? 0 : pairs_after);
    Case c(seed);
    std::vector<CMPSYM*> outputs;
    for (const char* name : {"f", "v1", "v2", "v3", "a1", "a2", "a3"}) outputs.push_back(c.m.symbol(name));
    const engine::Program* const program = cmpspec(*c.m.compiler, outputs);
    ASSERT_EQ(cmperrors(*c.m.compiler), 0) << c.m.messages();
    Frame frame = c.m.frame();
    const auto v = c.m.run(frame, *program, 7, {c.u});
    frame.set_points(&c.u, 1, 1);
    for (std::size_t row = 0; row < records; ++row) {
      const PlainEvaluator plain = c.plain(row, c.m.theta[0], c.m.theta[1], c.u);
      const char* const names[] = {"f", "v1", "v2", "v3", "a1", "a2", "a3"};
      for (std::size_t k = 0; k < 7; ++k)
        ASSERT_TRUE(close(v[k][row], plain.variables.at(names[k]), 1e-9))
            << "seed " << seed << ", row " << row << ", " << names[k] << ": " << v[k][row] << " and "
            << plain.variables.at(names[k]) << "\n"
            << cmppprg(*c.m.compiler);
      std::vector<Fault> faults;
      int errors = 0, made = 0;
      ASSERT_EQ(frame.run_checked(*program, static_cast<std::int64_t>(row), 0, faults, errors, made), 0);
      if (plain.faults == 0) {
        ASSERT_EQ(errors, 0) << "seed " << seed << ", row " << row << ": " << faults[0].text;
      }
    }
    // One lane at a time, in every other program by walking its steps: the same bits as all lanes at once in machine
    // code.
    set_native(seed % 2 == 0);
    frame = c.m.frame();
    frame.set_parameters(c.m.theta.data());
    frame.set_points(&c.u, 1, 1);
    for (std::int32_t row = 0; row < records; ++row) {
      const std::int32_t point = 0;
      Tile tile;
      tile.lanes = 1;
      tile.observation = &row;
      tile.point = &point;
      ASSERT_EQ(frame.run(*program, tile), 0);
      for (std::size_t k = 0; k < 7; ++k)
        ASSERT_EQ(std::bit_cast<std::uint64_t>(frame.output(static_cast<int>(k))[0]),
                  std::bit_cast<std::uint64_t>(v[k][static_cast<std::size_t>(row)]));
    }
    set_native(true);
  }
  set_native_pairs_after(pairs_after);
  (void)set_isa(best);
}

TEST_P(RandomPrograms, DerivativesAgreeWithDifferences)
{
  int compared = 0;
  for (unsigned seed = GetParam(); seed < GetParam() + 60; ++seed) {
    Case c(seed);
    CMPLIST wrt{{c.m.parameters[0], c.m.parameters[1], c.m.effects[0]}};
    CMPDER first, second;
    ASSERT_EQ(cmpder(first, CMPLIST{{c.m.symbol("f")}}, wrt, *c.m.compiler), 0) << c.m.messages();
    ASSERT_EQ(cmpder(second, first.der, wrt, *c.m.compiler), 0) << c.m.messages();
    std::vector<CMPSYM*> outputs = first.der.s;
    outputs.insert(outputs.end(), second.der.s.begin(), second.der.s.end());
    const engine::Program* const program = cmpspec(*c.m.compiler, outputs);
    Frame frame = c.m.frame();
    const auto at = [&](double p, double q, double u) {
      c.m.theta = {p, q};
      return c.m.run(frame, *program, static_cast<int>(outputs.size()), {u});
    };
    const double p = c.m.theta[0], q = c.m.theta[1], h = 1e-5;
    const auto v = at(p, q, c.u);
    std::vector<std::vector<std::vector<double>>> up, down;
    for (int k = 0; k < 3; ++k) {
      up.push_back(at(p + (k == 0 ? h : 0), q + (k == 1 ? h : 0), c.u + (k == 2 ? h : 0)));
      down.push_back(at(p - (k == 0 ? h : 0), q - (k == 1 ? h : 0), c.u - (k == 2 ? h : 0)));
    }
    // Where the function is not smooth or very steep a difference proves nothing: compare only where two step lengths
    // agree with each other.
    const auto check = [&](double analytic, double near, double far, std::size_t row) {
      if (!std::isfinite(near) || !std::isfinite(far) || std::fabs(near) > 1e4 || !close(near, far, 1e-5)) return;
      ++compared;
      EXPECT_TRUE(close(analytic, near, 2e-4))
          << "seed " << seed << ", row " << row << ": " << analytic << " and " << near << "\n"
          << cmppprg(*c.m.compiler);
    };
    for (std::size_t row = 0; row < records; ++row) {
      std::vector<double> gradient(3, 0.0);
      for (std::size_t k = 0; k < first.der.s.size(); ++k)
        gradient[static_cast<std::size_t>(first.wrtindex[k])] = v[k][row];
      for (int k = 0; k < 3; ++k) {
        const auto difference = [&](double step) {
          const double high = c.plain(row, p + (k == 0 ? step : 0), q + (k == 1 ? step : 0), c.u + (k == 2 ? step : 0))
                                  .variables.at("f");
          const double low = c.plain(row, p - (k == 0 ? step : 0), q - (k == 1 ? step : 0), c.u - (k == 2 ? step : 0))
                                 .variables.at("f");
          return (high - low) / (2 * step);
        };
        check(gradient[static_cast<std::size_t>(k)], difference(h), difference(4 * h), row);
      }
      if (std::isnan(c.plain(row, p, q, c.u).variables.at("f"))) continue; // derivatives of nothing
      for (std::size_t e = 0; e < second.der.s.size(); ++e) {
        const auto o = static_cast<std::size_t>(second.objindex[e]);
        const auto k = static_cast<std::size_t>(second.wrtindex[e]);
        const double near = (up[k][o][row] - down[k][o][row]) / (2 * h);
        check(v[first.der.s.size() + e][row], near, near, row);
      }
    }
    if (HasFailure()) return;
  }
  EXPECT_GT(compared, 5000);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomPrograms, testing::Values(1u, 1001u, 2001u));

} // namespace torvale::test
