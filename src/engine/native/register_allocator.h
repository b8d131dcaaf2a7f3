#pragma once
// RegisterAllocator: which machine register or memory holds each value while the code of a stage is written.
//
// The code is one straight line, so it is known when a value is read next; when a register is wanted and none is free,
// the value whose next use is farthest gives way (L. A. Belady, 1966). A value is stored at most once: it never
// changes.

#include "engine/native/value_plan.h"
#include "engine/native/vector_code.h"

#include <cstdint>
#include <vector>

namespace torvale::engine {

// Registers of the machine and what they hold; the frame of the code.
struct NativeFrame {
  Xbyak::Reg64 inputs = Xbyak::util::rbx;  // pointers, one per input
  Xbyak::Reg64 results = Xbyak::util::rbp; // pointers, one per result
  Xbyak::Reg64 offset = Xbyak::util::r12;  // bytes from the first lane to the lanes at work
  Xbyak::Reg64 scratch = Xbyak::util::r13; // slots of one vector each
  Xbyak::Reg64 fixed = Xbyak::util::r14;   // one vector per fixed register
  Xbyak::Reg64 address = Xbyak::util::rax; // for the address of one access
};

class RegisterAllocator {
public:
  using Operand = Xbyak::Operand;

  // uniform: per input, whether one number stands for all lanes; these are in the slots of `uniform_slot`.
  RegisterAllocator(VectorCode& code, const ValuePlan& plan, const std::vector<bool>& uniform);

  // Begins operation `at`: until the next one, registers of its operands and its result stay theirs.
  void begin(std::int32_t at);
  int number(ValueId v);            // the register of a number; loaded when it is in memory
  int mask(ValueId v);              // the same of a mask
  const Operand& source(ValueId v); // a number's register, or its memory when it has no register
  // The register for the result; after all operands have been asked for. It may be that of an operand read last here.
  int result(ValueId v);
  // A number's register for the operation's own use; asked for before the result.
  int temporary() { return take(vectors_); }
  // Registers that hold values, of vectors or of masks.
  std::vector<int> occupied(bool masks) const;
  bool in_register(ValueId v) const { return states_[static_cast<std::size_t>(v)].reg >= 0; }
  bool wanted(ValueId v) const
  {
    const PlanValue& value = plan_.values[static_cast<std::size_t>(v)];
    return value.first_use < value.end_of_uses;
  }

  // Around a call: stores what is needed later and not in memory yet. Afterwards no register holds a value.
  void save_for_call();
  void forget_registers();
  void save(ValueId v); // stores a value that is not in memory yet
  // The result of a call stands in that register.
  void result_in(ValueId v, int reg);
  void copy_to(int reg, ValueId v); // a copy of a number in that register, for a call
  void load_to(int reg, ValueId v); // the same from memory; the value has been saved

  Xbyak::RegExp slot_address(std::int32_t s) const { return frame.scratch + static_cast<std::size_t>(s) * vector_slot; }
  Xbyak::Address slot(std::int32_t s) const { return code_.ptr[slot_address(s)]; }
  std::int32_t new_slot() { return slots_++; }
  std::int32_t uniform_slot(std::int32_t input) const { return uniform_slot_[static_cast<std::size_t>(input)]; }
  std::int32_t slots() const { return slots_; }

  const ValuePlan& plan() const { return plan_; }

  const NativeFrame frame;

private:
  struct File { // the registers of one kind
    int first = 0;
    std::vector<ValueId> holds; // per register from `first` on
    std::vector<bool> pinned;
  };
  struct State {
    int reg = -1;           // register, -1: none
    std::int32_t slot = -1; // slot in scratch memory, -1: none
    std::int32_t next = 0;  // place of the next use in the plan's list
  };
  bool is_mask(ValueId v) const { return plan_.values[static_cast<std::size_t>(v)].mask; }
  File& file(ValueId v) { return is_mask(v) && code_.masks() > 0 ? masks_ : vectors_; }
  State& state(ValueId v) { return states_[static_cast<std::size_t>(v)]; }
  std::int32_t next_use(ValueId v) const; // operation, or past the last
  bool in_memory(ValueId v) const;        // has a home that can be loaded from
  void release(ValueId v);
  int take(File& file); // a free register, by sending away what is used farthest
  int bring(ValueId v);
  void put(ValueId v, int reg);
  void release_operands();

  VectorCode& code_;
  const ValuePlan& plan_;
  const std::vector<bool>& uniform_;
  std::vector<std::int32_t> uniform_slot_;
  std::vector<State> states_;
  File vectors_, masks_;
  std::vector<std::int32_t> free_slots_, freed_now_; // the latter are still read by the operation at work
  std::int32_t slots_ = 0, at_ = 0;
  Xbyak::Address memory_;
  Xbyak::Xmm register_;
};

} // namespace torvale::engine
