#include "solve/fit_hessian.h"

#include "integration/objective.h"
#include "optimizer/optimizer.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace torvale::solve {

using model::BadCause;
using model::NX;
using optimizer::MINSTR;

namespace {

// Programs that an evaluation may run.
std::vector<const engine::Program*> programs_of(const NX& n)
{
  const auto& p = n.programs;
  std::vector<const engine::Program*> all;
  const auto add = [&](const engine::Program* code) {
    if (code != nullptr) all.push_back(code);
  };
  for (const auto* const m : {&p.value, &p.gradient, &p.mode, &p.curvature, &p.linear, &p.linear_gradient, &p.cross,
                              &p.closing, &p.closing_point, &p.factored.gradient, &p.factored.closing})
    add(m->code);
  add(p.factored.factors);
  for (const auto& reff : n.reff) {
    add(reff.setup.code);
    add(reff.setup_value.code);
  }
  return all;
}

// The used rows of the outermost subjects.
std::vector<std::vector<std::int32_t>> rows_of_subjects(const NX& n)
{
  std::vector<std::vector<std::int32_t>> rows;
  for (const auto& s : n.outer().SubInfo) {
    rows.emplace_back();
    for (int k = 0; k < s.SubCount && !s.badsub; ++k) {
      const auto row = static_cast<std::size_t>(s.first_row + k);
      if (n.store->badobs[row] == BadCause::none) rows.back().push_back(static_cast<std::int32_t>(row));
    }
  }
  return rows;
}

class PredictorHessian {
public:
  explicit PredictorHessian(NX& n) : n_(n) {}

  // Finds the predictor and what its parameters multiply it by. False when there is none.
  bool find()
  {
    const auto programs = programs_of(n_);
    predictor_ = engine::cmppredictor(*n_.gcmp, programs);
    if (predictor_.parameters.empty()) return false;
    engine::CMPDER slopes;
    engine::CMPLIST value, by;
    value.s = {predictor_.value};
    by.s = predictor_.parameters;
    if (engine::cmpder(slopes, value, by, *n_.gcmp) != 0) return false;
    for (std::size_t k = 0; k < slopes.der.s.size(); ++k) {
      const auto inputs = engine::cmpdeps(*n_.gcmp, slopes.der.s[k]);
      const bool by_data = std::none_of(inputs.begin(), inputs.end(), [](const engine::CMPSYM* s) {
        return s->parameter >= 0 || s->random_effect >= 0;
      });
      if (!by_data) continue;
      through_.push_back(predictor_.parameters[static_cast<std::size_t>(slopes.wrtindex[k])]->parameter);
      slope_.push_back(slopes.der.s[k]);
    }
    for (int j = 0; j < n_.nparm; ++j)
      if (std::find(through_.begin(), through_.end(), j) == through_.end()) others_.push_back(j);
    rows_ = rows_of_subjects(n_);
    for (const auto& rows : rows_) most_rows_ = std::max(most_rows_, rows.size());
    return !through_.empty();
  }

  // Differences parameter by parameter take one evaluation for each at least.
  bool pays() const { return 2 * (most_rows_ + others_.size()) + 2 < static_cast<std::size_t>(n_.nparm); }

  bool run(MINSTR& str)
  {
    str_ = &str;
    np_ = static_cast<std::size_t>(n_.nparm);
    theta_.assign(str.x, str.x + np_);
    hessian_.assign(np_ * np_, 0.0);
    n_.dograd = true;
    if (!evaluate(theta_) || !read_slopes() || !take_units()) return false;
    for (const int j : others_)
      if (!along(static_cast<std::size_t>(j))) return false;
    for (std::size_t k = 0; k < most_rows_; ++k)
      if (!along_rows(k)) return false;
    hand_over();
    return true;
  }

private:
  static constexpr std::size_t at_once = 8; // subjects

  double& element(std::size_t i, std::size_t j) { return hessian_[i * np_ + j]; }

  bool evaluate(const std::vector<double>& theta)
  {
    n_.parm = theta;
    n_.parmlast.clear();
    ++str_->nfct;
    if (integration::tvllike(n_) > 2 || n_.host->interrupted()) str_->stop = 1;
    return str_->stop == 0 && !n_.failed;
  }

  bool read_slopes()
  {
    engine::Frame frame(*n_.gcmp, n_.bound);
    if (program_ == nullptr) program_ = engine::cmpspec(*n_.gcmp, slope_);
    const std::vector<double> zero(static_cast<std::size_t>(n_.programs.ne), 0.0);
    frame.set_parameters(theta_.data());
    frame.set_points(zero.data(), 1, 1);
    const std::int64_t rows = n_.store->nobs;
    frame.set_range(0, rows);
    const std::size_t width = slope_.size();
    x_.assign(static_cast<std::size_t>(rows) * width, 0.0);
    engine::Tile tile;
    for (std::int64_t first = 0; first < rows; first += tile.lanes) {
      tile.first = static_cast<std::int32_t>(first);
      tile.lanes = static_cast<int>(std::min<std::int64_t>(engine::max_lanes, rows - first));
      if (frame.run(*program_, tile) > 2) return false;
      for (std::size_t k = 0; k < width; ++k)
        for (int i = 0; i < tile.lanes; ++i)
          x_[static_cast<std::size_t>(first + i) * width + k] = frame.output(static_cast<int>(k))[i];
    }
    return true;
  }

  // Intervals are small parts of what the subjects' gradients say a parameter, or a predictor, is known by.
  bool take_units()
  {
    std::vector<double> products;
    if (integration::outer_products(n_, products) != 0) return false;
    const auto information = [&](std::size_t j) { return products[j * (j + 3) / 2]; };
    interval_.assign(np_, 0.0);
    for (const int j : others_) {
      const auto at = static_cast<std::size_t>(j);
      if (!(information(at) > 0.0)) return false;
      interval_[at] = 1e-3 / std::sqrt(information(at));
    }
    std::vector<double> of_records; // information on a predictor, as each parameter has it
    for (std::size_t k = 0; k < through_.size(); ++k) {
      double squares = 0.0;
      for (const auto& rows : rows_)
        for (const std::int32_t row : rows) squares += x(row, k) * x(row, k);
      if (!std::isfinite(squares)) return false;
      if (const double d = information(static_cast<std::size_t>(through_[k])); squares > 0.0 && d > 0.0)
        of_records.push_back(d / squares);
    }
    if (of_records.empty()) return false;
    const auto middle = of_records.begin() + static_cast<long>(of_records.size() / 2);
    std::nth_element(of_records.begin(), middle, of_records.end());
    shift_ = 1e-4 / std::sqrt(*middle);
    return std::isfinite(shift_);
  }

  double x(std::int32_t row, std::size_t k) const { return x_[static_cast<std::size_t>(row) * through_.size() + k]; }

  bool along(std::size_t j)
  {
    const double h = interval_[j];
    std::vector<double> at = theta_;
    const auto moved = [&](double by) {
      at[j] = theta_[j] + by;
      const auto& p = n_.parmstr[j];
      return !(p.applyl && at[j] < p.lowbound) && !(p.applyh && at[j] > p.highbound) && evaluate(at);
    };
    if (!moved(h)) return false;
    const std::vector<double> up = n_.objgrad;
    const double above = at[j];
    if (!moved(-h)) return false;
    for (std::size_t i = 0; i < np_; ++i) element(i, j) = (up[i] - n_.objgrad[i]) / (above - at[j]);
    return true;
  }

  bool shifted(std::size_t k, double by)
  {
    std::vector<double> shift(static_cast<std::size_t>(n_.store->nobs), 0.0);
    for (const auto& rows : rows_)
      if (k < rows.size()) shift[static_cast<std::size_t>(rows[k])] = by;
    for (const auto& ctx : n_.ctx) ctx->frame->shift_records(predictor_.value, shift.data());
    const bool good = evaluate(theta_);
    for (const auto& ctx : n_.ctx) ctx->frame->shift_records(nullptr, nullptr);
    n_.ebtrial_point.clear(); // the modes are those of other predictors
    return good;
  }

  // The columns of the parameters behind the predictor, as far as row k of each subject contributes.
  bool along_rows(std::size_t k)
  {
    if (!shifted(k, shift_)) return false;
    const std::vector<double> up = n_.slot_grad;
    if (!shifted(k, -shift_)) return false;
    const std::size_t width = through_.size();
    std::vector<double> block(np_ * width, 0.0), slope(at_once * np_);
    std::array<const double*, at_once> x{};
    std::size_t waiting = 0;
    for (const auto& s : n_.outer().SubInfo) {
      const auto& rows = rows_[static_cast<std::size_t>(s.index)];
      if (s.badsub || k >= rows.size()) continue;
      const auto slot = static_cast<std::size_t>(s.index) * static_cast<std::size_t>(n_.grad_stride);
      double* const d = slope.data() + waiting * np_;
      for (std::size_t i = 0; i < np_; ++i) d[i] = s.weight * (up[slot + i] - n_.slot_grad[slot + i]);
      x[waiting++] = x_.data() + static_cast<std::size_t>(rows[k]) * width;
      if (waiting < at_once) continue;
      add_products(slope, x, waiting, block);
      waiting = 0;
    }
    add_products(slope, x, waiting, block);
    for (std::size_t i = 0; i < np_; ++i)
      for (std::size_t c = 0; c < width; ++c)
        element(i, static_cast<std::size_t>(through_[c])) += block[i * width + c] / (2.0 * shift_);
    return true;
  }

  // block += sum of d x' over that many subjects: the block is gone through once for all of them.
  void add_products(const std::vector<double>& slope, std::array<const double*, at_once>& x, std::size_t subjects,
                    std::vector<double>& block) const
  {
    const std::size_t width = through_.size();
    if (subjects == 0) return;
    for (std::size_t s = subjects; s < at_once; ++s) x[s] = x[0]; // times 0
    for (std::size_t i = 0; i < np_; ++i) {
      double d[at_once] = {};
      for (std::size_t s = 0; s < subjects; ++s) d[s] = slope[s * np_ + i];
      double* const to = block.data() + i * width;
      for (std::size_t c = 0; c < width; ++c)
        to[c] += ((d[0] * x[0][c] + d[1] * x[1][c]) + (d[2] * x[2][c] + d[3] * x[3][c])) +
                 ((d[4] * x[4][c] + d[5] * x[5][c]) + (d[6] * x[6][c] + d[7] * x[7][c]));
    }
  }

  // Both estimates of an element count alike.
  void hand_over()
  {
    double* to = str_->hess;
    for (std::size_t i = 0; i < np_; ++i)
      for (std::size_t j = 0; j <= i; ++j) *to++ = 0.5 * (element(i, j) + element(j, i));
  }

  NX& n_;
  MINSTR* str_ = nullptr;
  engine::Predictor predictor_;
  std::vector<int> through_, others_;  // parameters that act through the predictor, and all others
  std::vector<engine::CMPSYM*> slope_; // of the predictor by the former
  const engine::Program* program_ = nullptr;
  std::vector<std::vector<std::int32_t>> rows_;
  std::size_t most_rows_ = 0, np_ = 0;
  std::vector<double> x_; // slopes, a row for each of the store's
  std::vector<double> theta_, interval_, hessian_;
  double shift_ = 0.0;
};

} // namespace

bool fit_hessian_pays(NX& n)
{
  if (n.str->fidi != 0 || n.nreff() == 0 || n.nparm < 8) return false;
  PredictorHessian hessian(n);
  return hessian.find() && hessian.pays();
}

int fit_hessian(MINSTR* str)
{
  NX& n = *static_cast<NX*>(str->comstr);
  const double crit = str->crit;
  const std::vector<double> gradient(str->grad, str->grad + str->nvar);
  PredictorHessian hessian(n);
  const bool good = str->hfrm != 2 && hessian.find() && hessian.run(*str);
  str->crit = crit;
  std::copy(gradient.begin(), gradient.end(), str->grad);
  if (good) {
    ++str->nhes;
    return 0;
  }
  return str->stop != 0 ? 1 : optimizer::znlpfh3(str);
}

} // namespace torvale::solve
