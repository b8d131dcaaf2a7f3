#include "optimizer/control/neighbourhood.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/line_search/line_search.h"
#include "optimizer/optimizer.h"

#include "matrix/eigenvalues.h"
#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

namespace torvale::optimizer {
namespace {

// Uniform numbers in (0, 1): the minimal standard generator of Park and Miller (1988), 16807 u mod 2^31 - 1.
class UniformStream {
public:
  explicit UniformStream(std::uint64_t seed) : state(seed) {}
  double next()
  {
    state = state * 16807 % 2147483647;
    return static_cast<double>(state) / 2147483647.0;
  }

private:
  std::uint64_t state;
};

// Keeps a point with its objective and gradient, and restores it.
class SavedPoint {
public:
  explicit SavedPoint(MINSTR* record)
      : str(record), x(record->x, record->x + record->nvar), g(record->grad, record->grad + record->nvar),
        crit(record->crit)
  {
  }
  void restore() const
  {
    std::copy(x.begin(), x.end(), str->x);
    std::copy(g.begin(), g.end(), str->grad);
    str->crit = crit;
  }
  double value() const { return crit; }
  const double* point() const { return x.data(); }
  const double* gradient() const { return g.data(); }

private:
  MINSTR* str;
  std::vector<double> x, g;
  double crit;
};

// x := start + d cut where d leaves the feasible region.
void move_inside(MINSTR* str, const double* start, std::vector<double>& d)
{
  // Held constraints count too: probes may leave them inwards.
  double room = 1.0;
  for (long i = 0; str->bounds != 0 && i < str->nvar; ++i) {
    const double moved = std::clamp(start[i] + d[static_cast<std::size_t>(i)], str->lb[i], str->ub[i]);
    d[static_cast<std::size_t>(i)] = moved - start[i];
  }
  if (str->lincon != 0) {
    for (long r = 0; r < str->ncon; ++r) {
      const double* const a = str->alcn + r * str->nvar;
      const double slope = matrix::zvdot11(a, d.data(), str->nvar);
      const double residual = std::max(0.0, matrix::zvdot11(a, start, str->nvar) - str->blcn[r]);
      if (r < str->neqc && std::abs(slope) > 1e-12 * matrix::zvenorm(str->nvar, 1, d.data()))
        room = 0.0;
      else if (slope < 0.0)
        room = std::min(room, residual / -slope);
    }
  }
  for (long i = 0; i < str->nvar; ++i) str->x[i] = start[i] + room * d[static_cast<std::size_t>(i)];
}

// Tries start + d; keeps it in `best` when it is the lowest so far.
void probe(MINSTR* str, const double* start, std::vector<double>& d, double& lowest, std::vector<double>& best)
{
  move_inside(str, start, d);
  if (objective_value(str) == 0 && str->crit < lowest) {
    lowest = str->crit;
    best.assign(str->x, str->x + str->nvar);
  }
}

} // namespace

int znlpnoi(MINSTR* str, bool iterating)
{
  const long n = str->nvar;
  const SavedPoint entry(str);
  double t = is_missing(str->rtop) || str->rtop <= smallest_normal ? 0.1 : str->rtop;
  if (iterating) t *= 0.1;
  double lowest = entry.value();
  std::vector<double> best, d(static_cast<std::size_t>(n));
  for (long i = 0; i < n && str->stop == 0; ++i) {
    for (const double side : {1.0, -1.0}) {
      std::fill(d.begin(), d.end(), 0.0);
      d[static_cast<std::size_t>(i)] = side * std::max(t, t * std::abs(entry.point()[i]));
      probe(str, entry.point(), d, lowest, best);
    }
  }
  UniformStream uniform(3);
  for (int trial = 0; best.empty() && trial < (iterating ? 10 : 20) && str->stop == 0; ++trial) {
    for (double& element : d) element = (uniform.next() - 0.5) * 2.0 * t;
    probe(str, entry.point(), d, lowest, best);
  }
  // What rounding could have produced, or less than FCONV would notice, is no better point.
  const double notable =
      std::max({str->aftl, str->ftol * std::abs(entry.value()), 4.0 * machine_epsilon * std::abs(entry.value())});
  if (best.empty() || !(entry.value() - lowest > notable)) {
    entry.restore();
    return 0;
  }
  std::copy(best.begin(), best.end(), str->x);
  str->crit = lowest;
  if (str->ider > 0 && (objective_value(str) != 0 || objective_gradient(str) != 0)) {
    entry.restore();
    return 0;
  }
  znlpfch(str, 1, 0);
  if (str->ider > 0) znlpgmx(str);
  return 1;
}

int znlpdnc(MINSTR* str)
{
  if (str->ider == 0) return -1;
  const long n = str->nvar;
  const long m = free_dimension(*str);
  if (m < 1) return -1;
  const SavedPoint entry(str);
  std::vector<double> hessian(static_cast<std::size_t>(matrix::packed_size(n)));
  double* const own = std::exchange(str->hess, hessian.data());
  const bool failed = objective_hessian(str) != 0;
  str->hess = own;
  entry.restore();
  if (failed) return -1;

  std::vector<double> projected(static_cast<std::size_t>(matrix::packed_size(m)));
  std::vector<double> dense(static_cast<std::size_t>(m * m)), values(static_cast<std::size_t>(m)), off(values),
      d(static_cast<std::size_t>(n));
  znlpsym(*str, hessian.data(), projected.data(), d.data());
  matrix::zmmovsr(projected.data(), dense.data(), static_cast<int>(m));
  matrix::ztred2(static_cast<int>(m), dense.data(), values.data(), off.data());
  if (matrix::ztql2(static_cast<int>(m), dense.data(), values.data(), off.data(), 1) != 0) return -1;
  const double scale = std::max(std::abs(values.front()), std::abs(values.back()));
  if (!(values.back() < -1e-7 * scale)) return 1;
  for (long i = 0; i < m; ++i) off[static_cast<std::size_t>(i)] = dense[static_cast<std::size_t>(i * m + m - 1)];
  znlpvex(*str, off.data(), d.data());
  if (znlpgs(*str, entry.gradient(), d.data()) > 0.0)
    for (double& element : d) element = -element;

  const double size = std::max(1.0, matrix::zvenorm(n, 1, entry.point()));
  double lowest = entry.value();
  std::vector<double> best, step(d);
  double a = size;
  for (int halvings = 0; halvings < 20 && best.empty() && str->stop == 0; ++halvings, a *= 0.25) {
    for (const double side : {1.0, -1.0}) {
      for (long i = 0; i < n; ++i) step[static_cast<std::size_t>(i)] = side * a * d[static_cast<std::size_t>(i)];
      probe(str, entry.point(), step, lowest, best);
    }
  }
  if (best.empty() || !(entry.value() - lowest > 4.0 * machine_epsilon * std::abs(entry.value()))) {
    entry.restore();
    return 1;
  }
  std::copy(best.begin(), best.end(), str->x);
  if (objective_value(str) != 0 || objective_gradient(str) != 0) {
    entry.restore();
    return 1;
  }
  znlpfch(str, 1, 0);
  znlpgmx(str);
  return 0;
}

} // namespace torvale::optimizer
