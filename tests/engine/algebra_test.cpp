// What the graph makes of logarithms of exponentials, logistic functions, differences of log gamma and sums, against
// the formulas in higher precision, where the steps as written overflow or cancel too.

#include "engine/model_fixture.h"
#include "engine/program_text.h"

#include <algorithm>
#include <cmath>

namespace torvale::test {

namespace {

long double softplus(long double x)
{
  return x > 0 ? x + std::log1p(std::exp(-x)) : std::log1p(std::exp(x));
}
long double log_of(long double w)
{
  return w > 0 ? std::log(w) : NAN;
}

struct Form {
  const char* name;
  const char* program; // of x and w
  long double (*truth)(long double x, long double w);
};

void PrintTo(const Form& f, std::ostream* out)
{
  *out << f.name;
}

// clang-format off
const Form forms[] = {
    {"LogOfProbability", "p = 1/(1 + exp(-x)); z = log(p);", [](long double x, long double) { return -softplus(-x); }},
    {"LogOfComplement", "p = exp(x)/(1 + exp(x)); z = log(1 - p);", [](long double x, long double) { return -softplus(x); }},
    {"Complement", "z = 1 - 1/(1 + exp(-x));", [](long double x, long double) { return 1 / (1 + std::exp(x)); }},
    {"LogOfOdds", "z = log(1 + exp(x));", [](long double x, long double) { return softplus(x); }},
    {"Log1pOfOdds", "z = log1p(exp(x));", [](long double x, long double) { return softplus(x); }},
    {"LogOfDensity", "z = log(3*exp(x)/(1 + exp(x))**2);",
     [](long double x, long double) { return std::log(3.0L) + x - 2 * softplus(x); }},
    {"FactorsOutOfLogs", "z = log(w*exp(x));", [](long double x, long double w) { return log_of(w) + x; }},
    {"DivisorsOutOfLogs", "z = log(exp(x)/w);", [](long double x, long double w) { return x - log_of(w); }},
    {"ReciprocalInLog", "z = log(1/w);", [](long double, long double w) { return -log_of(w); }},
    {"RootOfExponential", "z = log(sqrt(exp(x)));", [](long double x, long double) { return x / 2; }},
    {"PowerOfExponential", "z = log(exp(x)**w);", [](long double x, long double w) { return x * w; }},
    {"BothTails", "z = logistic(x) - logistic(-x);", [](long double x, long double) { return std::tanh(x / 2); }},
    {"BothSoftplus", "z = softplus(x - w) - softplus(w - x);", [](long double x, long double w) { return x - w; }},
    {"CloglogComplement", "p = 1 - exp(-exp(x)); z = log(1 - p);", [](long double x, long double) { return -std::exp(x); }},
};
// clang-format on

class AlgebraForms : public testing::TestWithParam<Form> {};

} // namespace

TEST_P(AlgebraForms, AreTheFormula)
{
  const auto text = parse_program(GetParam().program);
  Model m;
  std::vector<double> x, w;
  for (const double xi : {-700.0, -40.0, -3.0, -1e-9, 0.0, 0.5, 2.0, 36.0, 690.0, none})
    for (const double wi : {1.5, 1e-3, -2.0, none}) {
      x.push_back(xi);
      w.push_back(wi);
    }
  m.data("x", x);
  m.data("w", w);
  m.compile(text->step.proc.program.statements, {});
  const auto z = m.run({m.symbol("z")})[0];
  ASSERT_EQ(cmperrors(*m.compiler), 0) << m.messages();
  for (std::size_t i = 0; i < x.size(); ++i) {
    const long double truth = GetParam().truth(x[i], w[i]);
    if (std::isnan(truth)) {
      EXPECT_TRUE(std::isnan(z[i])) << x[i] << ", " << w[i];
      continue;
    }
    EXPECT_NEAR(z[i], static_cast<double>(truth), 2e-15 * std::max(1.0, std::fabs(static_cast<double>(truth))))
        << x[i] << ", " << w[i];
  }
}

INSTANTIATE_TEST_SUITE_P(All, AlgebraForms, testing::ValuesIn(forms),
                         [](const auto& one) { return std::string(one.param.name); });

// The size of a negative binomial distribution near that of Poisson: the difference of two numbers of 1e9 keeps its
// digits.
TEST(Algebra, DifferencesOfLogGammaDoNotCancel)
{
  const auto text = parse_program("z = lgamma(n + x) - lgamma(n);");
  Model m;
  std::vector<double> n, x;
  for (const double ni : {0.3, 7.9, 1e8})
    for (const double xi : {0.0, 1.0, 5.0, 12.0, 13.0, 60.0, 0.25}) {
      n.push_back(ni);
      x.push_back(xi);
    }
  m.data("n", n);
  m.data("x", x);
  m.compile(text->step.proc.program.statements, {});
  const auto z = m.run({m.symbol("z")})[0];
  for (std::size_t i = 0; i < n.size(); ++i) {
    long double truth = 0;
    for (int j = 0; j < x[i] && x[i] >= 1; ++j) truth += std::log(n[i] + static_cast<long double>(j));
    if (x[i] == 0.25) // by Stirling's formula, or plainly
      truth = n[i] > 1e7 ? 0.25L * std::log(1e8L) - 0.09375e-8L
                         : std::lgamma(n[i] + 0.25L) - std::lgamma(static_cast<long double>(n[i]));
    const double size = std::max({1.0, std::fabs(static_cast<double>(truth)), x[i]});
    EXPECT_NEAR(z[i], static_cast<double>(truth), 4e-15 * size) << n[i] << ", " << x[i];
  }
}

// Wherever the random effects stand in a sum, a lane adds what varies by record and what varies by point, and no more.
TEST(Algebra, SumsAreGroupedByWhatTheyVaryWith)
{
  const auto lane_steps = [](const std::string& program) {
    const auto text = parse_program(program);
    Model m;
    m.data("x", {1, 2, 3});
    m.data("y", {0, 1, none});
    m.compile(text->step.proc.program.statements, {"b0", "b1", "b2"}, {"u", "v"});
    m.theta = {0.3, -0.2, 0.7};
    const auto z = m.run({m.symbol("z")}, {0.5, -0.25})[0];
    const double r = 0.3 - 0.2 * 1 + 0.7 * 1, p = 0.5 + 0.25;
    EXPECT_NEAR(z[0], 0.0 - (r + p), 1e-15) << program;
    EXPECT_TRUE(std::isnan(z[2])) << program;
    return program_size(*cmpspec(*m.compiler, std::vector<CMPSYM*>{m.symbol("z")})).lane;
  };
  EXPECT_EQ(lane_steps("z = y - (b0 + u + b1*x - v + b2*x*x);"), 1);
  EXPECT_EQ(lane_steps("eta = b0; eta = eta + u; eta = eta + b1*x - v; eta = eta + b2*x*x; z = y - eta;"), 1);
}

// The same of products, of a divisor by point, and of the conditions of one flag.
TEST(Algebra, ProductsAndFlagsAreGroupedByWhatTheyVaryWith)
{
  const auto lane_steps = [](const std::string& program, double truth) {
    const auto text = parse_program(program);
    Model m;
    m.data("x", {2, none});
    m.data("y", {-3, 1});
    m.compile(text->step.proc.program.statements, {"a", "b"}, {"u", "v"});
    m.theta = {0.3, -0.2};
    const auto z = m.run({m.symbol("z")}, {0.5, -0.25})[0];
    EXPECT_NEAR(z[0], truth, 1e-15) << program;
    EXPECT_TRUE(std::isnan(z[1])) << program;
    return program_size(*cmpspec(*m.compiler, std::vector<CMPSYM*>{m.symbol("z")})).lane;
  };
  EXPECT_EQ(lane_steps("z = u*x*v*(y*a);", 0.225), 1);
  EXPECT_EQ(lane_steps("z = x*(u*y)/(v + b);", -3 / -0.45), 1);
  EXPECT_EQ(lane_steps("bad = x > 5; if u > 5 then bad = 1; if y > 5 then bad = 1; if v > 5 then bad = 1;"
                       "if bad = 0 then z = x; else z = .;",
                       2.0),
            2);
}

// A rate from a clearance and a volume that were made of that rate is the rate: it does not vary with the effect.
TEST(Algebra, ExponentialsInBothPartsOfAQuotientCancel)
{
  for (const char* const rate :
       {"v = cl/ke; k = cl/v;", "v = cl*ke; k = v/cl;", "v = ke*cl; w = cl/v; k = 1/w;",
        "v = ke/cl; w = v/cl; w = cl/ke; v = 1/w; k = cl*v;", "w = cl/c; v = cl/w; k = v/c*ke;"}) {
    const auto text = parse_program("cl = exp(a + u); ke = exp(b); c = b; " + std::string(rate) + " z = k;");
    Model m;
    m.data("x", {2, 1});
    m.compile(text->step.proc.program.statements, {"a", "b"}, {"u"});
    m.theta = {0.3, -0.2};
    EXPECT_NEAR(m.run({m.symbol("z")}, {0.5})[0][0], std::exp(-0.2), 1e-15) << rate;
  }
  const auto text = parse_program("cl = exp(a + u); v = cl/exp(b); z = cl/v;"
                                  "d = exp(a + u + x); y = d/(d/exp(b)); w = cl/(cl/b);");
  Model m;
  m.data("x", {2, none});
  m.compile(text->step.proc.program.statements, {"a", "b"}, {"u"});
  m.theta = {0.3, 0.0};
  const engine::Program& program = *cmpspec(*m.compiler, std::vector<CMPSYM*>{m.symbol("z")});
  EXPECT_FALSE(varies_by_point(program, 0));
  const auto values = m.run({m.symbol("y"), m.symbol("w")}, {0.5});
  EXPECT_NEAR(values[0][0], 1.0, 1e-15);
  EXPECT_TRUE(std::isnan(values[0][1])); // of a missing covariate
  EXPECT_TRUE(std::isnan(values[1][0])); // by 0
}

// Where guards tell that p = 1/(1 + t) is between 0 and 1, log(1 - p) is log(t) - log(1 + t): t is then above 0, and
// one that is an exponential needs no logarithm. Without such guards, or under others, t may be below -1.
TEST(Algebra, LogOfAComplementInsideGuards)
{
  const double outside = -9;
  struct {
    const char* program;
    bool simpler;            // one logarithm fewer
    bool (*taken)(double p); // else the value is `outside`
  } const guards[] = {
      {"if p <= 0 or p >= 1 then z = -9; else z = log(1 - p) + log(p);", true, [](double p) { return p > 0 && p < 1; }},
      {"if p > 1e-9 then do; if not (0.75 <= p) then z = log(1 - p) + log(p); else z = -9; end; else z = -9;", true,
       [](double p) { return p > 1e-9 && p < 0.75; }},
      {"if missing(p) then z = -9; else do; q = -9; if (x > 1e9) or p <= 1e-16 or (0.99 <= p) then z = q;"
       "else do; s = p; z = log(1 - s) + log(s); end; end;",
       true, [](double p) { return p > 1e-16 && p < 0.99; }},
      {"z = if 0 < p and p < 1 then log(1 - p) + log(p) else -9;", true, [](double p) { return p > 0 && p < 1; }},
      {"z = log(1 - p); if p <= 0 or p >= 1 then y = log(1 - p);", false, nullptr},
      {"if p < 1 then z = log(1 - p); else z = -9;", false, [](double p) { return p < 1; }},
      {"if p > 0 then z = log(1 - p); else z = -9;", false, [](double p) { return p > 0; }},
      {"if p < 2 and p > 0 then z = log(1 - p); else z = -9;", false, [](double p) { return p > 0 && p < 2; }},
      {"if p <= 0 or p >= 1 then z = log(1 - p); else z = -9;", false, [](double p) { return p <= 0 || p >= 1; }},
      {"if p > 0 or p < 1 then z = log(1 - p); else z = -9;", false, nullptr},
      {"if p <= 0 or p >= 1 then y = 1; else y = 2; z = log(1 - p);", false, nullptr},
  };
  for (const auto& g : guards) {
    const auto text = parse_program("p = 1/(1 + w*exp(x)); " + std::string(g.program));
    Model m;
    m.compile(text->step.proc.program.statements, {"x", "w"});
    for (const double w : {1.5, 1e-3, -0.2, -2.0, -9.0})
      for (const double x : {-3.0, 0.3, 2.0, 7.0}) {
        m.theta = {x, w};
        const double z = m.run({m.symbol("z")})[0][0];
        const long double t = static_cast<long double>(w) * std::exp(static_cast<long double>(x)), p = 1 / (1 + t);
        const bool taken = g.taken == nullptr || g.taken(static_cast<double>(p));
        const long double truth = !taken ? outside : std::log(1 - p) + (g.simpler ? std::log(p) : 0.0L);
        // As written 1 - p loses the digits that both have in common.
        const double lost = g.simpler ? 0.0 : 2e-16 / static_cast<double>(std::fabs(1 - p));
        if (std::isnan(truth))
          EXPECT_TRUE(std::isnan(z)) << g.program << " x " << x << ", w " << w;
        else
          EXPECT_NEAR(z, static_cast<double>(truth),
                      lost + 4e-15 * std::max(1.0, std::fabs(static_cast<double>(truth))))
              << g.program << " x " << x << ", w " << w;
      }
    CMPDER first;
    CMPLIST of, by;
    of.s = {m.symbol("z")};
    by.s = {m.parameters[0], m.parameters[1]};
    ASSERT_EQ(cmpder(first, of, by, *m.compiler), 0);
    const std::vector<CMPSYM*> outputs{m.symbol("z"), first.der.s[0], first.der.s[1]};
    m.theta = {0.3, 0.7};
    const auto v = m.run(outputs);
    const double t = 0.7 * std::exp(0.3), p = 1 / (1 + t);
    if (v[0][0] == outside) continue;
    const double by_x = p - (g.simpler ? t * p : 0.0);
    EXPECT_NEAR(v[1][0], by_x, 1e-14) << g.program;
    EXPECT_NEAR(v[2][0], by_x / 0.7, 1e-14) << g.program;
  }
}

// The Bernoulli likelihood with the probability written out: no logarithm but the one of 1 + exp(-|eta|), which the
// derivatives share.
TEST(Algebra, BernoulliLikelihoodTakesOneExponentialAndOneLogarithm)
{
  const auto text = parse_program("eta = b0 + u + b1*x; p = 1/(1 + exp(-eta)); z = y*log(p) + (1 - y)*log(1 - p);");
  Model m;
  m.data("x", {1, -2, 30, 4});
  m.data("y", {0, 1, 1, 0});
  m.compile(text->step.proc.program.statements, {"b0", "b1"}, {"u"});
  m.theta = {0.3, -0.2};
  CMPDER first;
  CMPLIST of, by;
  of.s = {m.symbol("z")};
  by.s = {m.parameters[1], m.effects[0]};
  ASSERT_EQ(cmpder(first, of, by, *m.compiler), 0);
  const std::vector<CMPSYM*> outputs{m.symbol("z"), first.der.s[0], first.der.s[1]};
  const auto v = m.run(outputs, {0.5});
  for (std::size_t i = 0; i < 4; ++i) {
    const long double x = m.columns[0][i], y = m.columns[1][i], eta = 0.3 + 0.5 - 0.2L * x,
                      p = 1 / (1 + std::exp(-eta));
    EXPECT_NEAR(v[0][i], static_cast<double>(y * -softplus(-eta) + (1 - y) * -softplus(eta)), 3e-15);
    EXPECT_NEAR(v[1][i], static_cast<double>((y - p) * x), 3e-14);
    EXPECT_NEAR(v[2][i], static_cast<double>(y - p), 3e-15);
  }
  EXPECT_LE(program_size(*cmpspec(*m.compiler, outputs)).lane, 26);
}

// Exponentials of sums are products of a record's and a point's factor, but where one of these is out of range: then
// the sum itself decides, as it does when its parts all but cancel.
TEST(Algebra, ExponentialsOfSumsHoldOutsideTheRangeOfTheirFactors)
{
  const auto text = parse_program("z = exp(b1*x + u); p = 1/(1 + exp(-(u - b1*x))); w = log(p);");
  Model m;
  m.data("x", {-1000, -400, -349, -1, 0, 2, 351, 700, 1000, none});
  m.compile(text->step.proc.program.statements, {"b1"}, {"u"});
  m.theta = {1.0};
  for (const double u : {0.5, 345.0, -345.0, 990.0, -990.0}) {
    const auto v = m.run({m.symbol("z"), m.symbol("p"), m.symbol("w")}, {u});
    for (std::size_t i = 0; i + 1 < m.columns[0].size(); ++i) {
      const double x = m.columns[0][i];
      const long double z = std::exp(static_cast<long double>(x) + u), eta = static_cast<long double>(u) - x;
      if (z < 1e308L && z > 1e-305L) {
        EXPECT_NEAR(v[0][i], static_cast<double>(z), 2e-15 * static_cast<double>(z)) << x << ", " << u;
      }
      EXPECT_NEAR(v[1][i], static_cast<double>(1 / (1 + std::exp(-eta))), 2e-15) << x << ", " << u;
      EXPECT_NEAR(v[2][i], static_cast<double>(-softplus(-eta)), 2e-15 * std::max(1.0, std::fabs(x) + std::fabs(u)))
          << x << ", " << u;
    }
    for (const auto& column : v) EXPECT_TRUE(std::isnan(column.back()));
  }
}

} // namespace torvale::test
