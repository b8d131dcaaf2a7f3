#include "solve/fit_hessian.h"
#include "solve/start/hessian_columns.h"

#include "evaluation/record_frame.h"
#include "integration/objective.h"
#include "optimizer/optimizer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <span>

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

// The used rows of the outermost subjects, one subject after the other.
struct SubjectRows {
  std::vector<std::int32_t> row;
  std::vector<std::size_t> first = {0}; // per subject, and the end
  std::size_t most = 0;                 // rows of a subject

  explicit SubjectRows(const NX& n)
  {
    for (const auto& s : n.outer().SubInfo) {
      for (int k = 0; k < s.SubCount && !s.badsub; ++k) {
        const auto r = static_cast<std::size_t>(s.first_row + k);
        if (n.store->badobs[r] == BadCause::none) row.push_back(static_cast<std::int32_t>(r));
      }
      most = std::max(most, row.size() - first.back());
      first.push_back(row.size());
    }
  }
  std::size_t subjects() const { return first.size() - 1; }
  bool has(std::size_t subject, std::size_t k) const { return first[subject] + k < first[subject + 1]; }
  std::int32_t at(std::size_t subject, std::size_t k) const { return row[first[subject] + k]; }
};

// Elements as they are found, to be handed over: both estimates of one count alike.
class Elements {
public:
  explicit Elements(std::size_t np) : np_(np), h_(np * np, 0.0) {}

  double& at(std::size_t i, std::size_t j) { return h_[i * np_ + j]; }
  void set_column(std::size_t j, const std::vector<double>& column)
  {
    for (std::size_t i = 0; i < np_; ++i) at(i, j) = column[i];
  }
  void hand_over(double* packed)
  {
    for (std::size_t i = 0; i < np_; ++i)
      for (std::size_t j = 0; j <= i; ++j) *packed++ = 0.5 * (at(i, j) + at(j, i));
  }

private:
  std::size_t np_;
  std::vector<double> h_;
};

class PredictorHessian {
public:
  explicit PredictorHessian(NX& n) : n_(n), rows_(n) {}

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
    return !through_.empty();
  }

  // Differences parameter by parameter take one evaluation for each at least.
  bool pays() const { return 2 * (rows_.most + others_.size()) + 2 < static_cast<std::size_t>(n_.nparm); }

  bool run(HessianColumns& columns, Elements& to)
  {
    to_ = &to;
    columns_ = &columns;
    np_ = static_cast<std::size_t>(n_.nparm);
    if (!take_unit()) return false;
    std::vector<double> column;
    for (const int j : others_) {
      if (!columns.along(static_cast<std::size_t>(j), column)) return false;
      to.set_column(static_cast<std::size_t>(j), column);
    }
    integration::stand_by_prediction(n_, false); // nobody has predicted what a shift does
    for (std::size_t k = 0; k < rows_.most; ++k)
      if (!along_rows(k)) return false;
    return true;
  }

private:
  static constexpr std::size_t at_once = 8; // subjects

  // The slopes at these rows, a lane each, into x_: a row's side by side.
  bool read_slopes(std::span<const std::int32_t> rows)
  {
    if (records_ == nullptr) {
      program_ = engine::cmpspec(*n_.gcmp, slope_);
      records_ = std::make_unique<evaluation::RecordFrame>(n_, columns_->point().data());
      records_->frame.set_range(0, n_.store->nobs);
      x_.resize(engine::max_lanes * slope_.size());
    }
    engine::Tile tile;
    tile.lanes = static_cast<int>(rows.size());
    tile.observation = rows.data();
    if (rows.empty()) return true;
    if (records_->frame.run(*program_, tile) > 2) return false;
    for (std::size_t k = 0; k < slope_.size(); ++k) {
      const double* const values = records_->frame.output(static_cast<int>(k));
      for (std::size_t i = 0; i < rows.size(); ++i) x_[i * slope_.size() + k] = values[i];
    }
    return true;
  }

  // Predictors are moved by a small part of what the subjects' gradients say that one is known by.
  bool take_unit()
  {
    const auto& products = columns_->information();
    if (products.empty()) return false;
    const auto information = [&](std::size_t j) { return products[j * (j + 3) / 2]; };
    std::vector<double> squares(through_.size(), 0.0),
        of_records; // information on a predictor, as each parameter has it
    for (std::size_t at = 0; at < rows_.row.size(); at += engine::max_lanes) {
      const auto rows =
          std::span(rows_.row).subspan(at, std::min<std::size_t>(engine::max_lanes, rows_.row.size() - at));
      if (!read_slopes(rows)) return false;
      for (std::size_t i = 0; i < rows.size() * squares.size(); ++i) squares[i % squares.size()] += x_[i] * x_[i];
    }
    for (std::size_t k = 0; k < squares.size(); ++k) {
      if (!std::isfinite(squares[k])) return false;
      const double d = information(static_cast<std::size_t>(through_[k]));
      if (squares[k] > 0.0 && d > 0.0) of_records.push_back(d / squares[k]);
    }
    if (of_records.empty()) return false;
    const auto middle = of_records.begin() + static_cast<long>(of_records.size() / 2);
    std::nth_element(of_records.begin(), middle, of_records.end());
    shift_ = 1e-4 / std::sqrt(*middle);
    return std::isfinite(shift_);
  }

  bool shifted(std::size_t k, double by)
  {
    std::vector<double> shift(static_cast<std::size_t>(n_.store->nobs), 0.0);
    for (std::size_t s = 0; s < rows_.subjects(); ++s)
      if (rows_.has(s, k)) shift[static_cast<std::size_t>(rows_.at(s, k))] = by;
    integration::shift_predictor(n_, predictor_.value, shift.data());
    const bool good = columns_->evaluate(columns_->point());
    integration::shift_predictor(n_, nullptr, nullptr);
    return good;
  }

  // The columns of the parameters behind the predictor, as far as row k of each subject contributes.
  bool along_rows(std::size_t k)
  {
    if (!shifted(k, shift_)) return false;
    const std::vector<double> up = n_.slot_grad;
    if (!shifted(k, -shift_)) return false;
    const std::size_t width = through_.size();
    std::vector<double> block(np_ * width, 0.0);
    std::vector<std::int32_t> rows;
    std::vector<std::size_t> subjects;
    for (std::size_t s = 0; s < rows_.subjects(); ++s) {
      if (rows_.has(s, k)) {
        rows.push_back(rows_.at(s, k));
        subjects.push_back(s);
      }
      if (rows.size() < engine::max_lanes && s + 1 < rows_.subjects()) continue;
      if (!read_slopes(rows)) return false;
      add_subjects(subjects, up, block);
      rows.clear();
      subjects.clear();
    }
    for (std::size_t i = 0; i < np_; ++i)
      for (std::size_t c = 0; c < width; ++c)
        to_->at(i, static_cast<std::size_t>(through_[c])) += block[i * width + c] / (2.0 * shift_);
    return true;
  }

  void add_subjects(const std::vector<std::size_t>& subjects, const std::vector<double>& up, std::vector<double>& block)
  {
    std::vector<double> slope(at_once * np_);
    std::array<const double*, at_once> x{};
    for (std::size_t first = 0; first < subjects.size(); first += at_once) {
      const std::size_t count = std::min(at_once, subjects.size() - first);
      for (std::size_t a = 0; a < count; ++a) {
        const auto& s = n_.outer().SubInfo[subjects[first + a]];
        const auto slot = static_cast<std::size_t>(s.index) * static_cast<std::size_t>(n_.grad_stride);
        for (std::size_t i = 0; i < np_; ++i) slope[a * np_ + i] = s.weight * (up[slot + i] - n_.slot_grad[slot + i]);
        x[a] = x_.data() + (first + a) * through_.size();
      }
      add_products(slope, x, count, block);
    }
  }

  // block += sum of d x' over that many subjects: the block is gone through once for all of them.
  void add_products(const std::vector<double>& slope, std::array<const double*, at_once>& x, std::size_t subjects,
                    std::vector<double>& block) const
  {
    const std::size_t width = through_.size();
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

  NX& n_;
  HessianColumns* columns_ = nullptr;
  Elements* to_ = nullptr;
  engine::Predictor predictor_;
  std::vector<int> through_, others_;  // parameters that act through the predictor, and all others
  std::vector<engine::CMPSYM*> slope_; // of the predictor by the former
  const engine::Program* program_ = nullptr;
  SubjectRows rows_;
  std::size_t np_ = 0;
  std::unique_ptr<evaluation::RecordFrame> records_; // of the slopes' program
  std::vector<double> x_;                            // slopes of the rows at work
  double shift_ = 0.0;
};

constexpr int least_behind_predictor = 8; // parameters

bool by_columns(const MINSTR& str, HessianColumns& columns, Elements& to)
{
  std::vector<double> column;
  for (long j = 0; j < str.nvar; ++j) {
    if (str.bounds != 0 && str.iabc[j] == 2) continue; // fixed
    if (!columns.along(static_cast<std::size_t>(j), column)) return false;
    to.set_column(static_cast<std::size_t>(j), column);
  }
  return true;
}

bool form(NX& n, MINSTR& str)
{
  Elements elements(static_cast<std::size_t>(n.nparm));
  HessianColumns columns(n, str);
  if (!columns.start()) return false;
  std::unique_ptr<PredictorHessian> predictor;
  if (n.nreff() > 0 && n.nparm >= least_behind_predictor) predictor = std::make_unique<PredictorHessian>(n);
  const bool good = predictor != nullptr && predictor->find() && predictor->pays() ? predictor->run(columns, elements)
                                                                                   : by_columns(str, columns, elements);
  if (good) elements.hand_over(str.hess);
  return good;
}

} // namespace

int fit_hessian(MINSTR* str)
{
  if (str->hfrm != 2 && form(*static_cast<NX*>(str->comstr), *str)) {
    ++str->nhes;
    return 0;
  }
  if (str->stop != 0) return 1;
  const int rc = optimizer::znlpfh3(str);
  if (rc == 0 && str->hfrm == 2) // differences are packed; a callback delivers the n elements of a diagonal
    for (long i = 0; i < str->nvar; ++i) str->hess[i] = str->hess[i * (i + 3) / 2];
  return rc;
}

} // namespace torvale::solve
