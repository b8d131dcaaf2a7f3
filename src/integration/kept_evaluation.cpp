#include "integration/kept_evaluation.h"

#include "integration/objective.h"

#include <utility>

namespace torvale::integration {

using model::NX;
using Evaluated = model::GroupState::Evaluated;

KeptEvaluation::KeptEvaluation(NX& n) : n_(n)
{
  keep(true);
}

KeptEvaluation::KeptEvaluation(NX& n, std::vector<double> products) : n_(n), products_(std::move(products))
{
  keep(false);
}

void KeptEvaluation::keep(bool with_products)
{
  const bool there = n_.evaluated == Evaluated::gradient || n_.evaluated == Evaluated::sums;
  if (n_.failed || !there || n_.ebtrial_point != n_.parm) return;
  if (with_products && outer_products(n_, products_) != 0) products_.clear();
  point_ = n_.ebtrial_point;
  objective_ = n_.evaluated_objfun;
  gradient_ = n_.goodgrad;
}

KeptEvaluation::~KeptEvaluation()
{
  if (point_.empty()) return;
  n_.failed = false;
  n_.ebtrial = n_.ebes;
  n_.ebtrial_known = n_.ebes_known;
  n_.ebtrial_by_known = false; // derivatives of the modes are those of the last evaluation made
  n_.objfun = n_.evaluated_objfun = objective_;
  n_.objgrad = gradient_;
  n_.goodgrad.swap(gradient_);
  n_.kept_products.swap(products_);
  n_.parm = point_;
  n_.ebtrial_point.swap(point_);
  n_.evaluated = Evaluated::sums;
}

bool recall_evaluation(NX& n)
{
  if (n.evaluated != Evaluated::sums || n.ebtrial_point != n.parm) return false;
  n.failed = false;
  n.objfun = n.evaluated_objfun;
  if (n.dograd) n.objgrad = n.goodgrad;
  return true;
}

} // namespace torvale::integration
