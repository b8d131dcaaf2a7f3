// Exponentials and logarithms in machine code, after lane_exponential.h, lane_logarithm.h and lane_compartments.h.
// Where one of them changes, its counterpart here must: a test runs both on the same lanes.

#include "engine/native/kernel_writer.h"

#include <algorithm>

namespace torvale::engine {

bool TranscendentalWriter::write()
{
  switch (op_.kernel) {
  case Kernel::exp:
    return exponential();
  case Kernel::log:
  case Kernel::log_or_zero:
  case Kernel::log_or_minus_infinity:
    return logarithm();
  case Kernel::exp_of_factors:
    return exp_of_factors();
  case Kernel::log1p_fraction:
    return log1p_fraction();
  case Kernel::exp_mean:
    return exp_mean();
  default:
    return false;
  }
}

// exp_of_regular of lane_exponential.h.
bool TranscendentalWriter::exponential()
{
  const int a = number(0), shifted = registers_.temporary(), r2 = registers_.temporary(), r = registers_.temporary(),
            r4 = registers_.temporary(), high = registers_.temporary(), pair = registers_.temporary(), result = out();
  code_.bitwise(Bitwise::and_, t_, a, constant(Constant::all_but_sign));
  code_.compare(m_, Predicate::not_less_equal, t_, constant(Constant::exp_regular));
  RareCall& rare = unless(m_, {a}, result);
  const auto linear = [&](int to, int k) { // p[k] + p[k + 1] r
    code_.move(to, constant(Constant::exp_p + (k + 1)));
    code_.multiply_plus(to, r, constant(Constant::exp_p + k));
  };
  code_.move(shifted, constant(Constant::exp_shifter));
  code_.add_product(shifted, a, constant(Constant::exp_per_log2));
  code_.arithmetic(Arithmetic::subtract, r2, shifted, constant(Constant::exp_shifter)); // k
  code_.move(r, reg(a));
  code_.add_product(r, r2, constant(Constant::minus_log2_high));
  code_.add_product(r, r2, constant(Constant::minus_log2_low));
  code_.arithmetic(Arithmetic::multiply, r2, r, reg(r));
  code_.arithmetic(Arithmetic::multiply, r4, r2, reg(r2));
  linear(t_, 0);
  linear(pair, 2);
  code_.add_product(t_, r2, reg(pair));
  linear(high, 4);
  linear(pair, 6);
  code_.add_product(high, r2, reg(pair));
  linear(pair, 8);
  code_.add_product(high, r4, reg(pair));
  code_.add_product(t_, r4, reg(high));
  code_.add_product(r, r2, reg(t_));
  code_.arithmetic(Arithmetic::add, r, r, constant(Constant::one));
  code_.shift_left(shifted, shifted, 52);
  code_.add_bits(result, r, reg(shifted));
  code_.L(rare.back);
  return true;
}

bool TranscendentalWriter::logarithm()
{
  const int a = number(0);
  const LogarithmRegisters at = take_registers(-1);
  code_.compare(m_, Predicate::less, a, constant(Constant::log_least_normal));
  code_.compare(n_, Predicate::not_less, a, constant(Constant::infinity));
  code_.combine(MaskOp::or_, m_, m_, n_);
  RareCall& rare = unless(m_, {a}, at.result);
  log_of_normal(a, at);
  code_.L(rare.back);
  return true;
}

bool TranscendentalWriter::exp_of_factors()
{
  const int a = number(0), b = number(1), c = number(2), result = out();
  code_.arithmetic(Arithmetic::multiply, t_, a, reg(b));
  code_.compare(m_, Predicate::unordered, t_, reg(c));
  RareCall& rare = unless(m_, {a, b, c}, result);
  code_.move(result, reg(t_));
  code_.L(rare.back);
  return true;
}

// The sum 1 + a is a normal number from 1 to 2, or missing with a.
bool TranscendentalWriter::log1p_fraction()
{
  const int a = number(0), u = number(1), w = number(2), lost = registers_.temporary();
  code_.arithmetic(Arithmetic::subtract, lost, u, constant(Constant::one));
  code_.arithmetic(Arithmetic::subtract, lost, a, reg(lost));
  code_.arithmetic(Arithmetic::multiply, lost, lost, reg(w));
  log_of_normal(u, take_registers(lost));
  return true;
}

TranscendentalWriter::LogarithmRegisters TranscendentalWriter::take_registers(int term)
{
  LogarithmRegisters at{};
  for (int* const r : {&at.k, &at.s, &at.half, &at.s2, &at.low, &at.curved}) *r = registers_.temporary();
  at.term = term;
  at.result = out();
  return at;
}

// log_of_normal of lane_logarithm.h.
void TranscendentalWriter::log_of_normal(int a, const LogarithmRegisters& at)
{
  const auto [k, s, half, s2, low, curved, term, result] = at;
  code_.subtract_bits(t_, a, constant(Constant::log_root_half));
  code_.add_bits(k, t_, constant(Constant::log_bias));
  code_.shift_right(k, k, 52);
  code_.bitwise(Bitwise::or_, k, k, constant(Constant::log_whole));
  code_.arithmetic(Arithmetic::subtract, k, k, constant(Constant::log_offset));
  code_.bitwise(Bitwise::and_, t_, t_, constant(Constant::log_fraction));
  code_.add_bits(t_, t_, constant(Constant::log_root_half));
  code_.arithmetic(Arithmetic::subtract, t_, t_, constant(Constant::one)); // f
  code_.arithmetic(Arithmetic::add, s, t_, constant(Constant::two));
  code_.arithmetic(Arithmetic::divide, s, t_, reg(s));
  code_.arithmetic(Arithmetic::multiply, s2, s, reg(s));
  const auto linear = [&](int to, int j) { // r[j] s2 + r[j + 1]
    code_.move(to, constant(Constant::log_r + j));
    code_.multiply_plus(to, s2, constant(Constant::log_r + (j + 1)));
  };
  const int s4 = result, high = curved;
  code_.arithmetic(Arithmetic::multiply, s4, s2, reg(s2));
  linear(high, 1);
  code_.add_product(high, s4, constant(Constant::log_r));
  linear(low, 3);
  linear(half, 5);
  code_.multiply_plus(low, s4, reg(half));
  code_.arithmetic(Arithmetic::multiply, s4, s4, reg(s4));
  code_.multiply_plus(curved, s4, reg(low));
  code_.arithmetic(Arithmetic::multiply, half, t_, constant(Constant::half));
  code_.arithmetic(Arithmetic::multiply, half, half, reg(t_));
  code_.multiply_plus(curved, s2, reg(half));
  if (term >= 0)
    code_.add_product(term, k, constant(Constant::log2_low));
  else
    code_.arithmetic(Arithmetic::multiply, s2, k, constant(Constant::log2_low));
  code_.multiply_plus(curved, s, reg(term >= 0 ? term : s2));
  code_.arithmetic(Arithmetic::subtract, half, half, reg(curved));
  code_.arithmetic(Arithmetic::subtract, half, half, reg(t_));
  code_.arithmetic(Arithmetic::multiply, k, k, constant(Constant::log2_high));
  code_.arithmetic(Arithmetic::subtract, result, k, reg(half));
}

// The mean by parts that the plan has made, operand 2, where the rates are more than 1 apart (operand 0); what is
// nearer takes a series, which is called for all orders at once.
bool TranscendentalWriter::exp_mean()
{
  if (op_.index < 0) return false;
  const auto first =
      std::find_if(rare_calls_.begin(), rare_calls_.end(), [&](const RareCall& c) { return c.group == op_.group; });
  const bool called = first == rare_calls_.end();
  const std::int32_t slots = called ? registers_.new_slot() : first->first_slot;
  if (called) // for which lanes are near as a mask, and for the results
    for (std::size_t k = 0; k <= registers_.plan().mean_orders[static_cast<std::size_t>(op_.group)].size(); ++k)
      registers_.new_slot();
  std::vector<int> arguments;
  if (called) arguments = {number(0), number(1)};
  const int far = number(2), shown = number(3), result = out();
  if (called) {
    code_.bitwise(Bitwise::and_, t_, arguments[0], constant(Constant::all_but_sign));
    code_.compare(m_, Predicate::less_equal, t_, constant(Constant::one));
    code_.lanes_of(code_.eax, m_);
    code_.mov(code_.dword[registers_.slot_address(slots)], code_.eax);
    code_.test(code_.eax, code_.eax);
  } else {
    code_.cmp(code_.dword[registers_.slot_address(slots)], 0);
  }
  RareCall& rare = leave_if_not_zero(std::move(arguments), result);
  rare.group = op_.group;
  rare.order = op_.index;
  rare.first_slot = slots;
  rare.called = called;
  rare.far = far;
  rare.shown = shown;
  code_.arithmetic(Arithmetic::add, result, far, reg(shown));
  code_.L(rare.back);
  return true;
}

} // namespace torvale::engine
