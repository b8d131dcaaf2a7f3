#include "inference/predictions.h"

#include "evaluation/program_faults.h"
#include "host/libraries.h"
#include "host/message_names.h"
#include "host/missing.h"
#include "inference/standard_errors.h"
#include "integration/evaluation_parts.h"
#include "matrix/packed_kernels.h"
#include "matrix/quadratic_forms.h"
#include "parallel/worker_pool.h"
#include "probability/f.h"
#include "probability/quantiles.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <optional>

namespace torvale::inference {

using host::missing;
using integration::Posterior;
using model::NX;
using model::PredictStatement;

namespace {

constexpr std::int64_t chunk_rows = 4096; // rows that a worker takes at once: whole subjects
constexpr int most_faults_sought = 200;   // missing values that are looked at for a fault of the program

// Rows first..last-1 of the store, of subjects first_subject..last_subject-1.
struct Chunk {
  std::int64_t first = 0, last = 0;
  std::size_t first_subject = 0, last_subject = 0;
};

std::vector<Chunk> deal_chunks(const NX& n)
{
  std::vector<Chunk> chunks;
  const std::int64_t rows = n.store->nobs;
  if (n.nreff() == 0) {
    for (std::int64_t first = 0; first < rows; first += chunk_rows)
      chunks.push_back({first, std::min(first + chunk_rows, rows), 0, 0});
    return chunks;
  }
  const auto& subjects = n.leaf().SubInfo;
  Chunk chunk;
  for (std::size_t s = 0; s < subjects.size(); ++s) {
    const std::int64_t end = subjects[s].first_row + subjects[s].SubCount;
    if (s > chunk.first_subject && end - chunk.first > chunk_rows) {
      chunks.push_back(chunk);
      chunk = {subjects[s].first_row, end, s, s};
    }
    chunk.last = end;
    chunk.last_subject = s + 1;
  }
  if (chunk.last > chunk.first) chunks.push_back(chunk);
  return chunks;
}

class PredictionLoop {
public:
  PredictionLoop(NX& n, const PredictStatement& statement, const Posterior& posterior, PredictionColumns& out)
      : n_(n), statement_(statement), posterior_(posterior), out_(out), chunks_(deal_chunks(n)),
        np_(static_cast<std::size_t>(n.nparm)), nr_(static_cast<std::size_t>(posterior.nr)),
        keeps_(engine::sequential(*statement.program)), work_(n.ctx.size())
  {
    const auto rows = static_cast<std::size_t>(n.store->nobs);
    for (auto* column : {&out.value, &out.error, &out.t, &out.p, &out.lower, &out.upper}) column->assign(rows, missing);
    if (statement.derivatives) out.derivative.assign(rows * (np_ + nr_), missing);
    out.undetermined.assign(rows, 0);
    out.id.assign(rows * n.idsym.s.size(), missing);
    out.alpha = statement.alpha >= 0 ? statement.alpha : n.alpha;
    out.df = statement.df >= 0 ? statement.df : n.dfe;
    probability::zqt(1.0 - out.alpha / 2.0, out.df, &quantile_);
    for (Work& w : work_) w.gradient.resize(2 * np_ + nr_);
    for (auto& ctx : n.ctx) ctx->frame->set_parameters(n.parm.data());
  }

  int run()
  {
    const auto items = static_cast<long>(chunks_.size());
    if (n_.workers != nullptr && !(keeps_ && n_.nreff() == 0))
      n_.workers->run(items, *this);
    else
      for (long item = 0; item < items; ++item) (*this)(0, item);
    return ended_.load();
  }

  void operator()(int context, long item)
  {
    if (ended_.load(std::memory_order_relaxed) != 0) return;
    if (const int rc = chunk(context, chunks_[static_cast<std::size_t>(item)]); rc > 2)
      ended_.store(rc, std::memory_order_relaxed);
  }

private:
  struct Work {
    std::vector<double> gradient; // np and nr derivatives of a record, then h
    std::vector<double> effects;  // nr rows: estimates of the chunk's subjects
    std::vector<std::int32_t> rows, points, state;
  };

  int chunk(int context, const Chunk& c)
  {
    Work& w = work_[static_cast<std::size_t>(context)];
    engine::Frame& frame = *n_.ctx[static_cast<std::size_t>(context)]->frame;
    frame.set_range(c.first, c.last - c.first);
    const std::size_t subjects = c.last_subject - c.first_subject, points = std::max<std::size_t>(subjects, 1);
    w.effects.assign(std::max<std::size_t>(nr_, 1) * points, 0.0);
    for (std::size_t s = 0; s < subjects; ++s)
      for (std::size_t e = 0; e < nr_; ++e)
        w.effects[e * points + s] = posterior_.estimate[(c.first_subject + s) * nr_ + e];
    frame.set_points(w.effects.data(), static_cast<int>(points), static_cast<int>(points));
    list_points(w, c);
    const auto count = static_cast<int>(c.last - c.first);
    const int step = keeps_ ? 1 : engine::max_lanes;
    for (int at = 0; at < count; at += step) {
      const int lanes = std::min(step, count - at);
      if (keeps_ && starts_anew(c.first + at)) frame.reset_state(*statement_.program, 1);
      const std::int32_t* const state = keeps_ ? w.state.data() : nullptr;
      const int rc = frame.run(*statement_.program, {lanes, w.rows.data() + at, w.points.data() + at, state});
      if (rc > 2) return rc;
      for (int j = 0; j < lanes; ++j)
        keep(w, frame, j, c.first + at + j,
             c.first_subject + static_cast<std::size_t>(w.points[static_cast<std::size_t>(at + j)]));
    }
    return 0;
  }

  bool starts_anew(std::int64_t row) const
  {
    return row == 0 || (n_.nreff() > 0 && n_.store->subject_start[static_cast<std::size_t>(row)] == row);
  }

  void list_points(Work& w, const Chunk& c) const
  {
    const auto count = static_cast<std::size_t>(c.last - c.first);
    w.rows.resize(count);
    w.points.assign(count, 0);
    w.state.assign(1, 0);
    for (std::size_t k = 0; k < count; ++k)
      w.rows[k] = static_cast<std::int32_t>(c.first + static_cast<std::int64_t>(k));
    for (std::size_t s = c.first_subject; s < c.last_subject; ++s) {
      const auto& subject = n_.leaf().SubInfo[s];
      std::fill_n(w.points.begin() + (subject.first_row - c.first), subject.SubCount,
                  static_cast<std::int32_t>(s - c.first_subject));
    }
  }

  // One lane: its value, error and limits, at the record's place in the file.
  void keep(Work& w, const engine::Frame& frame, int lane, std::int64_t row, std::size_t subject)
  {
    if (nr_ > 0 && posterior_.known[subject] == 0) return;
    const auto at = static_cast<std::size_t>(n_.store->group_row[static_cast<std::size_t>(row)]);
    const double value = frame.output(0)[lane];
    out_.value[at] = value;
    const std::size_t ids = n_.idsym.s.size(), first_id = statement_.list.size() + 1;
    for (std::size_t k = 0; k < ids; ++k) out_.id[at * ids + k] = frame.output(static_cast<int>(first_id + k))[lane];
    double* const g = w.gradient.data();
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
  const std::vector<Chunk> chunks_;
  const std::size_t np_, nr_;
  const bool keeps_;
  double quantile_ = missing;
  std::vector<Work> work_;
  std::atomic<int> ended_{0};
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
    const std::int64_t row = n.store->row_of_group[at];
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
          n, n.store->row_of_group[static_cast<std::size_t>(first - out.undetermined.begin())])});
}

} // namespace

int predict(NX& n, const PredictStatement& statement, const Posterior& posterior, PredictionColumns& out)
{
  PredictionLoop loop(n, statement, posterior, out);
  if (const int rc = loop.run(); rc > 2) return rc;
  report_fault(n, statement, posterior, out);
  report_undetermined(n, statement, out);
  return 0;
}

} // namespace torvale::inference
