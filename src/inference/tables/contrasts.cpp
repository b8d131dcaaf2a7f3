#include "host/messages/names/labels.h"
#include "host/messages/names/optimization.h"
#include "host/values/missing.h"
#include "inference/tables/expressions.h"
#include "inference/tables/standard_errors.h"
#include "inference/tables/tables.h"
#include "matrix/quadratic_forms.h"
#include "matrix/sweep.h"
#include "probability/f.h"

#include <algorithm>
#include <cmath>

namespace torvale::inference {

using host::CellKind;
using model::NX;

namespace {

std::size_t at(int i, int j) // packed
{
  return static_cast<std::size_t>(std::max(i, j)) * static_cast<std::size_t>(std::max(i, j) + 1) / 2 +
         static_cast<std::size_t>(std::min(i, j));
}

// Wald: F = c' (L C L')^- c / nu. A pivot refused by its tolerance, relative to the diagonal before any sweep, belongs
// to a row that depends on earlier ones: its row of V is cleared, so that it drops out of the quadratic form. V becomes
// its generalized inverse, swept tells the rows that are in it. Returns nu.
int wald_statistic(int r, std::vector<double>& v, const std::vector<double>& c, double singsweep, double& f,
                   std::vector<char>& swept)
{
  constexpr double pivot_floor = 1.491668147e-154;
  std::vector<double> diagonal(static_cast<std::size_t>(r)), work(static_cast<std::size_t>(r));
  swept.assign(static_cast<std::size_t>(r), '0');
  for (int i = 0; i < r; ++i) diagonal[static_cast<std::size_t>(i)] = std::abs(v[at(i, i)]);
  int nu = 0;
  for (int i = 0; i < r; ++i) {
    const double d = diagonal[static_cast<std::size_t>(i)];
    matrix::zsweep(d > pivot_floor ? singsweep * d : singsweep, v.data(), i, r, swept.data(), work.data());
    if (swept[static_cast<std::size_t>(i)] == '1') {
      ++nu;
      continue;
    }
    for (int j = 0; j < r; ++j) v[at(i, j)] = 0.0;
  }
  f = matrix::zmxq1(c.data(), v.data(), r, 1);
  if (nu > 0) f /= nu;
  return nu;
}

// Rows that dropped out must be 0 where the others are: c_i = V_iK V_KK^-1 c_K over the rows K that are in. A row whose
// value differs from that makes the hypothesis impossible, and F does not say so. v: before the sweeps.
void report_contradictions(NX& n, const std::string& label, const std::vector<double>& v, const std::vector<double>& c,
                           const std::vector<double>& inverse, const std::vector<char>& swept)
{
  constexpr double rounding = 1e-3; // standard errors of the row
  constexpr double slack = 1e-6;    // of a row without variance: strict bounds keep their distance
  const int r = static_cast<int>(c.size());
  for (int i = 0; i < r; ++i) {
    const auto row = static_cast<std::size_t>(i);
    if (swept[row] == '1') continue;
    double left = c[row];
    for (int k = 0; k < r; ++k)
      for (int m = 0; m < r; ++m) left -= v[at(i, k)] * inverse[at(k, m)] * c[static_cast<std::size_t>(m)];
    if (std::abs(left) <= std::max(rounding * std::sqrt(v[at(i, i)]), slack * std::max(1.0, std::abs(c[row]))))
      continue;
    n.host->log().xpmlog(message::contrast_contradicts_itself{.label = label, .row = i + 1, .value = left});
    n.raise(4);
  }
}

} // namespace

int tvlcont(NX& n)
{
  if (n.loglevel > 0)
    n.host->log().xpmlog(message::computing{.what = n.contrasts.size() == 1 ? "contrast" : "contrasts"});
  ExpressionValues values;
  if (evaluate_expressions(n, n.contrasts, "CONTRAST", values) != 0) return 1;
  const auto np = static_cast<std::size_t>(n.nparm);

  host::Table table("Contrasts", host::otbmsg(label::contrasts),
                    {{"Label", CellKind::text, host::otbmsg(label::label), "", ""},
                     {"NumDF", CellKind::number, host::otbmsg(label::numerator_df), "BEST6", ""},
                     {"DenDF", CellKind::number, host::otbmsg(label::denominator_df), "BEST6", ""},
                     {"FValue", CellKind::number, host::otbmsg(label::f_value), "8.2", ""},
                     {"ProbF", CellKind::number, host::otbmsg(label::probability_of_f), "PVALUE6.4", ""}});
  std::size_t first = 0;
  for (const auto& statement : n.contrasts) {
    const auto r = static_cast<std::size_t>(statement.expr.n());
    std::vector<double> v(r * (r + 1) / 2);
    for (std::size_t i = 0; i < r; ++i)
      for (std::size_t j = 0; j <= i; ++j)
        v[i * (i + 1) / 2 + j] = matrix::zmxbi(&values.gradient[(first + i) * np], &values.gradient[(first + j) * np],
                                               n.covmat.data(), n.nparm);
    const std::vector<double> c(values.value.begin() + static_cast<std::ptrdiff_t>(first),
                                values.value.begin() + static_cast<std::ptrdiff_t>(first + r));
    double f = 0.0;
    // A row that is not estimable leaves nothing to test.
    bool estimable = true;
    for (std::size_t i = 0; i < r; ++i)
      estimable = estimable && (v[i * (i + 3) / 2] == 0.0 ||
                                !std::isnan(standard_error(n, &values.gradient[(first + i) * np], v[i * (i + 3) / 2])));
    if (!estimable) {
      table.row({statement.label, host::missing, host::missing, host::missing, host::missing});
      first += r;
      continue;
    }
    const std::vector<double> variance = v;
    std::vector<char> swept;
    const int nu = wald_statistic(static_cast<int>(r), v, c, n.singsweep, f, swept);
    const double denominator = statement.df >= 0 ? statement.df : n.dfe;
    const double p = probability::zprbf(f, nu, denominator);
    if (nu == 0)
      n.host->log().xpmlog(message::contrast_tests_nothing{.label = statement.label});
    else
      report_contradictions(n, statement.label, variance, c, v, swept);
    table.row({statement.label, static_cast<double>(nu), denominator, nu == 0 ? host::missing : f,
               p == -1.0 ? host::missing : p});
    first += r;
  }
  n.host->tables().wobmth(std::move(table));
  return 0;
}

} // namespace torvale::inference
