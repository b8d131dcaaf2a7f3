#include "generated_problems.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

namespace torvale::test {
namespace {

using Vector = std::vector<double>;

constexpr double largest = std::numeric_limits<double>::max();

double dot(const Vector& a, const Vector& b)
{
  double sum = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) sum += a[i] * b[i];
  return sum;
}

// f, f', f'' of a function of one variable.
struct Jet {
  double f, d, dd;
};

Jet ridge_function(int kind, double t)
{
  switch (kind) {
  case 0: {
    const double e = std::exp(-std::abs(t)), p = t >= 0.0 ? 1.0 / (1.0 + e) : e / (1.0 + e);
    return {std::max(t, 0.0) + std::log1p(e), p, p * (1.0 - p)};
  }
  case 1:
    return {0.25 * t * t * t * t, t * t * t, 3.0 * t * t};
  case 2:
    return {std::cosh(t), std::sinh(t), std::cosh(t)};
  default: {
    const double q = 1.0 + t * t;
    return {t * t / q, 2.0 * t / (q * q), (2.0 - 6.0 * t * t) / (q * q * q)};
  }
  }
}

class Generator {
public:
  explicit Generator(std::uint32_t seed) : random(seed) {}
  double uniform(double low, double high) { return low + (high - low) * static_cast<double>(random()) / 4294967296.0; }
  int choice(int count) { return static_cast<int>(uniform(0.0, count)); }
  double normal()
  {
    double sum = -6.0;
    for (int i = 0; i < 12; ++i) sum += uniform(0.0, 1.0);
    return sum;
  }
  Vector normals(int n)
  {
    Vector v(static_cast<std::size_t>(n));
    for (double& e : v) e = normal();
    return v;
  }

private:
  std::mt19937 random;
};

// Householder reflections of a diagonal: condition up to 10^decades; one negative element when indefinite.
Vector random_quadratic(Generator& random, int n, double decades, bool indefinite)
{
  const auto m = static_cast<std::size_t>(n);
  Vector a(m * m, 0.0);
  for (std::size_t i = 0; i < m; ++i) a[i * m + i] = std::pow(10.0, random.uniform(-0.5 * decades, 0.5 * decades));
  if (indefinite) a[0] = -0.3 * a[0];
  for (int k = 0; k < n; ++k) {
    const Vector v = random.normals(n);
    const double vv = dot(v, v);
    for (const bool transposed : {false, true})
      for (std::size_t r = 0; r < m; ++r) {
        const auto at = [&](std::size_t c) -> double& { return transposed ? a[c * m + r] : a[r * m + c]; };
        double s = 0.0;
        for (std::size_t c = 0; c < m; ++c) s += at(c) * v[c];
        for (std::size_t c = 0; c < m; ++c) at(c) -= 2.0 * s / vv * v[c];
      }
  }
  return a;
}

} // namespace

GeneratedProblem::GeneratedProblem(std::uint32_t seed)
{
  Generator random(seed);
  n = 2 + random.choice(11);
  const auto m = static_cast<std::size_t>(n);
  const bool indefinite = random.choice(4) == 0;
  quadratic = random_quadratic(random, n, random.uniform(0.0, 4.0), indefinite);
  centre = random.normals(n);
  for (double& c : centre) c *= 2.0;
  // A weak quadratic with a far centre is nearly linear: its minimum lies in a corner of many constraints.
  const bool corner = !indefinite && random.choice(4) == 0;
  if (corner) {
    for (double& q : quadratic) q *= 1e-3;
    for (double& c : centre) c *= 1e3;
  }
  for (int k = random.choice(6); k > 0; --k)
    terms.push_back({random.choice(5), std::pow(10.0, random.uniform(-1.0, 1.5)), random.normal(), random.normals(n),
                     random.normals(n)});
  for (Term& t : terms)
    if (t.kind == 2)
      for (double& e : t.a) e *= 0.3;
  Vector inside = random.normals(n); // a feasible point
  lower.assign(m, -largest);
  upper.assign(m, largest);
  for (std::size_t i = 0; i < m; ++i) {
    const int kind = random.choice(4);
    if (indefinite || corner || kind == 0 || kind == 1) lower[i] = inside[i] - random.uniform(0.0, 2.0);
    if (indefinite || corner || kind == 0 || kind == 2) upper[i] = inside[i] + random.uniform(0.0, 2.0);
    if (random.choice(12) == 0) lower[i] = upper[i] = inside[i];
  }
  const int row_count = random.choice(2) == 0 ? 0 : 1 + random.choice(corner ? 3 * n : n);
  const int equalities = row_count > 0 && random.choice(3) == 0 ? 1 : 0;
  for (int r = 0; r < row_count; ++r) {
    Row row{random.normals(n), 0.0, r < equalities};
    for (double& e : row.a)
      if (random.choice(3) == 0) e = 0.0;
    const bool touches = random.choice(5) == 0;
    row.right_side = dot(row.a, inside) - (row.equality || touches ? 0.0 : random.uniform(0.0, 2.0));
    rows.push_back(row);
  }
  start = random.choice(2) == 0 ? inside : random.normals(n); // the second may have to be moved
}

double GeneratedProblem::value(const Vector& x) const
{
  const auto m = static_cast<std::size_t>(n);
  double f = 0.0;
  for (std::size_t i = 0; i < m; ++i)
    for (std::size_t j = 0; j < m; ++j) f += 0.5 * quadratic[i * m + j] * (x[i] - centre[i]) * (x[j] - centre[j]);
  for (const Term& t : terms) {
    const double u = dot(t.a, x) - t.shift;
    if (t.kind == 4) {
      const double v = dot(t.b, x), r = u - v * v;
      f += t.weight * r * r;
    } else {
      f += t.weight * ridge_function(t.kind, u).f;
    }
  }
  return f;
}

Vector GeneratedProblem::gradient(const Vector& x) const
{
  const auto m = static_cast<std::size_t>(n);
  Vector g(m, 0.0);
  for (std::size_t i = 0; i < m; ++i)
    for (std::size_t j = 0; j < m; ++j) g[i] += quadratic[i * m + j] * (x[j] - centre[j]);
  for (const Term& t : terms) {
    const double u = dot(t.a, x) - t.shift;
    if (t.kind == 4) {
      const double v = dot(t.b, x), r = u - v * v;
      for (std::size_t i = 0; i < m; ++i) g[i] += t.weight * 2.0 * r * (t.a[i] - 2.0 * v * t.b[i]);
    } else {
      const double d = t.weight * ridge_function(t.kind, u).d;
      for (std::size_t i = 0; i < m; ++i) g[i] += d * t.a[i];
    }
  }
  return g;
}

Vector GeneratedProblem::hessian(const Vector& x) const
{
  const auto m = static_cast<std::size_t>(n);
  Vector h = quadratic;
  for (std::size_t i = 0; i < m; ++i)
    for (std::size_t j = 0; j < i; ++j)
      h[i * m + j] = h[j * m + i] = 0.5 * (quadratic[i * m + j] + quadratic[j * m + i]);
  for (const Term& t : terms) {
    const double u = dot(t.a, x) - t.shift, v = dot(t.b, x);
    for (std::size_t i = 0; i < m; ++i)
      for (std::size_t j = 0; j < m; ++j) {
        if (t.kind == 4) {
          const double r = u - v * v;
          const double gi = t.a[i] - 2.0 * v * t.b[i], gj = t.a[j] - 2.0 * v * t.b[j];
          h[i * m + j] += t.weight * 2.0 * (gi * gj - 2.0 * r * t.b[i] * t.b[j]);
        } else {
          h[i * m + j] += t.weight * ridge_function(t.kind, u).dd * t.a[i] * t.a[j];
        }
      }
  }
  return h;
}

namespace {

struct Normal {
  Vector a; // points inside
  bool equality;
  double multiplier = 0.0;
};

// The constraints at their limit, and the worst violation.
std::vector<Normal> normals_at(const GeneratedProblem& p, const Vector& x, double& violation)
{
  std::vector<Normal> normals;
  const auto take = [&](const Vector& a, double room, double size, bool equality) {
    violation = std::max(violation, (equality ? std::abs(room) : -room) / size);
    if (equality || room <= 1e-7 * size) normals.push_back({a, equality});
  };
  for (std::size_t i = 0; i < x.size(); ++i) {
    Vector e(x.size(), 0.0);
    e[i] = 1.0;
    const bool fixed = p.lower[i] == p.upper[i];
    if (p.lower[i] > -largest) take(e, x[i] - p.lower[i], 1.0 + std::abs(p.lower[i]), fixed);
    e[i] = -1.0;
    if (p.upper[i] < largest && !fixed) take(e, p.upper[i] - x[i], 1.0 + std::abs(p.upper[i]), false);
  }
  for (const auto& row : p.rows)
    take(row.a, dot(row.a, x) - row.right_side, 1.0 + std::abs(row.right_side), row.equality);
  return normals;
}

// Multipliers by least squares, nonnegative for inequalities: one at a time, again and again. Returns what is left of
// the gradient.
Vector fit_multipliers(std::vector<Normal>& normals, Vector g)
{
  for (int sweep = 0; sweep < 20000; ++sweep) {
    double change = 0.0;
    for (Normal& c : normals) {
      const double better = c.multiplier + dot(c.a, g) / dot(c.a, c.a);
      const double next = c.equality ? better : std::max(better, 0.0);
      const double step = next - c.multiplier;
      if (step == 0.0) continue;
      for (std::size_t i = 0; i < g.size(); ++i) g[i] -= step * c.a[i];
      c.multiplier = next;
      change = std::max(change, std::abs(step) * std::sqrt(dot(c.a, c.a)));
    }
    if (change <= 1e-13 * (1.0 + std::sqrt(dot(g, g)))) break;
  }
  return g;
}

// An orthonormal basis of what is orthogonal to the given vectors.
std::vector<Vector> null_space(const std::vector<Vector>& given, std::size_t n)
{
  std::vector<Vector> range, basis;
  const auto orthogonal = [&](Vector v, const std::vector<Vector>& first, const std::vector<Vector>& second) {
    for (int pass = 0; pass < 2; ++pass)
      for (const auto* set : {&first, &second})
        for (const Vector& q : *set) {
          const double s = dot(q, v);
          for (std::size_t i = 0; i < n; ++i) v[i] -= s * q[i];
        }
    return v;
  };
  const auto append = [&](const Vector& v, std::vector<Vector>& to) {
    Vector w = orthogonal(v, range, basis);
    const double length = std::sqrt(dot(w, w));
    if (length <= 1e-8 * std::sqrt(dot(v, v))) return;
    for (double& e : w) e /= length;
    to.push_back(w);
  };
  for (const Vector& v : given) append(v, range);
  for (std::size_t i = 0; i < n; ++i) {
    Vector e(n, 0.0);
    e[i] = 1.0;
    append(e, basis);
  }
  return basis;
}

// Eigenvalues and vectors by Jacobi's rotations; columns of v.
void eigen(Vector& a, Vector& v, std::size_t n)
{
  v.assign(n * n, 0.0);
  for (std::size_t i = 0; i < n; ++i) v[i * n + i] = 1.0;
  for (int sweep = 0; sweep < 60; ++sweep)
    for (std::size_t p = 0; p < n; ++p)
      for (std::size_t q = p + 1; q < n; ++q) {
        if (a[p * n + q] == 0.0) continue;
        const double theta = 0.5 * std::atan2(2.0 * a[p * n + q], a[q * n + q] - a[p * n + p]);
        const double c = std::cos(theta), s = std::sin(theta);
        for (std::size_t k = 0; k < n; ++k) {
          const double x = a[k * n + p], y = a[k * n + q];
          a[k * n + p] = c * x - s * y;
          a[k * n + q] = s * x + c * y;
        }
        for (std::size_t k = 0; k < n; ++k) {
          const double x = a[p * n + k], y = a[q * n + k];
          a[p * n + k] = c * x - s * y;
          a[q * n + k] = s * x + c * y;
          const double vx = v[k * n + p], vy = v[k * n + q];
          v[k * n + p] = c * vx - s * vy;
          v[k * n + q] = s * vx + c * vy;
        }
      }
}

} // namespace

Verdict judge(const GeneratedProblem& p, const Vector& x, double interval)
{
  Verdict verdict{0.0, 0.0, 0.0};
  const auto n = static_cast<std::size_t>(p.n);
  std::vector<Normal> normals = normals_at(p, x, verdict.violation);
  const Vector rest = fit_multipliers(normals, p.gradient(x));
  for (const double e : rest) verdict.gradient = std::max(verdict.gradient, std::abs(e));

  // The face: constraints that push back, and equalities. The Hessian on it.
  std::vector<Vector> held;
  for (const Normal& c : normals)
    if (c.equality || c.multiplier * std::sqrt(dot(c.a, c.a)) > 1e-6) held.push_back(c.a);
  const std::vector<Vector> z = null_space(held, n);
  const std::size_t m = z.size();
  if (m == 0) return verdict;
  const Vector h = p.hessian(x);
  Vector reduced(m * m), vectors;
  for (std::size_t i = 0; i < m; ++i) {
    Vector hz(n, 0.0);
    for (std::size_t k = 0; k < n; ++k)
      for (std::size_t l = 0; l < n; ++l) hz[k] += h[k * n + l] * z[i][l];
    for (std::size_t j = 0; j < m; ++j) reduced[i * m + j] = dot(z[j], hz);
  }
  eigen(reduced, vectors, m);
  Vector unseen(n); // of each gradient element
  for (std::size_t i = 0; i < n; ++i) unseen[i] = interval * (1.0 + std::abs(x[i])) * std::abs(h[i * n + i]);
  double most = 0.0;
  for (std::size_t k = 0; k < m; ++k) most = std::max(most, std::abs(reduced[k * m + k]));
  for (std::size_t k = 0; k < m; ++k) {
    Vector direction(n, 0.0);
    for (std::size_t i = 0; i < m; ++i)
      for (std::size_t l = 0; l < n; ++l) direction[l] += vectors[i * m + k] * z[i][l];
    double slope = std::abs(dot(direction, rest));
    for (std::size_t l = 0; l < n; ++l) slope -= std::abs(direction[l]) * unseen[l];
    const double curvature = reduced[k * m + k];
    if (!(slope > 0.0)) continue;
    if (curvature > 1e-12 * most)
      verdict.gain += 0.5 * slope * slope / curvature;
    else if (slope > 1e-4)
      verdict.gain = std::numeric_limits<double>::infinity();
  }
  return verdict;
}

} // namespace torvale::test
