#include "matrix/reference.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace torvale::matrix::test {

namespace {

using nlohmann::json;

// Results are printed as text, to keep all their digits.
double number(const json& j)
{
  return j.is_string() ? std::stod(j.get<std::string>()) : j.get<double>();
}

std::vector<double> numbers(const json& j)
{
  std::vector<double> v;
  for (const json& x : j) v.push_back(number(x));
  return v;
}

std::vector<double> joined_rows(const json& j)
{
  std::vector<double> v;
  for (const json& row : j)
    for (const json& x : row) v.push_back(number(x));
  return v;
}

SymmetricCase symmetric_case(const json& j)
{
  SymmetricCase c;
  c.name = j.at("name");
  c.n = j.at("n");
  c.packed = joined_rows(j.at("lower"));
  c.det_mantissa = number(j.at("determinant").at("mantissa"));
  c.det_exponent = j.at("determinant").at("exponent");
  c.positive = j.at("inertia").at("positive");
  c.negative = j.at("inertia").at("negative");
  c.zero = j.at("inertia").at("zero");
  c.positive_definite = j.at("positive_definite");
  c.eigenvalues = numbers(j.at("eigenvalues_ascending"));
  for (const double a : c.packed) c.largest = std::max(c.largest, std::fabs(a));
  if (j.contains("condition_2norm")) c.condition = number(j.at("condition_2norm"));
  if (j.contains("inverse_lower")) c.inverse = joined_rows(j.at("inverse_lower"));
  if (j.contains("cholesky_lower")) c.cholesky = joined_rows(j.at("cholesky_lower"));
  if (j.contains("solve")) {
    c.right_hand_side = numbers(j.at("solve").at("b"));
    c.solution = numbers(j.at("solve").at("x"));
  }
  return c;
}

RectangularCase rectangular_case(const json& j)
{
  RectangularCase c;
  c.name = j.at("name");
  c.rows = j.at("rows");
  c.cols = j.at("cols");
  c.matrix = joined_rows(j.at("matrix"));
  c.rank = j.at("rank");
  if (j.contains("unpivoted_abs_R_diagonal")) c.unpivoted_diagonal = numbers(j.at("unpivoted_abs_R_diagonal"));
  c.pivoted_diagonal = numbers(j.at("pivoted_abs_R_diagonal"));
  c.pivot_order = j.at("pivot_order_one_based").get<std::vector<int>>();
  c.pivot_ties = j.at("pivot_ties");
  if (j.contains("least_squares")) {
    c.right_hand_side = numbers(j.at("least_squares").at("b"));
    c.solution = numbers(j.at("least_squares").at("x"));
    c.rss = number(j.at("least_squares").at("rss"));
  }
  const std::vector<double> singular = numbers(j.at("singular_values"));
  c.largest_singular_value = *std::max_element(singular.begin(), singular.end());
  c.smallest_singular_value = *std::min_element(singular.begin(), singular.end());
  return c;
}

json read_file()
{
  std::ifstream in(TORVALE_SOURCE_DIR "/tests/data/matrices.json");
  return json::parse(in);
}

} // namespace

const std::vector<SymmetricCase>& symmetric_cases()
{
  static const std::vector<SymmetricCase> cases = [] {
    std::vector<SymmetricCase> all;
    const json file = read_file();
    for (const json& j : file.at("symmetric")) all.push_back(symmetric_case(j));
    if (all.size() < 35) throw std::runtime_error("matrices.json: symmetric cases are missing");
    return all;
  }();
  return cases;
}

const std::vector<RectangularCase>& rectangular_cases()
{
  static const std::vector<RectangularCase> cases = [] {
    std::vector<RectangularCase> all;
    const json file = read_file();
    for (const json& j : file.at("rectangular")) all.push_back(rectangular_case(j));
    if (all.size() < 11) throw std::runtime_error("matrices.json: rectangular cases are missing");
    return all;
  }();
  return cases;
}

} // namespace torvale::matrix::test
