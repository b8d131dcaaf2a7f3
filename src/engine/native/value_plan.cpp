#include "engine/native/value_plan.h"

#include <algorithm>
#include <compare>
#include <map>
#include <utility>

namespace torvale::engine {

namespace {

bool answers_mask(Kernel k)
{
  return (k >= Kernel::less && k <= Kernel::greater_equal_known) || (k >= Kernel::truth && k <= Kernel::and_not) ||
         k == Kernel::is_missing || k == Kernel::is_present;
}

bool asks_mask(Kernel k, int operand)
{
  if (k == Kernel::and_ || k == Kernel::or_ || k == Kernel::not_ || k == Kernel::and_not) return true;
  return operand == 0 && (k == Kernel::select || k == Kernel::select_or_zero);
}

class Planner {
public:
  Planner(const StageCode& code, ValuePlan& plan)
      : code_(code), plan_(plan), held_(static_cast<std::size_t>(code.registers), no_value)
  {
    const std::size_t expected = code.steps.size() + code.fixed.size();
    plan_.values.reserve(expected);
    plan_.operations.reserve(expected);
    other_form_.reserve(expected);
  }

  bool run()
  {
    for (std::size_t k = 0; k < code_.fixed.size(); ++k) {
      const Fixed& fixed = code_.fixed[k];
      const ValueId v = value(PlanValue::From::fixed, false, static_cast<std::int32_t>(k));
      held(fixed.reg) = v;
      plan_.values[static_cast<std::size_t>(v)].present = fixed.constant && fixed.value == fixed.value;
    }
    for (const Step& s : code_.steps)
      if (!step(s)) return false;
    if (pending_ != no_value) look_for_nan(pending_, pending_);
    if (nans_ != no_value) operation(PlanOperation::Kind::any_nan, {nans_});
    return true;
  }

  // Each operation is followed by the same for the next vector of lanes: what waits for the result of one has the other
  // to do.
  void pair(const std::vector<bool>& uniform)
  {
    const std::size_t values = plan_.values.size(), groups = plan_.mean_orders.size();
    std::vector<ValueId> other(values, no_value);
    for (std::size_t v = 0; v < values; ++v) {
      const PlanValue& value = plan_.values[v];
      if (value.from == PlanValue::From::fixed ||
          (value.from == PlanValue::From::input && uniform[static_cast<std::size_t>(value.index)]))
        other[v] = static_cast<ValueId>(v);
      else if (value.from == PlanValue::From::input)
        other[v] = second(static_cast<ValueId>(v));
    }
    std::vector<PlanOperation> both;
    both.reserve(2 * plan_.operations.size());
    for (const PlanOperation& op : plan_.operations) {
      both.push_back(op);
      PlanOperation copy = op;
      bool same = op.kind != PlanOperation::Kind::store;
      for (std::size_t j = 0; j < static_cast<std::size_t>(op.operands); ++j) {
        copy.in[j] = other[static_cast<std::size_t>(op.in[j])];
        same = same && copy.in[j] == op.in[j];
      }
      if (op.out != no_value) copy.out = other[static_cast<std::size_t>(op.out)] = same ? op.out : second(op.out);
      if (same) continue;
      copy.half = 1;
      if (op.group >= 0) copy.group += static_cast<std::int32_t>(groups);
      both.push_back(copy);
    }
    plan_.operations = std::move(both);
    plan_.mean_orders.reserve(2 * groups);
    for (std::size_t g = 0; g < groups; ++g) plan_.mean_orders.push_back(plan_.mean_orders[g]);
  }

  void find_uses()
  {
    for_reads([](PlanValue& v, std::int32_t) { ++v.end_of_uses; });
    std::int32_t uses = 0;
    for (PlanValue& v : plan_.values) {
      v.first_use = uses;
      uses += std::exchange(v.end_of_uses, uses);
    }
    plan_.uses.resize(static_cast<std::size_t>(uses));
    for_reads([&](PlanValue& v, std::int32_t k) { plan_.uses[static_cast<std::size_t>(v.end_of_uses++)] = k; });
  }

private:
  ValueId& held(std::int32_t reg) { return held_[static_cast<std::size_t>(reg)]; }

  ValueId value(PlanValue::From from, bool mask, std::int32_t index = 0)
  {
    PlanValue v;
    v.from = from;
    v.mask = mask;
    v.index = index;
    plan_.values.push_back(v);
    other_form_.push_back(no_value);
    return static_cast<ValueId>(plan_.values.size()) - 1;
  }

  ValueId second(ValueId v) // the same of the next vector
  {
    plan_.values.push_back(plan_.values[static_cast<std::size_t>(v)]);
    plan_.values.back().half = 1;
    return static_cast<ValueId>(plan_.values.size()) - 1;
  }

  PlanOperation& operation(PlanOperation::Kind kind, std::initializer_list<ValueId> in)
  {
    PlanOperation op;
    op.kind = kind;
    op.operands = static_cast<std::int32_t>(in.size());
    std::copy(in.begin(), in.end(), op.in.begin());
    plan_.operations.push_back(op);
    return plan_.operations.back();
  }

  // The value as a mask or as a number, converted at most once.
  ValueId as(bool mask, ValueId v)
  {
    const auto at = static_cast<std::size_t>(v);
    if (plan_.values[at].mask == mask) return v;
    if (other_form_[at] == no_value) {
      const ValueId out = value(PlanValue::From::operation, mask);
      operation(mask ? PlanOperation::Kind::to_mask : PlanOperation::Kind::to_number, {v}).out = out;
      other_form_[at] = out;
      other_form_[static_cast<std::size_t>(out)] = v;
    }
    return other_form_[at];
  }

  bool step(const Step& s)
  {
    switch (s.kind) {
    case Step::Kind::load:
      held(s.out) = value(PlanValue::From::input, false, s.index);
      return true;
    case Step::Kind::kernel: {
      if (s.kernel == Kernel::copy) {
        held(s.out) = held(s.in[0]);
        return true;
      }
      PlanOperation op;
      op.kernel = s.kernel;
      op.operands = s.operands;
      for (int j = 0; j < s.operands; ++j) {
        const auto at = static_cast<std::size_t>(j);
        op.in[at] = as(asks_mask(s.kernel, j), held(s.in[at]));
      }
      if (s.kernel == Kernel::exp_mean) plan_mean(op);
      op.out = held(s.out) = value(PlanValue::From::operation, answers_mask(s.kernel));
      plan_.operations.push_back(op);
      return true;
    }
    case Step::Kind::keep:
    case Step::Kind::output: {
      const ValueId v = as(false, held(s.in[0]));
      operation(PlanOperation::Kind::store, {v}).index = s.index;
      if (s.kind == Step::Kind::output) check(v);
      return true;
    }
    default:
      return false;
    }
  }

  // Means of exponentials away from equal rates, by parts as in lane_compartments.h: one difference of the rates, its
  // reciprocal and the means of lower orders serve all orders.
  struct Mean {
    ValueId x, y, ex, ey;
    auto operator<=>(const Mean&) const = default;
  };
  struct FarMeans {
    std::int32_t group;
    ValueId difference, reciprocal, shown; // shown: 0, or missing with the first exponential
    ValueId far[KernelTable::most_mean_order + 1][KernelTable::most_mean_order + 1];
  };

  ValueId kernel(Kernel k, std::initializer_list<ValueId> in)
  {
    const ValueId out = value(PlanValue::From::operation, false);
    PlanOperation& op = operation(PlanOperation::Kind::kernel, in);
    op.kernel = k;
    op.out = out;
    return out;
  }

  ValueId times(int k, ValueId v) // exact up to 2 v, and 3 v and 4 v are rounded once
  {
    if (k == 1) return v;
    const ValueId twice = kernel(Kernel::add, {v, v});
    return k == 2 ? twice : kernel(Kernel::add, {twice, k == 3 ? v : twice});
  }

  ValueId far_mean(const Mean& m, FarMeans& known, int i, int j)
  {
    ValueId& mean = known.far[i][j];
    if (mean != no_value) return mean;
    ValueId sum = no_value;
    if (i == 0)
      sum = kernel(Kernel::subtract, {j == 0 ? m.ex : times(j, far_mean(m, known, 0, j - 1)), m.ey});
    else
      sum = kernel(Kernel::subtract,
                   {j == 0 ? m.ex : times(j, far_mean(m, known, i, j - 1)), times(i, far_mean(m, known, i - 1, j))});
    return mean = kernel(Kernel::multiply, {sum, known.reciprocal});
  }

  // The operation gets the difference of the rates, the mean by parts and what shows a missing exponential.
  void plan_mean(PlanOperation& op)
  {
    const int order = whole_constant(op.in[4]), i = order / 10, j = order % 10;
    op.index = order >= 0 && i + j <= KernelTable::most_mean_order ? order : -1;
    if (op.index < 0) return;
    const Mean m{op.in[0], op.in[1], op.in[2], op.in[3]};
    const auto [at, first] = means_.try_emplace(m);
    FarMeans& known = at->second;
    if (first) {
      known.group = static_cast<std::int32_t>(plan_.mean_orders.size());
      plan_.mean_orders.emplace_back();
      known.difference = kernel(Kernel::subtract, {m.y, m.x});
      known.reciprocal = kernel(Kernel::reciprocal, {known.difference});
      known.shown = kernel(Kernel::subtract, {m.ex, m.ex});
      for (auto& row : known.far) std::fill(std::begin(row), std::end(row), no_value);
    }
    op.group = known.group;
    plan_.mean_orders[static_cast<std::size_t>(op.group)].push_back(order);
    op.in = {known.difference, m.ey, far_mean(m, known, i, j), known.shown};
    op.operands = 4;
  }

  // A value that is a constant whole number; -1 for any other.
  std::int32_t whole_constant(ValueId v) const
  {
    const PlanValue& known = plan_.values[static_cast<std::size_t>(v)];
    if (known.from != PlanValue::From::fixed) return -1;
    const Fixed& f = code_.fixed[static_cast<std::size_t>(known.index)];
    const bool whole = f.constant && f.value >= 0.0 && f.value < 100.0;
    return whole && f.value == static_cast<std::int32_t>(f.value) ? static_cast<std::int32_t>(f.value) : -1;
  }

  // Outputs are looked through two at a time.
  void check(ValueId v)
  {
    if (!code_.canonical) return;
    if (pending_ == no_value) {
      pending_ = v;
      return;
    }
    look_for_nan(pending_, v);
    pending_ = no_value;
  }

  void look_for_nan(ValueId a, ValueId b)
  {
    const ValueId found = value(PlanValue::From::operation, true);
    operation(PlanOperation::Kind::nan, {a, b}).out = found;
    if (nans_ == no_value) {
      nans_ = found;
      return;
    }
    const ValueId both = value(PlanValue::From::operation, true);
    PlanOperation& op = operation(PlanOperation::Kind::kernel, {nans_, found});
    op.kernel = Kernel::or_;
    op.out = nans_ = both;
  }

  // Calls f(value, operation) for each value that an operation reads.
  template <class F> void for_reads(F f)
  {
    for (std::size_t k = 0; k < plan_.operations.size(); ++k) {
      const PlanOperation& op = plan_.operations[k];
      for (std::size_t j = 0; j < static_cast<std::size_t>(op.operands); ++j)
        if (std::find(op.in.begin(), op.in.begin() + j, op.in[j]) == op.in.begin() + j)
          f(plan_.values[static_cast<std::size_t>(op.in[j])], static_cast<std::int32_t>(k));
    }
  }

  const StageCode& code_;
  ValuePlan& plan_;
  std::vector<ValueId> held_;       // value in each register of the steps
  std::vector<ValueId> other_form_; // per value: the same as a mask or number
  std::map<Mean, FarMeans> means_;
  ValueId pending_ = no_value, nans_ = no_value;
};

} // namespace

bool plan_values(const StageCode& code, const std::vector<bool>& uniform, bool paired, ValuePlan& plan)
{
  Planner planner(code, plan);
  if (!planner.run()) return false;
  if (paired) planner.pair(uniform);
  planner.find_uses();
  return true;
}

} // namespace torvale::engine
