#include "solve/judgement/fit_coordinates.h"

#include "syntax/statement_names.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace torvale::solve {

using model::ModelLists;
using model::NX;
using model::PARMSTR;

namespace {

constexpr double largest = std::numeric_limits<double>::max();
constexpr double contact = 1e-12; // relative: rounding of a point that a step put on its bound

constexpr std::size_t packed(int i, int j)
{
  return static_cast<std::size_t>(i < j ? j * (j + 1) / 2 + i : i * (i + 1) / 2 + j);
}

constexpr int constant_zero = -1, other = -2;

// What element (i, j) of G is: a parameter's number, constant_zero, or other. The argument of a distribution is an
// expression; one that is nothing but a name has that text.
int element(const ModelLists& n, const model::REFFECT& reff, int i, int j)
{
  const auto* symbol = reff.distrsym.s[static_cast<std::size_t>(reff.nr) + packed(i, j)];
  for (std::size_t k = 0; k < n.parmstr.size(); ++k) {
    const PARMSTR& p = n.parmstr[k];
    if (symbol != p.sym && !host::equal_names(symbol->name, p.parmname)) continue;
    if (!p.held()) return static_cast<int>(k);
    return p.lowbound == 0.0 ? constant_zero : other;
  }
  char* end = nullptr;
  const double value = std::strtod(symbol->name.c_str(), &end);
  return end != symbol->name.c_str() && *end == '\0' && value == 0.0 ? constant_zero : other;
}

// A lower bound that says no more than that the variance is not negative.
bool at_most_nonnegative(const NX& n, const PARMSTR& p)
{
  return !p.applyl || p.lowbound <= 2.0 * n.str->ceps;
}

} // namespace

int variance_parameter(const NX& n, const model::REFFECT& reff, int i)
{
  return std::max(element(n, reff, i, i), -1);
}

FitCoordinates::FitCoordinates(const NX& n, const double* x, bool factors)
    : origin_(x, x + n.nparm), scale_(origin_.size(), 1.0), lower_(origin_.size(), -largest),
      upper_(origin_.size(), largest), fixed_(origin_.size(), 0), in_block_(origin_.size(), 0)
{
  for (std::size_t i = 0; i < origin_.size(); ++i) {
    const PARMSTR& p = n.parmstr[i];
    if (p.applyl) lower_[i] = p.lowbound;
    if (p.applyh) upper_[i] = p.highbound;
    fixed_[i] = p.held();
  }
  if (factors) add_logarithm(n);
  if (!factors) return;
  for (const auto& reff : n.reff)
    if (reff.distrtype == 0) add_blocks(n, reff, x);
}

FitCoordinates FitCoordinates::straight(const NX& n, const double* x)
{
  const FitCoordinates bent(n, x);
  FitCoordinates c(n, x, false);
  auto variances = bent.edge_diagonals();
  if (bent.logarithm() >= 0) variances.push_back(bent.logarithm());
  for (const int i : variances) {
    auto& lower = c.lower_[static_cast<std::size_t>(i)];
    lower = std::max(lower, 0.0);
  }
  return c;
}

void FitCoordinates::add_logarithm(const ModelLists& n)
{
  for (const auto& stmt : n.proc->statements) {
    if (stmt.name != "MODEL") continue;
    const auto code = static_cast<int>(stmt.number_or(syntax::model_slot::distribution, 0));
    const auto& arguments = stmt.slot(syntax::model_slot::arguments).list;
    if ((code != 0 && code != 1) || arguments.size() < 2 || arguments[1].expr == nullptr) return;
    const std::string name = syntax::to_text(*arguments[1].expr);
    for (std::size_t k = 0; k < n.parmstr.size(); ++k) {
      if (!host::equal_names(name, n.parmstr[k].parmname) || fixed_[k] != 0 || !(origin_[k] > 0.0)) continue;
      logarithm_ = static_cast<int>(k);
      origin_[k] = std::log(origin_[k]);
      lower_[k] = lower_[k] > 0.0 ? std::log(lower_[k]) : -largest;
      if (upper_[k] < largest) upper_[k] = std::log(upper_[k]);
    }
    return;
  }
}

// Effects that a covariance joins form a block. A variance at the slack of its strict bound has none with others: no
// factor has that bound, and its covariances are ordinary numbers there.
void FitCoordinates::add_blocks(const NX& n, const model::REFFECT& reff, const double* x)
{
  std::vector<int> group(static_cast<std::size_t>(reff.nr));
  for (int i = 0; i < reff.nr; ++i) group[static_cast<std::size_t>(i)] = i;
  std::vector<std::vector<int>> what(group.size(), std::vector<int>(group.size()));
  const auto at_slack = [&](int i) {
    const int p = element(n, reff, i, i);
    const PARMSTR* s = p >= 0 ? &n.parmstr[static_cast<std::size_t>(p)] : nullptr;
    return s != nullptr && s->applyl && s->lowbound > 0.0 && x[p] <= s->lowbound * (1.0 + 1e-9);
  };
  for (int i = 0; i < reff.nr; ++i)
    for (int j = 0; j <= i; ++j) {
      const auto r = static_cast<std::size_t>(i), c = static_cast<std::size_t>(j);
      what[r][c] = what[c][r] = element(n, reff, i, j);
      if (i == j || what[r][c] == constant_zero || at_slack(i) || at_slack(j)) continue;
      const int from = group[r], to = group[c];
      std::replace(group.begin(), group.end(), from, to);
    }
  for (int g = 0; g < reff.nr; ++g) {
    std::vector<int> effects, seen;
    for (int i = 0; i < reff.nr; ++i)
      if (group[static_cast<std::size_t>(i)] == g) effects.push_back(i);
    bool usable = !effects.empty();
    for (std::size_t a = 0; a < effects.size() && usable; ++a)
      for (std::size_t b = 0; b <= a && usable; ++b) {
        const int p = what[static_cast<std::size_t>(effects[a])][static_cast<std::size_t>(effects[b])];
        usable = p >= 0 && p != logarithm_ && in_block_[static_cast<std::size_t>(p)] == 0 &&
                 std::find(seen.begin(), seen.end(), p) == seen.end();
        if (!usable) break;
        seen.push_back(p);
        const PARMSTR& s = n.parmstr[static_cast<std::size_t>(p)];
        if (effects.size() > 1) usable = !s.applyh && (a == b ? at_most_nonnegative(n, s) : !s.applyl);
      }
    if (!usable) continue;
    if (effects.size() == 1) { // the root keeps a bound that says more than 0; the slack of a strict one is such
      const auto p = static_cast<std::size_t>(seen[0]);
      const PARMSTR& s = n.parmstr[p];
      const bool above_zero = s.applyl && s.lowbound > 0.0;
      lower_[p] = above_zero ? std::sqrt(s.lowbound) : s.applyh ? -std::sqrt(s.highbound) : -largest;
      if (s.applyh) upper_[p] = std::sqrt(s.highbound);
    } else {
      for (const int p : seen) {
        lower_[static_cast<std::size_t>(p)] = -largest;
        upper_[static_cast<std::size_t>(p)] = largest;
      }
    }
    add_block(n, what, effects, x);
  }
}

// The factor by rows, the effect with the largest share of its variance left first.
void FitCoordinates::add_block(const NX& n, const std::vector<std::vector<int>>& parameter,
                               const std::vector<int>& effects, const double* x)
{
  const auto order = static_cast<int>(effects.size());
  const auto place = [&](int a, int b) { return parameter[static_cast<std::size_t>(a)][static_cast<std::size_t>(b)]; };
  std::vector<int> rows(effects);
  std::vector<double> l(packed(order, 0), 0.0);
  for (int c = 0; c < order; ++c) {
    const auto left = [&](int r) {
      double v = x[place(rows[static_cast<std::size_t>(r)], rows[static_cast<std::size_t>(r)])];
      for (int k = 0; k < c; ++k) v -= l[packed(r, k)] * l[packed(r, k)];
      return v;
    };
    const auto share = [&](int r) {
      const double own = x[place(rows[static_cast<std::size_t>(r)], rows[static_cast<std::size_t>(r)])];
      return own > 0.0 ? left(r) / own : 0.0;
    };
    int best = c;
    for (int r = c + 1; r < order; ++r)
      if (share(r) > share(best)) best = r;
    if (best != c) {
      std::swap(rows[static_cast<std::size_t>(best)], rows[static_cast<std::size_t>(c)]);
      for (int k = 0; k < c; ++k) std::swap(l[packed(best, k)], l[packed(c, k)]);
    }
    const double pivot = share(c) > 1e-14 ? std::sqrt(left(c)) : 0.0;
    l[packed(c, c)] = pivot;
    for (int r = c + 1; r < order; ++r) {
      double v = x[place(rows[static_cast<std::size_t>(r)], rows[static_cast<std::size_t>(c)])];
      for (int k = 0; k < c; ++k) v -= l[packed(r, k)] * l[packed(c, k)];
      l[packed(r, c)] = pivot > 0.0 ? v / pivot : 0.0;
    }
  }
  Block block;
  block.order = order;
  for (const int i : effects)
    block.reaches_zero = block.reaches_zero && at_most_nonnegative(n, n.parmstr[static_cast<std::size_t>(place(i, i))]);
  for (int r = 0; r < order; ++r)
    for (int c = 0; c <= r; ++c) {
      const int p = place(rows[static_cast<std::size_t>(r)], rows[static_cast<std::size_t>(c)]);
      block.parameter.push_back(p);
      origin_[static_cast<std::size_t>(p)] = l[packed(r, c)];
      in_block_[static_cast<std::size_t>(p)] = 1;
    }
  blocks_.push_back(std::move(block));
}

double FitCoordinates::first_scale(int i) const
{
  constexpr double share = 1e-6; // of its own size: far above rounding
  return i == logarithm_ ? 1.0 : std::max(1.0, share * own_size(i));
}

double FitCoordinates::slope(int i) const
{
  if (i == logarithm_) return std::exp(origin(i));
  for (const Block& b : blocks_)
    for (int r = 0; r < b.order; ++r)
      for (int c = 0; c <= r; ++c)
        if (b.parameter[packed(r, c)] == i)
          return (r == c ? 2.0 : 1.0) * std::abs(origin_[static_cast<std::size_t>(b.parameter[packed(c, c)])]);
  return 1.0;
}

double FitCoordinates::short_scale(int i) const
{
  return own_size(i) > 0.0 ? 0.01 * own_size(i) : first_scale(i);
}

double FitCoordinates::factor(const Block& b, int r, int c, const double* t) const
{
  const auto p = static_cast<std::size_t>(b.parameter[packed(r, c)]);
  const double l = origin_[p] + scale_[p] * t[p];
  return std::abs(l) > contact * std::abs(origin_[p]) ? l : 0.0;
}

void FitCoordinates::parameters(const double* t, double* x) const
{
  for (std::size_t i = 0; i < origin_.size(); ++i)
    if (in_block_[i] == 0) x[i] = origin_[i] + scale_[i] * t[i];
  if (logarithm_ >= 0) x[logarithm_] = std::exp(x[logarithm_]);
  for (const Block& b : blocks_)
    for (int r = 0; r < b.order; ++r)
      for (int c = 0; c <= r; ++c) {
        double sum = 0.0;
        for (int k = 0; k <= c; ++k) sum += factor(b, r, k, t) * factor(b, c, k, t);
        x[b.parameter[packed(r, c)]] = sum;
      }
}

void FitCoordinates::gradient(const double* t, const double* by_x, double* by_t) const
{
  for (std::size_t i = 0; i < origin_.size(); ++i) by_t[i] = scale_[i] * by_x[i];
  if (logarithm_ >= 0) {
    const auto k = static_cast<std::size_t>(logarithm_);
    by_t[k] *= std::exp(origin_[k] + scale_[k] * t[k]);
  }
  for (const Block& b : blocks_)
    for (int r = 0; r < b.order; ++r)
      for (int k = 0; k <= r; ++k) {
        // G(i, j) = sum_k l(i, k) l(j, k): l(r, k) enters row and column r.
        double sum = 0.0;
        for (int j = k; j < b.order; ++j)
          sum += (j == r ? 2.0 : 1.0) * by_x[b.parameter[packed(r, j)]] * factor(b, j, k, t);
        const auto p = static_cast<std::size_t>(b.parameter[packed(r, k)]);
        by_t[p] = scale_[p] * sum;
      }
}

void FitCoordinates::jacobian(const double* t, double* j) const
{
  const std::size_t n = origin_.size();
  std::fill_n(j, n * n, 0.0);
  std::vector<double> unit(n, 0.0), row(n);
  for (std::size_t i = 0; i < n; ++i) {
    unit[i] = 1.0;
    gradient(t, unit.data(), row.data());
    std::copy(row.begin(), row.end(), j + i * n);
    unit[i] = 0.0;
  }
}

bool FitCoordinates::bend(const double* by_x, double* out) const
{
  const std::size_t n = origin_.size();
  std::fill_n(out, n * n, 0.0);
  if (logarithm_ >= 0) {
    const auto k = static_cast<std::size_t>(logarithm_);
    out[k * (n + 1)] = scale_[k] * scale_[k] * by_x[k] * std::exp(origin_[k]);
  }
  // G(i, j) = sum_k l(i, k) l(j, k): elements of one column meet in one element of G.
  for (const Block& b : blocks_)
    for (int k = 0; k < b.order && !on_edge(b, edge_share); ++k)
      for (int i = k; i < b.order; ++i)
        for (int j = k; j < b.order; ++j) {
          const auto p = static_cast<std::size_t>(b.parameter[packed(i, k)]);
          const auto q = static_cast<std::size_t>(b.parameter[packed(j, k)]);
          out[p * n + q] = scale_[p] * scale_[q] * (i == j ? 2.0 : 1.0) * by_x[b.parameter[packed(i, j)]];
        }
  return logarithm_ >= 0 || !blocks_.empty();
}

double FitCoordinates::lower(int i) const
{
  const auto p = static_cast<std::size_t>(i);
  return lower_[p] > -largest ? std::min(0.0, (lower_[p] - origin_[p]) / scale_[p]) : -largest;
}

double FitCoordinates::upper(int i) const
{
  const auto p = static_cast<std::size_t>(i);
  return upper_[p] < largest ? std::max(0.0, (upper_[p] - origin_[p]) / scale_[p]) : largest;
}

bool FitCoordinates::at_lower(int i) const
{
  const auto p = static_cast<std::size_t>(i);
  return lower_[p] > -largest && origin_[p] - lower_[p] <= contact * std::max(std::abs(origin_[p]), scale_[p]);
}

bool FitCoordinates::at_upper(int i) const
{
  const auto p = static_cast<std::size_t>(i);
  return upper_[p] < largest && upper_[p] - origin_[p] <= contact * std::max(std::abs(origin_[p]), scale_[p]);
}

void FitCoordinates::end_at(const FitCoordinates& c, int i)
{
  const auto p = static_cast<std::size_t>(i);
  if (c.origin(i) >= 0.0)
    lower_[p] = std::max(lower_[p], c.origin(i));
  else
    upper_[p] = std::min(upper_[p], c.origin(i));
}

bool FitCoordinates::plain(int i) const
{
  const auto p = static_cast<std::size_t>(i);
  return in_block_[p] == 0 && i != logarithm_ && fixed_[p] == 0 && lower_[p] == -largest && upper_[p] == largest;
}

bool FitCoordinates::inside(const double* t) const
{
  for (int i = 0; i < size(); ++i)
    if (!(t[i] >= lower(i) && t[i] <= upper(i))) return false;
  return true;
}

std::vector<int> FitCoordinates::edge_diagonals() const
{
  std::vector<int> found;
  for (const Block& b : blocks_)
    for (int c = 0; c < b.order; ++c) found.push_back(b.parameter[packed(c, c)]);
  return found;
}

bool FitCoordinates::variance(int i) const
{
  const auto diagonals = edge_diagonals();
  return std::find(diagonals.begin(), diagonals.end(), i) != diagonals.end();
}

std::vector<int> FitCoordinates::effect(int i) const
{
  std::vector<int> found;
  for (const Block& b : blocks_)
    for (int r = 0; r < b.order && b.reaches_zero; ++r)
      if (b.parameter[packed(r, r)] == i)
        for (int c = 0; c < b.order; ++c) found.push_back(b.parameter[packed(r, c)]);
  return found;
}

bool FitCoordinates::on_edge(const Block& b, double share) const
{
  const std::vector<double> zero(origin_.size(), 0.0);
  for (int c = 0; c < b.order; ++c) {
    double own = 0.0;
    for (int k = 0; k <= c; ++k) own += factor(b, c, k, zero.data()) * factor(b, c, k, zero.data());
    const double pivot = factor(b, c, c, zero.data());
    if (pivot * pivot <= share * own) return true;
  }
  return false;
}

bool FitCoordinates::near_edge(double share) const
{
  return std::any_of(blocks_.begin(), blocks_.end(), [&](const Block& b) { return on_edge(b, share); });
}

bool FitCoordinates::near_joint_edge(double share) const
{
  return std::any_of(blocks_.begin(), blocks_.end(), [&](const Block& b) { return b.order > 1 && on_edge(b, share); });
}

} // namespace torvale::solve
