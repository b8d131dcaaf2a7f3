// Fits that end by chance, unless rules without a unit decide: their exit code is that of any other unit.

#include "system/session.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

namespace torvale::tests {

namespace units_test {

std::string digits(double v)
{
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", v);
  return text;
}

Run fit_data(const std::string& csv, const std::string& program)
{
  const TemporaryFile file("units.csv", csv);
  return run_text("TORVALE DATA='" + file.path() + "' " + program);
}

double minus2(const Run& run)
{
  return run.table("FitStatistics") != nullptr ? run.column("FitStatistics", "Value")[0] : std::nan("");
}

} // namespace units_test

using namespace units_test;

// The start is a curve that is 0 at all times: nothing there knows where it rises, and how fast.
TEST(Units, StartsThatKnowNothingOfAParameter)
{
  for (const std::string technique : {"", "TECHNIQUE=DBLDOG", "TECHNIQUE=NRRIDG", "TECHNIQUE=NEWRAP"})
    for (const double unit : {1e-3, 1.0, 1e3}) {
      std::string csv = "id,t,y\n";
      for (int i = 0; i < 6; ++i)
        for (int j = 0; j < 8; ++j) {
          const double y =
              (90 + (i * 5 % 7 - 3) * 6) / (1 + std::exp((5 - 1.5 * j) / 1.5)) + ((i * 3 + j * 7) % 5 - 2) * 2;
          csv += std::to_string(i) + "," + digits(1.5 * j) + "," + digits(std::round(y) / 10 * unit) + "\n";
        }
      const auto run = fit_data(
          csv, technique + "; PARMS a=" + digits(4 * unit) + " m=40 k=.2 s2u=" + digits(.3 * unit * unit) +
                   " s2=" + digits(unit * unit) +
                   "; MODEL y ~ NORMAL((a+u)/(1+EXP(-(t-m)/k)), s2); RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;");
      EXPECT_EQ(run.outcome.exit_code, 0) << technique << unit << run.log;
      EXPECT_NEAR(minus2(run), 46.69514 + 96 * std::log(unit), 1e-4) << technique << unit;
    }
}

// Two variances that only their sum identifies: steps along the ridge end at the bound, and a larger radius is no way
// on. Without a bound a technique may end behind the edge, or where a variance is so small that derivatives are
// rounding.
TEST(Units, RidgesThatEndAtABound)
{
  constexpr double x[] = {-.643, -.213, -.992, -1.549, -.03, -.397, -2.694, -.691},
                   y[] = {.377, .150, -.129, .159, .764, .770, 1.178, .123};
  const auto fit = [&](const std::string& technique, double unit, double s2u, double s2, const std::string& bounds) {
    std::string csv = "id,x,y\n";
    for (int i = 0; i < 8; ++i) csv += std::to_string(i) + "," + digits(x[i]) + "," + digits(y[i] * unit) + "\n";
    const auto run = fit_data(csv, "TECHNIQUE=" + technique + "; PARMS b0=0 b1=0 s2u=" + digits(s2u * unit * unit) +
                                       " s2=" + digits(s2 * unit * unit) + ";" + bounds +
                                       "MODEL y ~ NORMAL(b0+b1*x+u, s2);"
                                       "RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;");
    const auto where = technique + " " + digits(unit) + " " + digits(s2u) + bounds;
    EXPECT_EQ(run.outcome.exit_code, 6) << where << run.log;
    EXPECT_NEAR(minus2(run), 7.426029 + 16 * std::log(unit), 3e-5) << where;
    return run;
  };
  for (const double unit : {1e-6, 1.0, 1e6})
    for (const std::string bounds : {"", "BOUNDS s2u >= 0;"})
      EXPECT_LT(fit("TRUREG", unit, 1, 1, bounds).column("IterHistory", "Calls").back(), 500) << unit << bounds;
  fit("TRUREG", 1e-6, .02, .17, "");
  fit("NEWRAP", 1e-6, 1.32, .04, "");
  fit("NRRIDG", 1, 15.06, .76, "");
  fit("NEWRAP", 1, 24.62, 8.12, "");
}

// The slack of a strict bound is no wall for a variance that is small in its unit.
TEST(Units, SmallVariancesAboveAStrictBound)
{
  double first = 0.0;
  for (const double unit : {1.0, 1e3, 1e5}) { // of the covariate
    std::string csv = "id,x,y\n";
    for (int i = 0; i < 12; ++i)
      for (int j = 0; j < 4; ++j)
        csv += std::to_string(i) + "," + digits(j * unit) + "," +
               digits(5 + .3 * (i * 5 % 12 - 5.5) + (1 + .3 * (i * 7 % 12 - 5.5)) * j + (i * 3 + j * 7) % 5 - 2) + "\n";
    const auto run = fit_data(csv, "; PARMS b0=4 b1=" + digits(1 / unit) + " s2u=1 s2v=" + digits(.1 / unit / unit) +
                                       " s2=1; BOUNDS s2u > 0, s2v > 0, s2 > 0; MODEL y ~ NORMAL(b0+u+(b1+v)*x, s2);"
                                       "RANDOM u v ~ NORMAL([0,0], [s2u, 0, s2v]) SUBJECT=id; RUN;");
    EXPECT_EQ(run.outcome.exit_code, 0) << unit << run.log;
    const double variance = run.number("ParameterEstimates", "s2v", "Estimate") * unit * unit,
                 error = run.number("ParameterEstimates", "s2v", "StandardError") * unit * unit;
    if (first == 0.0) first = variance;
    EXPECT_GT(first, 1e-4);
    EXPECT_NEAR(variance, first, 1e-3 * error) << unit;
    EXPECT_GT(error, 0.0) << unit;
  }
}

// The objective has the logarithm of the response's unit in it, which is no reason for more points or fewer.
TEST(Units, NumberOfPoints)
{
  for (const double unit : {1e-3, 1.0, 1e3}) {
    std::string csv = "id,t,y\n";
    for (int i = 0; i < 8; ++i)
      for (int j = 0; j < 6; ++j) {
        const double t = .2 + .9 * j;
        const double y = 10 * t / (1.5 + t) * std::exp(.06 * (i * 5 % 8 - 3.5)) + .4 * ((i * 3 + j * 7) % 5 - 2);
        csv += std::to_string(i) + "," + digits(t) + "," + digits(std::round(100 * y) / 100 * unit) + "\n";
      }
    const auto run = fit_data(csv, "; PARMS a=" + digits(8 * unit) + " k=1 s2u=.05 s2=" + digits(.2 * unit * unit) +
                                       "; MODEL y ~ NORMAL(a*EXP(u)*t/(k+t), s2);"
                                       "RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;");
    EXPECT_EQ(run.outcome.exit_code, 0) << unit << run.log;
    EXPECT_NEAR(minus2(run), 109.2130 + 96 * std::log(unit), 1e-3) << unit << run.log;
  }
}

// No event at all: the likelihood of 1 is its limit, and where estimates stop on their way there is chance.
TEST(Units, CountsThatAreAllZero)
{
  for (const std::string technique : {"", "TECHNIQUE=CONGRA", "TECHNIQUE=DBLDOG", "TECHNIQUE=TRUREG"})
    for (const double unit : {1e-6, 1e-3, 1.0, 1e3}) {
      std::string csv = "id,x,y\n";
      for (int i = 0; i < 12; ++i) csv += std::to_string(i / 2) + "," + (i % 2 == 0 ? "-.5,0\n" : ".5,0\n");
      const auto run = fit_data(csv, technique + "; PARMS b0=0 b1=0 s2u=" + digits(unit * unit) +
                                         "; MODEL y ~ POISSON(EXP(b0+b1*x+u/" + digits(unit) +
                                         ")); RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;");
      EXPECT_EQ(run.outcome.exit_code, 5) << technique << unit << run.log;
      EXPECT_LT(run.column("IterHistory", "Calls").back(), 800) << technique << unit;
    }
}

// Where the slack of a strict bound is nothing beside what a variance is known by, its root begins next to 0: the way
// down from there is short, and a step that ends a rounding above the bound has reached it.
TEST(Units, SlackOfStrictBounds)
{
  using namespace units_test;
  const double values[][2] = {
      {-0.5503, -2.219}, {-0.2095, -0.315}, {2.4434, 2.607},   {1.2830, -0.380},  {0.2917, 2.092},   {-2.2496, -1.686},
      {-0.9391, -1.458}, {0.0710, 2.237},   {-0.4223, -0.181}, {0.0478, 1.608},   {-0.4452, -0.140}, {-1.5192, 2.240},
      {-0.8507, 1.151},  {-1.6775, -0.032}, {-0.3584, -0.520}, {0.8553, -1e4},    {1.8569, 1.875},   {-1.3253, 1.570},
      {-0.1659, 1.409},  {1.5404, 0.916},   {-0.4114, 0.872},  {-1.8495, -0.044}, {1.8780, 3.130},   {0.5838, 2.179},
      {-1.1165, 0.772},  {-0.1384, 1.088},  {0.0014, 0.207},   {-0.8597, 0.455}};
  std::string csv = "id,x,y\n";
  for (std::size_t i = 0; i < std::size(values); ++i)
    csv += std::to_string(i / 4) + "," + digits(values[i][0]) + "," + digits(values[i][1]) + "\n";
  const TemporaryFile outlier("outlier.csv", csv);
  const double level[] = {11.40, 12.93, 10.47, 9.96, 9.90, 10.88, 7.95,  11.75,
                          6.15,  9.66,  11.44, 8.89, 9.96, 10.68, 13.95, 8.80};
  csv = "id,y\n";
  for (std::size_t i = 0; i < std::size(level); ++i) csv += std::to_string(i / 2) + "," + digits(level[i]) + "\n";
  const TemporaryFile pairs("pairs.csv", csv);
  for (const double unit : {1.0, 1e3, 1e6}) {
    const auto saddle =
        run_text("TORVALE DATA='" + outlier.path() +
                 "' TECHNIQUE=NRRIDG; PARMS b0=0 b1=0 s2u=1 s2=1; BOUNDS s2u>0, s2>0; w = y*" + digits(unit) +
                 "; MODEL w ~ NORMAL(b0+b1*x+u, s2); RANDOM u ~ NORMAL(0,s2u) SUBJECT=id; RUN;");
    EXPECT_EQ(saddle.outcome.exit_code, 0) << unit << saddle.log;
    const auto sum = run_text("TORVALE DATA='" + pairs.path() + "' TECHNIQUE=TRUREG; PARMS b0=" + digits(8.0 * unit) +
                              " va=" + digits(.008 * unit * unit) + " vb=" + digits(.003 * unit * unit) +
                              " s2=" + digits(unit * unit) + "; BOUNDS va>0, vb>0, s2>0; w = y*" + digits(unit) +
                              "; MODEL w ~ NORMAL(b0+u, s2); RANDOM u ~ NORMAL(0, va+vb) SUBJECT=id; RUN;");
    EXPECT_EQ(sum.outcome.exit_code, 0) << unit << sum.log;
  }
}

} // namespace torvale::tests
