#pragma once
// What the last evaluation found, put by while others are made.

#include "model/run_record.h"

namespace torvale::integration {

// KeptEvaluation: value, gradient and outer products at a point whose modes have been accepted are there again when
// this goes: for nlpfunc and outer_products, which find them in place of an evaluation, and with the modes. What the
// slots hold is not kept, for that is as much as the slots themselves: who wants it has tvllike evaluate. Keeps nothing
// where the last evaluation failed or had no gradient.
class KeptEvaluation {
public:
  explicit KeptEvaluation(model::NX& n);
  KeptEvaluation(model::NX& n, std::vector<double> products); // those of the point; empty: there are none
  ~KeptEvaluation();
  KeptEvaluation(const KeptEvaluation&) = delete;
  KeptEvaluation& operator=(const KeptEvaluation&) = delete;

  // What has been evaluated since stands in its place.
  void forget() { point_.clear(); }

private:
  void keep(bool with_products);

  model::NX& n_;
  std::vector<double> point_; // empty: nothing is kept
  double objective_ = 0.0;
  std::vector<double> gradient_, products_;
};

// recall_evaluation: value and gradient at n.parm into objfun and objgrad, where they are what has been kept. False
// where they are not.
bool recall_evaluation(model::NX& n);

} // namespace torvale::integration
