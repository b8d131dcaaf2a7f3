#include "solve/judgement/fit_verdict.h"

#include "host/messages/names/fit.h"
#include "host/messages/names/labels.h"
#include "host/messages/names/starting_values.h"
#include "matrix/packed.h"
#include "model/unused_parameters.h"
#include "solve/course/course.h"
#include "solve/judgement/estimate_covariance.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::FitOutcome;
using model::FlatDirection;
using model::ModelLists;
using model::NX;

namespace {

using Rows = std::vector<std::vector<double>>; // vectors of np elements

double dot(const std::vector<double>& a, const std::vector<double>& b)
{
  double sum = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) sum += a[i] * b[i];
  return sum;
}

// Direction k of the judge: every element that is only noise is 0.
std::vector<double> direction(const Judgement& j, int k, std::size_t np, double noise)
{
  std::vector<double> t(np, 0.0);
  const auto m = static_cast<std::size_t>(j.curvature.size());
  double square = 0.0;
  for (std::size_t i = 0; i < m; ++i) square += std::pow(j.directions[i * m + static_cast<std::size_t>(k)], 2);
  for (std::size_t i = 0; i < m; ++i) {
    const double v = j.directions[i * m + static_cast<std::size_t>(k)];
    if (std::abs(v) > noise * std::sqrt(square)) t[static_cast<std::size_t>(j.curvature.free[i])] = v;
  }
  return t;
}

// J t: the same direction by the parameters.
std::vector<double> by_parameters(const std::vector<double>& jacobian, const std::vector<double>& t)
{
  const std::size_t np = t.size();
  std::vector<double> x(np, 0.0);
  for (std::size_t i = 0; i < np; ++i)
    for (std::size_t k = 0; k < np; ++k) x[i] += jacobian[i * np + k] * t[k];
  return x;
}

// Each direction gets a parameter of its own, which no other has: the last one that it moves by its unit.
void to_echelon(Rows& rows, const std::vector<double>& unit)
{
  std::vector<char> used(unit.size(), 0);
  for (auto& row : rows) {
    std::size_t pivot = unit.size();
    double most = 0.0;
    for (std::size_t i = 0; i < row.size(); ++i)
      if (used[i] == 0) most = std::max(most, std::abs(row[i]) / unit[i]);
    for (std::size_t i = row.size(); i-- > 0 && pivot == unit.size();)
      if (used[i] == 0 && most > 0.0 && std::abs(row[i]) / unit[i] > 0.05 * most) pivot = i;
    if (pivot == unit.size()) continue;
    used[pivot] = 1;
    const double p = row[pivot];
    for (double& v : row) v /= p;
    for (auto& other : rows) {
      if (&other == &row) continue;
      const double share = other[pivot];
      for (std::size_t i = 0; i < row.size(); ++i) {
        const double before = other[i];
        other[i] -= share * row[i];
        if (std::abs(other[i]) < 1e-7 * std::abs(before)) other[i] = 0.0;
      }
      other[pivot] = 0.0;
    }
  }
}

// Row of "LinearDependencies": the direction moves the parameter by 1 and the others against it.
void note_dependency(NX& n, const std::vector<double>& row)
{
  std::size_t pivot = row.size();
  for (std::size_t i = row.size(); i-- > 0 && pivot == row.size();)
    if (row[i] == 1.0) pivot = i;
  if (pivot == row.size()) return;
  std::vector<double> coefficients(row.size(), 0.0);
  for (std::size_t i = 0; i < row.size(); ++i)
    if (i != pivot) coefficients[i] = -row[i];
  dependency_row(n.str.get(), {static_cast<long>(pivot), coefficients.data()});
}

void take_null_space(NX& n, const Judgement& j, const std::vector<double>& jacobian)
{
  auto& verdict = n.verdict;
  const auto np = static_cast<std::size_t>(n.nparm);
  const double noise = std::clamp(100.0 * j.curvature.accuracy, 1e-5, 0.1);
  Rows rows;
  for (const int k : j.null) rows.push_back(by_parameters(jacobian, direction(j, k, np, noise)));
  rows.insert(rows.end(), j.unseen.begin(), j.unseen.end());
  std::vector<double> unit(np);
  for (std::size_t i = 0; i < np; ++i) {
    double square = 0.0;
    for (std::size_t k = 0; k < np; ++k) square += jacobian[i * np + k] * jacobian[i * np + k];
    unit[i] = square > 0.0 ? std::sqrt(square) : 1.0;
  }
  to_echelon(rows, unit);
  n.dependencies.clear();
  Rows basis;
  for (auto& row : rows) {
    FlatDirection flat;
    double most = 0.0;
    for (std::size_t i = 0; i < np; ++i) {
      if (std::abs(row[i]) / unit[i] < noise * std::sqrt(dot(row, row)) / unit[i]) continue;
      most = std::max(most, std::abs(row[i]));
    }
    for (std::size_t i = 0; i < np; ++i) {
      if (row[i] == 0.0) continue;
      verdict.identified[i] = 0;
      flat.parameter.push_back(static_cast<int>(i));
      flat.weight.push_back(most > 0.0 ? row[i] / most : row[i]);
    }
    verdict.flat.push_back(std::move(flat));
    note_dependency(n, row);
    // Gram and Schmidt.
    std::vector<double> v(row);
    for (const auto& b : basis) {
      const double share = dot(v, b);
      for (std::size_t i = 0; i < np; ++i) v[i] -= share * b[i];
    }
    const double length = std::sqrt(dot(v, v));
    if (!(length > 0.0)) continue;
    for (double& e : v) e /= length;
    basis.push_back(std::move(v));
  }
  for (const auto& b : basis) verdict.null_basis.insert(verdict.null_basis.end(), b.begin(), b.end());
}

std::string names_of(const ModelLists& n, const std::vector<int>& parameters)
{
  std::string text;
  for (const int i : parameters) text += (text.empty() ? "" : ", ") + n.parmstr[static_cast<std::size_t>(i)].parmname;
  return text;
}

// A parameter without an error of its own, at the end of what it may be, has no covariances: what rounding leaves of
// them depends on the order of the data.
void leave_out(NX& n, int parameter)
{
  if (n.covmat.empty()) return;
  for (int k = 0; k < n.nparm; ++k) n.covmat[static_cast<std::size_t>(matrix::packed_index(parameter, k))] = 0.0;
}

// The covariance without what it has along v: C becomes P C P', P = I - v w' with w'v = 1. What the points of the
// integrals make of v goes; functions of the parameters that do not change along v keep their errors.
void take_direction_out(NX& n, const std::vector<double>& v)
{
  if (n.covmat.empty()) return;
  const auto np = v.size();
  const auto moved = static_cast<double>(std::count_if(v.begin(), v.end(), [](double e) { return e != 0.0; }));
  const auto at = [&](std::size_t i, std::size_t k) -> double& {
    return n.covmat[static_cast<std::size_t>(matrix::packed_index(static_cast<int>(i), static_cast<int>(k)))];
  };
  std::vector<double> w(np, 0.0), cw(np, 0.0);
  for (std::size_t i = 0; i < np; ++i)
    if (v[i] != 0.0) w[i] = 1.0 / (moved * v[i]);
  for (std::size_t i = 0; i < np; ++i)
    for (std::size_t k = 0; k < np; ++k) cw[i] += at(i, k) * w[k];
  const double wcw = dot(w, cw);
  for (std::size_t i = 0; i < np; ++i)
    for (std::size_t k = 0; k <= i; ++k) at(i, k) += v[i] * v[k] * wcw - v[i] * cw[k] - v[k] * cw[i];
}

} // namespace

void take_judgement(NX& n, const FitEnd& end)
{
  auto& verdict = n.verdict;
  const auto np = static_cast<std::size_t>(n.nparm);
  verdict.identified.assign(np, 1);
  const auto& str = *n.str;
  for (int i = 0; i < n.nparm; ++i)
    if (str.iabc[i] == 1 || str.iabc[i] == -1) verdict.at_bounds.push_back(i);
  if (verdict.outcome == FitOutcome::not_judged || !end.measured() || str.hfrm == 2) return;
  const Judgement& j = end.judgement();
  std::vector<double> jacobian(np * np), origin(np, 0.0);
  end.coordinates().jacobian(origin.data(), jacobian.data());
  take_null_space(n, j, jacobian);
  const int form = n.covstr->icov;
  const bool needs_scores = form == 1 || form == 5 || form == 6; // which a fit does not have
  if (!needs_scores) take_covariance(n, j, jacobian);
  for (const auto& v : j.unseen) take_direction_out(n, v);
}

void missing_errors(NX& n)
{
  const auto& verdict = n.verdict;
  for (std::size_t i = 0; i < verdict.identified.size(); ++i)
    if (verdict.identified[i] == 0) n.str->ster[i] = host::missing;
  for (const int i : verdict.vanished) {
    n.str->ster[i] = host::missing;
    leave_out(n, i);
  }
  for (const int i : verdict.at_bounds) {
    const double error = n.str->ster[i];
    const auto d = static_cast<std::size_t>(matrix::packed_diagonal(i));
    constexpr double sound = 0.5; // an element of an inverse times that of the matrix is 1 at least
    const bool held = std::isnan(error) || (!n.hessmat.empty() && error * error * n.hessmat[d] < sound);
    if (held) leave_out(n, i);
  }
}

void report_verdict(NX& n)
{
  const auto& verdict = n.verdict;
  auto& log = n.host->log();
  std::vector<int> unidentified;
  auto directions = static_cast<double>(verdict.flat.size());
  for (int i = 0; i < n.nparm; ++i) {
    if (verdict.identified[static_cast<std::size_t>(i)] != 0) continue;
    if (model::unused(n, n.parmstr[static_cast<std::size_t>(i)]))
      --directions; // which was told of when the program was read
    else
      unidentified.push_back(i);
  }
  if (!unidentified.empty())
    log.xpmlog(message::more_zero_eigenvalues{.count = directions, .names = names_of(n, unidentified)});
  if (verdict.outcome == FitOutcome::confirmed_singular || verdict.outcome == FitOutcome::confirmed) return;
  if (verdict.indefinite)
    log.xpmlog(message::negative_eigenvalues{.matrix = host::xpmstr(label::final_hessian_matrix), .count = n.det[3]});
  if (verdict.outcome == FitOutcome::unconfirmed) log.xpmlog(message::convergence_not_judged);
  host::OptionalMessageValue gain;
  if (!std::isnan(verdict.gain)) gain = verdict.gain;
  if (verdict.outcome == FitOutcome::user_criterion) {
    log.xpmlog(message::stopped_by_given_criterion{.gain = gain});
  } else if (verdict.unsettled) {
    // Said where it was found.
  } else if (!verdict.separated.empty() && !verdict.indefinite) {
    log.xpmlog(message::likelihood_rises_without_end{.names = names_of(n, verdict.separated)});
  } else if (verdict.outcome == FitOutcome::not_minimum) {
    log.xpmlog(message::minimum_not_confirmed{.value = 2.0 * n.fval, .gain = gain});
  }
  n.raise(4);
}

} // namespace torvale::solve
