#include "nist_problems.h"

#include "dual.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace torvale::test {
namespace {

constexpr double pi = 3.14159265358979323846;

struct Model {
  const char* name;
  Dual (*mean)(const Dual* b, double x1, double x2);
};

Dual sq(Dual a)
{
  return a * a;
}

Dual three_exponentials(const Dual* b, double x, double)
{
  return b[0] * exp(-b[1] * x) + b[2] * exp(-b[3] * x) + b[4] * exp(-b[5] * x);
}

Dual two_peaks(const Dual* b, double x, double)
{
  return b[0] * exp(-b[1] * x) + b[2] * exp(-sq(x - b[3]) / sq(b[4])) + b[5] * exp(-sq(x - b[6]) / sq(b[7]));
}

constexpr Model models[] = {
    {"Chwirut2", [](const Dual* b, double x, double) { return exp(-b[0] * x) / (b[1] + b[2] * x); }},
    {"DanWood", [](const Dual* b, double x, double) { return b[0] * pow(Dual(x), b[1]); }},
    {"Gauss1", two_peaks},
    {"Gauss3", two_peaks},
    {"Kirby2", [](const Dual* b, double x,
                  double) { return (b[0] + b[1] * x + b[2] * (x * x)) / (1.0 + b[3] * x + b[4] * (x * x)); }},
    {"Lanczos1", three_exponentials},
    {"Lanczos3", three_exponentials},
    {"MGH17", [](const Dual* b, double x, double) { return b[0] + b[1] * exp(-x * b[3]) + b[2] * exp(-x * b[4]); }},
    {"Misra1a", [](const Dual* b, double x, double) { return b[0] * (1.0 - exp(-b[1] * x)); }},
    {"Misra1b", [](const Dual* b, double x, double) { return b[0] * (1.0 - pow(1.0 + b[1] * (x / 2.0), -2.0)); }},
    {"Misra1c", [](const Dual* b, double x, double) { return b[0] * (1.0 - pow(1.0 + 2.0 * b[1] * x, -0.5)); }},
    {"Nelson", [](const Dual* b, double x1, double x2) { return b[0] - b[1] * x1 * exp(-b[2] * x2); }},
    {"Roszman1", [](const Dual* b, double x, double) { return b[0] - b[1] * x - atan(b[2] / (x - b[3])) / pi; }},
};

double number(const nlohmann::json& j)
{
  return j.is_string() ? std::stod(j.get<std::string>()) : j.get<double>();
}

std::vector<double> numbers(const nlohmann::json& j)
{
  std::vector<double> result;
  for (const auto& element : j) result.push_back(number(element));
  return result;
}

NistProblem read(int model)
{
  NistProblem p;
  p.name = models[model].name;
  p.model = model;
  const std::string stem = std::string(TORVALE_SOURCE_DIR "/tests/data/nist/") + p.name;
  std::ifstream json_file(stem + ".json");
  const auto j = nlohmann::json::parse(json_file);
  p.start1 = numbers(j["start1"]);
  p.start2 = numbers(j["start2"]);
  p.certified = numbers(j["refined"]["values"]);
  p.rss = number(j["refined"]["rss"]);
  p.rss_at_start1 = number(j["rss_at_start1"]);
  p.rss_at_start2 = number(j["rss_at_start2"]);
  p.ml_sigma2 = number(j["ml"]["sigma2"]);
  p.ml_standard_errors = numbers(j["ml"]["se"]);
  std::ifstream csv(stem + ".csv");
  std::string line;
  std::getline(csv, line);
  while (std::getline(csv, line)) {
    std::istringstream fields(line);
    std::string field;
    std::vector<double> row;
    while (std::getline(fields, field, ',')) row.push_back(std::stod(field));
    if (row.size() < 2) continue;
    p.y.push_back(j["response"] == "log(y)" ? std::log(row[0]) : row[0]);
    p.x1.push_back(row[1]);
    p.x2.push_back(row.size() > 2 ? row[2] : 0.0);
  }
  return p;
}

} // namespace

double NistProblem::sum_of_squares(const double* b, double* gradient) const
{
  const std::size_t n = certified.size();
  Dual parameter[10];
  for (std::size_t i = 0; i < n; ++i) parameter[i] = b[i];
  double sum = 0.0;
  for (std::size_t k = 0; k < y.size(); ++k) {
    const double r = y[k] - models[model].mean(parameter, x1[k], x2[k]).v;
    sum += r * r;
  }
  if (gradient == nullptr) return sum;
  for (std::size_t i = 0; i < n; ++i) {
    parameter[i].d = 1.0;
    gradient[i] = 0.0;
    for (std::size_t k = 0; k < y.size(); ++k) {
      const Dual mean = models[model].mean(parameter, x1[k], x2[k]);
      gradient[i] -= 2.0 * (y[k] - mean.v) * mean.d;
    }
    parameter[i].d = 0.0;
  }
  return sum;
}

const std::vector<NistProblem>& nist_problems()
{
  static const std::vector<NistProblem> problems = [] {
    std::vector<NistProblem> result;
    for (int i = 0; i < static_cast<int>(std::size(models)); ++i) result.push_back(read(i));
    return result;
  }();
  return problems;
}

} // namespace torvale::test
