// The ways of integrating beside quadrature, against reference results.

#include "system/session.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace torvale::tests {

namespace {

using nlohmann::json;

constexpr const char* strict = " GCONV=1e-14 FCONV=0 ABSGCONV=0 MAXITER=500";

json reference_of(const std::string& name)
{
  return json::parse(read_text(source_file("tests/data/reference/" + name + ".json")));
}

void expect_start(const Run& run, const json& start)
{
  const auto objective = run.column("Parameters", "NegLogLike");
  ASSERT_EQ(objective.size(), 1u) << run.log;
  EXPECT_NEAR(objective[0], start["objective"].get<double>(), 1e-10 * std::abs(objective[0]));
  double largest = 1.0;
  for (const auto& [parameter, value] : start["gradient"].items())
    largest = std::max(largest, std::abs(value.get<double>()));
  for (const auto& [parameter, value] : start["gradient"].items())
    EXPECT_NEAR(run.number("ParameterEstimates", parameter, "Gradient"), value.get<double>(), 1e-8 * largest)
        << parameter;
}

// Limits are absolute for -2 log L, in standard errors for estimates, relative for these.
void expect_fit(const Run& run, const json& results, double loglik, double estimate, double error_limit)
{
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  const auto statistics = run.column("FitStatistics", "Value");
  std::size_t k = 0;
  for (const char* name : {"minus2loglik", "aic", "aicc", "bic"})
    EXPECT_NEAR(statistics[k++], results[name].get<double>(), loglik) << name;
  for (const auto& [parameter, value] : results["estimates"].items()) {
    const double error = results["standard_errors"][parameter].get<double>();
    EXPECT_NEAR(run.number("ParameterEstimates", parameter, "Estimate"), value.get<double>(), estimate * error)
        << parameter;
    EXPECT_NEAR(run.number("ParameterEstimates", parameter, "StandardError"), error, error_limit * error) << parameter;
  }
}

// Columns of numbers of a data set that is removed when the object goes.
class Output {
public:
  explicit Output(const std::string& name)
      : path_((std::filesystem::temp_directory_path() / (name + std::to_string(getpid()) + ".csv")).string())
  {
  }
  ~Output() { std::filesystem::remove(path_); }
  const std::string& path() const { return path_; }

  // Rows of fields as they stand; the first are the names.
  std::vector<std::vector<std::string>> rows() const
  {
    std::vector<std::vector<std::string>> result;
    std::ifstream file(path_);
    for (std::string line; std::getline(file, line);) {
      auto& fields = result.emplace_back();
      std::istringstream in(line + ",");
      for (std::string field; std::getline(in, field, ',');) fields.push_back(field);
    }
    return result;
  }

private:
  std::string path_;
};

} // namespace

TEST(SupportPointMethod, AgreesWithTheReference)
{
  const json reference = reference_of("mixture_logit");
  expect_start(run_text(example("mixture_logit", "TECHNIQUE=NONE")), reference["at_start"][0]);
  const auto& results = reference["fits"][0]["results"];
  const auto run = run_text(example("mixture_logit", ""));
  expect_fit(run, results, 2e-5, 0.01, 0.01);
  EXPECT_EQ(run.table("Dimensions")->rows().size(), 6u); // no row of quadrature points
  expect_fit(run_text(example("mixture_logit", strict)), results, 2e-8, 1e-5, 1e-4);
  expect_fit(run_text(example("mixture_logit", " FD")), results, 2e-5, 0.01, 0.01);
}

TEST(SupportPointMethod, PosteriorsAgreeWithTheReference)
{
  const auto posteriors = reference_of("mixture_logit")["fits"][0]["posterior"];
  for (const char* options : {"", " FD=CENTRAL"}) {
    const Output probabilities("probabilities"), effects("effects");
    std::string program = example("mixture_logit", options + std::string(strict));
    program.insert(program.find("SUBJECT=id") + 10,
                   " OUTP='" + probabilities.path() + "' OUT='" + effects.path() + "'");
    ASSERT_EQ(run_text(program).outcome.exit_code, 0);
    const auto p = probabilities.rows(), u = effects.rows();
    ASSERT_EQ(p.size(), 1 + 2 * posteriors.size());
    ASSERT_EQ(u.size(), 1 + posteriors.size());
    const double limit = *options == '\0' ? 1e-7 : 1e-5;
    for (std::size_t s = 0; s < posteriors.size(); ++s) {
      const auto& subject = posteriors[s];
      for (std::size_t t = 0; t < 2; ++t) { // id, Point, Estimate, StdErrPred
        EXPECT_NEAR(std::stod(p[1 + 2 * s + t][2]), subject["probabilities"][t].get<double>(), limit) << s;
        EXPECT_NEAR(std::stod(p[1 + 2 * s + t][3]), subject["standard_errors"][t].get<double>(), 10 * limit) << s;
      }
      EXPECT_NEAR(std::stod(u[1 + s][2]), subject["posterior_mean"]["z"].get<double>(), 10 * limit)
          << s; // id, Effect, Estimate
      EXPECT_NEAR(std::stod(u[1 + s][3]), subject["prediction_standard_error"]["z"].get<double>(), 10 * limit) << s;
    }
  }
}

// What cannot be: a probability that is impossible, another method beside the distribution, effects of the wrong kind.
TEST(SupportPointMethod, SaysWhatCannotBe)
{
  const auto with = [](const std::string& from, const std::string& to, const char* options = "") {
    std::string program = example("mixture_logit", options);
    program.replace(program.find(from), from.size(), to);
    return run_text(program);
  };
  EXPECT_NE(with("[z1, p1]", "[z1, p1 - 5]").log.find("DISCRETE is -4.6"), std::string::npos);
  EXPECT_NE(with("[z1, p1]", "[z1, p1], [0, 1 - p1]").log.find("add up to 1, and nothing"), std::string::npos);
  EXPECT_TRUE(with("[z1, p1]", "[z1, p1, 0.5]").said(503, 334));
  EXPECT_NE(with("z1", "z1", "METHOD=ISAMP").outcome.exit_code, 0);
  EXPECT_NE(with("z1", "z1", "METHOD=HARDY").outcome.exit_code, 0);
}

// Around the means, and around the modes.
TEST(FirstOrderMethod, AgreesWithTheReferences)
{
  for (const std::string name : {"orange", "sleepstudy", "theoph"}) {
    const json reference = reference_of(name);
    int compared = 0;
    for (const auto& start : reference["at_start"]) {
      const std::string method = start["method"];
      if (!method.starts_with("first_order")) continue;
      SCOPED_TRACE(name + " " + method);
      expect_start(run_text(example(name, method == "first_order" ? "TECHNIQUE=NONE METHOD=FIRO"
                                                                  : "TECHNIQUE=NONE METHOD=FIRO LB")),
                   start);
      ++compared;
    }
    for (const auto& fit : reference["fits"]) {
      const std::string method = fit["method"];
      if (!method.starts_with("first order")) continue;
      SCOPED_TRACE(name + " " + method);
      const std::string option = method.starts_with("first order at the modes") ? "METHOD=FIRO LB" : "METHOD=FIRO";
      expect_fit(run_text(example(name, option)), fit["results"], 2e-5, 0.01, 0.01);
      expect_fit(run_text(example(name, option + strict)), fit["results"], 2e-5, 1e-5, 1e-4);
      ++compared;
    }
    EXPECT_EQ(compared, name == "theoph" ? 4 : 2);
  }
}

// The means of the effects stand in the model or in their distribution: one likelihood. At the modes with means that
// are not 0.
TEST(FirstOrderMethod, MeansStandInTheModelOrInTheDistribution)
{
  const std::string body =
      "pred = dose*exp(lke+lka-lcl)*(exp(-exp(lke)*time) - exp(-exp(lka)*time))/(exp(lka)-exp(lke));"
      "MODEL conc ~ NORMAL(pred, s2); RANDOM b1 b2 ~ NORMAL(";
  const std::string parameters = "PARMS beta1=-3.22 beta2=0.47 beta3=-2.45 s2b1=0.03 cb12=0 s2b2=0.4 s2=0.5;";
  for (const std::string option : {"METHOD=FIRO", "METHOD=FIRO LB"}) {
    SCOPED_TRACE(option);
    const std::string head = "TORVALE DATA=theoph TECHNIQUE=NONE " + option + ";" + parameters;
    const Output inside("inside"), outside("outside");
    const auto centred =
        run_text(head + "lcl = beta1 + b1; lka = beta2 + b2; lke = beta3;" + body +
                 "[0,0],[s2b1,cb12,s2b2]) SUBJECT=subject; PREDICT pred OUT='" + inside.path() + "'; RUN;");
    const auto moved =
        run_text(head + "lcl = b1; lka = b2; lke = beta3;" + body +
                 "[beta1,beta2],[s2b1,cb12,s2b2]) SUBJECT=subject; PREDICT pred OUT='" + outside.path() + "'; RUN;");
    ASSERT_EQ(centred.outcome.exit_code, 0) << centred.log;
    ASSERT_EQ(moved.outcome.exit_code, 0) << moved.log;
    EXPECT_NEAR(centred.column("Parameters", "NegLogLike")[0], moved.column("Parameters", "NegLogLike")[0], 1e-10);
    const auto a = inside.rows(), b = outside.rows();
    ASSERT_EQ(a.size(), b.size());
    ASSERT_GT(a.size(), 100u);
    for (std::size_t r = 1; r < a.size(); ++r)
      for (std::size_t c = a[r].size() - 8; c < a[r].size() - 6; ++c) { // Pred, StdErrPred
        ASSERT_EQ(a[r][c].empty(), b[r][c].empty()) << r << " " << c;
        if (a[r][c].empty()) continue;
        EXPECT_NEAR(std::stod(a[r][c]), std::stod(b[r][c]), 1e-6 * (1.0 + std::abs(std::stod(a[r][c]))))
            << r << " " << c;
      }
  }
}

// With differences the same fit; a residual variance that is too small is no likelihood.
TEST(FirstOrderMethod, DifferencesAndFailures)
{
  const json reference = reference_of("theoph");
  for (const auto& fit : reference["fits"]) {
    const std::string method = fit["method"];
    if (!method.starts_with("first order")) continue;
    const std::string option = method.starts_with("first order at the modes") ? " LB" : "";
    expect_fit(run_text(example("theoph", "METHOD=FIRO FD" + option)), fit["results"], 1e-4, 0.02, 0.02);
  }
  std::string program = example("theoph", "METHOD=FIRO");
  program.replace(program.find("NORMAL(pred, s2)"), 16, "NORMAL(pred, s2*0)");
  const auto failed = run_text(program);
  EXPECT_NE(failed.outcome.exit_code, 0);
  EXPECT_TRUE(failed.said(503, 232)) << failed.log;
  EXPECT_TRUE(run_text(example("cbpp", "METHOD=FIRO")).said(503, 19));
  EXPECT_TRUE(run_text(example("fixed_gamma", "METHOD=FIRO")).said(503, 19));
  EXPECT_TRUE(run_text(example("theoph", "METHOD=FIRO FDHESSIAN TECHNIQUE=NONE")).said(503, 362));
}

TEST(HardyMethod, AgreesWithTheReferences)
{
  for (const std::string name : {"cbpp", "epil"}) {
    SCOPED_TRACE(name);
    const json reference = reference_of("hardy_" + name);
    expect_start(run_text(example(name, "TECHNIQUE=NONE METHOD=HARDY QTOL=1e-10")), reference["at_start"][0]);
    const auto& results = reference["fits"][0]["results"];
    expect_fit(run_text(example(name, "METHOD=HARDY")), results, 2e-5, 0.01, 0.01);
    expect_fit(run_text(example(name, "METHOD=HARDY QTOL=1e-10" + std::string(strict))), results, 1e-7, 1e-5, 1e-4);
    expect_fit(run_text(example(name, "METHOD=HARDY FD")), results, 1e-4, 0.02, 0.02);
  }
  EXPECT_TRUE(run_text(example("theoph", "METHOD=HARDY")).said(503, 23));
}

// A variance that starts at 0 leaves it.
// Where nothing is fitted the number of points is chosen with the same care: for counts three points add next to
// nothing to one, and both are wrong.
TEST(IntegrationMethods, PointsOfAnEvaluation)
{
  const auto value = [](const std::string& options) {
    const auto run = run_text("TORVALE DATA=epil TECHNIQUE=NONE " + options +
                              ";"
                              "PARMS b0=1.5 b1=0.8 b2=-0.3 b3=0.3 b4=-0.1 b5=0.3 v=0.3; t = (trt = 'progabide');"
                              "MODEL y ~ POISSON(exp(b0 + b1*lbase + b2*t + b3*lage + b4*v4 + b5*lbase*t + u));"
                              "RANDOM u ~ NORMAL(0, v) SUBJECT=subject; RUN;");
    EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
    return run.number("FitStatistics", "-2 Log Likelihood", "Value");
  };
  EXPECT_NEAR(value(""), value("QPOINTS=31"), 0.01); // one point: 0.16
}

TEST(IntegrationMethods, VariancesLeaveZero)
{
  const double best = reference_of("cbpp")["fits"][0]["results"]["minus2loglik"].get<double>();
  for (const char* option : {"METHOD=HARDY", "QPOINTS=5", "QPOINTS=31 NOAD", "METHOD=ISAMP QPOINTS=200 SEED=1"}) {
    std::string program = example("cbpp", option);
    program.replace(program.find("s2u=0.5"), 7, "s2u=0");
    program.replace(program.find("s2u > 0"), 7, "s2u >= 0");
    const auto run = run_text(program);
    ASSERT_EQ(run.outcome.exit_code, 0) << option << run.log;
    EXPECT_NEAR(run.column("FitStatistics", "Value")[0], best, 1.0) << option;
    EXPECT_GT(run.number("ParameterEstimates", "s2u", "Estimate"), 0.1) << option;
  }
}

// The gradients of the subjects add up to that of the fit, replicates counted once, by derivatives or by differences.
TEST(SubjectGradientOutput, AddsUpToTheGradient)
{
  struct {
    const char* example;
    const char* options;
    std::size_t rows;
  } const cases[] = {{"cbpp", "", 15},
                     {"cbpp", " FD", 15},
                     {"theoph", " NTHREADS=3", 12},
                     {"fixed_poisson", "", 54},
                     {"fixed_poisson", " FD", 54},
                     {"nested_logit", "", 10},
                     {"nested_logit", " FD", 10},
                     {"cbpp", " METHOD=ISAMP QPOINTS=50 SEED=3", 15}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.example + std::string(c.options));
    const Output output("gradients");
    const auto run = run_text(example(c.example, "TECHNIQUE=NONE SUBGRADIENT='" + output.path() + "'" + c.options));
    ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
    const auto rows = output.rows();
    ASSERT_EQ(rows.size(), c.rows + 1);
    EXPECT_EQ(rows[0][0], "Observation");
    const auto names = run.table("ParameterEstimates")->rows();
    const std::size_t first = rows[0].size() - names.size();
    EXPECT_EQ(first, std::string(c.example).starts_with("fixed") ? 1u : 2u);
    double largest = 1.0;
    for (const double g : run.column("ParameterEstimates", "Gradient")) largest = std::max(largest, std::abs(g));
    for (std::size_t j = first; j < rows[0].size(); ++j) {
      double sum = 0.0;
      for (std::size_t r = 1; r < rows.size(); ++r) sum += std::stod(rows[r][j]);
      EXPECT_NEAR(sum, run.number("ParameterEstimates", rows[0][j], "Gradient"), 1e-5 * largest) << rows[0][j];
    }
  }
  EXPECT_TRUE(run_text(example("cbpp", "METHOD=HARDY SUBGRADIENT=work.x")).said(503, 144));
}

// Subjects in the order of their first records, though they close in another; the closing record is the last that is
// used; a record or subject that is not used has no gradient. (Six records determine no fit: only the gradients are
// looked at.)
TEST(SubjectGradientOutput, NamesTheClosingRecords)
{
  const TemporaryFile data("records.csv", "id,x,y,n\n7,0.1,1,2\n3,0.2,0,1\n7,0.5,2,2\n5,0.3,,1\n3,0.9,1,1\n7,0.7,,2\n");
  const auto rows_of = [&](const std::string& model) {
    const Output output("records");
    run_text("TORVALE DATA='" + data.path() + "' TECHNIQUE=NONE SUBGRADIENT='" + output.path() + "'; " + model +
             " RUN;");
    return output.rows();
  };
  const std::string mixed =
      "PARMS b0=0.1 b1=0.2 g=0.5; MODEL y ~ POISSON(exp(b0 + b1*x + u)); RANDOM u ~ NORMAL(0, g) SUBJECT=id;";
  const auto s = rows_of(mixed + " REPLICATE n;"), once = rows_of(mixed);
  ASSERT_EQ(s.size(), 4u);
  ASSERT_EQ(once.size(), 4u);
  EXPECT_EQ(s[1][0] + " " + s[1][1], "3 7");
  EXPECT_EQ(s[2][0] + " " + s[2][1], "5 3");
  EXPECT_EQ(s[3][0] + " " + s[3][1] + " " + s[3][2], "4 5 ");
  for (std::size_t c = 2; c < 5; ++c) EXPECT_NEAR(std::stod(s[1][c]), 2.0 * std::stod(once[1][c]), 1e-12);
  const auto r = rows_of("PARMS b0=0.1 b1=0.2; MODEL y ~ POISSON(exp(b0 + b1*x));");
  ASSERT_EQ(r.size(), 7u);
  for (std::size_t k = 1; k < 7; ++k) EXPECT_EQ(r[k][0], std::to_string(k));
  EXPECT_EQ(r[4][1], "");
  EXPECT_NEAR(std::stod(r[3][1]), std::exp(0.1 + 0.1) - 2.0, 1e-12); // of the negative log likelihood
}

TEST(PointOutput, WritesTheRuleInUse)
{
  const Output output("points"), sample("sample"), none("none");
  ASSERT_EQ(run_text(example("theoph", "TECHNIQUE=NONE QPOINTS=3 OUTQ='" + output.path() + "'")).outcome.exit_code, 0);
  const auto rows = output.rows();
  ASSERT_EQ(rows.size(), 10u);
  EXPECT_EQ(rows[0], (std::vector<std::string>{"Abscissa1", "Abscissa2", "LogWeight"}));
  double sum = 0.0;
  for (std::size_t r = 1; r < rows.size(); ++r) sum += std::exp(std::stod(rows[r][2]));
  EXPECT_NEAR(sum, 3.14159265358979, 1e-13);
  EXPECT_NEAR(std::stod(rows[1][0]), -std::sqrt(1.5), 1e-14);
  EXPECT_NEAR(std::stod(rows[2][0]), 0.0, 1e-14); // the first dimension varies fastest
  EXPECT_NEAR(std::stod(rows[2][1]), -std::sqrt(1.5), 1e-14);
  ASSERT_EQ(run_text(example("cbpp", "TECHNIQUE=NONE METHOD=ISAMP QPOINTS=20 SEED=1 OUTQ='" + sample.path() + "'"))
                .outcome.exit_code,
            0);
  EXPECT_EQ(sample.rows().size(), 21u);
  EXPECT_EQ(sample.rows()[0], std::vector<std::string>{"Abscissa1"});
  EXPECT_TRUE(run_text(example("cbpp", "TECHNIQUE=NONE METHOD=HARDY OUTQ='" + none.path() + "'")).said(503, 9602));
}

// The log likelihood without the shift of the method lies within the error that is told of the exact one.
TEST(ImportanceSampling, TellsItsErrorAndItsShift)
{
  for (const std::string name : {"cbpp", "theoph"}) {
    const double exact = name == "cbpp" ? 183.966738074621 : 2 * 177.784581666891;
    std::vector<double> errors;
    for (const int points : {500, 8000}) {
      std::string program = example(name, "METHOD=ISAMP SEED=11 QPOINTS=" + std::to_string(points) +
                                              (name == "theoph" ? " TECHNIQUE=NONE" : ""));
      const auto run = run_text(program);
      ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
      const auto values = run.column("ImportanceSampling", "Value");
      ASSERT_EQ(values.size(), 4u);
      EXPECT_EQ(values[0], points);
      errors.push_back(values[1]);
      EXPECT_NEAR(values[2], name == "cbpp" ? 0.0 : 12 * 1.8378770664093456, 1e-12);
      EXPECT_NEAR(values[3], exact, 2.0 * 5.0 * values[1]) << name << points;
      EXPECT_EQ(run.said(503, 9600), name == "theoph");
      EXPECT_TRUE(run.said(503, 9601));
    }
    EXPECT_NEAR(errors[0] / errors[1], 4.0, 1.5) << name;
  }
}

// An integrand with two modes: the trapezoidal rule has to see the other one, whatever lies between.
TEST(IntegrationMethods, HardySeesOtherModes)
{
  const double y[] = {2.1, 1.8, 4.4, 4.1, 0.3, 0.6};
  std::string csv = "id,y\n";
  for (int k = 0; k < 6; ++k) csv += std::to_string(k / 2) + "," + std::to_string(y[k]) + "\n";
  const TemporaryFile file("two-modes.csv", csv);
  for (const double shift : {0.0, 0.3}) {
    const auto run = run_text("TORVALE DATA=d METHOD=HARDY QTOL=1e-8 TECHNIQUE=NONE; PARMS s2=0.05 v=2;"
                              "MODEL y ~ NORMAL((u + " +
                                  std::to_string(shift) + ")**2, s2); RANDOM u ~ NORMAL(0, v) SUBJECT=id; RUN;",
                              "examples", 0, {{"d", file.path()}});
    double expected = 0.0; // plain sums over a fine grid
    for (int id = 0; id < 3; ++id) {
      double sum = 0.0;
      for (int k = -40000; k <= 40000; ++k) {
        const double u = k * 4e-4, m = (u + shift) * (u + shift), a = y[2 * id] - m, b = y[2 * id + 1] - m;
        sum += std::exp(-(a * a + b * b) / 0.1 - u * u / 4);
      }
      expected -= 2 * std::log(sum * 4e-4 / std::sqrt(4 * M_PI) / (2 * M_PI * 0.05));
    }
    EXPECT_NEAR(run.column("FitStatistics", "Value")[0], expected, 1e-6) << shift << run.log;
  }
}

// Points around a mode, however many, say nothing of another one far away: the user is told what it would change. In
// two dimensions it lies through the origin. The order of the records and the threads do not matter.
TEST(IntegrationMethods, ModesBeyondThePointsAreTold)
{
  std::string csv = "id,k,y,z\n";
  for (int id = 0; id < 12; ++id)
    for (int k = 0; k < 4; ++k) {
      const double u = -1.4 + 0.31 * id, noise = 0.15 * std::sin(7.0 * id + 3.0 * k);
      csv += std::to_string(id) + "," + std::to_string(k % 2) + "," + std::to_string((u + 1) * (u + 1) + noise) + "," +
             std::to_string(u + noise) + "\n";
    }
  const TemporaryFile file("modes.csv", csv);
  const auto fit = [&](const std::string& options, const std::string& model, int threads = 0) {
    return run_text("TORVALE DATA=d " + options + "; PARMS s2=0.02 v=2; BOUNDS s2 > 0, v > 0;" + model + "RUN;",
                    "examples", threads, {{"d", file.path()}});
  };
  const std::string square = "MODEL y ~ NORMAL((u + 1)**2, s2); RANDOM u ~ NORMAL(0, v) SUBJECT=id;";
  const auto run = fit("QPOINTS=3", square);
  ASSERT_TRUE(run.said(503, 9449)) << run.log;
  const double s2 = run.number("ParameterEstimates", "s2", "Estimate"),
               v = run.number("ParameterEstimates", "v", "Estimate");
  const auto here = [&](const std::string& method) {
    return run_text("TORVALE DATA=d TECHNIQUE=NONE " + method + "; PARMS s2=" + std::to_string(s2) +
                        " v=" + std::to_string(v) + ";" + square + "RUN;",
                    "examples", 0, {{"d", file.path()}})
        .number("FitStatistics", "-2 Log Likelihood", "Value");
  };
  const double lost = here("METHOD=HARDY") - here("QPOINTS=3");
  const auto& messages = run.outcome.results.steps[0].messages;
  const auto told = std::find_if(messages.begin(), messages.end(), [](const auto& m) { return m.number == 9449; });
  const std::string words = told->text.substr(told->text.find("by about ") + 9);
  EXPECT_NEAR(std::stod(words), lost, 0.2 * std::fabs(lost)) << words;
  EXPECT_TRUE(fit("METHOD=ISAMP QPOINTS=300 SEED=1", square).said(503, 9449));
  EXPECT_EQ(fit("QPOINTS=3", square, 3).log, run.log);
  EXPECT_TRUE(fit("QPOINTS=5", "IF k = 1 THEN m = (u + 0.2)*(w + 0.1)*2; ELSE m = (u + 0.2)**2;"
                               "MODEL y ~ NORMAL(m, s2); RANDOM u w ~ NORMAL([0,0],[v,0,v]) SUBJECT=id;")
                  .said(503, 9449));
  for (const char* method : {"QPOINTS=3", "METHOD=ISAMP QPOINTS=300 SEED=1"}) // one mode
    EXPECT_FALSE(fit(method, "MODEL z ~ NORMAL(u, s2); RANDOM u ~ NORMAL(0, v) SUBJECT=id;").said(503, 9449));
}

} // namespace torvale::tests
