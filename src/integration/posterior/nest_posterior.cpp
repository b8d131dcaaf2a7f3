// The posterior of nests. What posterior.h says of one block of effects holds for a nest with all its effects stacked.
// Along a chain H^-1 follows from the top down: a node's deviation is B times its ancestors' plus an independent rest
// with covariance S^-1 (regression and inverse of the elimination).

#include "integration/posterior/posterior_work.h"

#include "integration/nests/nest_batch.h"
#include "integration/nests/nest_moves.h"
#include "integration/subjects/integrator.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"
#include "modes/nest_leaves.h"
#include "modes/nest_search.h"

#include <algorithm>
#include <numeric>

namespace torvale::integration {

using model::NestLevel;
using modes::packed;

namespace {

class NestPosterior final : public PosteriorWork {
public:
  NestPosterior(const model::NX& n, model::TVLThreadCtx& ctx);

  int run(Posterior& out) override;

private:
  void cover_chains(int nest);
  void keep(int leaf, Posterior& out);

  static int first(const NestLevel& l, int nest) { return l.nodes->first[static_cast<std::size_t>(nest)]; }
  static int last(const NestLevel& l, int nest) { return l.nodes->first[static_cast<std::size_t>(nest) + 1]; }
  template <class F> void for_chain(int leaf, F&& f);

  const model::NX& n_;
  model::TVLThreadCtx& ctx_;
  model::NestWork& w_;
  const int np_, ne_;
  std::vector<std::vector<double>>
      cover_;                 // per level, of each node chain (chain + 1) / 2: the inverse Hessian by z along its chain
  std::vector<double> cross_; // ne x np rows of mode_stride columns: cross derivatives, summed over a leaf's records
  std::vector<double> scaled_; // ne x ne
};

NestPosterior::NestPosterior(const model::NX& n, model::TVLThreadCtx& ctx)
    : n_(n), ctx_(ctx), w_(ctx_.nests), np_(n.nparm), ne_(n.programs.ne), cover_(n.reff.size())
{
  const auto size = [](std::vector<double>& v, std::size_t count) { v.assign(count, 0.0); };
  for (std::size_t k = 0; k < cover_.size(); ++k) {
    std::size_t nodes = 1;
    for (const auto& batch : n.batch_nodes) nodes = std::max(nodes, batch[k].subject.size());
    const auto chain = static_cast<std::size_t>(n.reff[k].first_effect + n.reff[k].nr);
    size(cover_[k], nodes * (chain * (chain + 1) / 2));
  }
  size(cross_, static_cast<std::size_t>(ne_ * np_) * static_cast<std::size_t>(ctx_.batch.mode_stride));
  size(scaled_, static_cast<std::size_t>(ne_ * ne_));
}

// Calls f(level, its number, node) for a leaf and its ancestors.
template <class F> void NestPosterior::for_chain(int leaf, F&& f)
{
  int node = leaf;
  for (std::size_t k = 0; k < w_.level.size(); ++k) {
    f(w_.level[k], k, node);
    node = w_.level[k].nodes->parent[static_cast<std::size_t>(node)];
  }
}

int NestPosterior::run(Posterior& out)
{
  take_nests(n_, ctx_);
  if (const int rc = load_nest_priors(n_, ctx_); rc > 2) return rc;
  if (const int rc = modes::nest_search(n_, ctx_); rc > 2) return rc;
  int count = 0;
  for (int slot = 0; slot < ctx_.batch.slots; ++slot) {
    const int leaf = w_.leaf_of_slot[static_cast<std::size_t>(slot)];
    if (w_.failure[static_cast<std::size_t>(w_.nest_of_leaf[static_cast<std::size_t>(leaf)])] == 0)
      w_.columns[static_cast<std::size_t>(count++)] = slot;
  }
  std::fill(cross_.begin(), cross_.end(), 0.0);
  if (const int rc = modes::run_leaves(n_, ctx_, n_.programs.cross, count, cross_.data()); rc > 2) return rc;
  find_nest_moves(n_, ctx_, cross_.data());
  for (int nest = 0; nest < w_.nests; ++nest) {
    if (w_.failure[static_cast<std::size_t>(nest)] != 0) continue;
    cover_chains(nest);
    const NestLevel& leaves = w_.level.front();
    for (int v = first(leaves, nest); v < last(leaves, nest); ++v) keep(v, out);
  }
  return 0;
}

void NestPosterior::cover_chains(int nest)
{
  for (std::size_t k = w_.level.size(); k-- > 0;) {
    const NestLevel& l = w_.level[k];
    const int own = l.own, above = l.above, triangle = l.chain() * (l.chain() + 1) / 2, kept = above * (above + 1) / 2;
    for (int v = first(l, nest); v < last(l, nest); ++v) {
      double* const c = cover_[k].data() + static_cast<long>(v) * triangle;
      const double* const b = l.regression.data() + static_cast<long>(v) * (own * above);
      const double* const inverse = l.inverse.data() + static_cast<long>(v) * l.triangle();
      if (above > 0) {
        const long parent = l.nodes->parent[static_cast<std::size_t>(v)];
        std::copy_n(cover_[k + 1].data() + parent * kept, kept, c);
      }
      for (int i = 0; i < own; ++i) {
        for (int a = 0; a < above; ++a) {
          double t = 0.0;
          for (int e = 0; e < above; ++e) t += b[i * above + e] * c[packed(e, a)];
          c[packed(above + i, a)] = t;
        }
        for (int m = 0; m <= i; ++m) {
          double t = inverse[packed(i, m)];
          for (int a = 0; a < above; ++a) t += c[packed(above + i, a)] * b[m * above + a];
          c[packed(above + i, above + m)] = t;
        }
      }
    }
  }
}

// The effects along a leaf's chain, their covariance L cover L' with L block diagonal, and their derivatives.
void NestPosterior::keep(int leaf, Posterior& out)
{
  const auto subject = static_cast<std::size_t>(w_.level.front().nodes->subject[static_cast<std::size_t>(leaf)]);
  const auto ne = static_cast<std::size_t>(ne_), np = static_cast<std::size_t>(np_);
  double* const u = out.estimate.data() + subject * ne;
  double* const v = out.covariance.data() + subject * (ne * (ne + 1) / 2);
  double* const d = out.derivative.data() + subject * ne * np;
  double* const m = out.mean.data() + subject * ne;
  double* const mean_by = out.mean_by.data() + subject * ne * np;
  double* const prior = out.prior.data() + subject * (ne * (ne + 1) / 2);
  std::fill_n(prior, ne * (ne + 1) / 2, 0.0);
  const double* const cover = cover_.front().data() + static_cast<long>(leaf) * (ne_ * (ne_ + 1) / 2);
  for_chain(leaf, [&](const NestLevel& l, std::size_t k, int node) {
    const double* const factor = modes::factor_of(l, node);
    std::copy_n(l.u.data() + static_cast<long>(node) * l.own, l.own, u + l.place);
    for (int i = 0; i < l.own; ++i)
      for (int j = 0; j < np_; ++j)
        d[(l.place + i) * np_ + j] = l.move[static_cast<std::size_t>(move_place(l, node, i, j, np_))];
    const model::REFFECT& reff = n_.reff[k];
    std::copy_n(l.mean.data() + static_cast<long>(l.prior_of(node)) * l.own, l.own, m + l.place);
    std::copy_n(l.arguments.data() + static_cast<long>(l.prior_of(node)) * reff.setup.places +
                    reff.argument_derivative(0, 0, np_),
                l.own * np_, mean_by + l.place * np_);
    for (int i = 0; i < l.own; ++i) {
      const double* const row = factor + packed(i, 0);
      for (int c = 0; c <= i; ++c)
        prior[packed(l.place + i, l.place + c)] = std::inner_product(row, row + c + 1, factor + packed(c, 0), 0.0);
      for (int e = 0; e < ne_; ++e) {
        double t = 0.0;
        for (int c = 0; c <= i; ++c) t += row[c] * cover[packed(l.place + c, e)];
        scaled_[static_cast<std::size_t>((l.place + i) * ne_ + e)] = t;
      }
    }
  });
  for_chain(leaf, [&](const NestLevel& l, std::size_t, int node) {
    const double* const factor = modes::factor_of(l, node);
    for (int i = 0; i < l.own; ++i)
      for (int e = l.place + i; e < ne_; ++e) {
        double t = 0.0;
        for (int c = 0; c <= i; ++c)
          t += factor[packed(i, c)] * scaled_[static_cast<std::size_t>(e * ne_ + l.place + c)];
        v[packed(e, l.place + i)] = t;
      }
  });
  out.known[subject] = 1;
}

} // namespace

std::unique_ptr<PosteriorWork> nest_posterior(const model::NX& n, model::TVLThreadCtx& ctx)
{
  return std::make_unique<NestPosterior>(n, ctx);
}

} // namespace torvale::integration
