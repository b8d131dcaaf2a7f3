#include "modes/nest_elimination.h"

#include "modes/hessian_at_mode.h"
#include "modes/joint_density.h"

#include <algorithm>
#include <cmath>

namespace torvale::modes {

using model::ModelLists;
using model::NestLevel;
using model::NestWork;

namespace {

int invert(const model::RunOptions& options, int nr, double* h, double* g, double* pivots, model::BlockWork& block)
{
  switch (nr) {
  case 1:
    return InvertHessian<1>(options, nr, h, g, pivots, block);
  case 2:
    return InvertHessian<2>(options, nr, h, g, pivots, block);
  default:
    return InvertHessian<0>(options, nr, h, g, pivots, block);
  }
}

void add(double* to, const double* from, int count)
{
  for (int k = 0; k < count; ++k) to[k] += from[k];
}

} // namespace

int eliminate(const model::RunOptions& options, NestWork& w, int level, int node, model::BlockWork& block)
{
  NestLevel& l = w.level[static_cast<std::size_t>(level)];
  const int own = l.own, above = l.above, chain = l.chain();
  double* const front = l.front.data() + static_cast<long>(node) * (chain * (chain + 1) / 2);
  double* const right = l.right.data() + static_cast<long>(node) * chain;
  double* const inverse = l.inverse.data() + static_cast<long>(node) * l.triangle();
  double* const step = l.step.data() + static_cast<long>(node) * own;
  double* const regression = l.regression.data() + static_cast<long>(node) * (own * above);
  for (int i = 0; i < own; ++i) {
    step[i] = right[above + i];
    for (int j = 0; j <= i; ++j) inverse[packed(i, j)] = front[packed(above + i, above + j)];
  }
  double pivots[most_effects];
  if (invert(options, own, inverse, step, pivots, block) != 0) return 1;
  l.logdet[static_cast<std::size_t>(node)] = log_determinant(own, pivots);
  for (int i = 0; i < own; ++i)
    for (int a = 0; a < above; ++a) {
      double t = 0.0;
      for (int k = 0; k < own; ++k) t -= inverse[packed(i, k)] * front[packed(above + k, a)];
      regression[i * above + a] = t;
    }
  if (above == 0) return 0;
  for (int i = 0; i < own; ++i) {
    const double* const row = front + packed(above + i, 0);
    const double* const b = regression + i * above;
    for (int a = 0, k = 0; a < above; ++a) {
      for (int c = 0; c <= a; ++c, ++k) front[k] += row[a] * b[c];
      right[a] += b[a] * right[above + i];
    }
  }
  // The rows of the ancestors come first, so what remains is the beginning of the front, in the order of the parent's.
  NestLevel& p = w.level[static_cast<std::size_t>(level) + 1];
  const int parent = l.nodes->parent[static_cast<std::size_t>(node)];
  add(p.front.data() + static_cast<long>(parent) * (above * (above + 1) / 2), front, above * (above + 1) / 2);
  add(p.right.data() + static_cast<long>(parent) * above, right, above);
  return 0;
}

double log_determinant(const NestWork& w, int nest, int level)
{
  constexpr double least = 1e-100, most = 1e100;
  const auto plain = [](double x) { return x > least && x < most; };
  double sum = 0.0, product = 1.0;
  for (std::size_t k = 0; k < w.level.size(); ++k) {
    const NestLevel& l = w.level[k];
    if (level >= 0 && static_cast<int>(k) != level) continue;
    const auto at = static_cast<std::size_t>(nest);
    for (auto v = static_cast<std::size_t>(l.nodes->first[at]); v < static_cast<std::size_t>(l.nodes->first[at + 1]);
         ++v) {
      if (l.own > 1) {
        sum += l.logdet[v];
        continue;
      }
      const double inverse = std::abs(l.inverse[v]);
      if (inverse == 0.0) continue;
      if (!plain(inverse)) {
        sum -= std::log(inverse);
        continue;
      }
      product *= inverse;
      if (!plain(product)) {
        sum -= std::log(product);
        product = 1.0;
      }
    }
  }
  return sum - std::log(product);
}

void clear_fronts(NestWork& w, int nest)
{
  for (std::size_t level = 1; level < w.level.size(); ++level) {
    NestLevel& l = w.level[level];
    const int chain = l.chain();
    for (int v = l.nodes->first[static_cast<std::size_t>(nest)]; v < l.nodes->first[static_cast<std::size_t>(nest) + 1];
         ++v) {
      double* const front = l.front.data() + static_cast<long>(v) * (chain * (chain + 1) / 2);
      double* const right = l.right.data() + static_cast<long>(v) * chain;
      std::fill_n(front, chain * (chain + 1) / 2, 0.0);
      std::fill_n(right, chain, 0.0);
      for (int i = 0; i < l.own; ++i) {
        front[packed(l.above + i, l.above + i)] = 1.0;
        right[l.above + i] = l.z[static_cast<std::size_t>(v * l.own + i)];
      }
    }
  }
}

void leaf_front(const ModelLists& n, NestWork& w, int node, const double* sums, long stride)
{
  NestLevel& leaf = w.level.front();
  const int chain = leaf.chain();
  const model::ModelPrograms& p = n.programs;
  double* const front = leaf.front.data() + static_cast<long>(node) * (chain * (chain + 1) / 2);
  double* const right = leaf.right.data() + static_cast<long>(node) * chain;
  // Blocks of rows of one level times blocks of columns of another: L_r' ll_uu L_c.
  int row_node = node;
  for (std::size_t r = 0; r < w.level.size(); ++r) {
    const NestLevel& rows = w.level[r];
    const double* const lr = factor_of(rows, row_node);
    for (int i = 0; i < rows.own; ++i) {
      double t = 0.0;
      for (int k = i; k < rows.own; ++k) t += lr[packed(k, i)] * sums[p.slope(rows.place + k) * stride];
      right[rows.place + i] = -t;
    }
    int column_node = row_node;
    for (std::size_t c = r; c < w.level.size(); ++c) {
      const NestLevel& columns = w.level[c];
      const double* const lc = factor_of(columns, column_node);
      for (int i = 0; i < rows.own; ++i)
        for (int j = 0; j < (r == c ? i + 1 : columns.own); ++j) {
          double t = 0.0;
          for (int k = i; k < rows.own; ++k) {
            double s = 0.0;
            for (int m = j; m < columns.own; ++m)
              s += sums[p.curve(packed(rows.place + k, columns.place + m)) * stride] * lc[packed(m, j)];
            t += lr[packed(k, i)] * s;
          }
          front[packed(rows.place + i, columns.place + j)] = -t;
        }
      column_node = columns.nodes->parent[static_cast<std::size_t>(column_node)];
    }
    row_node = rows.nodes->parent[static_cast<std::size_t>(row_node)];
  }
  for (int i = 0; i < leaf.own; ++i) {
    front[packed(leaf.place + i, leaf.place + i)] += 1.0;
    right[leaf.place + i] += leaf.z[static_cast<std::size_t>(node * leaf.own + i)];
  }
}

void solve(NestWork& w, int nest, std::vector<double> NestLevel::*vector)
{
  const auto k = static_cast<std::size_t>(nest);
  for (std::size_t level = 0; level + 1 < w.level.size(); ++level) {
    NestLevel& l = w.level[level];
    for (int v = l.nodes->first[k]; v < l.nodes->first[k + 1]; ++v) {
      const double* const y = (l.*vector).data() + static_cast<long>(v) * l.own;
      const double* const b = l.regression.data() + static_cast<long>(v) * (l.own * l.above);
      int node = v;
      for (std::size_t up = level + 1; up < w.level.size(); ++up) {
        node = w.level[up - 1].nodes->parent[static_cast<std::size_t>(node)];
        NestLevel& a = w.level[up];
        double* const to = (a.*vector).data() + static_cast<long>(node) * a.own;
        for (int i = 0; i < l.own; ++i)
          for (int j = 0; j < a.own; ++j) to[j] += b[i * l.above + a.place + j] * y[i];
      }
    }
  }
  for (std::size_t level = w.level.size(); level-- > 0;) {
    NestLevel& l = w.level[level];
    for (int v = l.nodes->first[k]; v < l.nodes->first[k + 1]; ++v) {
      double* const y = (l.*vector).data() + static_cast<long>(v) * l.own;
      const double* const inverse = l.inverse.data() + static_cast<long>(v) * l.triangle();
      const double* const b = l.regression.data() + static_cast<long>(v) * (l.own * l.above);
      double x[most_effects];
      for (int i = 0; i < l.own; ++i) {
        x[i] = 0.0;
        for (int j = 0; j < l.own; ++j) x[i] += inverse[packed(i, j)] * y[j];
      }
      int node = v;
      for (std::size_t up = level + 1; up < w.level.size(); ++up) {
        node = w.level[up - 1].nodes->parent[static_cast<std::size_t>(node)];
        const NestLevel& a = w.level[up];
        const double* const from = (a.*vector).data() + static_cast<long>(node) * a.own;
        for (int i = 0; i < l.own; ++i)
          for (int j = 0; j < a.own; ++j) x[i] += b[i * l.above + a.place + j] * from[j];
      }
      std::copy_n(x, l.own, y);
    }
  }
}

} // namespace torvale::modes
