#include "integration/subject_gradients.h"

#include "evaluation/likelihood_programs.h"
#include "evaluation/record_sums.h"
#include "host/values/missing.h"
#include "integration/objective.h"
#include "integration/subjects/evaluation_parts.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::BadCause;
using model::NX;

namespace {

// All outputs of a program at every used row of the store, times the row's replicates: rows x places; others are
// missing.
int run_records(NX& n, const model::ModelProgram& program, std::vector<double>& out)
{
  model::TVLThreadCtx& ctx = *n.ctx[0];
  const auto rows = static_cast<std::size_t>(n.store->nobs), places = static_cast<std::size_t>(program.places);
  const bool keeps = engine::sequential(*program.code);
  const double no_effects = 0.0;
  out.assign(rows * places, host::missing);
  ctx.frame->set_parameters(n.parm.data());
  ctx.frame->set_range(0, n.store->nobs);
  ctx.frame->set_points(&no_effects, 1, 1);
  if (keeps) ctx.frame->reset_state(*program.code, 1);
  for (std::size_t at = 0; at < n.record_rows.size();) {
    const auto count =
        static_cast<int>(std::min<std::size_t>(keeps ? 1 : engine::max_lanes, n.record_rows.size() - at));
    const std::int32_t* const row = n.record_rows.data() + at;
    const std::int32_t* const zeros = ctx.tile.point.data();
    if (evaluation::tvlexec(ctx, *program.code, {count, row, zeros, keeps ? zeros : nullptr}) > 2) return 1012;
    for (int j = 0; j < count; ++j) {
      const auto r = static_cast<std::size_t>(row[j]);
      if (n.store->badobs[r] != BadCause::none) continue;
      const double weight = n.store->replicate.empty() ? 1.0 : n.store->replicate[r];
      std::fill_n(out.begin() + static_cast<long>(r * places), places, 0.0);
      for (std::size_t k = 0; k < program.outputs.size(); ++k)
        out[r * places + static_cast<std::size_t>(program.outputs[k])] =
            weight * ctx.frame->output(static_cast<int>(k))[j];
    }
    at += static_cast<std::size_t>(count);
  }
  return 0;
}

// The value of every unit at theta.
int unit_values(NX& n, const std::vector<double>& theta, std::vector<double>& out)
{
  n.parm = theta;
  n.dograd = false;
  if (n.nreff() == 0) {
    const int rc = run_records(n, n.programs.value, out);
    for (double& v : out) v = v > model::impossible_loglik ? -v : host::missing;
    return rc;
  }
  if (tvllike(n) > 2) return 1012;
  const auto& subjects = n.outer().SubInfo;
  out.assign(subjects.size(), host::missing);
  for (const auto& s : subjects)
    if (const auto k = static_cast<std::size_t>(s.index); !s.badsub && !n.failed && n.slot_status[k] == 0)
      out[k] = s.weight * n.slot_value[k];
  return 0;
}

// Four values a parameter: the error is of the fourth order in the step.
int difference_gradients(NX& n, std::vector<double>& out)
{
  const std::vector<double> theta = n.parm;
  std::vector<double> far_up, up, down, far_down;
  for (std::size_t j = 0; j < theta.size(); ++j) {
    const double error = n.str != nullptr && n.str->ster != nullptr ? n.str->ster[j] : host::missing;
    const double h = error > 0.0 ? 1e-2 * error : 1e-3 * (theta[j] != 0.0 ? std::abs(theta[j]) : 1.0);
    auto at = theta;
    const auto values = [&](double step, std::vector<double>& to) {
      at[j] = theta[j] + step;
      return unit_values(n, at, to);
    };
    if (values(2 * h, far_up) != 0 || values(h, up) != 0 || values(-h, down) != 0 || values(-2 * h, far_down) != 0)
      return 1012;
    out.resize(up.size() * theta.size());
    for (std::size_t u = 0; u < up.size(); ++u)
      out[u * theta.size() + j] = (8.0 * (up[u] - down[u]) - (far_up[u] - far_down[u])) / (12.0 * h);
  }
  return 0;
}

int analytic_gradients(NX& n, std::vector<double>& out)
{
  const auto np = static_cast<std::size_t>(n.nparm);
  if (n.nreff() == 0) {
    std::vector<double> results;
    if (const int rc = run_records(n, n.programs.gradient, results); rc != 0) return rc;
    const auto places = static_cast<std::size_t>(n.programs.gradient.places), rows = results.size() / places;
    out.resize(rows * np);
    for (std::size_t r = 0; r < rows; ++r)
      for (std::size_t j = 0; j < np; ++j)
        out[r * np + j] = -results[r * places + static_cast<std::size_t>(n.programs.by_parameter(static_cast<int>(j)))];
    return 0;
  }
  n.dograd = true;
  if (tvllike(n) > 2) return 1012;
  const auto& subjects = n.outer().SubInfo;
  out.assign(subjects.size() * np, host::missing);
  for (const auto& s : subjects) {
    if (s.badsub || n.failed) continue;
    const double* const g = n.slot_grad.data() + s.index * n.grad_stride;
    for (std::size_t j = 0; j < np; ++j) out[static_cast<std::size_t>(s.index) * np + j] = s.weight * g[j];
  }
  return 0;
}

} // namespace

int subject_gradients(NX& n, std::vector<double>& out)
{
  const std::vector<double> theta = n.parm;
  const bool with_gradient = n.dograd;
  const int rc = evaluation::can_evaluate(n).gradient ? analytic_gradients(n, out) : difference_gradients(n, out);
  n.parm = theta;
  n.dograd = with_gradient;
  n.parmlast.clear(); // the gradient in store is of another point
  for (double& g : out)
    if (!std::isfinite(g)) g = host::missing;
  return rc;
}

} // namespace torvale::integration
