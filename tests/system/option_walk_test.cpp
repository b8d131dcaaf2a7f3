// Options together: every pair of values of any two options occurs in some run, on four small models. No run may crash
// (the sanitizers' builds look closer), end without a word when something is wrong, or show a number of no meaning.

#include "system/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace torvale::tests {

namespace {

using Factor = std::vector<std::string>; // the values of one option; the empty text: not given

const std::vector<Factor>& factors()
{
  static const std::vector<Factor> all = {
      {"fixed", "one", "two", "bounded"}, // the model
      {"", "TECH=NONE", "TECH=TRUREG", "TECH=NEWRAP", "TECH=NRRIDG", "TECH=NRLINS", "TECH=DBLDOG", "TECH=QUANEW",
       "TECH=DUQUAN", "TECH=CONGRA", "TECH=NMSIMP", "TECH=NMSIM2"},

      {"", "FD", "FD=CENTRAL", "FD=FORWARD", "FD=50"},
      {"", "FDHESSIAN", "FDHESSIAN=CENTRAL"},
      {"", "METHOD=ISAMP", "METHOD=FIRO", "METHOD=FIRO LB", "METHOD=HARDY"},
      {"", "QPOINTS=1", "QPOINTS=4"},
      {"", "NOAD", "NOADSCALE"},
      {"", "EMPIRICAL"},
      {"", "INHESSIAN", "INHESSIAN=2"},

      {"", "LINESEARCH=1", "LINESEARCH=3", "LINESEARCH=4", "LINESEARCH=6", "LINESEARCH=8"},
      {"", "GRADCHECK", "GRADCHECK=FAST"},
      {"", "OPTCHECK", "OPTCHECK=2"},
      {"", "DAMPSTEP", "DAMPSTEP=0.5"},
      {"", "COVARIANCE=1", "COVARIANCE=2", "COVARIANCE=3", "COVARIANCE=4", "COVARIANCE=5", "COVARIANCE=6"},
      {"", "EBOPT", "EBZSTART"},
      {"", "EBSTEPS=0", "EBSTEPS=2 EBSUBSTEPS=0"},
      {"", "COV", "PNONE"},
      {"", "COV CORR ECOV ECORR EDER"},
      {"", "ITDETAILS", "LOGNOTE=3"},

      {"", "RESTART=2", "MAXSTEP=0.1[2]", "INSTEP=0.01"},
      {"", "MAXITER=0", "MAXITER=3", "MINITER=4"},
      {"", "GCONV=0 ABSGCONV=0", "FCONV=0.1[2]", "ABSCONV=1e6", "XCONV=0.01"},
      {"", "FDINT=OBJ", "FDINT=ALL", "FDIGITS=6"},
      {"", "SINGHESS=0.1", "G4=1", "COVSING=0.5", "CFACTOR=2", "VARDEF=DF"},
      {"", "NTHREADS=2", "NOSORTSUB"},
      {"", "DF=3 ALPHA=0.5", "SINGVAR=0.01", "LISTALL XREF"},
      {"", "LCDEACT=0.1", "LCEPS=0.01", "LCSINGULAR=0.01"},
      {"", "first update", "second update"}, // of the technique
      {"", "HESCAL=1", "HESCAL=2", "HESCAL=3"},
      {"", "DIAHES", "PALL"},
      {"", "START", "HESS", "START HESS"},
  };
  return all;
}

// Rows of values that cover all pairs, each the best of some random ones.
std::vector<std::vector<int>> covering_rows()
{
  const auto& f = factors();
  const std::size_t n = f.size();
  std::vector<std::vector<std::vector<char>>> open(n * n); // [a * n + b][value of a][value of b]
  long left = 0;
  for (std::size_t a = 0; a < n; ++a)
    for (std::size_t b = a + 1; b < n; ++b) {
      open[a * n + b].assign(f[a].size(), std::vector<char>(f[b].size(), 1));
      left += static_cast<long>(f[a].size() * f[b].size());
    }
  std::mt19937 random(3);
  const auto gain = [&](const std::vector<int>& row, bool take) {
    long covered = 0;
    for (std::size_t a = 0; a < n; ++a)
      for (std::size_t b = a + 1; b < n; ++b) {
        char& o = open[a * n + b][static_cast<std::size_t>(row[a])][static_cast<std::size_t>(row[b])];
        covered += o;
        if (take) o = 0;
      }
    return covered;
  };
  std::vector<std::vector<int>> rows;
  while (left > 0) {
    std::vector<int> best(n, 0);
    long most = -1;
    for (int trial = 0; trial < 40; ++trial) {
      std::vector<int> row(n);
      for (std::size_t a = 0; a < n; ++a) row[a] = static_cast<int>(random() % f[a].size());
      for (std::size_t a = 0; a < n; ++a) { // each option in turn at its best
        long at_best = -1;
        int value = 0;
        for (int v = 0; v < static_cast<int>(f[a].size()); ++v) {
          row[a] = v;
          if (const long g = gain(row, false); g > at_best) at_best = g, value = v;
        }
        row[a] = value;
      }
      if (const long g = gain(row, false); g > most) most = g, best = row;
      if (rows.size() > 20) break; // the late rows cover little, whichever they are
    }
    left -= gain(best, true);
    rows.push_back(best);
  }
  return rows;
}

// UPDATE= with a formula that the technique has; nothing where it has none.
std::string update_of(const std::string& technique, const std::string& which)
{
  const bool first = which == "first update";
  if (which.empty()) return "";
  if (technique == "TECH=QUANEW") return first ? "UPDATE=BFGS" : "UPDATE=DFP";
  if (technique == "TECH=DUQUAN" || technique == "TECH=DBLDOG") return first ? "UPDATE=DBFGS" : "UPDATE=DDFP";
  if (technique == "TECH=CONGRA") return first ? "UPDATE=FR" : "UPDATE=CD";
  return "";
}

std::string fit_with(const std::string& model, const std::string& options)
{
  const std::string head = "TORVALE DATA=d SEED=7 " + options + ";\n";
  const std::string tail = "ESTIMATE 'e' exp(b0); CONTRAST 'c' b0, b1;\nRUN;\n";
  if (model == "fixed") return head + "PARMS b0=0.1 b1=0;\nm = EXP(b0+b1*x); MODEL y ~ POISSON(m);\n" + tail;
  if (model == "bounded")
    return head +
           "PARMS b0=0.1 b1=0 s=0.5; BOUNDS s >= 0, -1 <= b1 <= 0.2;\nm = EXP(b0+b1*x+u); MODEL y ~ POISSON(m);\n"
           "RANDOM u ~ NORMAL(0,s) SUBJECT=id;\n" +
           tail;
  if (model == "one")
    return head +
           "PARMS b0=0 b1=0 s=0.5;\np = LOGISTIC(b0+b1*x+u); MODEL z ~ BINARY(p);\nRANDOM u ~ NORMAL(0,s) "
           "SUBJECT=id;\n" +
           tail;
  return head +
         "PARMS b0=0.1 b1=0 s=0.5 c=0 t=0.3 v=1;\nm = b0+u+(b1+w)*x; MODEL y ~ NORMAL(m, v);\n"
         "RANDOM u w ~ NORMAL([0,0],[s,c,t]) SUBJECT=id;\n" +
         tail;
}

std::string data()
{
  std::mt19937 random(11);
  std::normal_distribution<double> normal;
  std::string text = "id,x,y,z\n";
  for (int id = 1; id <= 7; ++id) {
    const double u = normal(random);
    for (int k = 0; k < 4; ++k) {
      const double x = std::round(10 * normal(random)) / 10;
      text += std::to_string(id) + "," + std::to_string(x) + "," +
              std::to_string(std::poisson_distribution<int>(std::exp(0.3 + 0.5 * u + 0.2 * x))(random)) + "," +
              std::to_string(static_cast<int>(normal(random) + u > 0)) + "\n";
    }
  }
  return text;
}

} // namespace

TEST(OptionWalk, EveryPairOfOptionsEndsWell)
{
  const TemporaryFile file("walk.csv", data());
  const auto rows = covering_rows();
  for (const auto& row : rows) {
    std::string options;
    const auto value = [&](std::size_t a) { return factors()[a][static_cast<std::size_t>(row[a])]; };
    for (std::size_t a = 1; a < row.size(); ++a)
      options += (value(a).find("update") == std::string::npos ? value(a) : update_of(value(1), value(a))) + " ";
    const std::string text = fit_with(factors()[0][static_cast<std::size_t>(row[0])], options);
    const auto run = run_text(text, "examples", 0, {{"d", file.path()}});
    const auto& step = run.outcome.results.steps.at(0);
    if (run.outcome.exit_code != 0) {
      const bool told = std::any_of(step.messages.begin(), step.messages.end(),
                                    [](const host::Message& m) { return m.severity != host::Severity::note; });
      EXPECT_TRUE(told) << "exit code " << run.outcome.exit_code << " without a word\n" << text << run.log;
    }
    for (const auto& group : step.groups)
      for (const auto& table : group.tables)
        for (const auto& cells : table.rows())
          for (const auto& cell : cells)
            EXPECT_TRUE(cell.number() == nullptr || !(std::abs(*cell.number()) > 1e300)) << table.name << "\n" << text;
  }
}

} // namespace torvale::tests
