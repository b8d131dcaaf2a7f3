// Programs as users write them: two ways to say one model must give one answer, and what is left out is left out
// quietly.

#include "system/session.h"

#include <gtest/gtest.h>

#include <cmath>

namespace torvale::tests {

namespace {

void expect_same_fit(const Run& a, const Run& b, double tolerance = 1e-9)
{
  ASSERT_EQ(a.outcome.exit_code, 0) << a.log;
  ASSERT_EQ(b.outcome.exit_code, 0) << b.log;
  const auto values_a = a.column("ParameterEstimates", "Estimate"),
             values_b = b.column("ParameterEstimates", "Estimate");
  const auto errors_a = a.column("ParameterEstimates", "StandardError"),
             errors_b = b.column("ParameterEstimates", "StandardError");
  ASSERT_EQ(values_a.size(), values_b.size());
  for (std::size_t i = 0; i < values_a.size(); ++i) {
    EXPECT_NEAR(values_a[i], values_b[i], tolerance * (std::abs(values_a[i]) + errors_a[i])) << i;
    EXPECT_NEAR(errors_a[i], errors_b[i], 100 * tolerance * errors_a[i]) << i;
  }
  EXPECT_NEAR(a.column("FitStatistics", "Value")[0], b.column("FitStatistics", "Value")[0], 1e-9);
}

const std::string slopes_head =
    "TORVALE DATA=sleepstudy GCONV=1e-14 FCONV=0 ABSGCONV=0; PARMS b0=250 b1=10 v00=500 v01=0 v11=30 s2=600;"
    "BOUNDS v00 > 0, v11 > 0, s2 > 0;";
const std::string slopes_tail =
    "MODEL reaction ~ NORMAL(mu, s2); RANDOM u0 u1 ~ NORMAL([0,0],[v00,v01,v11]) SUBJECT=subject; RUN;";

// A loop over arrays, a function, and the plain formula. The array b of DIM(b) is no parameter of that name.
TEST(UserPrograms, ArraysAndFunctionsSayTheSameModel)
{
  const auto plain = run_text(slopes_head + "mu = b0 + u0 + (b1 + u1)*days;" + slopes_tail);
  const auto loop = run_text(slopes_head +
                             "ARRAY b[2] b0 b1; ARRAY u[2] u0 u1; ARRAY z[2]; z[1] = 1; z[2] = days; mu = 0;"
                             "DO j = 1 TO DIM(b); mu = mu + (b[j] + u[j])*z[j]; END;" +
                             slopes_tail);
  const auto function =
      run_text("TORVALE DATA=sleepstudy GCONV=1e-14 FCONV=0 ABSGCONV=0;"
               "FUNCTION line(a, b, t); RETURN (a + b*t); ENDSUB;" +
               slopes_head.substr(slopes_head.find("PARMS")) +
               "IF days = 0 THEN mu = line(b0 + u0, 0, days); ELSE mu = line(b0 + u0, b1 + u1, days);" + slopes_tail);
  EXPECT_EQ(loop.column("ParameterEstimates", "Estimate").size(), 6u) << loop.log;
  expect_same_fit(plain, loop);
  expect_same_fit(plain, function);
}

// The record before, by LAG and by a retained variable: values and derivatives are carried alike.
TEST(UserPrograms, RetainedValuesAreLags)
{
  const std::string head =
      "TORVALE DATA=sleepstudy GCONV=1e-14 FCONV=0 ABSGCONV=0; PARMS b0=250 b1=10 rho=0.3 sd=25 s2u=600;"
      "BOUNDS -1 < rho < 1, sd > 0, s2u > 0; e = reaction - b0 - u - b1*days;";
  const std::string tail = "IF MISSING(before) THEN ll = LOGPDF('normal', e, 0, sd/SQRT(1 - rho**2));"
                           "ELSE ll = LOGPDF('normal', e, rho*before, sd);"
                           "MODEL reaction ~ GENERAL(ll); RANDOM u ~ NORMAL(0, s2u) SUBJECT=subject; RUN;";
  expect_same_fit(run_text(head + "before = LAG(e);" + tail),
                  run_text(head + "RETAIN last .; before = last; last = e;" + tail), 1e-7);
}

// DELETE, WHERE= and rows with a missing response leave the same observations out; DELETE is meant, so there is no
// warning.
TEST(UserPrograms, WaysToLeaveObservationsOut)
{
  const auto program = [](const std::string& options, const std::string& statement) {
    return "TORVALE DATA=epil" + options + " GCONV=1e-14 FCONV=0 ABSGCONV=0; PARMS b0=1 b1=1;" + statement +
           "MODEL y ~ POISSON(EXP(b0 + b1*lbase)); RUN;";
  };
  const auto deleted = run_text(program("", "IF period = 4 THEN DELETE;"));
  const auto filtered = run_text(program("(WHERE=(period < 4))", ""));
  expect_same_fit(deleted, filtered);
  EXPECT_FALSE(deleted.said(503, 9202)) << deleted.log;
  EXPECT_EQ(deleted.number("Dimensions", "Observations Not Used", "Value"), 59);
}

// A value that goes missing by the program's doing is told, with the first observation and, where there is one, the
// reason.
TEST(UserPrograms, MissingLikelihoodIsTold)
{
  const auto run = run_text("TORVALE DATA=epil; PARMS b0=1; IF period = 4 THEN eta = .; ELSE eta = b0;"
                            "MODEL y ~ POISSON(EXP(eta)); RUN;");
  EXPECT_TRUE(run.said(503, 9202)) << run.log;
  EXPECT_NE(run.log.find("59 observations"), std::string::npos) << run.log;
  EXPECT_EQ(run.log.find(": )"), std::string::npos) << run.log;
}

// A loop that depends on neither data nor parameters, and is too long to be written out, is computed all the same.
TEST(UserPrograms, LongLoopOfConstants)
{
  const auto program = [](const std::string& last) {
    return "TORVALE DATA=epil GCONV=1e-14 FCONV=0 ABSGCONV=0; PARMS b0=0.1; w = 0; DO i = 1 TO " + last +
           "; w = w + 1/i; END; MODEL y ~ POISSON(EXP(b0*w)); RUN;";
  };
  expect_same_fit(run_text(program("500")), run_text(program("500 + 0*lbase")));
}

// A parameter whose bounds meet is held there, wherever PARMS starts it.
TEST(UserPrograms, BoundsThatMeetHoldTheParameter)
{
  const std::string model = "MODEL reaction ~ NORMAL(b0 + b1*days, s2); RUN;";
  const auto held =
      run_text("TORVALE DATA=sleepstudy; PARMS b0=1 to 300 by 100 b1=10 s2=900; BOUNDS 250 <= b0 <= 250;" + model);
  const auto written = run_text("TORVALE DATA=sleepstudy; PARMS b1=10 s2=900; b0 = 250;" + model);
  ASSERT_EQ(held.outcome.exit_code, 0) << held.log;
  EXPECT_TRUE(held.said(503, 9311)) << held.log;
  EXPECT_EQ(held.number("ParameterEstimates", "b0", "Estimate"), 250);
  EXPECT_NEAR(held.column("FitStatistics", "Value")[0], written.column("FitStatistics", "Value")[0], 1e-6);
}

// What goes wrong at the estimates, or on the way there, is told with its reason.
TEST(UserPrograms, FailuresOfAFitHaveAReason)
{
  const std::string model = "MODEL reaction ~ NORMAL(b0 + u, s); RANDOM u ~ NORMAL(0, v) SUBJECT=subject;";
  const auto estimate =
      run_text("TORVALE DATA=sleepstudy; PARMS b0=300 s=900 v=1000;" + model + "\nESTIMATE 'bad' LOG(-b0); RUN;");
  EXPECT_EQ(estimate.outcome.exit_code, 3);
  EXPECT_TRUE(estimate.said(503, 73)) << estimate.log;
  EXPECT_NE(estimate.log.find("logarithm of a"), std::string::npos) << estimate.log;
  const auto stopped =
      run_text("TORVALE DATA=sleepstudy; PARMS b0=1 s=1000 v=1000;\nIF b0 > 250 THEN STOP;" + model + "RUN;");
  EXPECT_EQ(stopped.outcome.exit_code, 5);
  EXPECT_TRUE(stopped.said(503, 72)) << stopped.log;
  EXPECT_NE(stopped.log.find("STOP was executed"), std::string::npos) << stopped.log;
}

// This fit leaves a saddle by iterations of another technique and goes on: MAXITER= counts them all.
TEST(UserPrograms, LimitOfIterationsHoldsForTheWholeFit)
{
  const auto fit = [](const std::string& most) {
    return run_text("TORVALE DATA=sleepstudy MAXITER=" + most +
                    "; PARMS b0=1 s=1 v=1; z = EXP(-b0*days/50); z = z*EXP(-b0*z*days) + 1;"
                    "MODEL reaction ~ NORMAL(b0*z + u, s); RANDOM u ~ NORMAL(0, v) SUBJECT=subject; RUN;");
  };
  const auto ample = fit("200"), small = fit("30");
  EXPECT_EQ(ample.outcome.exit_code, 0) << ample.log;
  EXPECT_TRUE(ample.said(503, 9360)) << ample.log;
  EXPECT_EQ(small.outcome.exit_code, 5) << small.log;
  EXPECT_TRUE(small.said(549, 605)) << small.log;
}

// A BY group without a usable observation costs the exit code, not the other groups.
TEST(UserPrograms, UnusableGroupAmongOthers)
{
  std::string text = "g,x,y\n";
  for (int g = 1; g <= 3; ++g)
    for (int i = 0; i < 6; ++i)
      text += std::to_string(g) + "," + std::to_string(i) + "," + (g == 2 ? "" : std::to_string((i * 7 + g) % 5 + i)) +
              "\n";
  const TemporaryFile data("groups.csv", text);
  const auto run =
      run_text("TORVALE DATA=groups; BY g; PARMS a=1 b=1 s2=1; BOUNDS s2 > 0; MODEL y ~ NORMAL(a + b*x, s2); RUN;",
               "examples", 0, {{"groups", data.path()}});
  EXPECT_EQ(run.outcome.exit_code, 4) << run.log;
  ASSERT_EQ(run.outcome.results.steps[0].groups.size(), 3u);
  EXPECT_EQ(run.column("ParameterEstimates", "Estimate", 0).size(), 3u);
  EXPECT_EQ(run.table("ParameterEstimates", 1), nullptr);
  EXPECT_EQ(run.column("ParameterEstimates", "Estimate", 2).size(), 3u);
}

// Lines of a named file come in the order of the data, from all groups and steps of a run into one new file.
TEST(UserPrograms, PutWritesFiles)
{
  const TemporaryFile data("groups.csv", "g,y\n1,2\n1,4\n2,.A\n2,6\n2,7\n"), lines("lines.txt", "of an older run\n");
  const std::string step = "TORVALE DATA='" + data.path() + "'; BY g; PARMS m=3; FILE '" + lines.path() +
                           "'; PUT g= y=; FILE LOG; PUT 'seen'; MODEL y ~ NORMAL(m, 1); RUN;\n";
  const auto once = run_text(step + "TORVALE DATA='" + data.path() + "'; PARMS m=3; FILE '" + lines.path() +
                             "'; DO k = 1 TO y - 5; PUT k; END; MODEL y ~ NORMAL(m, 1); RUN;");
  EXPECT_EQ(once.outcome.exit_code, 0) << once.log;
  EXPECT_EQ(read_text(lines.path()), "g=1 y=2 \ng=1 y=4 \ng=2 y=A \ng=2 y=6 \ng=2 y=7 \n1 \n1 \n2 \n");
  EXPECT_NE(once.log.find("seen"), std::string::npos);

  const auto nowhere = run_text("TORVALE DATA='" + data.path() +
                                "'; PARMS m=3; FILE '/no such folder/lines.txt'; PUT y=; "
                                "MODEL y ~ NORMAL(m, 1); RUN;");
  EXPECT_TRUE(nowhere.said(503, 9223)) << nowhere.log;
  EXPECT_EQ(nowhere.outcome.exit_code, 1);
}

// A text that stands for a column is the number that it spells; one that spells none moves to the first column.
TEST(UserPrograms, PutTakesColumnsFromTexts)
{
  const TemporaryFile data("columns.csv", "c,w,y\n'7',A,2\n3,B,4\n"), lines("columns.txt", "");
  const auto run = run_text("TORVALE DATA='" + data.path() + "'; PARMS m=3; FILE '" + lines.path() +
                            "'; PUT @c y; PUT @w y; PUT 'a' +c 'b'; MODEL y ~ NORMAL(m, 1); RUN;");
  EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
  EXPECT_EQ(read_text(lines.path()), "2 \n2 \na b\n  4 \n4 \na   b\n");
}

// The kinds of missing values of the data can be told apart, and decide what a program does with them.
TEST(UserPrograms, KindsOfMissingValuesComeFromTheData)
{
  const TemporaryFile data("kinds.csv", "x,y\n1,2\n.L,4\n.,3\n.H,9\n");
  const auto kinds = run_text("TORVALE DATA='" + data.path() +
                              "'; PARMS m=3; IF x = .L THEN w = 0.5; ELSE IF x = .H THEN w = 50; "
                              "ELSE IF MISSING(x) THEN DELETE; ELSE w = x; MODEL y ~ NORMAL(m*w, 1); RUN;");
  ASSERT_EQ(kinds.outcome.exit_code, 0) << kinds.log;
  const double least_squares = (2 * 1 + 4 * 0.5 + 9 * 50.0) / (1 + 0.25 + 2500);
  EXPECT_NEAR(kinds.number("ParameterEstimates", "m", "Estimate"), least_squares, 1e-5);
}

} // namespace

} // namespace torvale::tests
