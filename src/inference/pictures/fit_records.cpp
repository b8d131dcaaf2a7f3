#include "inference/pictures/fit_records.h"

#include "engine/kernels/counter_random.h"
#include "host/values/missing.h"
#include "inference/outputs/response_moments.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace torvale::inference {

using host::missing;
using model::BadCause;
using model::NX;

namespace {

// The program that yields the response and the arguments of the MODEL distribution, by the names that the MODEL
// statement gives them. It is made at first use, since most runs never look at single records.
const engine::Program* records_program(NX& n)
{
  if (n.programs.records != nullptr) return n.programs.records;
  std::vector<engine::CMPSYM*> outputs = {n.depsym};
  for (int k = 1; k <= response_arguments(n.disttype); ++k)
    outputs.push_back(engine::cmpsyms(*n.gcmp, "_arg" + std::to_string(k)));
  if (std::find(outputs.begin(), outputs.end(), nullptr) != outputs.end()) return nullptr;
  n.programs.records = engine::cmpspec(*n.gcmp, outputs);
  n.bound = engine::cmpbind(*n.gcmp, n.store->view);
  return n.programs.records;
}

// One walk over the subjects: the program at the means and at the modes of each subject's effects.
class RecordWalk {
public:
  RecordWalk(NX& n, const engine::Program& program, FitRecords& out)
      : n_(n), program_(program), out_(out), frame_(*n.gcmp, n.bound), sequential_(engine::sequential(program))
  {
    frame_.set_parameters(n.parm.data());
    const auto& store = *n.store;
    place_.assign(static_cast<std::size_t>(store.nobs), -1);
    std::size_t count = 0;
    for (std::int64_t at = 0; at < store.nobs; ++at) {
      const auto row = static_cast<std::size_t>(store.row_of_group(at));
      if (store.badobs[row] != BadCause::none) continue;
      place_[row] = static_cast<std::int64_t>(count++);
      out_.row.push_back(static_cast<std::int64_t>(n.rows.begin) + at);
    }
    for (auto* column : {&out_.response, &out_.population, &out_.residual, &out_.pearson, &out_.quantile})
      column->assign(count, missing);
    out_.subject.assign(count, -1);
    out_.arguments.assign(count * static_cast<std::size_t>(response_arguments(n.disttype)), missing);
    if (n.nreff() > 0) out_.individual.assign(count, missing);
  }

  // Records of store rows first..last of one subject; effects: nr means, then nr modes.
  int subject(std::int32_t number, std::int64_t first, std::int64_t last, const std::vector<double>& effects, int nr)
  {
    const bool modes = nr > 0;
    const int points = modes ? 2 : 1;
    // Effect e at point p stands at e * stride + p.
    values_.assign(static_cast<std::size_t>(std::max(1, nr)) * 2, 0.0);
    for (int e = 0; e < nr; ++e)
      for (int p = 0; p < 2; ++p)
        values_[static_cast<std::size_t>(2 * e + p)] = effects[static_cast<std::size_t>(p * nr + e)];
    frame_.set_range(first, last - first + 1);
    frame_.set_points(values_.data(), points, 2);
    if (sequential_) frame_.reset_state(program_, points);
    const std::int64_t step = sequential_ ? 1 : engine::max_lanes / 2;
    for (std::int64_t from = first; from <= last; from += step)
      if (const int rc = tile(number, from, std::min(last, from + step - 1), points); rc != 0) return rc;
    return 0;
  }

private:
  int tile(std::int32_t number, std::int64_t first, std::int64_t last, int points)
  {
    observation_.clear();
    point_.clear();
    for (std::int64_t row = first; row <= last; ++row) {
      if (!sequential_ && place_[static_cast<std::size_t>(row)] < 0) continue;
      for (int p = 0; p < points; ++p) {
        observation_.push_back(static_cast<std::int32_t>(row));
        point_.push_back(p);
      }
    }
    if (observation_.empty()) return 0;
    // The kept values of a point are in the slot of its number.
    if (frame_.run(program_, {static_cast<int>(observation_.size()), observation_.data(), point_.data(),
                              sequential_ ? point_.data() : nullptr}) > 2)
      return 1;
    for (std::size_t lane = 0; lane < observation_.size(); lane += static_cast<std::size_t>(points)) {
      const std::int64_t at = place_[static_cast<std::size_t>(observation_[lane])];
      if (at >= 0) record(static_cast<std::size_t>(at), number, lane, points);
    }
    return 0;
  }

  void record(std::size_t at, std::int32_t number, std::size_t lane, int points)
  {
    ResponseMoments m[2];
    double a[most_response_arguments] = {missing, missing, missing};
    const auto each = static_cast<std::size_t>(response_arguments(n_.disttype));
    for (int p = 0; p < points; ++p) { // the last point is the nearest one
      for (std::size_t k = 0; k < each; ++k)
        a[k] = frame_.output(1 + static_cast<int>(k))[lane + static_cast<std::size_t>(p)];
      m[p] = response_moments(n_.disttype, a);
    }
    const ResponseMoments& nearest = m[points - 1];
    out_.subject[at] = number;
    out_.response[at] = frame_.output(0)[lane];
    out_.population[at] = host::canonical_missing(m[0].mean);
    if (points == 2) out_.individual[at] = host::canonical_missing(m[1].mean);
    out_.residual[at] = host::canonical_missing(out_.response[at] - nearest.mean);
    out_.pearson[at] =
        nearest.variance > 0 ? host::canonical_missing(out_.residual[at] / std::sqrt(nearest.variance)) : missing;
    // Pictures of one program are the same each time, seed or none.
    const double share = engine::uniform_at(1.0, static_cast<double>(out_.row[at]), 0.0, 0.0);
    std::copy_n(a, each, out_.arguments.begin() + static_cast<std::ptrdiff_t>(at * each));
    out_.quantile[at] = host::canonical_missing(quantile_residual(n_.disttype, out_.response[at], a, share));
  }

  NX& n_;
  const engine::Program& program_;
  FitRecords& out_;
  engine::Frame frame_;
  bool sequential_;
  std::vector<std::int64_t> place_; // per store row: row of the result, -1 unused
  std::vector<double> values_;
  std::vector<std::int32_t> observation_, point_;
};

} // namespace

bool random_effect_moments(NX& n, const model::REFFECT& reff, EffectMoments& out)
{
  const auto nr = static_cast<std::size_t>(reff.nr);
  const engine::Program& program = *reff.setup_value.code;
  engine::Frame frame(*n.gcmp, n.bound);
  frame.set_parameters(n.parm.data());
  const std::vector<double> zero(n.mransym.s.size(), 0.0);
  frame.set_points(zero.data(), 1, 1);
  out.mean.assign(reff.SubInfo.size() * nr, missing);
  out.variance.assign(reff.SubInfo.size() * nr, missing);
  const model::SUBINFO* known = nullptr; // the first usable subject speaks for all unless the arguments depend on data
  for (const auto& subject : reff.SubInfo) {
    if (subject.badsub) continue;
    const auto to = static_cast<std::size_t>(subject.index) * nr;
    if (known != nullptr && !reff.setup_varies) {
      const auto from = static_cast<std::size_t>(known->index) * nr;
      std::copy_n(out.mean.begin() + static_cast<long>(from), nr, out.mean.begin() + static_cast<long>(to));
      std::copy_n(out.variance.begin() + static_cast<long>(from), nr, out.variance.begin() + static_cast<long>(to));
      continue;
    }
    known = &subject;
    frame.set_range(subject.first_row, subject.SubCount);
    if (engine::sequential(program)) frame.reset_state(program, 1);
    // Kept values need every record before the one wanted; others only that one.
    for (std::int64_t r = engine::sequential(program) ? subject.first_row : subject.fvalidobs; r <= subject.fvalidobs;
         ++r) {
      const auto row = static_cast<std::int32_t>(r);
      const std::int32_t lane = 0;
      if (frame.run(program, {1, &row, &lane, &lane}) > 2) return false;
    }
    for (std::size_t i = 0; i < nr; ++i) {
      out.mean[to + i] = frame.output(static_cast<int>(i))[0];
      out.variance[to + i] = frame.output(static_cast<int>(nr + i * (i + 3) / 2))[0];
    }
  }
  return true;
}

std::vector<double> random_effect_modes(const NX& n, const model::REFFECT& reff)
{
  const auto nr = static_cast<std::size_t>(reff.nr);
  std::vector<double> out(reff.SubInfo.size() * nr, missing);
  for (const auto& subject : reff.SubInfo) {
    const model::SUBINFO* outermost = &subject;
    for (std::size_t k = static_cast<std::size_t>(subject.ranind); k + 1 < n.reff.size(); ++k)
      outermost = &n.reff[k + 1].SubInfo[static_cast<std::size_t>(outermost->parent)];
    const auto known = static_cast<std::size_t>(outermost->index), s = static_cast<std::size_t>(subject.index);
    if (subject.badsub || known >= n.ebes_known.size() || n.ebes_known[known] == 0) continue;
    const auto from = static_cast<std::size_t>(reff.mode_first) + s * nr;
    for (std::size_t e = 0; e < nr && from + e < n.ebes.size(); ++e) out[s * nr + e] = n.ebes[from + e];
  }
  return out;
}

namespace {

// Walks over the subjects of the deepest level with the effects of their whole chain: all means, then all modes.
int walk_subjects(NX& n, RecordWalk& walk)
{
  std::vector<EffectMoments> prior(n.reff.size());
  std::vector<std::vector<double>> mode;
  for (std::size_t k = 0; k < n.reff.size(); ++k) {
    if (!random_effect_moments(n, n.reff[k], prior[k])) return 1;
    mode.push_back(random_effect_modes(n, n.reff[k]));
  }
  const std::size_t total = n.mransym.s.size();
  std::vector<double> effects(2 * total);
  for (const auto& subject : n.leaf().SubInfo) {
    if (subject.badsub) continue;
    const model::SUBINFO* at = &subject;
    for (std::size_t k = 0; k < n.reff.size(); ++k) {
      const auto nr = static_cast<std::size_t>(n.reff[k].nr), to = static_cast<std::size_t>(n.reff[k].first_effect),
                 from = static_cast<std::size_t>(at->index) * nr;
      for (std::size_t e = 0; e < nr; ++e) {
        effects[to + e] = prior[k].mean[from + e];
        effects[total + to + e] = mode[k][from + e];
      }
      if (k + 1 < n.reff.size()) at = &n.reff[k + 1].SubInfo[static_cast<std::size_t>(at->parent)];
    }
    const std::int64_t last = subject.first_row + subject.SubCount - 1;
    if (const int rc = walk.subject(subject.index, subject.first_row, last, effects, static_cast<int>(total)); rc != 0)
      return rc;
  }
  return 0;
}

} // namespace

int fit_records(NX& n, FitRecords& out)
{
  out = {};
  if (std::any_of(n.reff.begin(), n.reff.end(), [](const auto& reff) { return reff.distrtype != 0; })) return 1;
  const engine::Program* program = records_program(n);
  if (program == nullptr) return 1;
  RecordWalk walk(n, *program, out);
  const int rc = n.nreff() == 0 ? walk.subject(-1, 0, n.store->nobs - 1, {}, 0) : walk_subjects(n, walk);
  if (rc != 0) out = {};
  return rc;
}

} // namespace torvale::inference
