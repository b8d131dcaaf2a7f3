#include "host/values/missing.h"
#include "inference/outputs/conditional_residuals.h"
#include "inference/outputs/fitted_output.h"
#include "inference/outputs/record_loop.h"
#include "inference/outputs/response_moments.h"
#include "inference/tables/standard_errors.h"
#include "matrix/packed.h"
#include "matrix/quadratic_forms.h"
#include "model/subject_names.h"

#include <algorithm>
#include <cmath>

namespace torvale::inference {

using host::missing;
using integration::Posterior;
using model::BadCause;
using model::NX;

namespace {

// A number between 0 and 1, the ends left out, of a seed and a place (the finalizer of a 64-bit mixer: Steele, Lea and
// Flood, OOPSLA 2014).
double uniform_at(long seed, std::int64_t place)
{
  std::uint64_t x = static_cast<std::uint64_t>(seed) * 0x9e3779b97f4a7c15U + static_cast<std::uint64_t>(place);
  for (int round = 0; round < 2; ++round) {
    x += 0x9e3779b97f4a7c15U;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9U;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebU;
    x ^= x >> 31;
  }
  return (static_cast<double>(x >> 12) + 0.5) / 4503599627370496.0;
}

class FittedLoop {
public:
  FittedLoop(NX& n, const Posterior& posterior, FittedRecords& out)
      : n_(n), posterior_(posterior), out_(out), np_(static_cast<std::size_t>(n.nparm)),
        nr_(static_cast<std::size_t>(posterior.nr)), arguments_(response_arguments(n.disttype)), gradient_(n.ctx.size())
  {
    const auto rows = static_cast<std::size_t>(n.store->nobs);
    for (auto* v : {&out.response, &out.population, &out.population_error, &out.individual, &out.individual_error,
                    &out.residual, &out.pearson, &out.conditional, &out.quantile})
      v->assign(rows, missing);
    for (auto& g : gradient_) g.resize(2 * np_ + nr_);
    if (normal()) {
      slopes_.assign(rows * nr_, missing);
      variance_.assign(rows, missing);
    }
  }

  int run()
  {
    const auto at_estimates = [this](int context, const engine::Frame& frame, int lane, std::int64_t row,
                                     std::size_t subject) { near(context, frame, lane, row, subject); };
    const auto at_means = [this](int context, const engine::Frame& frame, int lane, std::int64_t row,
                                 std::size_t subject) { far(context, frame, lane, row, subject); };
    const engine::Program& program = *n_.fitted.program;
    if (const int rc = RecordLoop(n_, program, posterior_.estimate, nr_, at_estimates).run(); rc > 2) return rc;
    if (nr_ == 0) return 0;
    if (const int rc = RecordLoop(n_, program, posterior_.mean, nr_, at_means).run(); rc > 2) return rc;
    if (normal()) decorrelate();
    return 0;
  }

private:
  bool normal() const { return n_.disttype == 0 && nr_ > 0; }
  std::size_t place_of(std::int64_t row) const { return static_cast<std::size_t>(n_.store->group_row(row)); }
  bool used(std::int64_t row, std::size_t subject) const
  {
    return n_.store->badobs[static_cast<std::size_t>(row)] == BadCause::none &&
           (nr_ == 0 || posterior_.known[subject] != 0);
  }

  // The mean of the response in a lane, with its derivatives by parameters and effects in g.
  ResponseMoments moments(const engine::Frame& frame, int lane, double* a, double* g) const
  {
    for (int k = 0; k < arguments_; ++k) a[k] = frame.output(1 + k)[lane];
    const ResponseMoments m = response_moments(n_.disttype, a);
    std::fill_n(g, np_ + nr_, 0.0);
    const auto& der = n_.fitted.der;
    for (std::size_t k = 0; k < der.der.s.size(); ++k)
      g[der.wrtindex[k]] += m.slope[der.objindex[k]] * frame.output(1 + arguments_ + static_cast<int>(k))[lane];
    return m;
  }

  // The error of a mean with the derivatives g when the effects follow the parameters as `by` says and have the
  // covariance v besides (null: none).
  double error(double* g, const double* by, const double* v) const
  {
    if (np_ > 0 && n_.covmat.empty()) return missing;
    double* const h = g + np_ + nr_;
    std::copy_n(g, np_, h);
    for (std::size_t e = 0; e < nr_; ++e)
      for (std::size_t j = 0; j < np_; ++j) h[j] += g[np_ + e] * by[e * np_ + j];
    double square = np_ > 0 ? matrix::zmxq1(h, n_.covmat.data(), n_.nparm, 1) : 0.0;
    if (v != nullptr) square += matrix::zmxq1(g + np_, v, posterior_.nr, 1);
    return standard_error(n_, h, square);
  }

  // At the estimates of the effects.
  void near(int context, const engine::Frame& frame, int lane, std::int64_t row, std::size_t subject)
  {
    const std::size_t at = place_of(row);
    const double y = frame.output(0)[lane];
    out_.response[at] = y;
    if (!used(row, subject)) return;
    double a[most_response_arguments];
    double* const g = gradient_[static_cast<std::size_t>(context)].data();
    const ResponseMoments m = moments(frame, lane, a, g);
    (nr_ > 0 ? out_.individual : out_.population)[at] = m.mean;
    (nr_ > 0 ? out_.individual_error : out_.population_error)[at] =
        error(g, posterior_.derivative.data() + subject * nr_ * np_,
              nr_ > 0 ? posterior_.covariance.data() + subject * (nr_ * (nr_ + 1) / 2) : nullptr);
    out_.residual[at] = y - m.mean;
    if (m.variance > 0) out_.pearson[at] = (y - m.mean) / std::sqrt(m.variance);
    // By the place in the group: a group has the same residuals as its rows alone.
    out_.quantile[at] = quantile_residual(n_.disttype, y, a, uniform_at(n_.seed, static_cast<std::int64_t>(at) + 1));
    if (!normal()) return;
    variance_[at] = m.variance;
    std::copy_n(g + np_, nr_, slopes_.begin() + static_cast<std::ptrdiff_t>(at * nr_));
  }

  // At their means.
  void far(int context, const engine::Frame& frame, int lane, std::int64_t row, std::size_t subject)
  {
    if (!used(row, subject)) return;
    const std::size_t at = place_of(row);
    double a[most_response_arguments];
    double* const g = gradient_[static_cast<std::size_t>(context)].data();
    out_.population[at] = moments(frame, lane, a, g).mean;
    out_.population_error[at] = error(g, posterior_.mean_by.data() + subject * nr_ * np_, nullptr);
  }

  // --- residuals of the linearized model ---

  void decorrelate()
  {
    std::vector<std::size_t> leaf_of_row(static_cast<std::size_t>(n_.store->nobs), 0);
    const auto& leaves = n_.leaf().SubInfo;
    for (std::size_t s = 0; s < leaves.size(); ++s)
      std::fill_n(leaf_of_row.begin() + leaves[s].first_row, leaves[s].SubCount, s);
    for (const auto& unit : n_.outer().SubInfo) {
      std::vector<std::int64_t> rows;
      for (std::int64_t row = unit.first_row; row < unit.first_row + unit.SubCount; ++row)
        if (used(row, leaf_of_row[static_cast<std::size_t>(row)])) rows.push_back(row);
      std::sort(rows.begin(), rows.end(), [&](auto a, auto b) { return place_of(a) < place_of(b); });
      if (!rows.empty()) decorrelate_unit(rows, leaf_of_row);
    }
  }

  // Records of an outermost subject in file order. Its effects: those of the chains of its leaves, each once.
  void decorrelate_unit(const std::vector<std::int64_t>& rows, const std::vector<std::size_t>& leaf_of_row)
  {
    std::vector<std::vector<std::size_t>> places; // per known leaf of the unit: of its chain
    std::vector<std::size_t> first_of(n_.reff.size()), leaf_number;
    std::vector<int> last(n_.reff.size(), -1);
    std::size_t count = 0;
    auto order = rows;
    std::sort(order.begin(), order.end()); // leaves in the order of the index
    std::vector<std::size_t> leaves;
    for (const std::int64_t row : order) {
      const std::size_t leaf = leaf_of_row[static_cast<std::size_t>(row)];
      if (!leaves.empty() && leaves.back() == leaf) continue;
      leaves.push_back(leaf);
      places.emplace_back(nr_);
      auto subject = static_cast<int>(leaf);
      for (std::size_t k = 0; k < n_.reff.size(); ++k) {
        const model::REFFECT& reff = n_.reff[k];
        if (last[k] != subject) {
          last[k] = subject;
          first_of[k] = count;
          count += static_cast<std::size_t>(reff.nr);
        }
        for (int e = 0; e < reff.nr; ++e)
          places.back()[static_cast<std::size_t>(reff.first_effect + e)] = first_of[k] + static_cast<std::size_t>(e);
        subject = reff.SubInfo[static_cast<std::size_t>(subject)].parent;
      }
    }
    std::vector<double> g(count * count, 0.0);
    for (std::size_t k = 0; k < leaves.size(); ++k)
      for (std::size_t i = 0; i < nr_; ++i)
        for (std::size_t j = 0; j < nr_; ++j)
          g[places[k][i] * count + places[k][j]] =
              posterior_.prior[leaves[k] * (nr_ * (nr_ + 1) / 2) + static_cast<std::size_t>(matrix::packed_index(
                                                                       static_cast<long>(i), static_cast<long>(j)))];
    ConditionalResiduals residuals(count, std::move(g));
    for (const std::int64_t row : rows) {
      const std::size_t at = place_of(row), leaf = leaf_of_row[static_cast<std::size_t>(row)];
      const auto number =
          static_cast<std::size_t>(std::lower_bound(leaves.begin(), leaves.end(), leaf) - leaves.begin());
      const double* const z = slopes_.data() + at * nr_;
      double e = out_.residual[at];
      for (std::size_t k = 0; k < nr_; ++k)
        e += z[k] * (posterior_.estimate[leaf * nr_ + k] - posterior_.mean[leaf * nr_ + k]);
      out_.conditional[at] = residuals.add(e, places[number], z, variance_[at]);
    }
  }

  NX& n_;
  const Posterior& posterior_;
  FittedRecords& out_;
  const std::size_t np_, nr_;
  const int arguments_;
  std::vector<std::vector<double>> gradient_; // per context: np and nr derivatives, then h
  std::vector<double> slopes_, variance_;     // per record: of the mean by the effects, and of the response
};

} // namespace

int find_fitted_records(NX& n, const Posterior& posterior, FittedRecords& out)
{
  return FittedLoop(n, posterior, out).run();
}

} // namespace torvale::inference
