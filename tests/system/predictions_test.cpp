// Predictions and empirical Bayes estimates as a fit writes them.

#include "system/data_files.h"
#include "system/session.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <map>
#include <sstream>

namespace torvale::tests {

namespace {

using nlohmann::json;

std::string start_at(const json& estimates)
{
  std::string text = "PARMS";
  for (const auto& [name, value] : estimates.items()) {
    std::ostringstream number;
    number.precision(17);
    number << value.get<double>();
    text += " " + name + "=" + number.str();
  }
  return text + ";";
}

// By Gauss-Jordan steps, without any use of structure.
std::vector<std::vector<double>> inverse_of(std::vector<std::vector<double>> a)
{
  const std::size_t n = a.size();
  std::vector<std::vector<double>> b(n, std::vector<double>(n, 0.0));
  for (std::size_t i = 0; i < n; ++i) b[i][i] = 1.0;
  for (std::size_t k = 0; k < n; ++k) {
    const double pivot = a[k][k];
    for (std::size_t j = 0; j < n; ++j) a[k][j] /= pivot, b[k][j] /= pivot;
    for (std::size_t i = 0; i < n; ++i) {
      const double f = a[i][k];
      if (i == k || f == 0.0) continue;
      for (std::size_t j = 0; j < n; ++j) a[i][j] -= f * a[k][j], b[i][j] -= f * b[k][j];
    }
  }
  return b;
}

struct Model {
  std::string data, body;
};

const Model sleepstudy = {"sleepstudy", "BOUNDS v00 > 0, v11 > 0, s2 > 0; mu = b0 + u0 + (b1 + u1)*days;"
                                        "MODEL reaction ~ NORMAL(mu, s2);"
                                        "RANDOM u0 u1 ~ NORMAL([0,0],[v00,v01,v11]) SUBJECT=subject"};
const Model theoph = {"theoph",
                      "BOUNDS s2b1 > 0, s2b2 > 0, s2 > 0; lcl = beta1 + b1; lka = beta2 + b2; lke = beta3;"
                      "pred = dose*exp(lke+lka-lcl)*(exp(-exp(lke)*time) - exp(-exp(lka)*time))/(exp(lka)-exp(lke));"
                      "MODEL conc ~ NORMAL(pred, s2);"
                      "RANDOM b1 b2 ~ NORMAL([0,0],[s2b1,cb12,s2b2]) SUBJECT=subject"};

// Runs the model with predictions of the reference's expressions and compares rows, effects and errors.
void expect_reference(const Model& model, const json& reference, const json& fit, const std::string& options,
                      double value_limit, double error_limit)
{
  const Folder folder;
  std::string program = "TORVALE DATA=" + model.data +
                        " QPOINTS=" + std::to_string(fit["points_per_dimension"].get<int>()) + options + "; " +
                        start_at(fit["estimates"]) + model.body + " OUT='" + folder.file("effects.csv") + "';";
  const auto expressions = reference["expressions"].get<std::vector<std::string>>();
  for (std::size_t e = 0; e < expressions.size(); ++e)
    program += "PREDICT " + expressions[e] + " OUT='" + folder.file("pred" + std::to_string(e) + ".csv") + "';";
  const auto run = run_text(program + "RUN;");
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;

  for (std::size_t e = 0; e < expressions.size(); ++e) {
    const auto rows = read_csv_file(folder.file("pred" + std::to_string(e) + ".csv"));
    for (const auto& p : fit["predictions"]) {
      if (p["expression"] != expressions[e]) continue;
      const auto row = p["row"].get<std::size_t>() - 1;
      const double error = p["standard_error"].get<double>();
      EXPECT_NEAR(std::stod(rows.column("Pred")[row]), p["predicted"].get<double>(), value_limit * error)
          << expressions[e] << " " << row;
      EXPECT_NEAR(std::stod(rows.column("StdErrPred")[row]), error, error_limit * error)
          << expressions[e] << " " << row;
    }
  }
  const auto effects = read_csv_file(folder.file("effects.csv"));
  std::size_t k = 0;
  for (const auto& subject : fit["random_effects"])
    for (const auto& [name, value] : subject["estimate"].items()) {
      const double error = subject["standard_error"][name].get<double>();
      EXPECT_EQ(effects.column("Effect")[k], name);
      EXPECT_NEAR(std::stod(effects.column("Estimate")[k]), value.get<double>(), value_limit * error) << k;
      EXPECT_NEAR(std::stod(effects.column("StdErrPred")[k]), error, error_limit * error) << k;
      ++k;
    }
}

} // namespace

TEST(Predictions, AgreeWithReferences)
{
  for (const Model* model : {&sleepstudy, &theoph}) {
    const json reference = json::parse(read_text(source_file("tests/data/reference/predict/" + model->data + ".json")));
    for (const auto& fit : reference["fits"]) {
      expect_reference(*model, reference, fit, " TECHNIQUE=NONE", 1e-9, 1e-5);
      expect_reference(*model, reference, fit, " GCONV=1e-14 FCONV=0 ABSGCONV=0", 1e-5, 1e-5);
    }
  }
}

// Random effects about 0 with the mean in the model, or about the mean: the same predictions and the same errors.
TEST(Predictions, DoNotDependOnWhereTheMeansAre)
{
  const Folder folder;
  const std::string head =
      "TORVALE DATA=sleepstudy TECHNIQUE=NONE; PARMS b0=251.4 b1=10.47 v00=565.5 v01=11 v11=32.7 s2=654.9;";
  const std::string tail = "MODEL reaction ~ NORMAL(mu, s2); RANDOM u0 u1 ~ NORMAL(";
  const std::string out = "SUBJECT=subject; PREDICT mu OUT='" + folder.file("a.csv") + "' DER; RUN;";
  ASSERT_EQ(run_text(head + "mu = b0 + u0 + (b1 + u1)*days;" + tail + "[0,0],[v00,v01,v11])" + out).outcome.exit_code,
            0);
  const auto centred = read_csv_file(folder.file("a.csv"));
  ASSERT_EQ(run_text(head + "mu = u0 + u1*days;" + tail + "[b0,b1],[v00,v01,v11])" + out).outcome.exit_code, 0);
  const auto moved = read_csv_file(folder.file("a.csv"));
  ASSERT_EQ(centred.column("Pred").size(), 180u);
  for (std::size_t row = 0; row < 180; ++row) {
    EXPECT_NEAR(std::stod(centred.column("Pred")[row]), std::stod(moved.column("Pred")[row]), 1e-9 * 300);
    EXPECT_NEAR(std::stod(centred.column("StdErrPred")[row]), std::stod(moved.column("StdErrPred")[row]), 1e-6 * 10);
    EXPECT_EQ(std::stod(centred.column("Der_b0")[row]), 1.0);
    EXPECT_EQ(std::stod(moved.column("Der_b0")[row]), 0.0);
    EXPECT_EQ(centred.column("Der_u1_1")[row], moved.column("Days")[row]);
  }
}

// A record without a response, a subject without any, a fault in the expression, names that are taken.
TEST(Predictions, OfRecordsThatTheFitCouldNotUse)
{
  const Folder folder;
  const TemporaryFile data("gaps.csv", "id,x,y,Pred\na,0,1.0,9\na,1,2.1,9\na,2,,9\nb,0,,9\nb,1,,9\nc,0,1.4,9\nc,1,2.2,"
                                       "9\nc,2,3.4,9\nd,0,0.7,9\nd,1,1.9,9\n");
  const auto run = run_text("TORVALE DATA='" + data.path() +
                            "'; PARMS b0=1 b1=1 v=0.1 s2=0.1; BOUNDS v >= 0, s2 > 0;"
                            "mu = b0 + u + b1*x; MODEL y ~ NORMAL(mu, s2); RANDOM u ~ NORMAL(0, v) SUBJECT=id OUT='" +
                            folder.file("u.csv") + "'; PREDICT mu OUT='" + folder.file("p.csv") +
                            "'; PREDICT LOG(x) OUT='" + folder.file("q.csv") + "'; RUN;");
  ASSERT_LT(run.outcome.exit_code, 1) << run.log;
  const auto p = read_csv_file(folder.file("p.csv")), u = read_csv_file(folder.file("u.csv")),
             q = read_csv_file(folder.file("q.csv"));
  EXPECT_EQ(p.column("Pred"), std::vector<std::string>(10, "9")); // the input's own
  EXPECT_FALSE(p.column("Pred2")[2].empty());                     // no response, but all that the mean needs
  EXPECT_FALSE(p.column("StdErrPred")[2].empty());
  EXPECT_TRUE(p.column("Pred2")[3].empty()); // no record of this subject is used
  EXPECT_TRUE(u.column("Estimate")[1].empty());
  EXPECT_EQ(u.column("id"), (std::vector<std::string>{"a", "b", "c", "d"}));
  EXPECT_TRUE(q.column("Pred2")[0].empty());
  EXPECT_EQ(std::stod(q.column("Pred2")[1]), 0.0);
  EXPECT_TRUE(q.column("StdErrPred")[1].empty()); // it depends on nothing that is estimated
  EXPECT_TRUE(run.said(503, 9570)) << run.log;
  EXPECT_TRUE(run.said(503, 9571)) << run.log;
}

// A model without parameters: an effect is predicted with its posterior standard deviation.
TEST(Predictions, WithoutParameters)
{
  const Folder folder;
  const auto run = run_text("TORVALE DATA=sleepstudy; MODEL reaction ~ NORMAL(300 + u, 900);"
                            "RANDOM u ~ NORMAL(0, 400) SUBJECT=subject OUT='" +
                            folder.file("u.csv") + "'; PREDICT u OUT='" + folder.file("p.csv") + "'; RUN;");
  EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
  for (const char* const name : {"u.csv", "p.csv"}) {
    const auto errors = read_csv_file(folder.file(name)).column("StdErrPred");
    ASSERT_EQ(errors.size(), name[0] == 'u' ? 18u : 180u);
    for (const std::string& error : errors) EXPECT_NEAR(std::stod(error), 1 / std::sqrt(1.0 / 400 + 10.0 / 900), 1e-9);
  }
}

// A linear model with known variances: the mixed model equations of all clinics and wards at once give estimates,
// predictions and the variances of their errors.
TEST(Predictions, OfNestedLevelsSolveTheMixedModelEquations)
{
  const Folder folder;
  const auto run = run_text("TORVALE DATA=nested_linear; PARMS b0=48 b1=2; mu = b0 + u0 + w + (b1 + u1)*week;"
                            "MODEL score ~ NORMAL(mu, 2.5);"
                            "RANDOM u0 u1 ~ NORMAL([0,0],[9,0.5,1.2]) SUBJECT=clinic OUT='" +
                            folder.file("clinics.csv") + "'; RANDOM w ~ NORMAL(0, 4) SUBJECT=ward(clinic) OUT='" +
                            folder.file("wards.csv") + "'; PREDICT mu OUT='" + folder.file("mu.csv") +
                            "'; PREDICT b0 + u0 + w OUT='" + folder.file("level.csv") + "' DER; RUN;");
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  const auto mu = read_csv_file(folder.file("mu.csv")), level = read_csv_file(folder.file("level.csv")),
             clinics = read_csv_file(folder.file("clinics.csv")), wards = read_csv_file(folder.file("wards.csv"));
  const auto clinic = mu.column("clinic"), ward = mu.column("ward");
  const auto week = mu.numbers("week"), score = mu.numbers("score");

  // Unknowns: b0, b1, then two effects of each clinic, then one of each ward, as they first appear.
  std::map<std::string, std::size_t> place;
  std::size_t unknowns = 2;
  for (std::size_t row = 0; row < week.size(); ++row)
    if (place.emplace(clinic[row], unknowns).second) unknowns += 2;
  for (std::size_t row = 0; row < week.size(); ++row)
    if (place.emplace(clinic[row] + "/" + ward[row], unknowns).second) ++unknowns;
  std::vector<std::vector<double>> a(unknowns, std::vector<double>(unknowns, 0.0));
  std::vector<double> right(unknowns, 0.0);
  const double determinant = 9 * 1.2 - 0.25;
  for (const auto& [name, at] : place) {
    if (name.find('/') != std::string::npos) {
      a[at][at] += 1.0 / 4.0;
      continue;
    }
    a[at][at] += 1.2 / determinant;
    a[at + 1][at + 1] += 9 / determinant;
    a[at][at + 1] = a[at + 1][at] = -0.5 / determinant;
  }
  const auto design = [&](std::size_t row, double slope) {
    std::vector<double> z(unknowns, 0.0);
    z[0] = z[place[clinic[row]]] = z[place[clinic[row] + "/" + ward[row]]] = 1.0;
    z[1] = z[place[clinic[row]] + 1] = slope;
    return z;
  };
  for (std::size_t row = 0; row < week.size(); ++row) {
    const auto z = design(row, week[row]);
    for (std::size_t i = 0; i < unknowns; ++i) {
      right[i] += z[i] * score[row] / 2.5;
      for (std::size_t j = 0; j < unknowns; ++j) a[i][j] += z[i] * z[j] / 2.5;
    }
  }
  const auto inverse = inverse_of(a);
  const auto product = [&](const std::vector<double>& x, const std::vector<double>& y) {
    double sum = 0.0;
    for (std::size_t i = 0; i < unknowns; ++i)
      for (std::size_t j = 0; j < unknowns; ++j) sum += x[i] * inverse[i][j] * y[j];
    return sum;
  };
  for (std::size_t row = 0; row < week.size(); ++row) {
    const auto z = design(row, week[row]), z0 = design(row, 0.0);
    EXPECT_NEAR(mu.numbers("Pred")[row], product(z, right), 1e-8) << row;
    EXPECT_NEAR(std::pow(mu.numbers("StdErrPred")[row], 2), product(z, z), 1e-9) << row;
    EXPECT_NEAR(level.numbers("Pred")[row], product(z0, right), 1e-8) << row;
    EXPECT_NEAR(std::pow(level.numbers("StdErrPred")[row], 2), product(z0, z0), 1e-9) << row;
  }
  const auto unit = [&](std::size_t i) {
    std::vector<double> e(unknowns, 0.0);
    e[i] = 1.0;
    return e;
  };
  for (std::size_t k = 0; k < clinics.rows.size(); ++k) {
    const auto e = unit(place[clinics.column("clinic")[k]] + (clinics.column("Effect")[k] == "u1" ? 1 : 0));
    EXPECT_NEAR(clinics.numbers("Estimate")[k], product(e, right), 1e-8) << k;
    EXPECT_NEAR(std::pow(clinics.numbers("StdErrPred")[k], 2), product(e, e), 1e-9) << k;
  }
  for (std::size_t k = 0; k < wards.rows.size(); ++k) {
    const auto e = unit(place[wards.column("clinic")[k] + "/" + wards.column("ward")[k]]);
    EXPECT_NEAR(wards.numbers("Estimate")[k], product(e, right), 1e-8) << k;
    EXPECT_NEAR(std::pow(wards.numbers("StdErrPred")[k], 2), product(e, e), 1e-9) << k;
  }
  EXPECT_EQ(level.column("Der_u1_1"), std::vector<std::string>(week.size(), "0"));
  EXPECT_EQ(level.column("Der_w_2"), std::vector<std::string>(week.size(), "1"));
}

} // namespace torvale::tests
