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
