// Machine code against the lane kernels it stands for: the same bits, for every kernel, on every instruction set, with
// more values alive than there are registers, and whatever is the same in all lanes.

#include "engine/stages/native_stage.h"
#include "engine/stages/program.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace {

using namespace torvale::engine;

constexpr int lanes = 48;
constexpr double nan = std::numeric_limits<double>::quiet_NaN(), infinity = std::numeric_limits<double>::infinity();

struct alignas(64) Column {
  double value[lanes];
};

// Bits, with the ordinary missing value in place of a NaN that is not a missing value.
std::uint64_t bits_of(double x)
{
  return std::bit_cast<std::uint64_t>(run_kernel(Kernel::canonical, &x));
}

bool is_mask(Kernel k, int operand)
{
  if (k == Kernel::and_ || k == Kernel::or_ || k == Kernel::not_ || k == Kernel::and_not) return true;
  return operand == 0 && (k == Kernel::select || k == Kernel::select_or_zero);
}

Column numbers(std::mt19937& random)
{
  const double special[] = {0.0,   -0.0,   1.0,    -1.0,    0.5,       2.0,   3.0,    infinity, -infinity, nan,
                            1e300, -1e300, 5e-324, -1e-310, 0x1p-1022, 709.5, -745.0, -708.5,   1e-17,     0.1};
  Column c;
  for (double& v : c.value)
    v = random() % 2 == 0 ? special[random() % std::size(special)]
                          : std::uniform_real_distribution<>(-4.0, 9.0)(random);
  return c;
}

Column masks(std::mt19937& random)
{
  Column c;
  for (double& v : c.value) v = static_cast<double>(random() % 2);
  return c;
}

// A stage under construction, and what its registers would hold if the kernels were run one by one.
class StageUnderTest {
public:
  StageUnderTest(const KernelTable& table, int registers) : table_(table), held_(static_cast<std::size_t>(registers))
  {
    code_.registers = registers;
  }

  void load(int reg, const Column& values, Input::From from)
  {
    Step s;
    s.kind = Step::Kind::load;
    s.out = reg;
    s.index = static_cast<std::int32_t>(code_.inputs.size());
    code_.steps.push_back(s);
    code_.inputs.push_back({from, s.index});
    columns_.push_back(values);
    held_[static_cast<std::size_t>(reg)] = values;
  }

  void fix(int reg, double value)
  {
    code_.fixed.push_back({reg, true, value, 0});
    for (double& v : held_[static_cast<std::size_t>(reg)].value) v = value;
  }

  void apply(Kernel k, int out, const std::vector<int>& in)
  {
    Step s;
    s.kernel = k;
    s.out = out;
    const double* operands[kernel_operands_max] = {};
    for (const int r : in) {
      operands[s.operands] = held_[static_cast<std::size_t>(r)].value;
      s.in[static_cast<std::size_t>(s.operands++)] = r;
    }
    code_.steps.push_back(s);
    Column result;
    table_[k](result.value, operands, lanes);
    held_[static_cast<std::size_t>(out)] = result;
  }

  void output(int reg)
  {
    Step s;
    s.kind = Step::Kind::output;
    s.in[0] = reg;
    s.operands = 1;
    s.index = code_.outputs++;
    code_.steps.push_back(s);
    expected_.push_back(held_[static_cast<std::size_t>(reg)]);
  }

  // Runs the machine code of that shape, for single vectors of lanes and for pairs; what differs from the kernels'
  // results, or an empty text.
  std::string difference(NativeShape shape)
  {
    for (const bool paired : {false, true}) {
      shape.paired = paired;
      if (const std::string found = difference_of(shape); !found.empty()) return found + (paired ? ", in pairs" : "");
    }
    return "";
  }

private:
  std::string difference_of(NativeShape shape)
  {
    const std::unique_ptr<NativeStage> stage = make_native(code_, shape, table_);
    if (stage == nullptr) return "no machine code";
    std::vector<const double*> inputs;
    for (const Column& c : columns_) inputs.push_back(c.value);
    std::vector<Column> fixed(code_.fixed.size()), results(expected_.size());
    for (std::size_t k = 0; k < fixed.size(); ++k)
      std::fill_n(fixed[0].value + k * lane_padding, lane_padding, code_.fixed[k].value);
    std::vector<double*> addresses;
    for (Column& c : results) addresses.push_back(c.value);
    std::vector<Column> scratch(stage->scratch() / lanes + 1);
    NativeArguments arguments;
    arguments.inputs = inputs.data();
    arguments.fixed = fixed.empty() ? nullptr : fixed[0].value;
    arguments.results = addresses.data();
    arguments.scratch = scratch[0].value;
    arguments.lanes = lanes;
    const bool found_nan = stage->run(arguments);
    bool has_nan = false;
    for (std::size_t k = 0; k < expected_.size(); ++k)
      for (int i = 0; i < lanes; ++i) {
        const double mine = results[k].value[i], kernels = expected_[k].value[i];
        has_nan = has_nan || std::isnan(kernels);
        if (bits_of(mine) == bits_of(kernels)) continue;
        char text[200];
        std::snprintf(text, sizeof text, "output %zu, lane %d: %.17g (%016llx), by the kernels %.17g (%016llx)", k, i,
                      mine, static_cast<unsigned long long>(std::bit_cast<std::uint64_t>(mine)), kernels,
                      static_cast<unsigned long long>(std::bit_cast<std::uint64_t>(kernels)));
        return text;
      }
    return found_nan == has_nan ? "" : "NaNs among the outputs: told wrongly";
  }

  const KernelTable& table_;
  StageCode code_;
  std::vector<Column> columns_, held_, expected_;
};

class MachineCode : public testing::TestWithParam<int> {
protected:
  void SetUp() override
  {
#if !defined(__x86_64__)
    GTEST_SKIP() << "machine code is written for x86-64";
#endif
    int usable = 0;
    const KernelTable* const* const tables = usable_kernels(usable);
    if (GetParam() >= usable) GTEST_SKIP() << "this processor lacks the instructions";
    table_ = tables[GetParam()];
  }
  const KernelTable* table_ = nullptr;
};

TEST_P(MachineCode, EveryKernelGivesTheBitsOfItsLoop)
{
  std::mt19937 random(7);
  for (std::size_t at = 0; at < kernel_count; ++at) {
    const auto k = static_cast<Kernel>(at);
    for (int round = 0; round < 4; ++round) {
      StageUnderTest stage(*table_, kernel_operands_max + 1);
      std::vector<int> in;
      for (int j = 0; j < kernel_info(k).operands; ++j) {
        stage.load(j, is_mask(k, j) ? masks(random) : numbers(random), Input::From::column);
        in.push_back(j);
      }
      stage.apply(k, kernel_operands_max, in);
      stage.output(kernel_operands_max);
      stage.output(0);
      EXPECT_EQ(stage.difference({}), "") << kernel_info(k).name << ", " << table_->isa;
    }
  }
}

// Means of exponentials of a fixed order, many at once: with rates near each other in all lanes, in some and in none.
TEST_P(MachineCode, MeansOfExponentials)
{
  constexpr double orders[] = {0, 1, 10, 2, 11, 20, 3, 21, 12, 30, 22, 13, 4, 44};
  for (unsigned seed = 1; seed <= 12; ++seed) {
    std::mt19937 random(seed);
    constexpr int registers = 45, fixed = std::size(orders);
    StageUnderTest stage(*table_, registers);
    for (int r = 0; r < fixed; ++r) stage.fix(r, orders[r]);
    for (int r = fixed; r < registers; ++r) {
      Column values = numbers(random);
      if (seed % 3 != 0)
        for (double& v : values.value) v = std::uniform_real_distribution<>(0.0, seed % 3 == 1 ? 9.0 : 0.9)(random);
      stage.load(r, values, Input::From::column);
    }
    const auto any = [&] { return fixed + static_cast<int>(random() % (registers - fixed)); };
    for (int n = 0; n < 60; ++n) {
      const int out = any();
      stage.apply(Kernel::exp_mean, out, {any(), any(), any(), any(), static_cast<int>(random() % fixed)});
      if (n % 4 == 0) stage.output(out);
    }
    EXPECT_EQ(stage.difference({}), "") << "seed " << seed << ", " << table_->isa;
  }
}

// Long random stages over many registers: values are stored and brought back, masks and numbers are mixed, kernels are
// called in between.
TEST_P(MachineCode, MoreValuesThanRegisters)
{
  constexpr Kernel pool[] = {Kernel::add,
                             Kernel::subtract,
                             Kernel::multiply,
                             Kernel::divide,
                             Kernel::multiply_add,
                             Kernel::subtract_product,
                             Kernel::exp,
                             Kernel::log,
                             Kernel::tanh,
                             Kernel::atan2,
                             Kernel::power,
                             Kernel::less,
                             Kernel::equal_known,
                             Kernel::and_,
                             Kernel::not_,
                             Kernel::select,
                             Kernel::select_or_zero,
                             Kernel::least,
                             Kernel::is_missing,
                             Kernel::square,
                             Kernel::gamma_lower,
                             Kernel::absolute,
                             Kernel::truth,
                             Kernel::and_not,
                             Kernel::sqrt};
  for (unsigned seed = 1; seed <= 24; ++seed) {
    std::mt19937 random(seed);
    constexpr int registers = 90, mask_registers = 20; // the last ones hold masks
    const auto number = [&] { return static_cast<int>(random() % (registers - mask_registers)); };
    const auto mask = [&] { return registers - 1 - static_cast<int>(random() % mask_registers); };
    const NativeShape shape{seed % 2 == 1, seed % 4 >= 2};
    StageUnderTest stage(*table_, registers);
    for (int r = 0; r < registers; ++r) {
      Column values = r >= registers - mask_registers ? masks(random) : numbers(random);
      const bool by_row = random() % 2 == 0;
      if (by_row ? shape.one_row : shape.one_point)
        for (double& v : values.value) v = values.value[0];
      if (r < 6)
        stage.fix(r, values.value[0]);
      else
        stage.load(r, values, by_row ? Input::From::column : Input::From::point);
    }
    for (int n = 0; n < 300; ++n) {
      const Kernel k = pool[random() % std::size(pool)];
      const bool gives_mask = k == Kernel::less || k == Kernel::equal_known || k == Kernel::and_ || k == Kernel::not_ ||
                              k == Kernel::is_missing || k == Kernel::truth || k == Kernel::and_not;
      const int out = gives_mask ? mask() : number();
      const auto operand = [&](int j) { return is_mask(k, j) ? mask() : number(); };
      switch (kernel_info(k).operands) {
      case 1:
        stage.apply(k, out, {operand(0)});
        break;
      case 2:
        stage.apply(k, out, {operand(0), operand(1)});
        break;
      default:
        stage.apply(k, out, {operand(0), operand(1), operand(2)});
      }
      if (random() % 16 == 0) stage.output(random() % 8 == 0 ? mask() : number());
    }
    for (int k = 0; k < 10; ++k) stage.output(number());
    EXPECT_EQ(stage.difference(shape), "") << "seed " << seed << ", " << table_->isa;
  }
}

INSTANTIATE_TEST_SUITE_P(Instructions, MachineCode, testing::Values(0, 1, 2));

} // namespace
