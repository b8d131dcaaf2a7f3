#include "engine/stages/native_stage.h"

#include "engine/stages/program.h"

#if defined(__x86_64__)
#include "engine/native/code_memory.h"
#include "engine/native/kernel_code.h"
#endif

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <span>

namespace torvale::engine {

namespace {

std::atomic<bool> enabled{true};
std::atomic<std::int64_t> pairs_after{32768};

#if defined(__x86_64__)

std::vector<bool> uniform_inputs(const StageCode& code, NativeShape shape)
{
  std::vector<bool> uniform;
  for (const Input& input : code.inputs)
    uniform.push_back(input.same_in_all_lanes() || (shape.one_row && input.by_row()) ||
                      (shape.one_point && input.by_point()));
  return uniform;
}

// Writes the code of one stage: loads what is the same for all lanes once, then goes through the lanes vector by
// vector.
class StageWriter {
public:
  StageWriter(VectorCode& code, const ValuePlan& plan, const std::vector<bool>& uniform, bool paired, int added,
              const KernelTable& table)
      : code_(code), plan_(plan), uniform_(uniform), paired_(paired), added_(added), table_(table),
        registers_(code, plan, uniform)
  {
  }

  // Returns the slots of scratch memory that the code uses.
  std::int32_t write()
  {
    enter();
    for (std::size_t k = 0; k < uniform_.size(); ++k) {
      if (!uniform_[k]) continue;
      code_.mov(frame().address, code_.ptr[frame().inputs + 8 * k]);
      code_.broadcast(code_.number_scratch(), code_.ptr[frame().address]);
      code_.store(registers_.slot(registers_.uniform_slot(static_cast<std::int32_t>(k))), code_.number_scratch());
    }
    Xbyak::Label next;
    code_.align(32);
    code_.L(next);
    for (std::size_t k = 0; k < plan_.operations.size(); ++k) {
      registers_.begin(static_cast<std::int32_t>(k));
      write(plan_.operations[k]);
    }
    code_.add(frame().offset, static_cast<std::uint32_t>(code_.vector_bytes() * (paired_ ? 2 : 1)));
    code_.cmp(frame().offset, code_.ptr[code_.rsp + end_at]);
    code_.jl(next, Xbyak::CodeGenerator::T_NEAR);
    leave();
    for (RareCall& call : rare_calls_) write(call);
    return registers_.slots();
  }

private:
  static constexpr int nan_at = 0, end_at = 8, frame_bytes = 24; // keeps the stack aligned for calls

  const NativeFrame& frame() const { return registers_.frame; }

  void enter()
  {
    const Xbyak::Reg64 arguments = code_.rdi;
    for (const Xbyak::Reg64& r : saved()) code_.push(r);
    code_.sub(code_.rsp, frame_bytes);
    code_.mov(frame().inputs, code_.ptr[arguments + offsetof(NativeArguments, inputs)]);
    code_.mov(frame().fixed, code_.ptr[arguments + offsetof(NativeArguments, fixed)]);
    code_.mov(frame().results, code_.ptr[arguments + offsetof(NativeArguments, results)]);
    code_.mov(frame().scratch, code_.ptr[arguments + offsetof(NativeArguments, scratch)]);
    code_.mov(frame().offset, code_.ptr[arguments + offsetof(NativeArguments, lanes)]);
    code_.shl(frame().offset, 3);
    code_.mov(code_.ptr[code_.rsp + end_at], frame().offset);
    code_.xor_(frame().offset, frame().offset);
    code_.mov(code_.ptr[code_.rsp + nan_at], frame().offset);
    code_.mov(code_.constants, reinterpret_cast<std::uint64_t>(VectorCode::constant_table()));
  }

  void leave()
  {
    code_.mov(code_.eax, code_.ptr[code_.rsp + nan_at]);
    code_.leave_vectors();
    code_.add(code_.rsp, frame_bytes);
    const auto all = saved();
    for (auto r = all.rbegin(); r != all.rend(); ++r) code_.pop(*r);
    code_.ret();
  }

  std::array<Xbyak::Reg64, 6> saved() const
  {
    return {frame().inputs, frame().results, frame().offset, frame().scratch, frame().fixed, code_.constants};
  }

  void write(const PlanOperation& op)
  {
    using Kind = PlanOperation::Kind;
    if (op.out != no_value && !registers_.wanted(op.out)) return;
    switch (op.kind) {
    case Kind::kernel:
      if (write_kernel(code_, registers_, op, rare_calls_)) return;
      if (table_.vector[static_cast<std::size_t>(op.kernel)] != nullptr)
        call_vector(op);
      else
        call_loop(op);
      return;
    case Kind::to_mask: {
      const int a = registers_.number(op.in[0]), out = registers_.result(op.out);
      const int t = code_.number_scratch();
      code_.move(t, code_.constant(Constant::zero));
      code_.compare(out, Predicate::less, t, code_.vector(a));
      return;
    }
    case Kind::to_number: {
      const int a = registers_.mask(op.in[0]);
      code_.choose_or_zero(registers_.result(op.out), a, code_.constant(Constant::one));
      return;
    }
    case Kind::nan: {
      const int a = registers_.number(op.in[0]);
      const Xbyak::Operand& b = registers_.source(op.in[1]);
      code_.compare(registers_.result(op.out), Predicate::unordered, a, b);
      return;
    }
    case Kind::any_nan:
      code_.lanes_of(code_.eax, registers_.mask(op.in[0]));
      code_.or_(code_.dword[code_.rsp + nan_at], code_.eax);
      registers_.result(no_value);
      return;
    case Kind::store: {
      const int a = registers_.number(op.in[0]);
      // The second vector of a result follows the first: its address stands there already.
      if (op.index != placed_ || placed_end_ != code_.getSize())
        code_.mov(frame().address, code_.ptr[frame().results + static_cast<std::size_t>(op.index) * 8]);
      const auto to =
          code_.ptr[frame().address + frame().offset + code_.vector_bytes() * static_cast<std::size_t>(op.half)];
      if (op.index < added_) {
        const int sum = code_.number_scratch();
        if (code_.vector_bytes() > aligned_operand) {
          code_.arithmetic(Arithmetic::add, sum, a, to);
        } else {
          code_.load(sum, to);
          code_.arithmetic(Arithmetic::add, sum, sum, code_.vector(a));
        }
        code_.store(to, sum);
      } else {
        code_.store(to, a);
      }
      registers_.result(no_value);
      placed_ = op.index;
      placed_end_ = code_.getSize();
      return;
    }
    }
  }

  // A kernel that takes and gives vectors in registers, by the convention of the platform: arguments in the first
  // vector registers, the result in the very first, and every vector register may be lost.
  void call_vector(const PlanOperation& op)
  {
    registers_.save_for_call();
    if (op.operands == 1) {
      registers_.copy_to(0, op.in[0]);
    } else { // through memory: an argument's register may be where another must go
      for (int j = 0; j < op.operands; ++j) registers_.save(op.in[static_cast<std::size_t>(j)]);
      for (int j = 0; j < op.operands; ++j) registers_.load_to(j, op.in[static_cast<std::size_t>(j)]);
    }
    code_.mov(code_.rax, reinterpret_cast<std::uint64_t>(table_.vector[static_cast<std::size_t>(op.kernel)]));
    code_.call(code_.rax);
    registers_.forget_registers();
    registers_.result_in(op.out, 0);
  }

  // A kernel that is a loop over lanes in memory: one vector of each operand is laid out for it.
  void call_loop(const PlanOperation& op)
  {
    registers_.save_for_call();
    if (loop_area_ < 0) {
      loop_area_ = registers_.new_slot();
      for (int j = 1; j < kernel_operands_max + address_slots + 1; ++j) registers_.new_slot();
    }
    const int t = code_.number_scratch();
    const std::int32_t addresses = loop_area_ + kernel_operands_max, out = addresses + address_slots;
    for (int j = 0; j < op.operands; ++j) {
      registers_.copy_to(t, op.in[static_cast<std::size_t>(j)]);
      code_.store(registers_.slot(loop_area_ + j), t);
      code_.lea(code_.rax, registers_.slot(loop_area_ + j));
      code_.mov(code_.ptr[frame().scratch + static_cast<std::size_t>(addresses * vector_slot + 8 * j)], code_.rax);
    }
    code_.lea(code_.rdi, registers_.slot(out));
    code_.lea(code_.rsi, registers_.slot(addresses));
    code_.mov(code_.edx, static_cast<std::uint32_t>(code_.width()));
    code_.leave_vectors();
    code_.mov(code_.rax, reinterpret_cast<std::uint64_t>(table_[op.kernel]));
    code_.call(code_.rax);
    registers_.forget_registers();
    registers_.result_in(op.out, 0);
    code_.load(0, registers_.slot(out));
  }

  void write(RareCall& call)
  {
    code_.L(call.enter);
    if (!call.called)
      join_mean(call, code_.vector(call.far), code_.vector(call.shown));
    else
      write_call(call);
    code_.jmp(call.back, Xbyak::CodeGenerator::T_NEAR);
  }

  void write_call(const RareCall& call)
  {
    if (saved_area_ < 0) {
      saved_area_ = registers_.new_slot();
      for (int r = 1; r < code_.vectors() + code_.masks() + 1 + kernel_operands_max; ++r) registers_.new_slot();
    }
    const auto vector_at = [&](int r) { return registers_.slot(saved_area_ + r); };
    const auto mask_at = [&](int r) { return registers_.slot(saved_area_ + code_.vectors() + r); };
    const auto argument_at = [&](int j) {
      return registers_.slot(saved_area_ + code_.vectors() + code_.masks() + 1 + j);
    };
    const int several = static_cast<int>(call.arguments.size());
    const auto call_function = [&](VectorFn fn) {
      code_.mov(code_.rax, reinterpret_cast<std::uint64_t>(fn));
      code_.call(code_.rax);
    };
    if (call.group >= 0) {
      code_.store_mask(mask_of(call), code_.mask_scratch(0));
      code_.store(argument_at(several), call.far);
      code_.store(argument_at(several + 1), call.shown);
    }
    for (const int r : call.vectors) code_.store(vector_at(r), r);
    for (const int r : call.masks) code_.store_mask(mask_at(r), r);
    if (several > 1) // through memory: an argument's register may be where another must go
      for (int j = 0; j < several; ++j) code_.store(argument_at(j), call.arguments[static_cast<std::size_t>(j)]);
    else if (call.arguments[0] != 0)
      code_.move(0, code_.vector(call.arguments[0]));
    const auto load_arguments = [&] {
      for (int j = 0; several > 1 && j < several; ++j) code_.load(j, argument_at(j));
    };
    if (call.group < 0) {
      load_arguments();
      call_function(table_.vector[static_cast<std::size_t>(call.kernel)]);
      if (call.out != 0) code_.move(call.out, code_.vector(0));
    } else {
      const std::vector<int>& orders = plan_.mean_orders[static_cast<std::size_t>(call.group)];
      for (std::size_t k = 0; k < orders.size(); ++k) {
        load_arguments();
        call_function(table_.mean[orders[k]]);
        code_.store(registers_.slot(call.first_slot + 2 + static_cast<std::int32_t>(k)), 0);
      }
      join_mean(call, argument_at(several), argument_at(several + 1));
    }
    for (const int r : call.vectors) code_.move(r, vector_at(r));
    for (const int r : call.masks) code_.load_mask(r, mask_at(r));
  }

  // The series in lanes whose rates are near, what is far in the others.
  void join_mean(const RareCall& call, const Xbyak::Operand& far, const Xbyak::Operand& shown)
  {
    const int t = code_.number_scratch(), near = code_.mask_scratch(0);
    code_.load_mask(near, mask_of(call));
    code_.move(t, far);
    code_.choose(t, near, mean_at(call), t);
    code_.arithmetic(Arithmetic::add, call.out, t, shown);
  }
  Xbyak::Address mask_of(const RareCall& call) const { return registers_.slot(call.first_slot + 1); }

  // Where the call of the group leaves the mean.
  Xbyak::Address mean_at(const RareCall& call) const
  {
    const std::vector<int>& orders = plan_.mean_orders[static_cast<std::size_t>(call.group)];
    const auto place = std::find(orders.begin(), orders.end(), call.order) - orders.begin();
    return registers_.slot(call.first_slot + 2 + static_cast<std::int32_t>(place));
  }

  VectorCode& code_;
  const ValuePlan& plan_;
  const std::vector<bool>& uniform_;
  const bool paired_;
  const int added_; // so many results are added to what stands where they go
  const KernelTable& table_;
  static constexpr std::size_t aligned_operand =
      16;                    // vectors of so many bytes are no operands where memory is not aligned
  std::int32_t placed_ = -1; // result that was stored last, and the end of the code that did
  std::size_t placed_end_ = 0;
  std::vector<RareCall> rare_calls_;
  std::int32_t saved_area_ = -1; // slots for the registers that a rare call must not change
  RegisterAllocator registers_;
  // Slots that hold the addresses of a loop's operands, 8 bytes each.
  static constexpr int address_slots = (kernel_operands_max * 8 + vector_slot - 1) / vector_slot;
  std::int32_t loop_area_ = -1; // slots for the operands of a loop, their addresses, and its result
};

// Whether the system grants memory that can be executed.
bool executable_memory()
{
  const std::uint8_t nothing[] = {0xC3}; // return
  return place_code(nothing).entry() != nullptr;
}

class WrittenStage final : public NativeStage {
public:
  WrittenStage(PlacedCode code, std::size_t bytes, std::int32_t slots) : code_(std::move(code))
  {
    entry_ = reinterpret_cast<int (*)(const NativeArguments*)>(reinterpret_cast<std::uintptr_t>(code_.entry()));
    bytes_ = bytes;
    scratch_ = static_cast<std::size_t>(slots) * vector_slot / sizeof(double);
  }

private:
  PlacedCode code_;
};

// Where a thread writes code before it is placed.
std::span<std::uint8_t> code_buffer(std::size_t size)
{
  thread_local std::unique_ptr<std::uint8_t[]> bytes;
  thread_local std::size_t held = 0;
  if (held < size + vector_slot) {
    held = 2 * size + vector_slot;
    bytes = std::make_unique_for_overwrite<std::uint8_t[]>(held);
  }
  void* start = bytes.get();
  std::size_t room = held;
  return {static_cast<std::uint8_t*>(std::align(vector_slot, size, start, room)), size};
}

#endif

} // namespace

#if defined(__x86_64__)

std::unique_ptr<NativeStage> make_native(const StageCode& code, NativeShape shape, const KernelTable& table)
{
  ValuePlan plan;
  const std::vector<bool> uniform = uniform_inputs(code, shape);
  if (!plan_values(code, uniform, shape.paired, plan)) return nullptr;
  constexpr std::size_t bytes_of_operation = 640, bytes_of_input = 32, bytes_of_rest = 4096;
  const std::size_t capacity =
      plan.operations.size() * bytes_of_operation + code.inputs.size() * bytes_of_input + bytes_of_rest;
  try {
    const std::unique_ptr<VectorCode> to = make_vector_code(table.isa, code_buffer(capacity));
    if (to == nullptr) return nullptr;
    const std::int32_t slots =
        StageWriter(*to, plan, uniform, shape.paired, shape.adds ? code.outputs : 0, table).write();
    to->ready();
    PlacedCode placed = place_code({to->getCode(), to->getSize()});
    if (placed.entry() == nullptr) return nullptr;
    return std::make_unique<WrittenStage>(std::move(placed), to->getSize(), slots);
  } catch (const Xbyak::Error&) { // more code than was thought: the steps are walked instead
    return nullptr;
  }
}

#else

std::unique_ptr<NativeStage> make_native(const StageCode&, NativeShape, const KernelTable&)
{
  return nullptr;
}

#endif

bool NativeStages::possible(const StageCode& code)
{
#if defined(__x86_64__)
  using Kind = Step::Kind;
  static const bool granted = executable_memory();
  return granted && std::none_of(code.steps.begin(), code.steps.end(), [](const Step& s) {
           return s.kind == Kind::text || s.kind == Kind::element || s.kind == Kind::loop_begin ||
                  s.kind == Kind::loop_end;
         });
#else
  (void)code;
  return false;
#endif
}

const NativeStage* NativeStages::get(const StageCode& code, NativeShape shape, const KernelTable& table)
{
  int build = 0;
  for (const char* const isa : {"baseline", "avx2", "avx512"}) {
    if (std::strcmp(isa, table.isa) == 0) break;
    ++build;
  }
  if (build == builds) return nullptr;
  const std::lock_guard<std::mutex> lock(making_);
  Made& made = made_[static_cast<std::size_t>(build * NativeShape::count + shape.index())];
  if (!made.tried) {
    made.tried = true;
    made.code = make_native(code, shape, table);
  }
  return made.code.get();
}

bool native_enabled()
{
  return enabled.load(std::memory_order_relaxed);
}

std::int64_t native_pairs_after()
{
  return pairs_after.load(std::memory_order_relaxed);
}

void set_native_pairs_after(std::int64_t lanes)
{
  pairs_after.store(lanes, std::memory_order_relaxed);
}

void set_native(bool on)
{
  enabled.store(on, std::memory_order_relaxed);
}

} // namespace torvale::engine
