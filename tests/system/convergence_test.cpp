// When a fit has converged: what is claimed at exit code 0 is a minimum, whatever the start, the technique and the
// units; and what is none is named.

#include "system/session.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

namespace torvale::tests {

namespace {

const std::string intercepts =
    "MODEL reaction ~ NORMAL(b0 + b1*days + u, s2); RANDOM u ~ NORMAL(0, s2u) SUBJECT=subject; RUN;";

double minus2(const Run& run)
{
  return run.table("FitStatistics") != nullptr ? run.column("FitStatistics", "Value")[0] : std::nan("");
}

Run fit_data(const std::string& csv, const std::string& program)
{
  const TemporaryFile file("convergence.csv", csv);
  return run_text("TORVALE DATA='" + file.path() + "' " + program);
}

} // namespace

TEST(Convergence, StartsAtZeroVarianceAndFarAway)
{
  const double answer = 1794.07863;
  for (const std::string technique :
       {"", "TECHNIQUE=TRUREG", "TECHNIQUE=NRRIDG", "TECHNIQUE=CONGRA", "TECHNIQUE=NMSIMP"})
    for (const std::string bounds : {"", "BOUNDS s2u >= 0, s2 > 0;", "BOUNDS s2u > 0, s2 > 0;"})
      for (const std::string start : {"b0=0 b1=0 s2u=1 s2=1", "b0=0 b1=0 s2u=100 s2=1", "b0=300 b1=0 s2u=1000 s2=1",
                                      "b0=250 b1=10 s2u=0.001 s2=1000"}) {
        const auto run =
            run_text("TORVALE DATA=sleepstudy " + technique + "; PARMS " + start + "; " + bounds + intercepts);
        EXPECT_EQ(run.outcome.exit_code, 0) << technique << start << bounds << run.log;
        EXPECT_NEAR(minus2(run), answer, 1e-3) << technique << start << bounds << run.log;
      }
}

// A start at a variance of exactly 0 leaves it; where 0 is the answer, it stays there and has no standard error.
TEST(Convergence, VarianceOfZero)
{
  const auto leaves =
      run_text("TORVALE DATA=sleepstudy; PARMS b0=250 b1=10 s2u=0 s2=1000; BOUNDS s2u >= 0, s2 > 0;" + intercepts);
  EXPECT_EQ(leaves.outcome.exit_code, 0) << leaves.log;
  EXPECT_NEAR(minus2(leaves), 1794.07863, 1e-3) << leaves.log;
  std::string csv = "id,y\n";
  for (int i = 0; i < 12; ++i)
    for (int j = 0; j < 4; ++j)
      csv += std::to_string(i) + "," + std::to_string(10 + j) + "\n"; // all subjects are alike
  const std::string model = "MODEL y ~ NORMAL(m + u, s2); RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;";
  for (const std::string bounds : {"", "BOUNDS s2u >= 0;", "BOUNDS s2u > 0;"}) {
    const auto stays = fit_data(csv, "; PARMS m=0 s2u=1 s2=1; " + bounds + model);
    EXPECT_EQ(stays.outcome.exit_code, 0) << bounds << stays.log;
    EXPECT_NEAR(stays.number("ParameterEstimates", "m", "Estimate"), 11.5, 1e-4);
    EXPECT_NEAR(stays.number("ParameterEstimates", "s2", "Estimate"), 1.25, 1e-4);
    EXPECT_LT(stays.number("ParameterEstimates", "s2u", "Estimate"), 1e-6);
    EXPECT_TRUE(std::isnan(stays.number("ParameterEstimates", "s2u", "StandardError"))) << bounds << stays.log;
    EXPECT_NEAR(stays.number("ParameterEstimates", "m", "StandardError"), std::sqrt(1.25 / 48), 1e-4) << bounds;
  }
}

// A likelihood with two maxima: an intercept of each subject takes the outlier in, or there is none at all, which is
// better by 0.27 in -2 log L. Without the effect the answer is least squares.
TEST(Convergence, AMinimumWithoutTheEffectIsFound)
{
  const std::vector<int> id{1, 2, 3, 3, 4, 4, 5, 6, 6, 7, 7, 7}, x{4, 6, 2, 5, 6, 4, 1, 3, 4, 4, 3, 2},
      y{5, 0, 8, 6, 8, 0, 39, 0, 5, 8, 4, 9};
  const double n = static_cast<double>(y.size());
  double sx = 0, sy = 0, sxx = 0, sxy = 0, syy = 0;
  std::string csv = "id,x,y\n";
  for (std::size_t i = 0; i < y.size(); ++i) {
    csv += std::to_string(id[i]) + "," + std::to_string(x[i]) + "," + std::to_string(y[i]) + "\n";
    sx += x[i], sy += y[i], sxx += x[i] * x[i], sxy += x[i] * y[i], syy += y[i] * y[i];
  }
  const double slope = (sxy - sx * sy / n) / (sxx - sx * sx / n);
  const double s2 = (syy - sy * sy / n - slope * (sxy - sx * sy / n)) / n;
  const double answer = n * (std::log(2 * M_PI * s2) + 1);
  const std::string model = "MODEL y ~ NORMAL(b0 + b1*x + u, s2); RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;";
  for (const std::string technique : {"", "TECHNIQUE=TRUREG", "TECHNIQUE=NMSIMP"})
    for (const std::string bounds : {"", "BOUNDS s2u >= 0, s2 > 0;"}) {
      const auto run = fit_data(csv, technique + "; PARMS b0=1 b1=1 s2u=100 s2=100;" + bounds + model);
      EXPECT_EQ(run.outcome.exit_code, 0) << technique << bounds << run.log;
      EXPECT_NEAR(minus2(run), answer, 1e-4) << technique << bounds << run.log;
      EXPECT_NEAR(run.number("ParameterEstimates", "b1", "Estimate"), slope, 1e-3) << technique << bounds;
    }
}

// The same at either of two nested levels.
TEST(Convergence, NestedVarianceOfZero)
{
  std::string csv = "school,class,y\n";
  const int school[] = {4, -3, 1, -2, 3, -5, 2, 0}; // differs; its classes are all alike
  for (int s = 0; s < 8; ++s)
    for (int c = 0; c < 3; ++c)
      for (int j = 0; j < 4; ++j)
        csv += std::to_string(s) + "," + std::to_string(c) + "," + std::to_string(10 + school[s] + j) + "\n";
  const std::string model = "MODEL y ~ NORMAL(m + u + v, s2); RANDOM u ~ NORMAL(0, s2s) SUBJECT=school;"
                            "RANDOM v ~ NORMAL(0, s2c) SUBJECT=class(school); RUN;";
  for (const std::string bounds : {"", "BOUNDS s2s >= 0, s2c >= 0, s2 > 0;"})
    for (const std::string start : {"s2s=1 s2c=1", "s2s=0 s2c=0.5", "s2s=1 s2c=0", "s2s=0 s2c=0", "s2s=1 s2c=100"}) {
      const auto run = fit_data(csv, "; PARMS m=10 " + start + " s2=1; " + bounds + model);
      EXPECT_EQ(run.outcome.exit_code, 0) << start << bounds << run.log;
      EXPECT_NEAR(run.number("ParameterEstimates", "s2s", "Estimate"), 8.5 - 120.0 / 88 / 12, 0.02) << start << bounds;
      EXPECT_LT(run.number("ParameterEstimates", "s2c", "Estimate"), 1e-6) << start << bounds;
      EXPECT_NEAR(run.number("ParameterEstimates", "s2", "Estimate"), 120.0 / 88, 1e-3) << start << bounds;
    }
}

// A correlation of 1: intercepts and slopes that vary together. The covariance of the estimates is that of the fit with
// one effect and the two factors of G as parameters.
TEST(Convergence, ErrorsAlongTheEdge)
{
  std::string csv = "id,x,y\n";
  const double effect[] = {2.1, -1.4, 0.3, -0.6, 1.2, -2.3, 0.9, -0.2, 1.6, -1.1};
  const double noise[] = {0.31, -0.52, 0.18, 0.44, -0.27, -0.09, 0.63, -0.38, -0.71, 0.22, 0.05, -0.34, 0.57};
  for (int id = 0; id < 10; ++id)
    for (int x = -1; x < 3; ++x)
      csv += std::to_string(id) + "," + std::to_string(x) + "," +
             std::to_string(1 + 0.5 * x + effect[id] * (1 + 0.4 * x) + 3 * noise[(4 * id + x + 1) % 13]) + "\n";
  const auto block = fit_data(csv, "QPOINTS=1; PARMS b0=1 b1=0.5 v=1 c=0 w=1 s2=1; BOUNDS s2 > 0;"
                                   "MODEL y ~ NORMAL(b0 + u + (b1 + t)*x, s2);"
                                   "RANDOM u t ~ NORMAL([0,0],[v,c,w]) SUBJECT=id; RUN;");
  const auto factors =
      fit_data(csv, "QPOINTS=1 GCONV=1e-14; PARMS b0=1 b1=0.5 f=1 g=1 s2=1; BOUNDS s2 > 0;"
                    "MODEL y ~ NORMAL(b0 + b1*x + z*(f + g*x), s2); RANDOM z ~ NORMAL(0, 1) SUBJECT=id;"
                    "ESTIMATE 'v' f*f; ESTIMATE 'c' f*g; ESTIMATE 'w' g*g; RUN;");
  EXPECT_EQ(block.outcome.exit_code, 0) << block.log;
  ASSERT_NEAR(minus2(block), minus2(factors), 1e-5) << "not at the edge";
  for (const char* const name : {"b0", "b1", "s2", "v", "c", "w"}) {
    const bool own = name[0] == 'b' || name[0] == 's';
    const double expected = factors.number(own ? "ParameterEstimates" : "AdditionalEstimates", name, "StandardError");
    EXPECT_NEAR(block.number("ParameterEstimates", name, "StandardError") / expected, 1.0, 1e-4) << name;
  }
}

// Units of the response and of the covariate change no exit code.
TEST(Convergence, UnitsDoNotMatter)
{
  const auto text = [](double v) {
    char digits[32];
    std::snprintf(digits, sizeof digits, "%g", v);
    return std::string(digits);
  };
  for (const double unit : {1e-8, 1e-6, 1e-3, 1.0, 1e3, 1e6})
    for (const double days : {1e-3, 1e3}) {
      const auto run = run_text(
          "TORVALE DATA=sleepstudy; PARMS b0=0 b1=0 s2u=1 s2=1; y = reaction*" + text(unit) + "; x = days*" +
          text(days) + "; MODEL y ~ NORMAL(b0 + b1*x + u, s2); RANDOM u ~ NORMAL(0, s2u) SUBJECT=subject; RUN;");
      EXPECT_EQ(run.outcome.exit_code, 0) << unit << run.log;
      EXPECT_NEAR(minus2(run), 1794.07863 + 360.0 * std::log(unit), 2e-3) << unit << run.log;
    }
  // A slope by a covariate of large numbers varies by a tiny variance.
  std::string csv = "id,x,y\n";
  for (int id = 0; id < 12; ++id)
    for (int j = -3; j <= 3; ++j)
      csv += std::to_string(id) + "," + std::to_string(j) + "," +
             std::to_string(static_cast<int>(std::exp(1.5 + (id % 4 - 1.3) * 0.25 * j) + 0.5 * (id * j % 3 == 0))) +
             "\n";
  const auto slopes = [&](double unit) {
    return fit_data(csv, "; PARMS b0=1 b1=0 v=" + text(0.1 / unit / unit) + "; z = x*" + text(unit) +
                             "; MODEL y ~ POISSON(EXP(b0 + (b1 + u)*z)); RANDOM u ~ NORMAL(0, v) SUBJECT=id; RUN;");
  };
  const auto one = slopes(1);
  EXPECT_EQ(one.outcome.exit_code, 0) << one.log;
  for (const double unit : {1e-6, 1e6, 1e9}) {
    const auto other = slopes(unit);
    EXPECT_EQ(other.outcome.exit_code, 0) << unit << other.log;
    EXPECT_NEAR(minus2(other), minus2(one), 1e-4) << unit << other.log;
  }
}

// From variances far too small steps end at the edge of semidefiniteness of G; in its factors the fit goes on.
TEST(Convergence, DoesNotCreepAlongTheEdgeOfG)
{
  for (const std::string technique : {"", "TECHNIQUE=TRUREG", "TECHNIQUE=NEWRAP"}) {
    const auto run =
        run_text("TORVALE DATA=sleepstudy " + technique +
                 "; PARMS b0=0 b1=-10 s2u=1 c=0 s2v=10 s2=100; MODEL reaction ~ NORMAL(b0 + u + (b1 + v)*days, s2);"
                 "RANDOM u v ~ NORMAL([0, 0], [s2u, c, s2v]) SUBJECT=subject; RUN;");
    EXPECT_EQ(run.outcome.exit_code, 0) << technique << run.log;
    EXPECT_NEAR(minus2(run), 1751.93934, 1e-4) << technique << run.log;
    EXPECT_LT(run.column("IterHistory", "Calls").back(), 600) << technique;
  }
}

// In units of a power of two no bit of the technique's run changes, though at such a start the curve is all but a step
// and hardly depends on its place and slope.
TEST(Convergence, UnitsOfAPowerOfTwoChangeNoStep)
{
  std::vector<double> courses[2];
  for (const bool other : {false, true}) {
    const double unit = other ? std::ldexp(1.0, -20) : 1.0;
    std::string csv = "id,t,y\n";
    char line[100];
    for (int i = 0; i < 6; ++i)
      for (int j = 0; j < 8; ++j) {
        const double y =
            (90 + (i * 5 % 7 - 3) * 6) / (1 + std::exp((5 - 1.5 * j) / 1.5)) + ((i * 3 + j * 7) % 5 - 2) * 2;
        std::snprintf(line, sizeof line, "%d,%.17g,%.17g\n", i, 1.5 * j * unit, std::round(y) / 10);
        csv += line;
      }
    std::snprintf(line, sizeof line, "PARMS a=4 m=%.17g k=%.17g s2u=.3 s2=1;", 14.75 * unit, 0.09375 * unit);
    const auto run = fit_data(csv, std::string("TECHNIQUE=QUANEW MAXITER=6; ") + line +
                                       "MODEL y ~ NORMAL((a+u)/(1+exp(-(t-m)/k)), s2);"
                                       "RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;");
    courses[other] = run.column("IterHistory", "NegLogLike");
    ASSERT_GE(courses[other].size(), 6u) << run.log;
  }
  EXPECT_EQ(courses[0], courses[1]);
}

TEST(Convergence, SeparationIsNoSuccess)
{
  std::string csv = "x,z,y\n";
  for (int i = -10; i <= 10; ++i)
    csv += std::to_string(i + 0.5) + "," + std::to_string(i * i % 3) + "," + (i < 0 ? "0" : "1") + "\n";
  for (const std::string technique : {"", "TECHNIQUE=TRUREG", "TECHNIQUE=NEWRAP"}) {
    const auto run =
        fit_data(csv, technique + "; PARMS b0=0 b1=0 b2=0; p = 1/(1+EXP(-(b0+b1*x+b2*z))); MODEL y ~ BINARY(p); RUN;");
    EXPECT_EQ(run.outcome.exit_code, 5) << technique << run.log;
    EXPECT_TRUE(run.said(503, 9411)) << technique << run.log;
  }
}

// No axis and no eigenvector of the Hessian lies among the directions that tell these observations apart; the
// estimates do.
TEST(Convergence, CompleteSeparationOffTheAxes)
{
  const std::pair<std::string, std::string> cases[] = {
      {"NEWRAP", "x,z,y\n-0.566,0,0\n0.561,0,1\n-0.909,0,0\n-0.471,0,0\n-1.616,0,0\n-1.734,0,0\n-0.630,0,0\n0.335,0,"
                 "1\n0.894,0,1\n-0.428,0,0\n-1.671,1,0\n-1.362,0,0\n0.808,1,1\n-1.240,1,0\n0.609,0,1\n1.415,0,1\n1.999,"
                 "0,1\n-1.041,0,0\n-1.582,0,0\n0.141,1,0\n0.725,0,1\n-0.603,1,0\n"},
      {"DBLDOG", "x,z,y\n0.509,1,1\n-0.470,0,0\n0.094,0,1\n-0.052,0,0\n-1.850,0,0\n-0.410,0,0\n0.907,1,1\n0.991,1,1\n2."
                 "033,0,1\n-1.392,1,0\n0.035,0,0\n1.282,1,1\n0.920,0,1\n0.562,1,1\n0.979,1,1\n0.549,1,1\n1.371,1,1\n-0."
                 "015,0,0\n-1.172,1,0\n1.970,1,1\n-0.368,0,0\n0.638,1,1\n"},
      {"QUANEW", "x,z,y\n0.101,0,0\n0.827,0,1\n0.928,1,1\n1.407,1,1\n0.988,1,1\n-1.047,1,0\n1.321,1,1\n0.733,0,1\n1."
                 "100,1,1\n0.381,0,1\n-0.157,1,0\n-0.411,1,0\n-0.199,0,0\n0.011,1,1\n-1.556,0,0\n1.449,0,1\n0.885,0,"
                 "1\n-0.033,1,0\n-0.718,1,0\n0.515,0,1\n0.160,0,1\n0.205,1,1\n0.680,0,1\n1.560,1,1\n0.663,0,1\n-0.877,"
                 "1,0\n0.042,1,1\n3.501,0,1\n1.947,0,1\n0.168,1,1\n-0.085,0,0\n0.614,1,1\n1.168,1,1\n"}};
  for (const auto& [technique, csv] : cases) {
    const auto run = fit_data(csv, " TECHNIQUE=" + technique +
                                       "; PARMS b0=0 b1=0 b2=0; p = 1/(1+EXP(-(b0+b1*x+b2*z)));"
                                       "MODEL y ~ BINARY(p); RUN;");
    EXPECT_EQ(run.outcome.exit_code, 5) << technique << run.log;
    EXPECT_TRUE(run.said(503, 9411)) << technique << run.log;
  }
}

// Small coefficients are moved together when a fit is judged. One among them that runs away is found all the same, by
// its name alone; two that do so against each other too.
TEST(Convergence, SeparationAmongSmallCoefficients)
{
  constexpr int noise = 14;
  std::string head = "y,a,c", parms = "b0=0 ba=0 bc=0", eta = "b0 + ba*a + bc*c";
  for (int j = 0; j < noise; ++j) {
    const std::string k = std::to_string(j);
    head += ",x" + k;
    parms += " b" + k + "x=0";
    eta += " + b" + k + "x*x" + k;
  }
  const auto fit = [&](bool no_events, bool both, const std::string& technique) {
    unsigned state = 7;
    const auto draw = [&](unsigned below) { return (state = state * 1664525u + 1013904223u) / 65536u % below; };
    std::string csv = head + "\n";
    for (int i = 0; i < 400; ++i) {
      const bool a = draw(10) == 0, c = both ? a != (draw(3) == 0 && a) : draw(10) == 0;
      const unsigned y = draw(3);
      csv +=
          std::to_string(no_events && (a || (both && c)) ? 0 : y) + "," + std::to_string(a) + "," + std::to_string(c);
      for (int j = 0; j < noise; ++j) csv += "," + std::to_string(static_cast<int>(draw(13)) - 6);
      csv += "\n";
    }
    return fit_data(csv, technique + "; PARMS " + parms + "; MODEL y ~ POISSON(EXP(" + eta + ")); RUN;");
  };
  for (const std::string technique : {"", "TECHNIQUE=TRUREG"}) {
    const auto sound = fit(false, false, technique), one = fit(true, false, technique),
               two = fit(true, true, technique);
    EXPECT_EQ(sound.outcome.exit_code, 0) << sound.log;
    EXPECT_EQ(one.outcome.exit_code, 5) << one.log;
    EXPECT_NE(one.log.find("along ba within"), std::string::npos) << one.log;
    EXPECT_EQ(two.outcome.exit_code, 5) << two.log;
    EXPECT_TRUE(two.said(503, 9411)) << two.log;
  }
}

// A response that is always the same: the intercept runs away, and evaluations fail before a standard error is passed.
TEST(Convergence, ConstantResponses)
{
  const auto data = [](int value) {
    std::string csv = "id,y\n";
    for (int i = 0; i < 28; ++i) csv += std::to_string(i / 4) + "," + std::to_string(value) + "\n";
    return csv;
  };
  const std::string tail = " RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;";
  for (const std::string technique : {"", "TECHNIQUE=TRUREG", "TECHNIQUE=NEWRAP", "TECHNIQUE=CONGRA"})
    for (const std::string bounds : {"", "BOUNDS s2u >= 0;", "BOUNDS s2u > 0;"}) {
      const std::string head = technique + "; PARMS b0=0 s2u=1; " + bounds;
      const auto none = fit_data(data(0), head + "MODEL y ~ POISSON(EXP(b0 + u));" + tail);
      EXPECT_EQ(none.outcome.exit_code, 5) << technique << bounds << none.log;
      const auto all = fit_data(data(1), head + "p = 1/(1+EXP(-(b0+u))); MODEL y ~ BINARY(p);" + tail);
      EXPECT_EQ(all.outcome.exit_code, 5) << technique << bounds << all.log;
    }
}

// Effects in units in which their standard deviation is 1e-13: a search for modes may not stop because its steps are
// short in these units.
TEST(Convergence, EffectsInLargeUnits)
{
  std::string csv = "id,part,y\n";
  for (int i = 0; i < 60; ++i)
    csv += std::to_string(i / 10) + "," + std::to_string(i / 5 % 2) + "," +
           std::to_string(i * i % 7 < 3 + i / 20 ? 1 : 0) + "\n";
  const std::string one = "RANDOM u ~ NORMAL(0, s2u) SUBJECT=id;",
                    nested = one + " RANDOM v ~ NORMAL(0, s2u) SUBJECT=part(id);";
  for (const auto& [effects, random] : {std::pair{std::string("u"), one}, {std::string("(u+v)"), nested}}) {
    const auto value = [&](const std::string& unit, const std::string& variance) {
      return minus2(fit_data(csv, "TECHNIQUE=NONE QPOINTS=7; PARMS b0=0.3 s2u=" + variance + "; p = 1/(1+EXP(-(b0+" +
                                      effects + "*" + unit + "))); MODEL y ~ BINARY(p); " + random + " RUN;"));
    };
    const double here = value("1", "1");
    for (const auto& [unit, variance] : {std::pair{"1e9", "1e-18"}, {"1e11", "1e-22"}, {"1e13", "1e-26"}})
      EXPECT_NEAR(value(unit, variance) / here, 1, 1e-11) << effects << unit;
  }
}

// A covariate that stands symmetrically around 0 in subjects that are all alike: gradients by its slope are nothing but
// rounding at the start, which is no unit of the slope. A variance that vanishes is 0.
TEST(Convergence, SlopesWithoutGradientAtTheStart)
{
  std::string csv = "id,x,y\n";
  for (int i = 0; i < 25; ++i) csv += std::to_string(i / 5) + "," + std::to_string(i % 5 - 2) + ",3\n";
  for (const std::string technique : {"", "TRUREG", "NEWRAP", "NRRIDG", "CONGRA"}) {
    const auto run = fit_data(csv, (technique.empty() ? "" : "TECHNIQUE=" + technique) +
                                       "; PARMS b0=0 b1=0 s2u=1; MODEL y ~ POISSON(EXP(b0 + b1*x + u)); RANDOM u ~ "
                                       "NORMAL(0, s2u) SUBJECT=id; RUN;");
    EXPECT_EQ(run.outcome.exit_code, 0) << technique << run.log;
    EXPECT_NEAR(run.number("ParameterEstimates", "b0", "Estimate"), std::log(3.0), 1e-4) << technique;
    EXPECT_NEAR(run.number("ParameterEstimates", "b1", "StandardError"), 1 / std::sqrt(150.0), 1e-6) << technique;
    EXPECT_GE(run.number("ParameterEstimates", "s2u", "Estimate"), 0.0) << technique;
  }
}

// What the data do not identify has no standard error; the rest has that of the model without it; one warning names it.
TEST(Convergence, NullSpaceIsNamed)
{
  std::string csv = "x,z,w,y\n";
  for (int i = 0; i < 30; ++i) {
    const double x = (i * 7 % 11) - 5, z = (i * 5 % 13) - 6;
    csv += std::to_string(x) + "," + std::to_string(z) + "," + std::to_string(2 * x) + "," +
           std::to_string(1 + x - z + (i * 3 % 7) - 3) + "\n";
  }
  const auto all =
      fit_data(csv, " GCONV=1e-12; PARMS b0=0 b1=0 b2=0 b3=0 s2=1; MODEL y ~ NORMAL(b0 + b1*x + b2*z + b3*w, s2);"
                    "ESTIMATE 'slope' b1 + 2*b3; ESTIMATE 'half' b1; RUN;");
  const auto part =
      fit_data(csv, " GCONV=1e-12; PARMS b0=0 b1=0 b2=0 s2=1; MODEL y ~ NORMAL(b0 + b1*x + b2*z, s2); RUN;");
  EXPECT_EQ(all.outcome.exit_code, 6) << all.log;
  EXPECT_EQ(part.outcome.exit_code, 0) << part.log;
  EXPECT_NEAR(minus2(all), minus2(part), 1e-6);
  for (const std::string name : {"b1", "b3"}) {
    EXPECT_TRUE(std::isnan(all.number("ParameterEstimates", name, "StandardError"))) << name;
    EXPECT_NE(all.log.find(name), std::string::npos);
  }
  for (const std::string name : {"b0", "b2", "s2"})
    EXPECT_NEAR(all.number("ParameterEstimates", name, "StandardError"),
                part.number("ParameterEstimates", name, "StandardError"),
                1e-4 * part.number("ParameterEstimates", name, "StandardError"))
        << name;
  EXPECT_TRUE(all.said(503, 271)) << all.log;
  EXPECT_FALSE(all.said(549, 190) || all.said(549, 185)) << all.log;
  ASSERT_TRUE(all.table("LinearDependencies"));
  EXPECT_EQ(all.table("LinearDependencies")->rows().size(), 1u);
}

// A covariate far from 0 beside an intercept, and columns that are nearly the same, are told apart as well as double
// precision does: the fit is that of the centred covariate, the other columns keep their errors, and units change
// nothing.
TEST(Convergence, OffsetsAndNearCollinearity)
{
  const auto data = [](double offset, double unit) {
    std::string csv = "x,w,y\n";
    char line[120];
    for (int i = 0; i < 40; ++i) {
      const double x = (i * 7 % 11) - 5, near_one = 1 + 1e-3 * ((i * 5 % 13) - 6);
      std::snprintf(line, sizeof line, "%.17g,%.17g,%d\n", offset + x, unit * near_one,
                    static_cast<int>(std::exp(1 + 0.1 * x)) + i * 3 % 4);
      csv += line;
    }
    return csv;
  };
  for (const std::string technique : {"", "TECHNIQUE=TRUREG"})
    for (const std::string model : {"PARMS b0=0 b1=0; MODEL y ~ POISSON(EXP(b0 + b1*x)); RUN;",
                                    "PARMS b0=0 b1=0 s2=1; MODEL y ~ NORMAL(b0 + b1*x, s2); RUN;"}) {
      const auto centred = fit_data(data(0, 1), technique + "; " + model);
      for (const double offset : {1e4, 1e6, 1e9}) {
        const auto far = fit_data(data(offset, 1), technique + "; " + model);
        EXPECT_EQ(far.outcome.exit_code, 0) << offset << technique << model << far.log;
        EXPECT_NEAR(minus2(far), minus2(centred), 1e-3) << offset << technique << far.log;
        const double error = centred.number("ParameterEstimates", "b1", "StandardError");
        EXPECT_NEAR(far.number("ParameterEstimates", "b1", "StandardError"), error, 1e-2 * error)
            << offset << technique;
      }
    }
  const std::string near = "PARMS b0=0 b1=0 b2=0; MODEL y ~ POISSON(EXP(b0 + b1*x + b2*w)); RUN;";
  for (const double unit : {1e-6, 1.0, 1e6}) {
    const auto run = fit_data(data(0, unit), "; " + near);
    EXPECT_EQ(run.outcome.exit_code, 0) << unit << run.log;
    EXPECT_GT(run.number("ParameterEstimates", "b2", "StandardError") * unit, 10) << unit;
  }
}

// The slack of a strict bound is a bound as any other, however large it is beside the variance.
TEST(Convergence, VarianceAtTheSlackOfItsBound)
{
  std::string csv = "id,x,y\n";
  for (int i = 0; i < 48; ++i)
    csv += std::to_string(i / 4) + "," + std::to_string(i * 5 % 7 - 3) + "," + (i % 4 < 2 ? "1" : "0") +
           "\n"; // as many of each in all subjects
  const std::string tail = "; BOUNDS v > 0; p = LOGISTIC(b0 + b1*x + u*";
  for (const std::string unit : {"1", "1000"}) {
    const auto run = fit_data(csv, "LCEPS=1E-8; PARMS b0=0 b1=0 v=1E-6" + tail + unit +
                                       "); MODEL y ~ BINARY(p); RANDOM u ~ NORMAL(0, v) SUBJECT=id; RUN;");
    EXPECT_EQ(run.outcome.exit_code, 0) << unit << run.log;
    EXPECT_NEAR(run.number("ParameterEstimates", "v", "Estimate"), 1e-8, 1e-12) << unit << run.log;
  }
}

// A line through two points: the variance has no minimum, and what stops it is rounding.
TEST(Convergence, ExactFitsAreNone)
{
  for (const std::string csv : {"x,y\n-0.868,1.774\n0.847,0.861\n", "x,y\n1.431,0.423\n0.401,-1.191\n"}) {
    const auto run = fit_data(csv, "; PARMS b0=0 b1=0 s2=1; MODEL y ~ NORMAL(b0 + b1*x, s2); RUN;");
    EXPECT_EQ(run.outcome.exit_code, 5) << run.log;
    EXPECT_TRUE(run.said(503, 9411)) << run.log;
  }
}

// Residuals of 8e-14: rounding moves -2 log L by some hundredths, and the eigenvalues of the scaled Hessian go down to
// 4e-8. Starts beside the usual two, for where rounding leads differs from machine to machine.
TEST(Convergence, ResidualsNearRounding)
{
  const std::string csv = read_text(source_file("tests/data/nist/Lanczos1.csv"));
  const std::vector<std::vector<double>> starts{{1.2, 0.3, 5.6, 5.5, 6.5, 7.6, 11.24},
                                                {0.5, 0.7, 3.6, 4.2, 4.0, 6.3, 3.28}};
  // By size: which of the three terms is which is open.
  const double residual_squares = 1.4307867721e-25, n = 24, error_of_last = 9.5760763680664998614e-11;
  int reached = 0;
  for (const auto& start : starts)
    for (const double factor : {1.0, 1.001, 0.999, 1.002}) {
      std::string parms = "PARMS";
      const char* const names[] = {"b1", "b2", "b3", "b4", "b5", "b6", "s2"};
      for (std::size_t i = 0; i < start.size(); ++i)
        parms += std::string(" ") + names[i] + "=" + std::to_string(start[i] * (i == 1 ? factor : 1.0));
      const auto run =
          fit_data(csv, "; " + parms + "; MODEL y ~ NORMAL(b1*exp(-b2*x) + b3*exp(-b4*x) + b5*exp(-b6*x), s2); RUN;");
      if (run.outcome.exit_code != 0) continue;
      ++reached;
      EXPECT_NEAR(n * run.number("ParameterEstimates", "s2", "Estimate") / residual_squares, 1, 0.1) << parms;
      double rate = 0, error = 0;
      for (const char* const name : {"b2", "b4", "b6"})
        if (const double b = run.number("ParameterEstimates", name, "Estimate"); b > rate) {
          rate = b;
          error = run.number("ParameterEstimates", name, "StandardError");
        }
      EXPECT_NEAR(rate, 5, 1e-8) << parms;
      EXPECT_NEAR(error / error_of_last, 1, 0.1) << parms;
    }
  EXPECT_GE(reached, 5);
}

// One record per subject: variance of effects and of residuals are known by their sum alone, and where on that ridge a
// technique stops, or in which units, is no matter.
TEST(Convergence, RidgesAreNoMinimaAndNoRunaways)
{
  std::string csv = "id,x,y\n";
  for (int i = 0; i < 20; ++i)
    csv += std::to_string(i) + "," + std::to_string(i * 7 % 11 - 5) + "," + std::to_string((i * i * 3 + i) % 13) + "\n";
  for (const std::string technique : {"", "TECHNIQUE=TRUREG", "TECHNIQUE=NMSIMP", "TECHNIQUE=DBLDOG"})
    for (const std::string unit : {"0.001", "1", "1000"})
      for (const std::string start : {"s2u=1 s2=1", "s2u=0.01 s2=9"}) {
        const auto run =
            fit_data(csv, technique + "; PARMS b0=0 b1=0 " + start + "; z = x*" + unit +
                              "; MODEL y ~ NORMAL(b0 + b1*z + u, s2); RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;");
        EXPECT_EQ(run.outcome.exit_code, 6) << technique << unit << start << run.log;
        EXPECT_FALSE(run.said(503, 9411)) << technique << unit << start << run.log;
      }
}

// A criterion that the user gave is obeyed, and the gain that it leaves is told.
TEST(Convergence, CriterionOfTheUser)
{
  const auto run = run_text("TORVALE DATA=sleepstudy FCONV=1e-2; PARMS b0=0 b1=0 s2u=1 s2=1;" + intercepts);
  EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
  EXPECT_TRUE(run.said(503, 9412)) << run.log;
  EXPECT_GT(minus2(run), 1795);
}

// The number of points that narrow integrands need shows at the estimates, whatever the start.
TEST(Convergence, PointsAreChosenAgainAtTheEstimates)
{
  const std::string tail =
      "; BOUNDS s2u > 0; p = 1/(1+EXP(-(b0+u))); MODEL y ~ BINARY(p); RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;";
  std::string csv = "id,y\n";
  for (int i = 0; i < 40; ++i)
    for (int j = 0; j < 4; ++j) csv += std::to_string(i) + "," + ((i % 2 == 0) == (j != i % 5) ? "1" : "0") + "\n";
  const auto small = fit_data(csv, "; PARMS b0=0 s2u=0.001" + tail), large = fit_data(csv, "; PARMS b0=0 s2u=1" + tail);
  EXPECT_EQ(small.outcome.exit_code, 0) << small.log;
  EXPECT_TRUE(small.said(503, 9414)) << small.log;
  std::vector<double> points; // those at the start, and those in the end
  for (const auto& table : small.outcome.results.steps.at(0).groups.at(0).tables)
    if (table.name == "Dimensions") points.push_back(*table.rows().back().at(1).number());
  ASSERT_EQ(points.size(), 2u);
  EXPECT_LT(points[0], points[1]);
  EXPECT_NEAR(minus2(small), minus2(large), 0.05) << small.log << large.log;
  EXPECT_NEAR(small.number("ParameterEstimates", "s2u", "Estimate"),
              large.number("ParameterEstimates", "s2u", "Estimate"), 0.02);
}

// In large data the points that QTOL= would let stand leave a variance a sixth of its standard error off. Who gives
// QTOL= gets what it says.
TEST(Convergence, PointsOfLargeData)
{
  std::string csv = "id,y\n";
  for (int i = 0; i < 2400; ++i) {
    const double place = i * 7919 % 10007 / 10007.0;
    const int ones = static_cast<int>(5 * (0.5 - 0.5 * std::cos(3.14159265 * place)) + 0.5);
    for (int j = 0; j < 5; ++j) csv += std::to_string(i) + (j < ones ? ",1\n" : ",0\n");
  }
  const std::string model = "; PARMS b0=0 s2u=1; BOUNDS s2u > 0; p = 1/(1+EXP(-(b0+u))); MODEL y ~ BINARY(p); RANDOM u "
                            "~ NORMAL(0, s2u) SUBJECT=id; RUN;";
  const auto chosen = fit_data(csv, model), given = fit_data(csv, "QTOL=1e-4" + model),
             exact = fit_data(csv, "QPOINTS=41" + model);
  const double answer = exact.number("ParameterEstimates", "s2u", "Estimate"),
               error = exact.number("ParameterEstimates", "s2u", "StandardError");
  EXPECT_FALSE(chosen.said(503, 9416)) << chosen.log;
  EXPECT_NEAR(chosen.number("ParameterEstimates", "s2u", "Estimate"), answer, 0.01 * error);
  EXPECT_TRUE(given.said(503, 9416)) << given.log;
  EXPECT_GT(std::abs(given.number("ParameterEstimates", "s2u", "Estimate") - answer), 0.05 * error);
}

// Gamma responses: three points change next to nothing of what one point misses. Neither the choice nor the question
// may rest on them.
TEST(Convergence, ThreePointsDoNotVouchForOne)
{
  std::string csv = "id,x,y\n";
  const double share[] = {0.18, 0.46, 0.84, 1.3, 2.2};
  for (int id = 0; id < 80; ++id)
    for (int j = 0; j < 5; ++j) {
      const double x = (id * 7 + j * 3) % 11 - 5, u = 1.4 * std::log((id + 0.5) / (79.5 - id));
      csv += std::to_string(id) + "," + std::to_string(x) + "," +
             std::to_string(std::exp(0.05 * x + u) * share[(j + id) % 5]) + "\n";
    }
  const auto fit = [&](const std::string& options) {
    return fit_data(csv, options + "; PARMS b0=0 b1=0 v=1; BOUNDS v > 0; m = EXP(b0 + b1*x + u);"
                                   "MODEL y ~ GAMMA(2, m/2); RANDOM u ~ NORMAL(0, v) SUBJECT=id; RUN;");
  };
  const auto one = fit("QPOINTS=1"), three = fit("QPOINTS=3"), many = fit("QPOINTS=31"), chosen = fit("");
  const double exact = minus2(many);
  EXPECT_LT(std::abs(minus2(three) - minus2(one)), 1e-4 * std::abs(exact)); // what would have been believed
  EXPECT_GT(std::abs(minus2(three) - exact), 1e-3 * std::abs(exact));
  EXPECT_LT(std::abs(minus2(chosen) - exact), 1e-4 * std::abs(exact)) << chosen.log;
  EXPECT_TRUE(one.said(503, 9416)) << one.log;
}

// Points are questioned with nested levels too.
TEST(Convergence, PointsOfNestedLevelsAreQuestioned)
{
  const std::string model = "PARMS b0=0 b1=0 vs=1 vc=1; BOUNDS vs > 0, vc > 0;"
                            "MODEL y ~ BINARY(LOGISTIC(b0 + b1*x + u + w)); RANDOM u ~ NORMAL(0, vs) SUBJECT=school;"
                            "RANDOM w ~ NORMAL(0, vc) SUBJECT=class(school); RUN;";
  std::string csv = "school,class,x,y\n";
  for (int s = 0; s < 20; ++s)
    for (int c = 0; c < 3; ++c)
      for (int j = 0; j < 4; ++j) {
        const bool y = (s * 37 % 20) + 9 * (c * (s + 1) % 3) + 2 * j > 17;
        csv += std::to_string(s) + "," + std::to_string(c) + "," + std::to_string(j * j % 3) + "," + (y ? "1" : "0") +
               "\n";
      }
  const auto one = fit_data(csv, "QPOINTS=1; " + model), many = fit_data(csv, "QPOINTS=15; " + model);
  EXPECT_TRUE(one.said(503, 9416)) << one.log;
  EXPECT_FALSE(many.said(503, 9416)) << many.log;
}

// Few binary responses whose variance goes on growing (the integral over a fine grid falls up to s2u = 3000 and
// beyond): sums over 31 points have a minimum near 300 that is none. With points of the program's own it is a warning.
TEST(Convergence, MinimaOfThePointsAreNone)
{
  const std::string six = "id,x,y\n1,1.0750443510556016,0\n1,0.5,0\n2,-0.5,1\n2,-1.5324797170962492,1\n"
                          "3,-0.41963955316101753,0\n3,1.0453366299169846,1\n4,-0.5,1\n4,0.5,1\n5,-0.5,1\n5,0.5,1\n"
                          "6,-0.5,0\n6,0.5,0\n",
                    five = "id,x,y\n1,-0.5,1\n1,0.5,0\n2,-0.5,0\n2,0.5,0\n3,-0.5,0\n3,-1.5023930270279262,0\n4,-0.5,1\n"
                           "4,0.5,1\n5,-0.5,1\n5,0.5,1\n";
  const std::string tail =
      " p = 1/(1+EXP(-(b0+b1*x+u))); MODEL y ~ BINARY(p); RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;";
  const auto first = fit_data(six, " TECHNIQUE=QUANEW; PARMS b0=0 b1=0 s2u=10;" + tail),
             second = fit_data(five, " TECHNIQUE=DBLDOG; PARMS b0=0 b1=0 s2u=0.01; BOUNDS s2u > 0;" + tail),
             given = fit_data(six, " QPOINTS=31 TECHNIQUE=QUANEW; PARMS b0=0 b1=0 s2u=10;" + tail);
  EXPECT_EQ(first.outcome.exit_code, 5) << first.log;
  EXPECT_TRUE(first.said(503, 9420)) << first.log;
  EXPECT_EQ(second.outcome.exit_code, 5) << second.log;
  EXPECT_EQ(given.outcome.exit_code, 0) << given.log;
  EXPECT_TRUE(given.said(503, 9420)) << given.log;
}

// One observation: its mean is known, its variance falls to the least that a normal response may have. No technique
// calls that a minimum, and none says words that are for the makers.
TEST(Convergence, OneObservation)
{
  for (const std::string technique : {"", "TRUREG", "NEWRAP", "CONGRA", "DBLDOG", "NMSIMP"}) {
    const std::string head = technique.empty() ? "; PARMS b0=0" : " TECHNIQUE=" + technique + "; PARMS b0=0";
    const auto exact = fit_data("y\n3\n", head + " s2=1; MODEL y ~ NORMAL(b0, s2); RUN;"),
               mean = fit_data("y\n3\n", head + "; MODEL y ~ NORMAL(b0, 2); RUN;");
    EXPECT_EQ(exact.outcome.exit_code, 5) << technique << exact.log;
    EXPECT_EQ(mean.outcome.exit_code, 0) << technique << mean.log;
    EXPECT_FALSE(exact.said(503, 360) || mean.said(503, 360)) << technique << exact.log << mean.log;
  }
}

// A parameter that nothing depends on is told of once, by its own message.
TEST(Convergence, UnusedParameterIsToldOnce)
{
  const std::string csv = "x,y\n1,2\n2,3\n3,5\n4,4\n", model = "MODEL y ~ POISSON(EXP(b0 + b1*x)); RUN;";
  const auto unused = fit_data(csv, "; PARMS b0=0 b1=0 c=1; " + model);
  EXPECT_EQ(unused.outcome.exit_code, 6) << unused.log;
  EXPECT_TRUE(unused.said(503, 9331)) << unused.log;
  EXPECT_FALSE(unused.said(503, 271)) << unused.log;
  const auto both = fit_data(csv, "; PARMS b0=0 b1=0 b2=0 c=1; MODEL y ~ POISSON(EXP(b0 + b2 + b1*x)); RUN;");
  EXPECT_TRUE(both.said(503, 9331) && both.said(503, 271)) << both.log;
  EXPECT_NE(both.log.find("(1)"), std::string::npos) << both.log;
}

// The limit that a warning names is that of the program, however much longer the fit went on.
TEST(Convergence, LimitsAreTheProgramsOwn)
{
  const auto run = run_text("TORVALE DATA=sleepstudy MAXITER=2; PARMS b0=0 b1=0 s2u=1 s2=1;" + intercepts);
  EXPECT_EQ(run.outcome.exit_code, 5) << run.log;
  EXPECT_NE(run.log.find("MAXITER=2 "), std::string::npos) << run.log;
}

// Residuals of a million standard deviations: searches for modes miss by rounding, again and again, and every subject
// counts all the same. With one point the value comes from the evaluation at the modes.
TEST(Convergence, ValuesFarFromTheDataAreExact)
{
  constexpr int subjects = 20, records = 4;
  constexpr double s2 = 1.4, s2u = 1.5;
  unsigned state = 7;
  const auto draw = [&](unsigned below) { return (state = state * 1664525u + 1013904223u) / 65536u % below; };
  double exact = 0.0;
  std::string csv = "id,x,y\n";
  for (int i = 0; i < subjects; ++i) {
    double sum = 0.0, square = 0.0;
    const unsigned level = draw(1000);
    for (int j = 0; j < records; ++j) {
      const unsigned y = (3000 + level + draw(1000)) * 1000;
      csv += std::to_string(i) + "," + std::to_string(j) + "," + std::to_string(y) + "\n";
      const double residual = y - 1e6 - 3e5 * j;
      sum += residual;
      square += residual * residual;
    }
    const double all = s2 + records * s2u;
    exact += records * std::log(2 * 3.141592653589793) + (records - 1) * std::log(s2) + std::log(all) +
             (square - s2u * sum * sum / all) / s2;
  }
  for (const std::string points : {"1", "3"}) {
    const auto run =
        fit_data(csv, " QPOINTS=" + points +
                          " TECHNIQUE=NONE; PARMS b0=1e6 b1=3e5 s2u=1.5 s2=1.4; MODEL y ~ NORMAL(b0 + b1*x + "
                          "u, s2); RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;");
    EXPECT_NEAR(minus2(run), exact, 1e-9 * exact) << points << run.log;
  }
}

} // namespace torvale::tests
