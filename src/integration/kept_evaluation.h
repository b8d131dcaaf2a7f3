#pragma once
// What the last evaluation found, put by while others are made.

#include "model/run_record.h"

namespace torvale::integration {

// KeptEvaluation: value and gradient at a point whose modes have been accepted are there again when this goes: for
// nlpfunc, which finds them in place of an evaluation, and with the modes. What the slots hold is not kept, for that is
// as much as the slots themselves: who wants it has tvllike evaluate. Keeps nothing where the last evaluation failed or
// had no gradient.
class KeptEvaluation {
public:
  explicit KeptEvaluation(model::NX& n);
  ~KeptEvaluation();
  KeptEvaluation(const KeptEvaluation&) = delete;
  KeptEvaluation& operator=(const KeptEvaluation&) = delete;

private:
  model::NX& n_;
  std::vector<double> point_; // empty: nothing is kept
  double objective_ = 0.0;
  std::vector<double> gradient_;
};

// recall_evaluation: value and gradient at n.parm into objfun and objgrad, where they are what has been kept. False
// where they are not.
bool recall_evaluation(model::NX& n);

} // namespace torvale::integration
