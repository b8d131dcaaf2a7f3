#include "probability/accuracy.h"

#include "probability/beta.h"
#include "probability/f.h"
#include "probability/gamma.h"
#include "probability/normal.h"
#include "probability/quantiles.h"
#include "probability/special/error_function.h"
#include "probability/special/log_exp.h"
#include "probability/special/log_gamma.h"
#include "probability/special/polygamma.h"
#include "probability/student.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

namespace torvale::probability {
namespace {

constexpr double infinite = std::numeric_limits<double>::infinity();

std::string joined(const Row& row, std::size_t inputs)
{
  std::string text = row.text[0];
  for (std::size_t i = 1; i < inputs; ++i) text += ", " + row.text[i];
  return text;
}

// A column as a double.
double input(const Row& row, std::size_t column)
{
  return static_cast<double>(row.value[column]);
}

// Adds relative errors of one routine over a table: value(row) against column `truth`.
template <class Value, class Region>
void compare(Measurements& out, const char* table, const char* function, std::size_t inputs, std::size_t truth,
             const Value& value, const Region& region, double tolerance)
{
  for (const Row& row : read_table(table))
    out.push_back(
        {function, region(row), joined(row, inputs), relative_error(value(row), row.value[truth]), tolerance});
}

auto everywhere(const char* text)
{
  return [text](const Row&) { return std::string(text); };
}

} // namespace

std::vector<Row> read_table(const std::string& name)
{
  std::ifstream file(std::string(TORVALE_SOURCE_DIR) + "/tests/data/special/" + name + ".csv");
  std::vector<Row> rows;
  std::string line;
  std::getline(file, line); // the header
  while (std::getline(file, line)) {
    Row row;
    std::istringstream fields(line);
    for (std::string field; std::getline(fields, field, ',');) {
      row.text.push_back(field);
      row.value.push_back(std::strtold(field.c_str(), nullptr));
    }
    if (!row.text.empty()) rows.push_back(row);
  }
  return rows;
}

double relative_error(double value, long double truth)
{
  if (std::isnan(value)) return infinite;
  if (std::fabs(truth) < 2.225073858507202e-308L) return std::fabs(value) <= 2.3e-308 ? 0.0 : infinite;
  if (std::fabs(truth) > 1.7976931348623157e308L) return std::isinf(value) ? 0.0 : infinite;
  return static_cast<double>(std::fabs((static_cast<long double>(value) - truth) / truth));
}

double absolute_error(double value, long double truth)
{
  if (std::isnan(value)) return infinite;
  return static_cast<double>(std::fabs(static_cast<long double>(value) - truth));
}

Measurements measure_elementary()
{
  Measurements out;
  compare(
      out, "erf", "`zferf`", 1, 1, [](const Row& r) { return zferf(input(r, 0)); }, everywhere("all x"), 1e-15);
  compare(
      out, "erf", "`zferfc`", 1, 2, [](const Row& r) { return zferfc(input(r, 0)); }, everywhere("all x"), 2e-15);
  compare(
      out, "log1p", "`zln1px`", 1, 1, [](const Row& r) { return zln1px(input(r, 0)); }, everywhere("all z"), 1e-15);
  compare(
      out, "expm1", "`zexpm1`", 1, 1, [](const Row& r) { return zexpm1(input(r, 0)); }, everywhere("all z"), 1e-15);
  for (const Row& row : read_table("logsumexp")) {
    const double x1 = input(row, 0);
    const double x2 = input(row, 1);
    const double size = std::max({1.0, std::fabs(x1), std::fabs(x2)});
    const double error = absolute_error(zlnSumOfExp(x1, x2), row.value[2]) / size;
    out.push_back({"`zlnSumOfExp`", "over the larger term", joined(row, 2), error, 1e-15});
  }
  const auto lgamma_region = [](const Row& r) {
    const double x = input(r, 0);
    return std::string(x < 0.5    ? "x < 0.5"
                       : x < 2.5  ? "0.5 to 2.5, zeros included"
                       : x < 15.0 ? "2.5 to 15"
                                  : "x >= 15");
  };
  compare(
      out, "lgamma", "`zlgamma`", 1, 1, [](const Row& r) { return zlgamma(input(r, 0)); }, lgamma_region, 2e-15);
  compare(
      out, "stirling_tail", "`zlgbern`", 1, 1, [](const Row& r) { return zlgbern(input(r, 0)); }, everywhere("x >= 15"),
      2e-15);
  for (const Row& row : read_table("lbeta")) {
    const double a = input(row, 0);
    const double b = input(row, 1);
    const bool large = std::min(a, b) >= 15.0;
    const double scale = std::max(1.0, std::fabs(input(row, 2)));
    const double error = absolute_error(zlbeta(a, b), row.value[2]) / scale;
    out.push_back(
        {"`zlbeta`", large ? "both from 15 up" : "one below 15 (absolute below 1)", joined(row, 2), error, 1e-13});
  }
  return out;
}

Measurements measure_normal()
{
  Measurements out;
  const auto side = [](const Row& r) {
    const double x = input(r, 0);
    return std::string(x < -10.0 ? "x < -10" : x < 0.0 ? "-10 to 0" : "x >= 0");
  };
  const auto log_of = [](int which) {
    return [which](const Row& r) {
      double value[3];
      const int code = zlognrm(input(r, 0), &value[0], &value[1], &value[2]);
      return code == 0 ? value[which] : std::nan("");
    };
  };
  const auto mills = [](const Row& r) {
    double ratio;
    return zmillsr(input(r, 0), &ratio) == 0 ? ratio : std::nan("");
  };
  compare(
      out, "normal_cdf", "`zprbnrm`", 1, 1, [](const Row& r) { return zprbnrm(input(r, 0)); }, side, 1e-15);
  compare(out, "normal_cdf", "`zlognrm`, lower", 1, 3, log_of(0), side, 2e-15);
  compare(out, "normal_cdf", "`zlognrm`, upper", 1, 4, log_of(1), side, 2e-15);
  compare(out, "normal_cdf", "`zlognrm`, density", 1, 5, log_of(2), side, 1e-15);
  compare(out, "normal_cdf", "`zmillsr`", 1, 6, mills, side, 3e-15);
  for (const Row& row : read_table("normal_quantile")) {
    const double p = input(row, 0);
    const double error = relative_error(zprobit(p), row.value[1]);
    const std::string region = p < 1e-16 ? "p < 1e-16" : "p >= 1e-16";
    out.push_back({"`zprobit`", region, joined(row, 1), error, 1e-15 * std::max(1.0, input(row, 2))});
  }
  return out;
}

Measurements measure_incomplete()
{
  Measurements out;
  for (const Row& row : read_table("ibeta")) {
    const double a = input(row, 1);
    const double b = input(row, 2);
    const Tails t = beta_tails(beta_point(input(row, 0)), a, b);
    double p, d;
    const int code = zibeta(input(row, 0), a, b, &p, &d);
    if (code != 0) p = d = std::nan("");
    const bool huge = std::min(a, b) > 1e7;
    const std::string region = huge                   ? "both shapes above 1e7"
                               : std::max(a, b) > 1e4 ? "a shape above 1e4"
                                                      : "shapes to 1e4";
    const double tolerance = huge ? 1e-7 : 1e-11;
    out.push_back({"`zibeta`, p", region, joined(row, 3), relative_error(p, row.value[3]), tolerance});
    out.push_back({"`zibeta`, upper tail", region, joined(row, 3), relative_error(t.upper, row.value[4]), tolerance});
    out.push_back({"`zibeta`, density", region, joined(row, 3), relative_error(d, row.value[5]), tolerance});
  }
  for (const Row& row : read_table("igamma")) {
    const double a = input(row, 1);
    double p, pr, d;
    if (zigamma(input(row, 0), a, &p, &pr, &d) != 0) p = pr = d = std::nan("");
    const std::string region = a > 1e7 ? "a above 1e7" : a > 1e4 ? "a above 1e4" : "a to 1e4";
    const double tolerance = 1e-11;
    out.push_back({"`zigamma`, p", region, joined(row, 2), relative_error(p, row.value[2]), tolerance});
    out.push_back({"`zigamma`, pr", region, joined(row, 2), relative_error(pr, row.value[3]), tolerance});
    out.push_back({"`zigamma`, density", region, joined(row, 2), relative_error(d, row.value[4]), tolerance});
  }
  for (const Row& row : read_table("f_upper")) {
    const double ndf = input(row, 1);
    const double ddf = input(row, 2);
    const bool huge = std::min(ndf, ddf) > 2e7;
    const std::string region = huge ? "both above 2e7" : ddf > 1e6 ? "ddf above 1e6" : "ddf to 1e6";
    const double p = zprbf(input(row, 0), ndf, ddf);
    out.push_back({"`zprbf`", region, joined(row, 3), relative_error(p, row.value[3]), huge ? 1e-7 : 1e-11});
  }
  for (const Row& row : read_table("t_two_sided")) {
    const double p = zpgt2(input(row, 0), input(row, 1));
    out.push_back({"`zpgt2`", "all df", joined(row, 2), relative_error(p, row.value[2]), 1e-11});
  }
  return out;
}

Measurements measure_gamma_derivatives()
{
  Measurements out;
  for (const Row& row : read_table("polygamma")) {
    const int n = static_cast<int>(row.value[0]);
    const double x = input(row, 1);
    const double error = relative_error(polygamma(n, x), row.value[2]);
    const std::string function = "`polygamma` of order " + row.text[0];
    const bool reflected = x < 0.0; // cancels between the terms of the reflection
    out.push_back({function, reflected ? "x < 0" : "x > 0", joined(row, 2), error, reflected ? 1e-13 : 2e-15});
  }
  for (const Row& row : read_table("polygamma_difference")) {
    const int n = static_cast<int>(row.value[0]);
    const double error = relative_error(polygamma_difference(n, input(row, 1), input(row, 2)), row.value[3]);
    out.push_back({"`polygamma_difference`", "order " + row.text[0], joined(row, 3), error, 3e-15});
  }
  for (const Row& row : read_table("log_gamma_ratio")) {
    const double error = relative_error(log_gamma_ratio(input(row, 0), input(row, 1)), row.value[2]);
    out.push_back({"`log_gamma_ratio`", "all", joined(row, 2), error, 2e-15});
  }
  return out;
}

Measurements measure_log_tails()
{
  Measurements out;
  for (const Row& row : read_table("log_tails")) {
    const bool beta = row.text[0] == "beta";
    const double x = input(row, 1);
    const Tails t = beta ? beta_tails(beta_point(x), input(row, 2), input(row, 3)) : gamma_tails(x, input(row, 2));
    const std::string function = beta ? "`beta_tails`" : "`gamma_tails`";
    const double density_error = absolute_error(t.log_density, row.value[6]) / std::max(1.0, std::fabs(input(row, 6)));
    out.push_back({function, "log of lower", joined(row, 4), relative_error(t.log_lower, row.value[4]), 1e-13});
    out.push_back({function, "log of upper", joined(row, 4), relative_error(t.log_upper, row.value[5]), 1e-13});
    out.push_back({function, "log density (absolute below 1)", joined(row, 4), density_error, 1e-14});
  }
  return out;
}

Measurements measure_quantiles()
{
  Measurements out;
  const auto tolerance = [](const Row& row, std::size_t cond) { return 1e-14 * std::max(1.0, input(row, cond)); };
  for (const Row& row : read_table("t_quantile")) {
    double q;
    if (zqt(input(row, 0), input(row, 1), &q) != 0) q = std::nan("");
    const std::string region = input(row, 1) < 1.0 ? "df < 1" : "df >= 1";
    out.push_back({"`zqt`", region, joined(row, 2), relative_error(q, row.value[2]), tolerance(row, 3)});
  }
  for (const Row& row : read_table("chisq_quantile")) {
    double q;
    if (zqc(input(row, 0), input(row, 1), &q) != 0) q = std::nan("");
    const std::string region = input(row, 1) < 1.0 ? "df < 1" : "df >= 1";
    out.push_back({"`zqc`", region, joined(row, 2), relative_error(q, row.value[2]), tolerance(row, 3)});
  }
  for (const Row& row : read_table("beta_quantile")) {
    double x;
    if (zprobin(input(row, 0), input(row, 1), input(row, 2), &x) != 0) x = std::nan("");
    const std::string region = std::min(input(row, 1), input(row, 2)) < 1.0 ? "a shape below 1" : "shapes from 1";
    out.push_back({"`zprobin`", region, joined(row, 3), relative_error(x, row.value[3]), tolerance(row, 5)});
  }
  return out;
}

} // namespace torvale::probability
