#include "engine/native/register_allocator.h"

#include <algorithm>
#include <limits>

namespace torvale::engine {

namespace {

constexpr std::int32_t never = std::numeric_limits<std::int32_t>::max();

} // namespace

RegisterAllocator::RegisterAllocator(VectorCode& code, const ValuePlan& plan, const std::vector<bool>& uniform)
    : code_(code), plan_(plan), uniform_(uniform), states_(plan.values.size()), memory_(code.ptr[frame.scratch]),
      register_(0)
{
  vectors_.holds.assign(static_cast<std::size_t>(code.vectors()), no_value);
  vectors_.pinned.assign(vectors_.holds.size(), false);
  masks_.first = 1;
  masks_.holds.assign(static_cast<std::size_t>(code.masks()), no_value);
  masks_.pinned.assign(masks_.holds.size(), false);
  for (std::size_t v = 0; v < states_.size(); ++v) states_[v].next = plan.values[v].first_use;
  for (const bool same : uniform) uniform_slot_.push_back(same ? slots_++ : -1);
}

std::int32_t RegisterAllocator::next_use(ValueId v) const
{
  const std::int32_t next = states_[static_cast<std::size_t>(v)].next;
  return next < plan_.values[static_cast<std::size_t>(v)].end_of_uses ? plan_.uses[static_cast<std::size_t>(next)]
                                                                      : never;
}

bool RegisterAllocator::in_memory(ValueId v) const
{
  return plan_.values[static_cast<std::size_t>(v)].from != PlanValue::From::operation ||
         states_[static_cast<std::size_t>(v)].slot >= 0;
}

void RegisterAllocator::begin(std::int32_t at)
{
  at_ = at;
  free_slots_.insert(free_slots_.end(), freed_now_.begin(), freed_now_.end());
  freed_now_.clear();
  std::fill(vectors_.pinned.begin(), vectors_.pinned.end(), false);
  std::fill(masks_.pinned.begin(), masks_.pinned.end(), false);
}

void RegisterAllocator::load_to(int reg, ValueId v)
{
  const PlanValue& value = plan_.values[static_cast<std::size_t>(v)];
  const auto index = static_cast<std::size_t>(value.index);
  if (value.from == PlanValue::From::fixed) {
    code_.move(reg, code_.ptr[frame.fixed + index * vector_slot]);
  } else if (value.from == PlanValue::From::input && !uniform_[index]) {
    code_.mov(frame.address, code_.ptr[frame.inputs + index * 8]);
    code_.load(reg,
               code_.ptr[frame.address + frame.offset + code_.vector_bytes() * static_cast<std::size_t>(value.half)]);
  } else {
    const std::int32_t s = value.from == PlanValue::From::input ? uniform_slot_[index] : state(v).slot;
    if (value.mask)
      code_.load_mask(reg, slot(s));
    else
      code_.move(reg, slot(s));
  }
}

void RegisterAllocator::save(ValueId v)
{
  State& s = state(v);
  if (in_memory(v)) return;
  if (free_slots_.empty()) {
    s.slot = new_slot();
  } else {
    s.slot = free_slots_.back();
    free_slots_.pop_back();
  }
  if (is_mask(v))
    code_.store_mask(slot(s.slot), s.reg);
  else
    code_.store(slot(s.slot), s.reg);
}

int RegisterAllocator::take(File& file)
{
  std::size_t best = file.holds.size();
  std::int32_t farthest = -1;
  for (std::size_t r = 0; r < file.holds.size(); ++r) {
    if (file.pinned[r]) continue;
    const ValueId v = file.holds[r];
    const std::int32_t next = v == no_value ? never : next_use(v);
    if (next > farthest) {
      farthest = next;
      best = r;
      if (v == no_value) break;
    }
  }
  const ValueId v = file.holds[best];
  if (v != no_value) {
    if (next_use(v) != never) save(v);
    state(v).reg = -1;
    file.holds[best] = no_value;
  }
  file.pinned[best] = true;
  return file.first + static_cast<int>(best);
}

int RegisterAllocator::bring(ValueId v)
{
  File& f = file(v);
  State& s = state(v);
  if (s.reg < 0) {
    s.reg = take(f);
    f.holds[static_cast<std::size_t>(s.reg - f.first)] = v;
    load_to(s.reg, v);
  }
  f.pinned[static_cast<std::size_t>(s.reg - f.first)] = true;
  return s.reg;
}

int RegisterAllocator::number(ValueId v)
{
  return bring(v);
}

int RegisterAllocator::mask(ValueId v)
{
  return bring(v);
}

const Xbyak::Operand& RegisterAllocator::source(ValueId v)
{
  const PlanValue& value = plan_.values[static_cast<std::size_t>(v)];
  const bool streamed = value.from == PlanValue::From::input && !uniform_[static_cast<std::size_t>(value.index)];
  if (state(v).reg >= 0 || streamed || !in_memory(v)) {
    register_ = code_.vector(bring(v));
    return register_;
  }
  if (value.from == PlanValue::From::fixed)
    memory_ = code_.ptr[frame.fixed + static_cast<std::size_t>(value.index) * vector_slot];
  else
    memory_ = slot(value.from == PlanValue::From::input ? uniform_slot(value.index) : state(v).slot);
  return memory_;
}

// A value that is not read again leaves its register, and its slot to others.
void RegisterAllocator::release(ValueId v)
{
  State& s = state(v);
  while (next_use(v) <= at_) ++s.next;
  if (next_use(v) != never) return;
  if (s.reg >= 0) {
    File& f = file(v);
    f.holds[static_cast<std::size_t>(s.reg - f.first)] = no_value;
    f.pinned[static_cast<std::size_t>(s.reg - f.first)] = false;
    s.reg = -1;
  }
  if (s.slot >= 0) {
    freed_now_.push_back(s.slot);
    s.slot = -1;
  }
}

void RegisterAllocator::release_operands()
{
  const PlanOperation& op = plan_.operations[static_cast<std::size_t>(at_)];
  for (int j = 0; j < op.operands; ++j) release(op.in[static_cast<std::size_t>(j)]);
}

int RegisterAllocator::result(ValueId v)
{
  release_operands();
  if (v == no_value) return -1;
  const int reg = take(file(v));
  put(v, reg);
  return reg;
}

void RegisterAllocator::result_in(ValueId v, int reg)
{
  release_operands();
  put(v, reg);
}

void RegisterAllocator::put(ValueId v, int reg)
{
  File& f = file(v);
  f.holds[static_cast<std::size_t>(reg - f.first)] = v;
  f.pinned[static_cast<std::size_t>(reg - f.first)] = true;
  state(v).reg = reg;
}

void RegisterAllocator::save_for_call()
{
  for (File* const f : {&vectors_, &masks_})
    for (const ValueId v : f->holds) {
      if (v == no_value) continue;
      const PlanValue& value = plan_.values[static_cast<std::size_t>(v)];
      if (value.first_use < value.end_of_uses && plan_.uses[static_cast<std::size_t>(value.end_of_uses) - 1] > at_)
        save(v);
    }
}

void RegisterAllocator::forget_registers()
{
  for (File* const f : {&vectors_, &masks_}) {
    for (ValueId& v : f->holds) {
      if (v != no_value) state(v).reg = -1;
      v = no_value;
    }
    std::fill(f->pinned.begin(), f->pinned.end(), false);
  }
}

std::vector<int> RegisterAllocator::occupied(bool masks) const
{
  const File& f = masks ? masks_ : vectors_;
  std::vector<int> registers;
  for (std::size_t r = 0; r < f.holds.size(); ++r)
    if (f.holds[r] != no_value) registers.push_back(f.first + static_cast<int>(r));
  return registers;
}

void RegisterAllocator::copy_to(int reg, ValueId v)
{
  if (state(v).reg < 0)
    load_to(reg, v);
  else if (state(v).reg != reg)
    code_.move(reg, code_.vector(state(v).reg));
}

} // namespace torvale::engine
