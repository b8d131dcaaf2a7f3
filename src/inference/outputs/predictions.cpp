#include "inference/outputs/predictions.h"

#include "evaluation/program_faults.h"
#include "host/data/libraries.h"
#include "host/messages/names/statements.h"
#include "host/values/missing.h"
#include "inference/outputs/record_loop.h"
#include "inference/tables/standard_errors.h"
#include "integration/subjects/evaluation_parts.h"
#include "matrix/packed_kernels.h"
#include "matrix/quadratic_forms.h"
#include "probability/f.h"
#include "probability/quantiles.h"

#include <algorithm>
#include <cmath>

namespace torvale::inference {

using host::missing;
using integration::Posterior;
using model::NX;
using model::PredictStatement;

namespace {

constexpr int most_faults_sought = 200; // missing values that are looked at for a fault of the program

class PredictionRecords {
public:
  PredictionRecords(NX& n, const PredictStatement& statement, const Posterior& posterior, PredictionColumns& out)
      : n_(n), statement_(statement), posterior_(posterior), out_(out), np_(static_cast<std::size_t>(n.nparm)),
        nr_(static_cast<std::size_t>(posterior.nr)), gradient_(n.ctx.size())
  {
    const auto rows = static_cast<std::size_t>(n.store->nobs);
    for (auto* column : {&out.value, &out.error, &out.t, &out.p, &out.lower, &out.upper}) column->assign(rows, missing);
    if (statement.derivatives) out.derivative.assign(rows * (np_ + nr_), missing);
    out.undetermined.assign(rows, 0);
    out.id.assign(rows * n.idsym.s.size(), missing);
    out.alpha = statement.alpha >= 0 ? statement.alpha : n.alpha;
    out.df = statement.df >= 0 ? statement.df : n.dfe;
    probability::zqt(1.0 - out.alpha / 2.0, out.df, &quantile_);
    for (auto& g : gradient_) g.resize(2 * np_ + nr_);
  }

  // One lane: its value, error and limits, at the record's place in the file.
  void keep(int context, const engine::Frame& frame, int lane, std::int64_t row, std::size_t subject)
  {
    if (nr_ > 0 && posterior_.known[subject] == 0) return;
    const auto at = static_cast<std::size_t>(n_.store->group_row(row));
    const double value = frame.output(0)[lane];
    out_.value[at] = value;
    const std::size_t ids = n_.idsym.s.size(), first_id = statement_.list.size() + 1;
    for (std::size_t k = 0; k < ids; ++k) out_.id[at * ids + k] = frame.output(static_cast<int>(first_id + k))[lane];
    double* const g = gradient_[static_cast<std::size_t>(context)].data();
    std::fill_n(g, np_ + nr_, 0.0);
    bool whole = true;
    for (std::size_t k = 0; k < statement_.list.size(); ++k) {
      const double d = frame.output(static_cast<int>(k) + 1)[lane];
      g[statement_.list[k]] = d;
      whole = whole && !std::isnan(d);
    }
    if (statement_.derivatives)
      std::copy_n(g, np_ + nr_, out_.derivative.begin() + static_cast<std::ptrdiff_t>(at * (np_ + nr_)));
    if (!whole || std::isnan(value) || (n_.covmat.empty() && np_ > 0)) return;
    const double variance = squared_error(g, g + np_ + nr_, subject);
    if (!(variance > 0.0) || !std::isfinite(variance)) return;
    if (moves_along_flat(n_, g + np_ + nr_)) {
      out_.undetermined[at] = 1;
      return;
    }
    const double error = standard_error(n_, g + np_ + nr_, variance), t = value / error;
    if (std::isnan(error)) return;
    out_.error[at] = error;
    out_.t[at] = t;
    if (const double p = probability::zprbf(t * t, 1.0, out_.df); p != -1.0) out_.p[at] = p;
    if (std::isnan(quantile_)) return;
    out_.lower[at] = value - quantile_ * error;
    out_.upper[at] = value + quantile_ * error;
  }

private:
  double squared_error(const double* g, double* h, std::size_t subject) const
  {
    std::copy_n(g, np_, h);
    double own = 0.0;
    if (nr_ > 0) {
      const double* const d = posterior_.derivative.data() + subject * nr_ * np_;
      for (std::size_t e = 0; e < nr_; ++e)
        for (std::size_t j = 0; j < np_; ++j) h[j] += g[np_ + e] * d[e * np_ + j];
      own = matrix::zmxq1(g + np_, posterior_.covariance.data() + subject * (nr_ * (nr_ + 1) / 2), posterior_.nr, 1);
    }
    return own + matrix::zmxq1(h, n_.covmat.data(), n_.nparm, 1);
  }

  NX& n_;
  const PredictStatement& statement_;
  const Posterior& posterior_;
  PredictionColumns& out_;
  const std::size_t np_, nr_;
  double quantile_ = missing;
  std::vector<std::vector<double>> gradient_; // per context: np and nr derivatives of a record, then h
};

// The first record in file order whose value is missing through a fault of the program, with message 70.
void report_fault(NX& n, const PredictStatement& statement, const Posterior& posterior, const PredictionColumns& out)
{
  engine::Frame frame(*n.gcmp, n.bound);
  frame.set_parameters(n.parm.data());
  const auto nr = static_cast<std::size_t>(posterior.nr);
  int sought = 0;
  for (std::size_t at = 0; at < out.value.size() && sought < most_faults_sought; ++at) {
    if (!std::isnan(out.value[at])) continue;
    const std::int64_t row = n.store->row_of_group(static_cast<std::int64_t>(at));
    std::vector<double> effects(std::max<std::size_t>(nr, 1), 0.0);
    if (nr > 0) {
      const auto& subjects = n.leaf().SubInfo;
      const auto after = std::upper_bound(subjects.begin(), subjects.end(), row,
                                          [](std::int64_t r, const auto& s) { return r < s.first_row; });
      const auto subject = static_cast<std::size_t>(after - subjects.begin()) - 1;
      if (posterior.known[subject] == 0) continue;
      std::copy_n(posterior.estimate.begin() + static_cast<std::ptrdiff_t>(subject * nr), nr, effects.begin());
    }
    ++sought;
    frame.set_range(row, 1);
    frame.set_points(effects.data(), 1, 1);
    std::vector<engine::Fault> faults;
    int nerror = 0, nmissgen = 0;
    frame.run_checked(*statement.program, row, 0, faults, nerror, nmissgen);
    if (faults.empty()) continue;
    message::prediction_not_evaluated words{.observation = evaluation::observation_number(n, row)};
    auto place = evaluation::place_of(n, row);
    place.statement = "PREDICT";
    evaluation::words_of(n, faults.front()).add_to(words, place);
    n.host->log().xpmlog(words, place);
    n.raise(4);
    return;
  }
}

// Predictions without an error because the data do not determine them.
void report_undetermined(NX& n, const PredictStatement& statement, const PredictionColumns& out)
{
  const auto first = std::find(out.undetermined.begin(), out.undetermined.end(), 1);
  if (first == out.undetermined.end() || statement.output == nullptr) return;
  n.host->log().xpmlog(message::prediction_not_determined{
      .data = statement.output->name(),
      .count = std::count(out.undetermined.begin(), out.undetermined.end(), 1),
      .observation = evaluation::observation_number(
          n, n.store->row_of_group(first - out.undetermined.begin()))});
}

} // namespace

int predict(NX& n, const PredictStatement& statement, const Posterior& posterior, PredictionColumns& out)
{
  PredictionRecords records(n, statement, posterior, out);
  const auto keep = [&](int context, const engine::Frame& frame, int lane, std::int64_t row, std::size_t subject) {
    records.keep(context, frame, lane, row, subject);
  };
  const auto nr = static_cast<std::size_t>(posterior.nr);
  if (const int rc = RecordLoop(n, *statement.program, posterior.estimate, nr, keep).run(); rc > 2) return rc;
  report_fault(n, statement, posterior, out);
  report_undetermined(n, statement, out);
  return 0;
}

} // namespace torvale::inference
