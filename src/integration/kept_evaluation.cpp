#include "integration/kept_evaluation.h"

#include <algorithm>

namespace torvale::integration {

using model::NX;
using Evaluated = model::GroupState::Evaluated;

KeptEvaluation::KeptEvaluation(NX& n) : n_(n)
{
  if (n.failed || n.evaluated != Evaluated::gradient || n.ebtrial_point != n.parm) return;
  point_ = n.ebtrial_point;
  objective_ = n.evaluated_objfun;
  gradient_ = n.goodgrad;
  slot_value_ = n.slot_value;
  slot_gradient_ = n.slot_grad;
  modes_ = n.ebtrial;
  known_ = n.ebtrial_known;
}

KeptEvaluation::~KeptEvaluation()
{
  if (point_.empty()) return;
  n_.failed = false;
  n_.slot_value.swap(slot_value_);
  n_.slot_grad.swap(slot_gradient_);
  std::fill(n_.slot_status.begin(), n_.slot_status.end(), 0);
  n_.ebtrial.swap(modes_);
  n_.ebtrial_known.swap(known_);
  n_.ebtrial_by_known = false; // their derivatives are of the last evaluation made
  n_.objfun = n_.evaluated_objfun = objective_;
  n_.objgrad = gradient_;
  n_.goodgrad.swap(gradient_);
  n_.parm = point_;
  n_.ebtrial_point.swap(point_);
  n_.evaluated = Evaluated::gradient;
}

} // namespace torvale::integration
