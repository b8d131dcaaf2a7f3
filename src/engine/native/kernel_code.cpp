// The kernels of lane_arithmetic.h in machine code, in the order of their enumeration. Where one of them changes, its
// counterpart here must: a test runs both on the same lanes.

#include "engine/native/kernel_writer.h"

namespace torvale::engine {

namespace {

class PlainWriter : public KernelWriter {
public:
  using KernelWriter::KernelWriter;
  // False when the kernel has no code of its own here: it is called.
  bool write() { return arithmetic() || comparison() || selection(); }

private:
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

  bool present(int j) const
  {
    return registers_.plan().values[static_cast<std::size_t>(op_.in[static_cast<std::size_t>(j)])].present;
  }

  // "a >= b is false, and b is a number." Where one of them is known to be a number, one comparison of the hardware
  // answers for a missing value as well.
  bool less(int i, int j)
  {
    if (present(i)) return compare(Predicate::less, i, j);
    if (present(j)) return compare(Predicate::not_less_equal, j, i);
    const int a = number(i), b = number(j), r = out();
    code_.compare(m_, Predicate::not_less_equal, b, reg(a));
    code_.compare(n_, Predicate::ordered, b, reg(b));
    code_.combine(MaskOp::and_, r, m_, n_);
    return true;
  }

  bool less_equal(int i, int j)
  {
    if (present(i)) return compare(Predicate::less_equal, i, j);
    if (present(j)) return compare(Predicate::not_less, j, i);
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
};

} // namespace

bool write_kernel(VectorCode& code, RegisterAllocator& registers, const PlanOperation& op,
                  std::vector<RareCall>& rare_calls)
{
  return PlainWriter(code, registers, op, rare_calls).write() ||
         TranscendentalWriter(code, registers, op, rare_calls).write();
}

} // namespace torvale::engine
