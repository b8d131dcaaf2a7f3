#include "reference_problems.h"

#include "reference_objectives.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace torvale::test {
namespace {

struct Objective {
  const char* name; // the start of the problem's name
  double (*value)(const double*, int, const Data&);
  Dual (*dual)(const Dual*, int, const Data&);
};

constexpr Objective objectives[] = {
    {"rosenbrock", rosenbrock<double>, rosenbrock<Dual>},
    {"extended_rosenbrock", rosenbrock<double>, rosenbrock<Dual>},
    {"HS1", rosenbrock<double>, rosenbrock<Dual>},
    {"powell_badly_scaled", powell_badly_scaled<double>, powell_badly_scaled<Dual>},
    {"brown_badly_scaled", brown_badly_scaled<double>, brown_badly_scaled<Dual>},
    {"jennrich_sampson", jennrich_sampson<double>, jennrich_sampson<Dual>},
    {"bard", bard<double>, bard<Dual>},
    {"gaussian", gaussian<double>, gaussian<Dual>},
    {"box_3d", box_3d<double>, box_3d<Dual>},
    {"meyer", meyer<double>, meyer<Dual>},
    {"powell_singular", powell_singular<double>, powell_singular<Dual>},
    {"extended_powell_singular", powell_singular<double>, powell_singular<Dual>},
    {"wood", wood<double>, wood<Dual>},
    {"kowalik_osborne", kowalik_osborne<double>, kowalik_osborne<Dual>},
    {"osborne_1", osborne_1<double>, osborne_1<Dual>},
    {"watson", watson<double>, watson<Dual>},
    {"penalty_1", penalty_1<double>, penalty_1<Dual>},
    {"penalty_2", penalty_2<double>, penalty_2<Dual>},
    {"variably_dimensioned", variably_dimensioned<double>, variably_dimensioned<Dual>},
    {"trigonometric", trigonometric<double>, trigonometric<Dual>},
    {"chebyquad", chebyquad<double>, chebyquad<Dual>},
    {"brown_almost_linear", brown_almost_linear<double>, brown_almost_linear<Dual>},
    {"discrete_boundary", discrete_boundary<double>, discrete_boundary<Dual>},
    {"linear_full_rank", linear_full_rank<double>, linear_full_rank<Dual>},
    {"linear_rank_1", linear_rank_1<double>, linear_rank_1<Dual>},
    {"HS3", hs3<double>, hs3<Dual>},
    {"HS4", hs4<double>, hs4<Dual>},
    {"HS9", hs9<double>, hs9<Dual>},
    {"HS21", hs21<double>, hs21<Dual>},
    {"HS25", hs25<double>, hs25<Dual>},
    {"HS28", hs28<double>, hs28<Dual>},
    {"HS36", minus_product_3<double>, minus_product_3<Dual>},
    {"HS37", minus_product_3<double>, minus_product_3<Dual>},
    {"HS44", hs44<double>, hs44<Dual>},
    {"HS45", hs45<double>, hs45<Dual>},
    {"HS48", hs48<double>, hs48<Dual>},
    {"HS50", hs50<double>, hs50<Dual>},
    {"HS51", hs51<double>, hs51<Dual>},
    {"HS52", hs52<double>, hs52<Dual>},
    {"HS55", hs55<double>, hs55<Dual>},
    {"HS76", hs76<double>, hs76<Dual>},
    {"HS86", hs86<double>, hs86<Dual>},
    {"HS110", hs110<double>, hs110<Dual>},
    {"HS112", hs112<double>, hs112<Dual>},
};

// The longest name of the table that begins the problem's name.
int objective_of(const std::string& name)
{
  int found = -1;
  std::size_t length = 0;
  for (std::size_t i = 0; i < std::size(objectives); ++i) {
    const std::string candidate = objectives[i].name;
    if (name.compare(0, candidate.size(), candidate) == 0 && candidate.size() > length) {
      found = static_cast<int>(i);
      length = candidate.size();
    }
  }
  return found;
}

using Json = nlohmann::json;

double number(const Json& j)
{
  return j.is_string() ? std::stod(j.get<std::string>()) : j.get<double>();
}

std::vector<double> numbers(const Json& j)
{
  std::vector<double> result;
  for (const Json& element : j) result.push_back(number(element));
  return result;
}

void read_constraints(const Json& j, Problem& p)
{
  using torvale::optimizer::largest;
  if (j.contains("bounds")) {
    for (const Json& b : j["bounds"]) {
      p.lower.push_back(b["lower"].is_null() ? -largest : number(b["lower"]));
      p.upper.push_back(b["upper"].is_null() ? largest : number(b["upper"]));
    }
  }
  if (!j.contains("linear")) return;
  for (const bool equalities : {true, false}) {
    int file_number = 0;
    for (const Json& row : j["linear"]) {
      ++file_number;
      const std::string op = row["op"];
      if ((op == "=") != equalities) continue;
      LinearRow r{std::vector<double>(static_cast<std::size_t>(p.n), 0.0), equalities, number(row["rhs"])};
      for (const auto& [variable, coefficient] : row["coef"].items())
        r.coefficients[static_cast<std::size_t>(std::stoi(variable.substr(1)) - 1)] = number(coefficient);
      if (op == "<=") {
        for (double& c : r.coefficients) c = -c;
        r.right_side = -r.right_side;
      }
      p.rows.push_back(r);
      p.row_number.push_back(file_number);
    }
  }
}

Problem read_problem(const Json& j)
{
  Problem p;
  p.name = j["name"];
  p.kind = j["kind"];
  p.n = j["n"];
  p.start = numbers(j["start"]);
  p.start_value = number(j["f_start"]);
  p.minimum = number(j["minimum"]["f"]);
  if (j["minimum"].contains("x")) p.minimizer = numbers(j["minimum"]["x"]);
  if (j.contains("check_point")) {
    p.check_point = numbers(j["check_point"]["x"]);
    p.check_value = number(j["check_point"]["f"]);
    p.check_gradient = numbers(j["check_point"]["gradient"]);
  }
  if (j.contains("local_minima"))
    for (const Json& local : j["local_minima"]) p.local_minima.push_back(number(local["f"]));
  if (p.name == "brown_almost_linear_5") p.local_minima.push_back(1.0); // told in its note
  // The feasible set is the segment x1 = t, x4 = 1 - t, 0 <= t <= 1, on which f = t/3 + 16/3 + exp(t(1-t)): f' is 4/3
  // at 0 and -2/3 at 1, so both ends are minima. The point next to the start is the end t = 1.
  if (p.name == "HS55") p.local_minima.push_back(20.0 / 3.0);
  if (j["minimum"].contains("active"))
    for (const Json& a : j["minimum"]["active"]) p.active.push_back({a["constraint"], number(a["multiplier"])});
  if (j.contains("data")) {
    const Json& data = j["data"];
    for (const char* key : {"y", "u", "e", "d"})
      if (data.contains(key)) p.data.push_back(numbers(data[key]));
    if (data.contains("c")) {
      if (data["c"][0].is_array())
        for (const Json& row : data["c"]) p.data.push_back(numbers(row));
      else
        p.data.push_back(numbers(data["c"]));
    }
  }
  read_constraints(j, p);
  p.function = objective_of(p.name);
  if (p.function < 0) throw std::runtime_error("no objective for " + p.name);
  return p;
}

// The problem behind a record, and what is watched while it runs.
struct Run {
  const Problem* problem;
  RunResult* result;
};

int objective_callback(optimizer::MINSTR* str)
{
  const Run& run = *static_cast<Run*>(str->comstr);
  ++str->nfct;
  for (std::size_t i = 0; i < run.problem->lower.size(); ++i) {
    run.result->worst_violation =
        std::max({run.result->worst_violation, run.problem->lower[i] - str->x[i], str->x[i] - run.problem->upper[i]});
  }
  str->crit = run.problem->value(str->x);
  return 0;
}

int gradient_callback(optimizer::MINSTR* str)
{
  ++str->ngrd;
  static_cast<Run*>(str->comstr)->problem->gradient(str->x, str->grad);
  return 0;
}

} // namespace

double Problem::value(const double* x) const
{
  return objectives[function].value(x, n, data);
}

void Problem::gradient(const double* x, double* g) const
{
  if (objectives[function].value == rosenbrock<double>) { // large n: written out
    for (int i = 0; i + 1 < n; i += 2) {
      g[i] = -400.0 * x[i] * (x[i + 1] - x[i] * x[i]) - 2.0 * (1.0 - x[i]);
      g[i + 1] = 200.0 * (x[i + 1] - x[i] * x[i]);
    }
    return;
  }
  std::vector<Dual> point(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) point[static_cast<std::size_t>(i)] = x[i];
  for (int i = 0; i < n; ++i) {
    point[static_cast<std::size_t>(i)].d = 1.0;
    g[i] = objectives[function].dual(point.data(), n, data).d;
    point[static_cast<std::size_t>(i)].d = 0.0;
  }
}

const std::vector<Problem>& reference_problems()
{
  static const std::vector<Problem> problems = [] {
    std::ifstream file(TORVALE_SOURCE_DIR "/tests/data/optimization.json");
    std::vector<Problem> result;
    const Json whole = Json::parse(file);
    for (const Json& j : whole["problems"]) result.push_back(read_problem(j));
    return result;
  }();
  return problems;
}

const Problem& reference_problem(const std::string& name)
{
  for (const Problem& p : reference_problems())
    if (p.name == name) return p;
  throw std::runtime_error("no problem " + name);
}

bool solved(const Problem& problem, double f, double relative, double absolute)
{
  std::vector<double> values = problem.local_minima;
  values.push_back(problem.minimum);
  return std::any_of(values.begin(), values.end(), [&](double v) {
    return std::abs(f - v) <= std::max(relative * std::abs(v), v == 0.0 ? absolute : 0.0) || (f < v && v > 0.0);
  });
}

RunResult run_problem(const Problem& problem, const RunOptions& options)
{
  using namespace torvale::optimizer;
  MINSTR str;
  RunResult result;
  Run run{&problem, &result};
  tvlopti(&str);
  str.nvar = problem.n;
  str.ncon = static_cast<long>(problem.rows.size());
  str.bounds = !problem.lower.empty();
  str.lincon = !problem.rows.empty();
  str.neqc = std::count_if(problem.rows.begin(), problem.rows.end(), [](const LinearRow& r) { return r.equality; });
  str.usfct = objective_callback;
  str.usgrd = gradient_callback;
  str.comstr = &run;
  str.tech = options.technique;
  str.tupd = options.update;
  str.tlin = options.line_search;
  str.fidi = options.difference;
  str.fihs = options.hessian_difference;
  str.start_scale = options.updates_scale;
  str.hesc = options.hessian_scale + 1;
  if (options.digits > 0.0) str.fdig = options.digits;
  if (options.tight) {
    str.agtl = 0.0;
    str.gtol = 1e-14;
    str.fto2 = 0.0;
    str.maxi = 20000;
    str.maxf = 100000.0 * (options.difference != 0 ? problem.n : 1);
  }
  tvlopta(&str);
  std::copy(problem.start.begin(), problem.start.end(), str.x);
  std::copy(problem.lower.begin(), problem.lower.end(), str.lb);
  std::copy(problem.upper.begin(), problem.upper.end(), str.ub);
  for (std::size_t r = 0; r < problem.rows.size(); ++r) {
    std::copy(problem.rows[r].coefficients.begin(), problem.rows[r].coefficients.end(),
              str.alcn + static_cast<long>(r) * problem.n);
    str.blcn[r] = problem.rows[r].right_side;
  }
  result.code = tvloptc(&str);
  if (result.code != 0) return result;
  result.code = znlpdrv(&str, 1, 0, 0, 0);
  if (result.code == 0) result.code = znlpdrv(&str, 2, 0, 0, 0);
  result.f = str.crit;
  result.gmax = str.gmax;
  result.x.assign(str.x, str.x + problem.n);
  result.calls = str.nfct;
  result.gradients = str.ngrd;
  result.iterations = static_cast<long>(str.nitr);
  result.multipliers.assign(str.lagm, str.lagm + problem.n + str.ncon);
  return result;
}

} // namespace torvale::test
