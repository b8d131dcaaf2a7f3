#include "solve/judgement/fit_end.h"

#include "solve/judgement/fit_codes.h"
#include "solve/judgement/straight_judgement.h"
#include "solve/start/parameter_unit.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::solve {

namespace {

constexpr int most_rounds = 12;    // of the trust region
constexpr int most_sharpened = 6;  // times that a minimum in doubt is looked for anew
constexpr double ill_known = 0.05; // elements of the Hessian at unit diagonal

} // namespace

void FitEnd::assess()
{
  const host::StageScope stage(n_.host->stages(), host::Stage::covariance);
  accurate_ = true;
  const auto before = std::move(coordinates_);
  coordinates_ = std::make_unique<FitCoordinates>(n_, x_.data());
  for (int i = 0; i < n_.nparm; ++i) {
    const bool known = before != nullptr && before->same_kind(*coordinates_, i);
    coordinates_->set_scale(i, known ? before->scale(i) : first_scale(i));
  }
  judgement_ = judge_here();
  if (judgement_.curvature.accuracy > ill_known) measure_by_size();
  judgement_.bend.resize(x_.size() * x_.size());
  if (!coordinates_->bend(g_.data(), judgement_.bend.data())) judgement_.bend.clear();
  if (!judgement_.ran_to_limit()) ask_by_parameters();
}

// What the Hessian of the covariance says, where there is one: no unit of a parameter then decides how its scale is
// found.
double FitEnd::first_scale(int i) const
{
  const auto& hessian = n_.covstr->hessian;
  const auto k = static_cast<std::size_t>(i);
  const double curvature = !moved_ && hessian.present && n_.str->hfrm != 2 ? hessian.elements[k * (k + 3) / 2] : 0.0;
  const double slope = coordinates_->slope(i), own = coordinates_->own_size(i);
  const double unknown = coordinates_->first_scale(i);
  if (!(curvature > 0.0 && slope > 0.0)) return unknown;
  return std::min(1.0 / (slope * std::sqrt(curvature)), std::max(most_lengths * own, unknown));
}

Judgement FitEnd::judge_here()
{
  FitSurface surface(n_, *coordinates_);
  std::vector<double> g(x_.size());
  const std::vector<double> origin(x_.size(), 0.0);
  coordinates_->gradient(origin.data(), g_.data(), g.data());
  return judge(surface, f_, g.data());
}

// Scales of another point may be so long that differences over them know nothing of this one: once more from what the
// parameters are large. (A root that is all but 0 has no size; the start had.)
void FitEnd::measure_by_size()
{
  constexpr double none = 1e-6; // of the size at the start
  const FitCoordinates measured = *coordinates_, start(n_, start_.data());
  for (int i = 0; i < n_.nparm; ++i) {
    const bool sizeless = measured.in_factor(i) && measured.own_size(i) < none * start.own_size(i);
    coordinates_->set_scale(i, (sizeless ? start : measured).short_scale(i));
  }
  Judgement again = judge_here();
  if (again.measured && again.curvature.accuracy < judgement_.curvature.accuracy)
    judgement_ = std::move(again);
  else
    *coordinates_ = measured;
}

// A ridge that ends where the coordinates do is straight by the parameters: then these are the coordinates.
void FitEnd::ask_by_parameters()
{
  StraightJudgement found = judge_straight(n_, *coordinates_, judgement_, x_, f_);
  const Judgement& j = found.judgement;
  constexpr double well_known = 1e-3; // elements of the Hessian
  if (j.null.empty() || j.indefinite || !j.separated.empty() || j.curvature.accuracy > well_known) return;
  judgement_ = std::move(found.judgement);
  coordinates_ = std::move(found.coordinates);
  if (!found.rounding) return;
  const std::vector<double> origin(x_.size(), 0.0);
  std::vector<double> there(x_.size());
  coordinates_->parameters(origin.data(), there.data());
  move_to(there);
}

// Whether the digits that are printed are those of the minimum, as far as rounding lets them be.
bool FitEnd::sharp() const
{
  return !(judgement_.gain > std::max({sharp_gain, 1e-12 * std::abs(f_), 2.0 * judgement_.curvature.noise}));
}

// Rounds of judging and going on, until a minimum is confirmed or nothing is gained.
void FitEnd::settle()
{
  int sharpened = 0;
  double first = 0.0; // objective before that
  for (int round = 0;; ++round) {
    assess();
    if (ended_by_user() || judgement_.ran_to_limit()) return;
    const bool spent = stopped() || round == most_rounds;
    if (judgement_.minimum()) {
      if (sharpened == 0) first = f_;
      const bool coarse = sharpened == 0 && !sharp();
      if (!judgement_.doubtful_curvature && !coarse) return;
      const bool last = spent || sharpened == most_sharpened;
      judgement_.creeps = last && 2.0 * (first - f_) >= judgement_.allowed;
      if (last || !sharpen()) return;
      ++sharpened;
      continue; // in new scales, which follow a bent valley better
    }
    if (spent) return;
    if (!go_on() && round > 0) {
      assess();
      return;
    }
  }
}

bool FitEnd::stopped() const
{
  return limits_reached(*n_.str) || n_.str->stop != 0 || n_.host->interrupted();
}

bool FitEnd::doubtful() const
{
  return (!judgement_.minimum() || !judgement_.null.empty()) && !ended_by_user() && n_.str->stop == 0 &&
         !n_.host->interrupted() && !judgement_.ran_to_limit();
}

} // namespace torvale::solve
