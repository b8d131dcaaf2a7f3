#pragma once
// How far chains can be trusted: rank-normalized split R-hat, bulk and tail effective sample sizes, Monte Carlo errors.
// (A. Vehtari, A. Gelman, D. Simpson, B. Carpenter, P.-C. Buerkner, Rank-normalization, folding, and localization: an
// improved R-hat for assessing convergence of MCMC, Bayesian Analysis 16, 2021, 667-718; C. J. Geyer's initial monotone
// sequence.)

#include <span>
#include <vector>

namespace torvale::sampling {

// The draws of one quantity: chains of equal length, one after the other.
struct Chains {
  std::span<const double> draws;
  int chains = 1;
  long length() const { return chains > 0 ? static_cast<long>(draws.size()) / chains : 0; }
  std::span<const double> chain(int c) const
  {
    return draws.subspan(static_cast<std::size_t>(c * length()), static_cast<std::size_t>(length()));
  }
};

struct Diagnostics {
  double mean, sd;           // over all draws
  double quantile[3];        // 2.5, 50, 97.5 %, linear between order statistics
  double rhat;               // the larger of the rank-normalized split and folded-split values
  double ess_bulk, ess_tail; // tail: the lesser of those of the 5 and 95 % quantiles
  double mcse;               // of the mean
};

// All of them; missing where there are fewer than four draws a chain, or where draws are not finite. Draws that are all
// equal have R-hat 1 and as many effective draws as there are.
Diagnostics diagnose(const Chains& chains);

// Correlation of draws that lie some iterations apart, shared by all chains; at lags from 0 to where it has faded (or a
// quarter of the chains), about 60 of them at
// most. Empty for chains of fewer than 4 draws, and of draws that are all equal or not finite.
struct Correlogram {
  std::vector<double> lag, correlation;
};
Correlogram correlogram(const Chains& chains);

// effective_size: m n / tau for m chains of n draws, tau from Geyer's initial monotone sequence of the autocorrelations
// that all chains share. Draws as they are: no splitting, no ranks.
double effective_size(const Chains& chains);

} // namespace torvale::sampling
