#pragma once
// LaneRunner: runs one stage of a program over strips of lanes.
//
// A strip is short enough for the registers of the program to stay in the first-level cache, and long enough for the
// cost of reading a step to be small beside its work. Lanes beyond the last are copies of it, so what a lane computes
// never depends on where it stands.

#include "engine/stages/program.h"
#include "host/storage/scratch_file.h"

#include <memory>
#include <vector>

namespace torvale::engine {

inline constexpr int strip_lanes = 128; // most lanes of a strip

// Returns doubles to where they came from.
struct DoublesGiver {
  host::RowAllocator<double> from;
  std::size_t size = 0;
  void operator()(double* at) { from.deallocate(at, size); }
};

// Memory aligned for the widest vectors. Grows only. What nobody has written is anything: its pages are not touched.
class LaneArray {
public:
  double* data() { return data_; }
  const double* data() const { return data_; }
  void keep_in(const host::RowMemory& memory)
  {
    memory_ = Memory(nullptr, DoublesGiver{host::RowAllocator<double>(memory)});
  }
  // Room for n doubles; what was there is lost when it grows.
  void reserve(std::size_t n);

private:
  using Memory = std::unique_ptr<double[], DoublesGiver>;
  Memory memory_;
  double* data_ = nullptr;
  std::size_t size_ = 0;
};

// Which record, point and slot each lane of a strip stands for. Computed are `padded` lanes, a multiple of
// lane_padding: those beyond the last read copies of its values, or what stands behind them.
struct Lanes {
  int count = 0; // real lanes, 1..strip_lanes
  int padded = 0;
  int repeat = 1;                    // rows come in groups of this many equal ones
  const std::int32_t* row = nullptr; // `count` entries each; borrowed, or in `own`
  const std::int32_t* point = nullptr;
  const std::int32_t* slot = nullptr;
  std::int32_t own[3][strip_lanes];
  bool listed = true; // false: `row` and `point` have their first entries only, the others follow from how they run
  enum class Run : std::uint8_t { same, ascending, mixed, unknown };
  Run rows = Run::unknown, points = Run::unknown; // how the indices run; unknown: `finish` finds out
  void finish();
  void list();
};

// How many indices from the first on ascend one by one.
int ascending_run(const std::int32_t* index, int n);

// What the loads of a stage read.
struct Sources {
  std::uint64_t version = 0; // another one, above 0, whenever one of the following has changed

  const double* theta = nullptr;
  const double* ran = nullptr;      // random effect e at point p: ran[e * stride + p]
  std::int64_t points = 0;          // how many there are
  std::uint64_t points_version = 0; // changes with whatever depends on the points
  std::int64_t stride = 0;
  const double* const* columns = nullptr; // by Program::columns, per record
  std::int64_t rows = 0;                  // how many records
  const std::int32_t* records = nullptr;  // row of the bound data that each record is; null: of the same number
  const double* distinct = nullptr;       // of the stage of a column's values, as the next
  const double* observation = nullptr;    // result r of record i: observation[r * observation_stride + i - first]
  std::int64_t observation_stride = 0;
  std::int64_t first = 0;
  const double* point = nullptr; // result r of point p: point[r * point_stride + p]
  std::int64_t point_stride = 0;
  const double* totals = nullptr; // sum k of point p: totals[k * totals_stride + p]
  std::int64_t totals_stride = 0;
  const double* state = nullptr; // value k of slot s: state[k * state_stride + s]
  std::int64_t state_stride = 0;

  std::int64_t row(std::int32_t record) const { return records != nullptr ? records[record] : record; }
};

// Where the outputs of a strip go: output k to at[k * stride] and on, with room for the strip's padding. With `sums` to
// sums[k][first_sum] and on (Tile), but not from the padding; `at` is room then.
struct Outputs {
  double* at = nullptr;
  std::int64_t stride = 0;
  double* const* sums = nullptr;
  int first_sum = 0;
  bool adds = false;
};

// Character columns of the bound data, for text tests.
class CharacterColumns {
public:
  virtual std::string_view text(std::int32_t symbol, std::int64_t row) const = 0;

protected:
  ~CharacterColumns() = default;
};

// Where the results of a strip go that are not outputs.
class Results {
public:
  virtual void keep(std::int32_t result, const double* values, const Lanes& lanes) = 0;
  // Where a result of the strip may be written at once, padding included, in place of keep; null: nowhere.
  virtual double* room_for(std::int32_t result) const
  {
    (void)result;
    return nullptr;
  }

protected:
  ~Results() = default;
};

// Runs a stage strip by strip: by its machine code where it has some, else by walking its steps.
class LaneRunner {
public:
  LaneRunner(const CMPGLOBAL& gcmp, const StageCode& code)
      : gcmp_(gcmp), code_(code), can_be_native_(NativeStages::possible(code))
  {
  }

  // Takes the numbers that are the same in all lanes; parameter_results: results of the parameter stage.
  void fill_fixed(const double* parameter_results);
  // Runs one strip. Returns 0, or 1 when a loop did not end within the limit of passes.
  int run(Lanes& lanes, const Sources& sources, const CharacterColumns& texts, const Outputs& outputs,
          Results& results);
  int strip() const { return strip_; } // lanes of a full strip, once fill_fixed has been called

private:
  struct Operation {       // one step with the addresses of its registers
    KernelFn fn = nullptr; // null: a step of another kind
    double* out = nullptr;
    const double* in[kernel_operands_max] = {};
  };
  // Where the values of an input stand, and how the lanes' indices run through them.
  struct View {
    const double* from = nullptr;
    const std::int32_t* index = nullptr;
    Lanes::Run run = Lanes::Run::same;
    std::int64_t length = 0; // values that may be read
    int repeat = 1;          // indices come in groups of this many equal ones
  };
  static View view(const Input& input, const Lanes& lanes, const Sources& sources);
  void fetch(const Input& input, double* out, const Lanes& lanes, const Sources& sources) const;
  bool holds_points_of(const Lanes& lanes, const Sources& sources) const;
  void hold_points_of(const Lanes& lanes, const Sources& sources);

  int run_strip(Lanes& lanes, const Sources& sources, const CharacterColumns& texts, const Outputs& outputs,
                Results& results);
  void prepare();
  bool in_pairs(int lanes);
  const NativeStage* native(NativeShape shape);
  void run_native(const NativeStage& stage, const Lanes& lanes, const Sources& sources, const Outputs& outputs,
                  Results& results);
  void find_inputs(const Lanes& lanes, const Sources& sources);
  void place_outputs(const Outputs& outputs);

  int cached_strip() const;
  void prepare_steps(int strip);
  int walk(const Lanes& lanes, const Sources& sources, const CharacterColumns& texts, const Outputs& outputs,
           Results& results);
  void look_up(const Step& step, const Operation& op, int lanes);
  void answer(const Step& step, const Operation& op, const Lanes& lanes, const Sources& sources,
              const CharacterColumns& texts) const;
  double* reg(std::int32_t r) { return registers_.data() + static_cast<std::size_t>(r * strip_); }

  const CMPGLOBAL& gcmp_;
  const StageCode& code_;
  const bool can_be_native_;
  const KernelTable* table_ = nullptr; // the build that all was prepared for
  bool by_native_ = false;
  int strip_ = 0;
  LaneArray fixed_; // per fixed register lane_padding equal numbers

  std::array<const NativeStage*, NativeShape::count> native_{};
  bool can_be_paired_ = true;
  std::int64_t lanes_run_ = 0; // by machine code, until there are enough
  LaneArray fetched_;          // strip_ values for each input that cannot be read where it stands
  LaneArray kept_;             // strip_ values for each result that is not an output
  LaneArray scratch_;
  // How the lanes run through an input: not at all, by record, by point, or through values that must be fetched.
  enum class Along : std::uint8_t { nothing, rows, points, fetched };
  std::vector<Along> along_;              // per input
  bool fetches_ = false;                  // some input must always be fetched
  std::uint64_t known_version_ = 0;       // of the sources to which the next line belongs
  std::vector<const double*> input_base_; // per input: value of record or point 0
  std::vector<const double*> input_addresses_;
  std::vector<double*> result_addresses_;
  const double* outputs_at_ = nullptr; // the outputs that the first of these belong to

  LaneArray registers_; // strip_ values each
  std::vector<Operation> operations_;

  // The points that fetched values of point inputs stand for.
  std::int32_t held_[strip_lanes] = {};
  int held_count_ = 0; // 0: none
  std::uint64_t held_version_ = 0;
};

} // namespace torvale::engine
