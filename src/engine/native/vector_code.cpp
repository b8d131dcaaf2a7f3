#include "engine/native/vector_code.h"

#include "engine/kernels/elementary_numbers.h"

#include <algorithm>
#include <bit>
#include <limits>

namespace torvale::engine {

namespace {

using Xbyak::Opmask;
using Xbyak::Xmm;
using Xbyak::Ymm;
using Xbyak::Zmm;

std::uint8_t number(Predicate p)
{
  return static_cast<std::uint8_t>(p);
}

// What AVX2 and AVX-512 have in common: three operands, fused multiplication. Vector: Ymm or Zmm.
template <class Vector> class WideCode : public VectorCode {
public:
  using VectorCode::VectorCode;
  int width() const override { return static_cast<int>(Vector(0).getBit()) / 64; }
  Xmm vector(int r) const override { return Vector(r); }

  // One line each, so that the family reads as a table.
  // clang-format off
  void move(int to, const Operand& from) override { vmovapd(Vector(to), from); }
  void load(int to, const Address& from) override { vmovupd(Vector(to), from); }
  void store(const Address& to, int from) override { vmovupd(to, Vector(from)); }
  void broadcast(int to, const Address& from) override { vbroadcastsd(Vector(to), from); }
  void add_product(int out, int a, const Operand& b) override { vfmadd231pd(Vector(out), Vector(a), b); }
  void multiply_plus(int out, int a, const Operand& c) override { vfmadd213pd(Vector(out), Vector(a), c); }
  void add_bits(int out, int a, const Operand& b) override { vpaddq(Vector(out), Vector(a), b); }
  void subtract_bits(int out, int a, const Operand& b) override { vpsubq(Vector(out), Vector(a), b); }
  void shift_left(int out, int a, int n) override { vpsllq(Vector(out), Vector(a), static_cast<std::uint8_t>(n)); }
  void shift_right(int out, int a, int n) override { vpsrlq(Vector(out), Vector(a), static_cast<std::uint8_t>(n)); }
  void square_root(int out, const Operand& a) override { vsqrtpd(Vector(out), a); }
  void leave_vectors() override { vzeroupper(); }
  // clang-format on
  void arithmetic(Arithmetic op, int out, int a, const Operand& b) override
  {
    switch (op) {
    case Arithmetic::add:
      return vaddpd(Vector(out), Vector(a), b);
    case Arithmetic::subtract:
      return vsubpd(Vector(out), Vector(a), b);
    case Arithmetic::multiply:
      return vmulpd(Vector(out), Vector(a), b);
    case Arithmetic::divide:
      return vdivpd(Vector(out), Vector(a), b);
    }
  }
  void bitwise(Bitwise op, int out, int a, const Operand& b) override
  {
    switch (op) {
    case Bitwise::and_:
      return vandpd(Vector(out), Vector(a), b);
    case Bitwise::and_not:
      return vandnpd(Vector(out), Vector(a), b);
    case Bitwise::or_:
      return vorpd(Vector(out), Vector(a), b);
    case Bitwise::xor_:
      return vxorpd(Vector(out), Vector(a), b);
    }
  }
};

// Eight lanes; masks in k1 to k7.
class Avx512Code final : public WideCode<Zmm> {
public:
  using WideCode::WideCode;
  int vectors() const override { return 31; }
  int masks() const override { return 5; }
  int number_scratch() const override { return 31; }
  int mask_scratch(int k) const override { return 6 + k; }

  void compare(int mask, Predicate p, int a, const Operand& b) override { vcmppd(Opmask(mask), Zmm(a), b, number(p)); }
  void combine(MaskOp op, int out, int a, int b) override
  {
    switch (op) {
    case MaskOp::and_:
      return kandb(Opmask(out), Opmask(a), Opmask(b));
    case MaskOp::and_not:
      return kandnb(Opmask(out), Opmask(b), Opmask(a));
    case MaskOp::or_:
      return korb(Opmask(out), Opmask(a), Opmask(b));
    }
  }
  void invert(int out, int a) override { knotb(Opmask(out), Opmask(a)); }
  void choose(int out, int mask, const Operand& yes, int no) override
  {
    vblendmpd(Zmm(out) | Opmask(mask), Zmm(no), yes);
  }
  void choose_or_zero(int out, int mask, const Operand& yes) override { vmovapd(Zmm(out) | Opmask(mask) | T_z, yes); }
  void load_mask(int to, const Address& from) override { kmovb(Opmask(to), from); }
  void store_mask(const Address& to, int from) override { kmovb(to, Opmask(from)); }
  void lanes_of(const Xbyak::Reg32& bits, int mask) override { kmovb(bits, Opmask(mask)); }
};

// Four lanes; masks are vectors.
class Avx2Code final : public WideCode<Ymm> {
public:
  using WideCode::WideCode;
  int vectors() const override { return 13; }
  int masks() const override { return 0; }
  int number_scratch() const override { return 13; }
  int mask_scratch(int k) const override { return 14 + k; }

  void compare(int mask, Predicate p, int a, const Operand& b) override { vcmppd(Ymm(mask), Ymm(a), b, number(p)); }
  void combine(MaskOp op, int out, int a, int b) override
  {
    switch (op) {
    case MaskOp::and_:
      return vandpd(Ymm(out), Ymm(a), Ymm(b));
    case MaskOp::and_not:
      return vandnpd(Ymm(out), Ymm(b), Ymm(a));
    case MaskOp::or_:
      return vorpd(Ymm(out), Ymm(a), Ymm(b));
    }
  }
  void invert(int out, int a) override
  {
    const Ymm ones(mask_scratch(1));
    vpcmpeqd(ones, ones, ones);
    vxorpd(Ymm(out), Ymm(a), ones);
  }
  void choose(int out, int mask, const Operand& yes, int no) override { vblendvpd(Ymm(out), Ymm(no), yes, Ymm(mask)); }
  void choose_or_zero(int out, int mask, const Operand& yes) override { vandpd(Ymm(out), Ymm(mask), yes); }
  void load_mask(int to, const Address& from) override { vmovapd(Ymm(to), from); }
  void store_mask(const Address& to, int from) override { vmovapd(to, Ymm(from)); }
  void lanes_of(const Xbyak::Reg32& bits, int mask) override { vmovmskpd(bits, Ymm(mask)); }
};

// Two lanes; instructions overwrite their first operand, and there is none that chooses.
class Sse2Code final : public VectorCode {
public:
  using VectorCode::VectorCode;
  int width() const override { return 2; }
  int vectors() const override { return 11; }
  int masks() const override { return 0; }
  int number_scratch() const override { return 11; }
  int mask_scratch(int k) const override { return 12 + k; }
  Xmm vector(int r) const override { return Xmm(r); }

  void move(int to, const Operand& from) override
  {
    if (!is(from, to)) movapd(Xmm(to), from);
  }
  void load(int to, const Address& from) override { movupd(Xmm(to), from); }
  void store(const Address& to, int from) override { movupd(to, Xmm(from)); }
  void broadcast(int to, const Address& from) override
  {
    movsd(Xmm(to), from);
    unpcklpd(Xmm(to), Xmm(to));
  }
  void arithmetic(Arithmetic op, int out, int a, const Operand& b) override
  {
    overwrite(out, a, b, [&](int x, const Operand& y) {
      switch (op) {
      case Arithmetic::add:
        return addpd(Xmm(x), y);
      case Arithmetic::subtract:
        return subpd(Xmm(x), y);
      case Arithmetic::multiply:
        return mulpd(Xmm(x), y);
      case Arithmetic::divide:
        return divpd(Xmm(x), y);
      }
    });
  }
  void add_product(int out, int a, const Operand& b) override
  {
    movapd(Xmm(first), Xmm(a));
    mulpd(Xmm(first), b);
    addpd(Xmm(out), Xmm(first));
  }
  void multiply_plus(int out, int a, const Operand& c) override
  {
    mulpd(Xmm(out), Xmm(a));
    addpd(Xmm(out), c);
  }
  void add_bits(int out, int a, const Operand& b) override
  {
    overwrite(out, a, b, [&](int x, const Operand& y) { paddq(Xmm(x), y); });
  }
  void subtract_bits(int out, int a, const Operand& b) override
  {
    overwrite(out, a, b, [&](int x, const Operand& y) { psubq(Xmm(x), y); });
  }
  void shift_left(int out, int a, int n) override
  {
    move(out, Xmm(a));
    psllq(Xmm(out), n);
  }
  void shift_right(int out, int a, int n) override
  {
    move(out, Xmm(a));
    psrlq(Xmm(out), n);
  }
  void square_root(int out, const Operand& a) override { sqrtpd(Xmm(out), a); }
  void bitwise(Bitwise op, int out, int a, const Operand& b) override
  {
    overwrite(out, a, b, [&](int x, const Operand& y) {
      switch (op) {
      case Bitwise::and_:
        return andpd(Xmm(x), y);
      case Bitwise::and_not:
        return andnpd(Xmm(x), y);
      case Bitwise::or_:
        return orpd(Xmm(x), y);
      case Bitwise::xor_:
        return xorpd(Xmm(x), y);
      }
    });
  }
  void compare(int mask, Predicate p, int a, const Operand& b) override
  {
    overwrite(mask, a, b, [&](int x, const Operand& y) { cmppd(Xmm(x), y, number(p)); });
  }
  void combine(MaskOp op, int out, int a, int b) override
  {
    if (op == MaskOp::and_not) return bitwise(Bitwise::and_not, out, b, Xmm(a));
    bitwise(op == MaskOp::and_ ? Bitwise::and_ : Bitwise::or_, out, a, Xmm(b));
  }
  void invert(int out, int a) override
  {
    pcmpeqd(Xmm(second), Xmm(second));
    bitwise(Bitwise::xor_, out, a, Xmm(second));
  }
  void choose(int out, int mask, const Operand& yes, int no) override
  {
    movapd(Xmm(first), Xmm(mask));
    movapd(Xmm(second), Xmm(mask));
    andpd(Xmm(first), yes);
    andnpd(Xmm(second), Xmm(no));
    orpd(Xmm(first), Xmm(second));
    movapd(Xmm(out), Xmm(first));
  }
  void choose_or_zero(int out, int mask, const Operand& yes) override { bitwise(Bitwise::and_, out, mask, yes); }
  void load_mask(int to, const Address& from) override { movapd(Xmm(to), from); }
  void store_mask(const Address& to, int from) override { movapd(to, Xmm(from)); }
  void lanes_of(const Xbyak::Reg32& bits, int mask) override { movmskpd(bits, Xmm(mask)); }
  void leave_vectors() override {}

private:
  static constexpr int first = 14, second = 15; // for what one instruction cannot do

  static bool is(const Operand& operand, int reg) { return !operand.isMEM() && operand.getIdx() == reg; }

  template <class F> void overwrite(int out, int a, const Operand& b, F instruction)
  {
    const int at = out != a && is(b, out) ? first : out;
    if (at != a) movapd(Xmm(at), Xmm(a));
    instruction(at, b);
    if (at != out) movapd(Xmm(out), Xmm(at));
  }
};

} // namespace

const void* VectorCode::constant_table()
{
  struct alignas(vector_slot) Table {
    std::uint64_t bits[static_cast<int>(Constant::count_)][8];
    void put(Constant c, std::uint64_t value) { std::fill_n(bits[static_cast<int>(c)], 8, value); }
    void put(Constant c, double value) { put(c, std::bit_cast<std::uint64_t>(value)); }
  };
  static const Table table = [] {
    Table t;
    t.put(Constant::zero, 0.0);
    t.put(Constant::one, 1.0);
    t.put(Constant::minus_one, -1.0);
    t.put(Constant::half, 0.5);
    t.put(Constant::two, 2.0);
    t.put(Constant::sign_bit, std::uint64_t{0x8000000000000000});
    t.put(Constant::all_but_sign, std::uint64_t{0x7FFFFFFFFFFFFFFF});
    t.put(Constant::missing, std::uint64_t{0xFFFFFE0000000000});
    t.put(Constant::infinity, std::numeric_limits<double>::infinity());
    t.put(Constant::minus_log2_high, -log2_high);
    t.put(Constant::minus_log2_low, -log2_low);
    t.put(Constant::log2_high, log2_high);
    t.put(Constant::log2_low, log2_low);
    t.put(Constant::exp_per_log2, exponential::per_log2);
    t.put(Constant::exp_shifter, exponential::shifter);
    t.put(Constant::exp_regular, exponential::regular);
    for (int k = 0; k < 10; ++k) t.put(Constant::exp_p + k, exponential::p[k]);
    t.put(Constant::log_root_half, std::uint64_t{logarithm::root_half});
    t.put(Constant::log_bias, std::uint64_t{logarithm::bias});
    t.put(Constant::log_whole, std::uint64_t{logarithm::whole});
    t.put(Constant::log_offset, logarithm::offset);
    t.put(Constant::log_fraction, std::uint64_t{logarithm::fraction});
    t.put(Constant::log_least_normal, logarithm::least_normal);
    for (int k = 0; k < 7; ++k) t.put(Constant::log_r + k, logarithm::r[k]);
    return t;
  }();
  return &table;
}

std::unique_ptr<VectorCode> make_vector_code(std::string_view isa, std::span<std::uint8_t> buffer)
{
  if (isa == "avx512") return std::make_unique<Avx512Code>(buffer);
  if (isa == "avx2") return std::make_unique<Avx2Code>(buffer);
  if (isa == "baseline") return std::make_unique<Sse2Code>(buffer);
  return nullptr;
}

} // namespace torvale::engine
