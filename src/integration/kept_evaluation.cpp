#include "integration/kept_evaluation.h"

namespace torvale::integration {

using model::NX;
using Evaluated = model::GroupState::Evaluated;

KeptEvaluation::KeptEvaluation(NX& n) : n_(n)
{
  if (n.failed || n.evaluated != Evaluated::gradient || n.ebtrial_point != n.parm) return;
  point_ = n.ebtrial_point;
  objective_ = n.evaluated_objfun;
  gradient_ = n.goodgrad;
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
