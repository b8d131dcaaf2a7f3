#pragma once
// Machine code for the steps of a stage: one loop over vectors of lanes with everything in registers.
//
// The lane runner walks the steps one by one, each a loop over the lanes of a strip: reading a step, and carrying every
// value through memory, costs more than most operations do. Machine code pays neither. It does operation by operation
// what the lane kernels do, so that its results are theirs bit for bit; transcendental kernels are called. Stages with
// run-time loops or text tests have none, nor has a processor that is not x86-64 or a system that grants no executable
// memory: these walk the steps.

#include "engine/kernels/kernels.h"

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>

namespace torvale::engine {

struct StageCode;

// Which inputs are the same for all lanes of a run; one number is then read for each. Code is made for each shape
// apart.
struct NativeShape {
  bool one_row = false;
  bool one_point = false;
  bool paired = false; // two vectors of lanes at a time: lanes come in multiples of 2 lane_padding
  bool adds = false;   // outputs are added to what stands where they go
  int index() const { return (one_row ? 1 : 0) + (one_point ? 2 : 0) + (paired ? 4 : 0) + (adds ? 8 : 0); }
  static constexpr int count = 16;
};

// What a run reads and writes. All borrowed.
struct NativeArguments {
  const double* const* inputs = nullptr; // per input: `lanes` doubles, or one where the shape says that it is the same
  const double* fixed = nullptr;         // per fixed register lane_padding doubles, 64-byte aligned
  double* const* results = nullptr;      // per result: room for `lanes` doubles
  double* scratch = nullptr;             // NativeStage::scratch doubles, 64-byte aligned
  std::int64_t lanes = 0;                // a multiple of lane_padding, above 0
};

class NativeStage {
public:
  virtual ~NativeStage() = default;
  // Returns true when some output has a NaN, whose bits may not be those of the missing value.
  bool run(const NativeArguments& arguments) const { return entry_(&arguments) != 0; }
  std::size_t scratch() const { return scratch_; } // doubles of scratch memory
  std::size_t bytes() const { return bytes_; }     // of code, with its constants

protected:
  int (*entry_)(const NativeArguments*) = nullptr;
  std::size_t scratch_ = 0, bytes_ = 0;
};

// Code for a stage on the instruction set of `table`, calling the kernels of that table. Null when there can be none.
std::unique_ptr<NativeStage> make_native(const StageCode& code, NativeShape shape, const KernelTable& table);

// The machine code of one stage, made at first use and shared by threads.
class NativeStages {
public:
  // False when the stage has steps that only walking can do, or the processor or the system allows no machine code.
  static bool possible(const StageCode& code);
  // Null when there is none.
  const NativeStage* get(const StageCode& code, NativeShape shape, const KernelTable& table);

private:
  struct Made {
    bool tried = false;
    std::unique_ptr<NativeStage> code;
  };
  static constexpr int builds = 3;
  std::mutex making_;
  std::array<Made, builds * NativeShape::count> made_;
};

// Machine code is used unless it is switched off (tests and benchmarks compare the two). Choose before threads run.
bool native_enabled();
void set_native(bool enabled);

// Lanes that a worker runs of a stage before it takes code for pairs of vectors, which costs twice as much to write.
// The results are the same to the last bit.
std::int64_t native_pairs_after();
void set_native_pairs_after(std::int64_t lanes);

} // namespace torvale::engine
