#pragma once
// VectorCode: the few instructions that machine code of a stage is put together from, on one of three instruction sets.
//
// Registers are given by number. With AVX-512 masks live in registers of their own (k1 to k7); otherwise they are
// vectors of all ones or all zeros. A result may have the register of an operand. Operands in memory are aligned to a
// vector.

#include <xbyak/xbyak.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

namespace torvale::engine {

enum class Arithmetic : std::uint8_t { add, subtract, multiply, divide };
enum class Bitwise : std::uint8_t { and_, and_not, or_, xor_ }; // and_not: (not a) and b
enum class MaskOp : std::uint8_t { and_, and_not, or_ };        // and_not: a and not b

// As the processor numbers them. Unless it says `not` or `unordered` a comparison with a NaN is false.
enum class Predicate : std::uint8_t {
  equal = 0,
  less = 1,
  less_equal = 2,
  unordered = 3,
  not_equal = 4,
  not_less = 5,
  not_less_equal = 6,
  ordered = 7
};

// Numbers that code refers to, one vector of each in memory. The last are numbers of the exponential and the logarithm
// (kernels/elementary_numbers.h); of a polynomial the first coefficient, the others follow.
// clang-format off
enum class Constant : std::uint8_t {
  zero, one, minus_one, half, two, sign_bit, all_but_sign, missing, infinity,
  minus_log2_high, minus_log2_low, log2_high, log2_low,
  exp_per_log2, exp_shifter, exp_regular, exp_p, // 10 coefficients
  log_root_half = exp_p + 10, log_bias, log_whole, log_offset, log_fraction, log_least_normal, log_r, // 7 coefficients
  count_ = log_r + 7
};
// clang-format on
inline Constant operator+(Constant c, int k)
{
  return static_cast<Constant>(static_cast<int>(c) + k);
}

// Bytes that a vector in memory is given, whatever the instruction set.
inline constexpr int vector_slot = 64;

class VectorCode : public Xbyak::CodeGenerator {
public:
  using Operand = Xbyak::Operand;
  using Address = Xbyak::Address;

  // Writes to the buffer, on a 64-byte boundary: code that may be copied to any place (code_memory.h) on such a
  // boundary.
  explicit VectorCode(std::span<std::uint8_t> buffer) : CodeGenerator(buffer.size(), buffer.data()) {}

  // --- of the instruction set ---
  virtual int width() const = 0; // lanes of a vector
  std::size_t vector_bytes() const { return static_cast<std::size_t>(width()) * sizeof(double); }
  virtual int vectors() const = 0;           // vector registers that may be given out: 0 .. vectors() - 1
  virtual int masks() const = 0;             // mask registers that may be given out, from 1 on; 0: masks are vectors
  virtual int number_scratch() const = 0;    // a vector register that is never given out
  virtual int mask_scratch(int k) const = 0; // two registers for masks that are never given out
  virtual Xbyak::Xmm vector(int r) const = 0;

  virtual void move(int to, const Operand& from) = 0;
  virtual void load(int to, const Address& from) = 0;  // from memory that need not be aligned
  virtual void store(const Address& to, int from) = 0; // likewise
  virtual void broadcast(int to, const Address& from) = 0;
  virtual void arithmetic(Arithmetic op, int out, int a, const Operand& b) = 0;
  virtual void add_product(int out, int a, const Operand& b) = 0;   // out = a * b + out, by the lane kernels' `fused`
  virtual void multiply_plus(int out, int a, const Operand& c) = 0; // out = out * a + c, likewise
  virtual void add_bits(int out, int a, const Operand& b) = 0;      // as whole numbers of 64 bits
  virtual void subtract_bits(int out, int a, const Operand& b) = 0;
  virtual void shift_left(int out, int a, int bits) = 0;
  virtual void shift_right(int out, int a, int bits) = 0;
  virtual void square_root(int out, const Operand& a) = 0;
  virtual void bitwise(Bitwise op, int out, int a, const Operand& b) = 0;
  virtual void compare(int mask, Predicate p, int a, const Operand& b) = 0;
  virtual void combine(MaskOp op, int out, int a, int b) = 0;
  virtual void invert(int out, int a) = 0;
  virtual void choose(int out, int mask, const Operand& yes, int no) = 0;
  virtual void choose_or_zero(int out, int mask, const Operand& yes) = 0;
  virtual void load_mask(int to, const Address& from) = 0;
  virtual void store_mask(const Address& to, int from) = 0;
  virtual void lanes_of(const Xbyak::Reg32& bits, int mask) = 0; // one bit for each lane
  virtual void leave_vectors() = 0;                              // before code that knows nothing of wide vectors

  // --- the same for all ---
  // Where the register `constants` holds the address of this table.
  const Xbyak::Reg64 constants = r15;
  static const void* constant_table();
  Address constant(Constant c) { return ptr[constants + static_cast<std::size_t>(c) * vector_slot]; }
};

// "baseline" (SSE2), "avx2" or "avx512"; null for another name.
std::unique_ptr<VectorCode> make_vector_code(std::string_view isa, std::span<std::uint8_t> buffer);

} // namespace torvale::engine
