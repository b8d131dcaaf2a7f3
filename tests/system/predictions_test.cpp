// Predictions and empirical Bayes estimates as a fit writes them.

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

// A CSV file without quoted commas, by columns.
std::map<std::string, std::vector<std::string>> read_csv(const std::string& path)
{
  std::map<std::string, std::vector<std::string>> columns;
  std::ifstream file(path);
  EXPECT_TRUE(file) << path;
  std::vector<std::string> names;
  for (std::string line; std::getline(file, line);) {
    std::vector<std::string> fields;
    std::istringstream in(line + ",");
    for (std::string field; std::getline(in, field, ',');) fields.push_back(field);
    if (names.empty())
      names = fields;
    else
      for (std::size_t k = 0; k < names.size(); ++k) columns[names[k]].push_back(fields[k]);
  }
  return columns;
}

// A folder of its own for the data sets of a test.
class Folder {
public:
  Folder() : path_((std::filesystem::temp_directory_path() / ("predictions-" + std::to_string(getpid()))).string())
  {
    std::filesystem::create_directories(path_);
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

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
    const auto rows = read_csv(folder.file("pred" + std::to_string(e) + ".csv"));
    for (const auto& p : fit["predictions"]) {
      if (p["expression"] != expressions[e]) continue;
      const auto row = p["row"].get<std::size_t>() - 1;
      const double error = p["standard_error"].get<double>();
      EXPECT_NEAR(std::stod(rows.at("Pred")[row]), p["predicted"].get<double>(), value_limit * error)
          << expressions[e] << " " << row;
      EXPECT_NEAR(std::stod(rows.at("StdErrPred")[row]), error, error_limit * error) << expressions[e] << " " << row;
    }
  }
  const auto effects = read_csv(folder.file("effects.csv"));
  std::size_t k = 0;
  for (const auto& subject : fit["random_effects"])
    for (const auto& [name, value] : subject["estimate"].items()) {
      const double error = subject["standard_error"][name].get<double>();
      EXPECT_EQ(effects.at("Effect")[k], name);
      EXPECT_NEAR(std::stod(effects.at("Estimate")[k]), value.get<double>(), value_limit * error) << k;
      EXPECT_NEAR(std::stod(effects.at("StdErrPred")[k]), error, error_limit * error) << k;
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
  const auto centred = read_csv(folder.file("a.csv"));
  ASSERT_EQ(run_text(head + "mu = u0 + u1*days;" + tail + "[b0,b1],[v00,v01,v11])" + out).outcome.exit_code, 0);
  const auto moved = read_csv(folder.file("a.csv"));
  ASSERT_EQ(centred.at("Pred").size(), 180u);
  for (std::size_t row = 0; row < 180; ++row) {
    EXPECT_NEAR(std::stod(centred.at("Pred")[row]), std::stod(moved.at("Pred")[row]), 1e-9 * 300);
    EXPECT_NEAR(std::stod(centred.at("StdErrPred")[row]), std::stod(moved.at("StdErrPred")[row]), 1e-6 * 10);
    EXPECT_EQ(std::stod(centred.at("Der_b0")[row]), 1.0);
    EXPECT_EQ(std::stod(moved.at("Der_b0")[row]), 0.0);
    EXPECT_EQ(centred.at("Der_u1_1")[row], moved.at("Days")[row]);
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
  const auto p = read_csv(folder.file("p.csv")), u = read_csv(folder.file("u.csv")), q = read_csv(folder.file("q.csv"));
  EXPECT_EQ(p.at("Pred"), std::vector<std::string>(10, "9")); // the input's own
  EXPECT_FALSE(p.at("Pred2")[2].empty());                     // no response, but all that the mean needs
  EXPECT_FALSE(p.at("StdErrPred")[2].empty());
  EXPECT_TRUE(p.at("Pred2")[3].empty()); // no record of this subject is used
  EXPECT_TRUE(u.at("Estimate")[1].empty());
  EXPECT_EQ(u.at("id"), (std::vector<std::string>{"a", "b", "c", "d"}));
  EXPECT_TRUE(q.at("Pred2")[0].empty());
  EXPECT_EQ(std::stod(q.at("Pred2")[1]), 0.0);
  EXPECT_TRUE(q.at("StdErrPred")[1].empty()); // it depends on nothing that is estimated
  EXPECT_TRUE(run.said(503, 9570)) << run.log;
  EXPECT_TRUE(run.said(503, 9571)) << run.log;
}

} // namespace torvale::tests
