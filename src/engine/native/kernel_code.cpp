// The kernels of lane_arithmetic.h in machine code, in the order of their enumeration. Where one of them changes, its
// counterpart here must: a test runs both on the same lanes.

#include "engine/native/kernel_code.h"

namespace torvale::engine {

namespace {

class KernelWriter {
public:
  KernelWriter(VectorCode& code, RegisterAllocator& registers, const PlanOperation& op,
               std::vector<RareCall>& rare_calls)
      : code_(code), registers_(registers), op_(op), rare_calls_(rare_calls), t_(code.number_scratch()),
        m_(code.mask_scratch(0)), n_(code.mask_scratch(1))
  {
  }

  // False when the kernel has no code of its own here: it is called.
  bool write() { return arithmetic() || comparison() || selection() || transcendental(); }

private:
  using Operand = Xbyak::Operand;

  // Sums, products, powers.
  bool arithmetic()
  {
    switch (op_.kernel) {
    case Kernel::add:
      return commutative(Arithmetic::add);
    case Kernel::multiply:
      return commutative(Arithmetic::multiply);
    case Kernel::subtract:
      return two(Arithmetic::subtract);
    case Kernel::divide_unchecked:
      return two(Arithmetic::divide);
    case Kernel::divide:
      return divide(number(0), number(1));
    case Kernel::reciprocal:
      return reciprocal(true);
    case Kernel::reciprocal_or_zero:
      return reciprocal(false);
    case Kernel::negate:
      return bits(Bitwise::xor_, Constant::sign_bit);
    case Kernel::absolute:
      return bits(Bitwise::and_, Constant::all_but_sign);
    case Kernel::multiply_add:
    case Kernel::multiply_subtract:
    case Kernel::subtract_product:
      return with_product();
    case Kernel::square:
    case Kernel::cube:
      return whole_power();
    case Kernel::sqrt: {
      const Operand& a = source(0);
      code_.square_root(out(), a);
      return true;
    }
    case Kernel::canonical:
    case Kernel::copy:
      return false;
    default:
      return false;
    }
  }

  // Ranges, extremes and comparisons.
  bool comparison()
  {
    switch (op_.kernel) {
    case Kernel::positive_part:
      return outside(Predicate::less_equal, Constant::zero);
    case Kernel::positive:
      return outside(Predicate::less_equal, Constant::missing);
    case Kernel::nonnegative:
      return outside(Predicate::less, Constant::missing);
    case Kernel::probability: {
      const int a = number(0), r = out();
      code_.compare(m_, Predicate::less, a, constant(Constant::zero));
      one_to(t_);
      code_.compare(n_, Predicate::less, t_, reg(a));
      code_.combine(MaskOp::or_, m_, m_, n_);
      code_.choose(r, m_, constant(Constant::missing), a);
      return true;
    }
    case Kernel::side: {
      const int a = number(0), r = out();
      code_.compare(m_, Predicate::less, a, constant(Constant::zero));
      one_to(t_);
      code_.choose(t_, m_, constant(Constant::minus_one), t_);
      code_.compare(m_, Predicate::unordered, a, reg(a));
      code_.choose(r, m_, reg(a), t_);
      return true;
    }
    case Kernel::least_ordered:
      return extreme(Predicate::less, 0);
    case Kernel::least:
      return extreme(Predicate::less_equal, 1);
    case Kernel::greatest:
      return extreme(Predicate::less_equal, 1);
    case Kernel::less:
      return less(0, 1);
    case Kernel::greater:
      return less(1, 0);
    case Kernel::less_equal:
      return less_equal(0, 1);
    case Kernel::greater_equal:
      return less_equal(1, 0);
    case Kernel::equal:
    case Kernel::not_equal:
      return equal();
    case Kernel::less_known:
      return compare(Predicate::less, 0, 1);
    case Kernel::less_equal_known:
      return compare(Predicate::less_equal, 0, 1);
    case Kernel::equal_known:
      return compare(Predicate::equal, 0, 1);
    case Kernel::not_equal_known:
      return compare(Predicate::not_equal, 0, 1);
    case Kernel::greater_known:
      return compare(Predicate::less, 1, 0);
    case Kernel::greater_equal_known:
      return compare(Predicate::less_equal, 1, 0);
    default:
      return false;
    }
  }

  // Truth values, what they choose, and missing values.
  bool selection()
  {
    switch (op_.kernel) {
    case Kernel::truth: { // not a NaN, and not equal to 0
      const int a = number(0), r = out();
      code_.compare(m_, Predicate::not_equal, a, constant(Constant::zero));
      code_.compare(n_, Predicate::ordered, a, reg(a));
      code_.combine(MaskOp::and_, r, m_, n_);
      return true;
    }
    case Kernel::and_:
      return combine(MaskOp::and_);
    case Kernel::or_:
      return combine(MaskOp::or_);
    case Kernel::and_not:
      return combine(MaskOp::and_not);
    case Kernel::not_: {
      const int a = mask(0);
      code_.invert(out(), a);
      return true;
    }
    case Kernel::select: {
      const int m = mask(0), no = number(2);
      const Operand& yes = source(1);
      code_.choose(out(), m, yes, no);
      return true;
    }
    case Kernel::select_or_zero: {
      const int m = mask(0);
      const Operand& yes = source(1);
      code_.choose_or_zero(out(), m, yes);
      return true;
    }
    case Kernel::is_missing:
      return compare(Predicate::unordered, 0, 0);
    case Kernel::is_present:
      return compare(Predicate::ordered, 0, 0);
    case Kernel::zero_if_missing: {
      const int a = number(0), r = out();
      code_.compare(m_, Predicate::ordered, a, reg(a));
      code_.choose_or_zero(r, m_, reg(a));
      return true;
    }
    case Kernel::coalesce: {
      const int a = number(0);
      const Operand& b = source(1);
      const int r = out();
      code_.compare(m_, Predicate::unordered, a, reg(a));
      code_.choose(r, m_, b, a);
      return true;
    }
    default:
      return false;
    }
  }

  // Exponentials and logarithms.
  bool transcendental()
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

  int number(int j) { return registers_.number(op_.in[static_cast<std::size_t>(j)]); }
  int mask(int j) { return registers_.mask(op_.in[static_cast<std::size_t>(j)]); }
  const Operand& source(int j) { return registers_.source(op_.in[static_cast<std::size_t>(j)]); }
  int out() { return registers_.result(op_.out); }
  Xbyak::Xmm reg(int r) const { return code_.vector(r); }
  Xbyak::Address constant(Constant c) { return code_.constant(c); }
  void one_to(int r) { code_.move(r, constant(Constant::one)); }

  bool two(Arithmetic op)
  {
    const int a = number(0);
    const Operand& b = source(1);
    code_.arithmetic(op, out(), a, b);
    return true;
  }

  // The operand that has a register goes first.
  bool commutative(Arithmetic op)
  {
    const int first = registers_.in_register(op_.in[0]) || !registers_.in_register(op_.in[1]) ? 0 : 1;
    const int a = number(first);
    const Operand& b = source(1 - first);
    code_.arithmetic(op, out(), a, b);
    return true;
  }

  bool divide(int a, int b)
  {
    const int r = out();
    code_.arithmetic(Arithmetic::divide, t_, a, reg(b));
    code_.compare(m_, Predicate::equal, b, constant(Constant::zero));
    code_.choose(r, m_, constant(Constant::missing), t_);
    return true;
  }

  bool reciprocal(bool checked)
  {
    const int a = number(0), r = out();
    one_to(t_);
    code_.arithmetic(Arithmetic::divide, t_, t_, reg(a));
    code_.compare(m_, Predicate::equal, a, constant(Constant::zero));
    code_.choose(r, m_, constant(checked ? Constant::missing : Constant::zero), t_);
    return true;
  }

  bool bits(Bitwise op, Constant c)
  {
    const int a = number(0);
    code_.bitwise(op, out(), a, constant(c));
    return true;
  }

  bool with_product()
  {
    const int first = registers_.in_register(op_.in[0]) || !registers_.in_register(op_.in[1]) ? 0 : 1;
    const int a = number(first);
    code_.arithmetic(Arithmetic::multiply, t_, a, source(1 - first));
    if (op_.kernel == Kernel::subtract_product) {
      const int c = number(2);
      code_.arithmetic(Arithmetic::subtract, out(), c, reg(t_));
      return true;
    }
    const Operand& c = source(2);
    code_.arithmetic(op_.kernel == Kernel::multiply_add ? Arithmetic::add : Arithmetic::subtract, out(), t_, c);
    return true;
  }

  bool whole_power()
  {
    const int a = number(0), r = out();
    if (op_.kernel == Kernel::square) {
      code_.arithmetic(Arithmetic::multiply, r, a, reg(a));
      return true;
    }
    code_.arithmetic(Arithmetic::multiply, t_, a, reg(a));
    code_.arithmetic(Arithmetic::multiply, r, t_, reg(a));
    return true;
  }

  // The operand, or the constant where it compares so with 0.
  bool outside(Predicate p, Constant otherwise)
  {
    const int a = number(0), r = out();
    code_.compare(m_, p, a, constant(Constant::zero));
    code_.choose(r, m_, constant(otherwise), a);
    return true;
  }

  // The first operand where it compares so with the second, or where operand `nan` is a NaN; else the second.
  bool extreme(Predicate p, int nan)
  {
    const int a = number(0), b = number(1), r = out(), looked_at = nan == 0 ? a : b;
    if (op_.kernel == Kernel::greatest)
      code_.compare(m_, p, b, reg(a));
    else
      code_.compare(m_, p, a, reg(b));
    code_.compare(n_, Predicate::unordered, looked_at, reg(looked_at));
    code_.combine(MaskOp::or_, m_, m_, n_);
    code_.choose(r, m_, reg(a), b);
    return true;
  }

  bool compare(Predicate p, int i, int j)
  {
    const int a = number(i);
    const Operand& b = source(j);
    code_.compare(out(), p, a, b);
    return true;
  }

  // "a >= b is false, and b is a number."
  bool less(int i, int j)
  {
    const int a = number(i), b = number(j), r = out();
    code_.compare(m_, Predicate::not_less_equal, b, reg(a));
    code_.compare(n_, Predicate::ordered, b, reg(b));
    code_.combine(MaskOp::and_, r, m_, n_);
    return true;
  }

  bool less_equal(int i, int j)
  {
    const int a = number(i), b = number(j), r = out();
    code_.compare(m_, Predicate::less_equal, a, reg(b));
    code_.compare(n_, Predicate::unordered, a, reg(a));
    code_.combine(MaskOp::or_, r, m_, n_);
    return true;
  }

  bool equal()
  {
    const int a = number(0), b = number(1), r = out();
    code_.compare(m_, Predicate::unordered, a, reg(a));
    code_.compare(n_, Predicate::unordered, b, reg(b));
    code_.combine(MaskOp::and_, m_, m_, n_);
    code_.compare(n_, Predicate::equal, a, reg(b));
    code_.combine(MaskOp::or_, op_.kernel == Kernel::equal ? r : m_, m_, n_);
    if (op_.kernel == Kernel::not_equal) code_.invert(r, m_);
    return true;
  }

  bool combine(MaskOp op)
  {
    const int a = mask(0), b = mask(1);
    code_.combine(op, out(), a, b);
    return true;
  }

  // exp_of_regular of lane_exponential.h.
  bool exponential()
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

  bool logarithm()
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

  bool exp_of_factors()
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
  bool log1p_fraction()
  {
    const int a = number(0), u = number(1), w = number(2), lost = registers_.temporary();
    code_.arithmetic(Arithmetic::subtract, lost, u, constant(Constant::one));
    code_.arithmetic(Arithmetic::subtract, lost, a, reg(lost));
    code_.arithmetic(Arithmetic::multiply, lost, lost, reg(w));
    log_of_normal(u, take_registers(lost));
    return true;
  }

  struct LogarithmRegisters {
    int k, s, half, s2, curved;
    int term; // what is added to the logarithm; -1: nothing
    int result;
  };
  LogarithmRegisters take_registers(int term)
  {
    LogarithmRegisters at{};
    for (int* const r : {&at.k, &at.s, &at.half, &at.s2, &at.curved}) *r = registers_.temporary();
    at.term = term;
    at.result = out();
    return at;
  }

  // log_of_normal of lane_logarithm.h.
  void log_of_normal(int a, const LogarithmRegisters& at)
  {
    const auto [k, s, half, s2, curved, term, result] = at;
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
    code_.arithmetic(Arithmetic::multiply, half, t_, constant(Constant::half));
    code_.arithmetic(Arithmetic::multiply, half, half, reg(t_));
    code_.move(curved, constant(Constant::log_r));
    for (int j = 1; j < 7; ++j) code_.multiply_plus(curved, s2, constant(Constant::log_r + j));
    code_.arithmetic(Arithmetic::multiply, curved, curved, reg(s2));
    code_.arithmetic(Arithmetic::add, curved, curved, reg(half));
    code_.arithmetic(Arithmetic::multiply, curved, curved, reg(s));
    code_.arithmetic(Arithmetic::multiply, s2, k, constant(Constant::log2_low));
    if (term >= 0) code_.arithmetic(Arithmetic::add, s2, s2, reg(term));
    code_.arithmetic(Arithmetic::add, curved, curved, reg(s2));
    code_.arithmetic(Arithmetic::subtract, half, half, reg(curved));
    code_.arithmetic(Arithmetic::subtract, half, half, reg(t_));
    code_.arithmetic(Arithmetic::multiply, k, k, constant(Constant::log2_high));
    code_.arithmetic(Arithmetic::subtract, result, k, reg(half));
  }

  // The mean by parts that the plan has made, operand 6, where the rates are more than 1 apart (operand 5); the kernel
  // does what is nearer.
  bool exp_mean()
  {
    if (op_.index < 0) return false;
    const int x = number(0), y = number(1), ex = number(2), ey = number(3), d = number(5), far = number(6);
    const Operand& shown = source(7);
    const int result = out();
    code_.bitwise(Bitwise::and_, t_, d, constant(Constant::all_but_sign));
    code_.compare(m_, Predicate::less_equal, t_, constant(Constant::one));
    RareCall& rare = unless(m_, {x, y, ex, ey}, result);
    rare.order = op_.index;
    code_.arithmetic(Arithmetic::add, result, far, shown);
    code_.L(rare.back);
    return true;
  }

  // Leaves the straight code when the mask is true in some lane; it goes on at the label `back` of what this returns.
  RareCall& unless(int m, std::vector<int> arguments, int result)
  {
    RareCall& call = rare_calls_.emplace_back();
    call.kernel = op_.kernel;
    call.arguments = std::move(arguments);
    call.out = result;
    call.vectors = registers_.occupied(false);
    call.masks = registers_.occupied(true);
    std::erase(call.vectors, result);
    code_.lanes_of(code_.eax, m);
    code_.test(code_.eax, code_.eax);
    code_.jnz(call.enter, Xbyak::CodeGenerator::T_NEAR);
    return call;
  }

  VectorCode& code_;
  RegisterAllocator& registers_;
  const PlanOperation& op_;
  std::vector<RareCall>& rare_calls_;
  const int t_, m_, n_; // scratch: a number, two masks
};

} // namespace

bool write_kernel(VectorCode& code, RegisterAllocator& registers, const PlanOperation& op,
                  std::vector<RareCall>& rare_calls)
{
  return KernelWriter(code, registers, op, rare_calls).write();
}

} // namespace torvale::engine
