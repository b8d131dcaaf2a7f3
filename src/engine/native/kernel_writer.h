#pragma once
// What writers of kernels share: the operation at hand, its registers, and the way out of the straight code.

#include "engine/native/kernel_code.h"

namespace torvale::engine {

class KernelWriter {
public:
  KernelWriter(VectorCode& code, RegisterAllocator& registers, const PlanOperation& op,
               std::vector<RareCall>& rare_calls)
      : code_(code), registers_(registers), op_(op), rare_calls_(rare_calls), t_(code.number_scratch()),
        m_(code.mask_scratch(0)), n_(code.mask_scratch(1))
  {
  }

protected:
  using Operand = Xbyak::Operand;

  int number(int j) { return registers_.number(op_.in[static_cast<std::size_t>(j)]); }
  int mask(int j) { return registers_.mask(op_.in[static_cast<std::size_t>(j)]); }
  const Operand& source(int j) { return registers_.source(op_.in[static_cast<std::size_t>(j)]); }
  int out() { return registers_.result(op_.out); }
  Xbyak::Xmm reg(int r) const { return code_.vector(r); }
  Xbyak::Address constant(Constant c) { return code_.constant(c); }
  void one_to(int r) { code_.move(r, constant(Constant::one)); }

  // Leaves the straight code when the mask is true in some lane; it goes on at the label `back` of what this returns.
  RareCall& unless(int m, std::vector<int> arguments, int result)
  {
    code_.lanes_of(code_.eax, m);
    code_.test(code_.eax, code_.eax);
    return leave_if_not_zero(std::move(arguments), result);
  }
  RareCall& leave_if_not_zero(std::vector<int> arguments, int result)
  {
    RareCall& call = rare_calls_.emplace_back();
    call.kernel = op_.kernel;
    call.arguments = std::move(arguments);
    call.out = result;
    call.vectors = registers_.occupied(false);
    call.masks = registers_.occupied(true);
    std::erase(call.vectors, result);
    code_.jnz(call.enter, Xbyak::CodeGenerator::T_NEAR);
    return call;
  }

  VectorCode& code_;
  RegisterAllocator& registers_;
  const PlanOperation& op_;
  std::vector<RareCall>& rare_calls_;
  const int t_, m_, n_; // scratch: a number, two masks
};

// Exponentials and logarithms: transcendental_code.cpp. False for any other kernel.
class TranscendentalWriter : public KernelWriter {
public:
  using KernelWriter::KernelWriter;
  bool write();

private:
  bool exponential();
  bool logarithm();
  bool exp_of_factors();
  bool log1p_fraction();
  bool exp_mean();
  struct LogarithmRegisters {
    int k, s, half, s2, low, curved;
    int term; // what is added to the logarithm; -1: nothing
    int result;
  };
  LogarithmRegisters take_registers(int term);
  void log_of_normal(int a, const LogarithmRegisters& at);
};

} // namespace torvale::engine
