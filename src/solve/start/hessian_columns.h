#pragma once
// Columns of the Hessian of the objective: central differences of its gradient.

#include "integration/kept_evaluation.h"
#include "model/run_record.h"

#include <optional>
#include <vector>

namespace torvale::solve {

// HessianColumns: evaluations around the optimizer's point str.x, which must be the point that the fit stands at. They
// start from the modes there and the derivatives of these, and take them as they find them
// (integration::stand_by_prediction): one pass each. Leaves the record with value and gradient at the point; objective
// and gradient of str stay.
class HessianColumns {
public:
  HessianColumns(model::NX& n, optimizer::MINSTR& str);
  ~HessianColumns();
  HessianColumns(const HessianColumns&) = delete;
  HessianColumns& operator=(const HessianColumns&) = delete;

  // Evaluates at the point, and takes what the subjects' gradients say that each parameter is known by, packed, where
  // they say it. False when the point has no gradient.
  bool start();
  const std::vector<double>& information() const { return information_; }
  const std::vector<double>& point() const { return point_; }

  // The gradient at `x`, into n.objgrad. False when the evaluation fails.
  bool evaluate(const std::vector<double>& x);

  // The derivative of the gradient by parameter j, n numbers: both sides over an interval that is a small part of
  // 1 / sqrt(curvature), or beside a bound the one-sided formula of the same order. False when the model cannot be
  // evaluated nearby.
  bool along(std::size_t j, std::vector<double>& column);

  // The same to three digits or so, by one side: for a metric.
  bool beside(std::size_t j, std::vector<double>& column);

private:
  bool inside(std::size_t j, double x) const;
  bool moved(std::size_t j, double by, std::vector<double>& gradient, double& made);
  bool difference(std::size_t j, double h, std::vector<double>& column);

  model::NX& n_;
  optimizer::MINSTR& str_;
  const double crit_;
  const std::vector<double> grad_, grad_point_; // of str, and where that was
  const std::vector<double> point_;
  std::vector<double> gradient_; // at the point
  std::vector<double> information_;
  std::optional<integration::KeptEvaluation> kept_; // the one at the point
};

} // namespace torvale::solve
