#pragma once
// The last evaluation, put by while others are made.

#include "model/run_record.h"

namespace torvale::integration {

// KeptEvaluation: what tvllike found last, its slots and modes included, is there again when this goes: the next call
// at its point costs nothing, and outer products are those of that point. Keeps nothing where the last evaluation
// failed or had no gradient. Costs as much memory as the slots and the modes. Points and batches may not change
// meanwhile.
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
  std::vector<double> gradient_, slot_value_, slot_gradient_, modes_;
  std::vector<char> known_;
};

} // namespace torvale::integration
