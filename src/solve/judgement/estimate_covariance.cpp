#include "solve/judgement/estimate_covariance.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::NX;

namespace {

// A: V / eigenvalue V' over the eigenvalues that are not 0, by all coordinates; dense.
std::vector<double> inverse_curvature(const Judgement& j, std::size_t np)
{
  std::vector<double> a(np * np, 0.0);
  const auto m = static_cast<std::size_t>(j.curvature.size());
  for (int k = 0; k < j.curvature.size(); ++k) {
    const double value = j.eigenvalues[static_cast<std::size_t>(k)];
    if (std::abs(value) <= j.tolerance || std::find(j.null.begin(), j.null.end(), k) != j.null.end()) continue;
    const auto at = [&](std::size_t r) { return j.directions[r * m + static_cast<std::size_t>(k)]; };
    for (std::size_t r = 0; r < m; ++r)
      for (std::size_t c = 0; c < m; ++c)
        a[static_cast<std::size_t>(j.curvature.free[r]) * np + static_cast<std::size_t>(j.curvature.free[c])] +=
            at(r) * at(c) / value;
  }
  return a;
}

// The coordinates whose bend counts. Where the bend is most of a curvature that is positive, a variance is all but 0,
// and what its parameter has of curvature is drowned.
std::vector<std::size_t> bent_coordinates(const Judgement& j, const std::vector<double>& a, std::size_t np)
{
  constexpr double most = 0.99;
  std::vector<std::size_t> bent;
  if (j.bend.empty()) return bent;
  for (std::size_t i = 0; i < np; ++i) {
    double inverse = 0.0, bend = 0.0;
    for (std::size_t k = 0; k < np; ++k) {
      inverse = std::max(inverse, std::abs(a[i * np + k]));
      bend += std::abs(j.bend[i * np + k]);
    }
    if (bend > 0.0 && (j.bend[i * (np + 1)] < 0.0 || inverse * bend < most)) bent.push_back(i);
  }
  return bent;
}

// W of (I - K A) W = K, all of order r, dense by rows; k becomes W. Gaussian elimination with row pivoting. False when
// the matrix is singular.
bool solve_bend(std::vector<double> ka, std::vector<double>& k, std::size_t r)
{
  for (double& v : ka) v = -v;
  for (std::size_t i = 0; i < r; ++i) ka[i * (r + 1)] += 1.0;
  for (std::size_t c = 0; c < r; ++c) {
    std::size_t pivot = c;
    for (std::size_t i = c + 1; i < r; ++i)
      if (std::abs(ka[i * r + c]) > std::abs(ka[pivot * r + c])) pivot = i;
    if (!(std::abs(ka[pivot * r + c]) > 1e-8)) return false;
    for (std::size_t i = 0; i < r && pivot != c; ++i) {
      std::swap(ka[pivot * r + i], ka[c * r + i]);
      std::swap(k[pivot * r + i], k[c * r + i]);
    }
    for (std::size_t i = 0; i < r; ++i) {
      if (i == c) continue;
      const double share = ka[i * r + c] / ka[c * r + c];
      for (std::size_t m = 0; m < r; ++m) {
        ka[i * r + m] -= share * ka[c * r + m];
        k[i * r + m] -= share * k[c * r + m];
      }
    }
  }
  for (std::size_t i = 0; i < r; ++i)
    for (std::size_t m = 0; m < r; ++m) k[i * r + m] /= ka[i * (r + 1)];
  return true;
}

// A becomes (A^-1 - K)^-1 = A + A W A, K the bend: in bent coordinates the Hessian has the slopes of the parameters in
// it, which are not quite 0 where a fit ends, and the covariance is that of the parameters' own Hessian.
void take_bend_out(const Judgement& j, std::vector<double>& a, std::size_t np)
{
  const auto bent = bent_coordinates(j, a, np);
  const std::size_t r = bent.size();
  std::vector<double> k(r * r), ka(r * r, 0.0);
  for (std::size_t p = 0; p < r; ++p)
    for (std::size_t q = 0; q < r; ++q) k[p * r + q] = j.bend[bent[p] * np + bent[q]];
  for (std::size_t p = 0; p < r; ++p)
    for (std::size_t m = 0; m < r; ++m)
      for (std::size_t q = 0; q < r; ++q) ka[p * r + q] += k[p * r + m] * a[bent[m] * np + bent[q]];
  if (r == 0 || !solve_bend(std::move(ka), k, r)) return;
  const std::vector<double> before(a);
  std::vector<double> row(r);
  for (std::size_t i = 0; i < np; ++i) {
    std::fill(row.begin(), row.end(), 0.0);
    for (std::size_t p = 0; p < r; ++p)
      for (std::size_t q = 0; q < r; ++q) row[q] += before[i * np + bent[p]] * k[p * r + q];
    for (std::size_t c = 0; c < np; ++c)
      for (std::size_t q = 0; q < r; ++q) a[i * np + c] += row[q] * before[bent[q] * np + c];
  }
}

} // namespace

std::vector<double> parameter_covariance(const Judgement& j, const std::vector<double>& jacobian, std::size_t np)
{
  auto a = inverse_curvature(j, np);
  take_bend_out(j, a, np);
  std::vector<double> covariance(np * np, 0.0), row(np);
  for (std::size_t r = 0; r < np; ++r) {
    std::fill(row.begin(), row.end(), 0.0);
    for (std::size_t i = 0; i < np; ++i)
      if (const double by = jacobian[r * np + i]; by != 0.0)
        for (std::size_t k = 0; k < np; ++k) row[k] += by * a[i * np + k];
    for (std::size_t c = 0; c <= r; ++c) {
      double& element = covariance[r * np + c];
      for (std::size_t k = 0; k < np; ++k) element += row[k] * jacobian[c * np + k];
      covariance[c * np + r] = element;
    }
  }
  return covariance;
}

void take_covariance(NX& n, const Judgement& j, const std::vector<double>& jacobian)
{
  const auto np = static_cast<std::size_t>(n.nparm);
  const auto covariance = parameter_covariance(j, jacobian, np);
  n.covmat.resize(np * (np + 1) / 2);
  const double sigm = n.covstr->sigm > 0.0 ? n.covstr->sigm : 1.0;
  for (std::size_t r = 0; r < np; ++r)
    for (std::size_t c = 0; c <= r; ++c) n.covmat[r * (r + 1) / 2 + c] = sigm * covariance[r * np + c];
  for (std::size_t i = 0; i < np; ++i) {
    const double variance = n.covmat[i * (i + 3) / 2];
    n.str->ster[i] = variance > 0.0 ? std::sqrt(variance) : host::missing;
  }
  const auto negative =
      std::count_if(j.eigenvalues.begin(), j.eigenvalues.end(), [&](double v) { return v < -j.tolerance; });
  n.det[4] = static_cast<double>(j.null.size());
  n.det[3] = j.indefinite ? static_cast<double>(negative) : 0.0;
  n.det[2] = static_cast<double>(j.curvature.size()) - n.det[3] - n.det[4];
}

} // namespace torvale::solve
