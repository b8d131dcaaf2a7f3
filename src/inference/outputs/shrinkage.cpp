#include "inference/outputs/shrinkage.h"

#include "host/values/missing.h"

namespace torvale::inference {

using host::CellKind;
using host::missing;
using integration::Posterior;
using model::NX;
using model::REFFECT;

namespace {

struct Shares {
  double variance = missing, observed = missing, ratio = missing, information = missing;
};

// Effect e of the chains of a level's subjects.
Shares shares_of(const NX& n, std::size_t level, const Posterior& posterior, std::size_t e)
{
  const auto nr = static_cast<std::size_t>(posterior.nr);
  const auto each = [&](auto&& f) {
    for (const auto& subject : n.reff[level].SubInfo) {
      const int leaf = integration::known_leaf(n, posterior, level, subject.index);
      if (leaf < 0) continue;
      const std::size_t at = static_cast<std::size_t>(leaf) * nr + e,
                        own = static_cast<std::size_t>(leaf) * (nr * (nr + 1) / 2) + e * (e + 3) / 2;
      f(subject.weight, posterior.estimate[at] - posterior.mean[at], posterior.prior[own], posterior.covariance[own]);
    }
  };
  double count = 0.0, mean = 0.0, variance = 0.0, square = 0.0, kept = 0.0;
  bool prior = true;
  each([&](double weight, double deviation, double before, double after) {
    count += weight;
    mean += weight * deviation;
    variance += weight * before;
    kept += weight * after / before;
    prior = prior && before > 0.0;
  });
  if (!(count > 0.0)) return {};
  mean /= count;
  each([&](double weight, double deviation, double, double) {
    square += weight * (deviation - mean) * (deviation - mean);
  });
  Shares s;
  s.variance = variance / count;
  if (count > 1.0) s.observed = square / (count - 1.0);
  if (!prior) return s; // of nothing there is no share
  s.ratio = s.observed / s.variance;
  s.information = 1.0 - kept / count;
  return s;
}

} // namespace

void write_shrinkage(NX& n, const Posterior& posterior)
{
  host::Table table("Shrinkage", "Shrinkage of Random Effects",
                    {{"Subject", CellKind::text, "Subject", "", ""},
                     {"Effect", CellKind::text, "Effect", "", ""},
                     {"Variance", CellKind::number, "Variance", "D9.4", ""},
                     {"VarianceEB", CellKind::number, "Variance of Empirical Bayes Estimates", "D9.4", ""},
                     {"Ratio", CellKind::number, "Ratio", "D9.4", ""},
                     {"Information", CellKind::number, "1 - Posterior / Prior Variance", "D9.4", ""}});
  for (std::size_t level = n.reff.size(); level-- > 0;) {
    const REFFECT& reff = n.reff[level];
    for (std::size_t e = 0; e < reff.names.size(); ++e) {
      const Shares s = shares_of(n, level, posterior, static_cast<std::size_t>(reff.first_effect) + e);
      table.row({reff.subname, reff.names[e], s.variance, s.observed, s.ratio, s.information});
    }
  }
  n.host->tables().wobmth(std::move(table));
}

} // namespace torvale::inference
