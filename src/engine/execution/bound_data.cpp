#include "engine/execution/bound_data.h"

#include "engine/execution/checked_run.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <numeric>

namespace torvale::engine {

std::shared_ptr<const BoundData> cmpbind(const CMPGLOBAL& gcmp, const DataView& view)
{
  return std::make_shared<BoundData>(gcmp, view);
}

BoundData::BoundData(const CMPGLOBAL& gcmp, const DataView& view) : gcmp_(gcmp), view_(view) {}

void cmporder(const BoundData& data, const std::int32_t* rows, std::int64_t count)
{
  data.set_order(rows, count);
}

void BoundData::set_order(const std::int32_t* rows, std::int64_t count) const
{
  ordered_.clear();
  order_ = rows;
  ordered_rows_ = count;
  ++order_version_;
}

const double* BoundData::ordered(const double* column) const
{
  const std::lock_guard<std::mutex> lock(making_);
  LaneArray& values = ordered_[column];
  if (values.data() != nullptr) return values.data();
  values.keep_in(view_.memory);
  const std::int64_t padded = (ordered_rows_ + lane_padding - 1) / lane_padding * lane_padding;
  values.reserve(static_cast<std::size_t>(padded));
  double* const to = values.data();
  for (std::int64_t i = 0; i < ordered_rows_; ++i) to[i] = column[order_[i]];
  for (std::int64_t i = ordered_rows_; i < padded; ++i) to[i] = to[ordered_rows_ - 1];
  return to;
}

namespace {

// Values are told apart by their bits. Null when there are too many.
std::unique_ptr<DistinctValues> find_distinct(const double* column, std::int64_t rows, const host::RowMemory& memory)
{
  constexpr std::size_t places = 4 * DistinctValues::most; // of a hash table with open addresses
  constexpr std::uint16_t empty = 0xFFFF;
  const auto most =
      static_cast<std::size_t>(std::min<std::int64_t>(DistinctValues::most, rows / DistinctValues::rows_each));
  auto found = std::make_unique<DistinctValues>();
  found->of_row = host::RowVector<std::uint16_t>(host::RowAllocator<std::uint16_t>(memory));
  found->of_row.resize(static_cast<std::size_t>(rows));
  std::vector<std::uint16_t> table(places, empty);
  std::vector<std::int32_t>& found_in = found->row;
  for (std::int64_t row = 0; row < rows; ++row) {
    const auto bits = std::bit_cast<std::uint64_t>(column[row]);
    std::size_t at = (bits * 0x9E3779B97F4A7C15U) >> 50; // the upper 14 bits
    while (table[at] != empty && std::bit_cast<std::uint64_t>(column[found_in[table[at]]]) != bits)
      at = (at + 1) % places;
    if (table[at] == empty) {
      if (found_in.size() == most) return nullptr;
      table[at] = static_cast<std::uint16_t>(found_in.size());
      found_in.push_back(static_cast<std::int32_t>(row));
    }
    found->of_row[static_cast<std::size_t>(row)] = table[at];
  }
  return found;
}

} // namespace

const DistinctValues* BoundData::distinct(std::int32_t symbol) const
{
  const double* const column = raw_column(symbol);
  const std::lock_guard<std::mutex> lock(making_);
  const auto [at, first] = distinct_.try_emplace(symbol);
  if (first) at->second = find_distinct(column, view_.rows, view_.memory);
  return at->second.get();
}

std::int64_t BoundData::subject_start(std::int64_t row) const
{
  return view_.subject_start != nullptr ? view_.subject_start[row] : 0;
}

const DataColumn* BoundData::column(std::int32_t symbol) const
{
  const int dsvarno = gcmp_.at(symbol).dsvarno;
  for (const DataColumn& c : view_.columns)
    if (c.dsvarno == dsvarno && dsvarno > 0) return &c;
  return nullptr;
}

const double* BoundData::raw_column(std::int32_t symbol) const
{
  const DataColumn* const c = column(symbol);
  if (c != nullptr && c->numeric != nullptr) return c->numeric;
  const std::lock_guard<std::mutex> lock(lacking_);
  if (missing_.data() == nullptr) {
    missing_.keep_in(view_.memory);
    missing_.reserve(static_cast<std::size_t>(view_.rows) + 1);
    std::fill_n(missing_.data(), view_.rows + 1, std::numeric_limits<double>::quiet_NaN());
  }
  return missing_.data();
}

double BoundData::raw(std::int32_t symbol, std::int64_t row) const
{
  return raw_column(symbol)[row];
}

std::string_view BoundData::text(std::int32_t symbol, std::int64_t row) const
{
  const DataColumn* const c = column(symbol);
  if (c == nullptr || c->codes == nullptr || c->dictionary == nullptr) return {};
  const std::int32_t code = c->codes[row];
  if (code < 0 || static_cast<std::size_t>(code) >= c->dictionary->size()) return {};
  return (*c->dictionary)[static_cast<std::size_t>(code)];
}

int BoundData::prepare(const Program& program, std::vector<const double*>& columns) const
{
  const std::lock_guard<std::mutex> lock(making_);
  bool complete = true;
  for (const Column& c : program.columns) complete = complete && (c.result < 0 || computed_.count(c.node) > 0);
  if (!complete && compute(program) != 0) endless_ = true;
  columns.clear();
  for (const Column& c : program.columns)
    columns.push_back(c.result < 0 ? raw_column(gcmp_.graph.node(c.node).index) : computed_.at(c.node).data());
  return endless_ ? 1 : 0;
}

// Runs the data stage over all records. With values kept from record to record the records go one by one.
int BoundData::compute(const Program& program) const
{
  struct Store final : Results {
    std::vector<double*> to;  // per result; null: not wanted again
    std::vector<double> kept; // next values
    std::size_t computed = 0;
    void keep(std::int32_t result, const double* values, const Lanes& lanes) override
    {
      const auto r = static_cast<std::size_t>(result);
      if (r >= computed)
        kept[r - computed] = values[0];
      else if (to[r] != nullptr)
        std::memcpy(to[r] + lanes.row[0], values, static_cast<std::size_t>(lanes.count) * sizeof(double));
    }
  } store;
  const StageCode& code = program.code(Stage::data);
  store.computed = static_cast<std::size_t>(program.computed_columns);
  store.to.resize(store.computed, nullptr);
  store.kept.resize(program.data_kept.size());
  for (const Column& c : program.columns) {
    if (c.result < 0 || computed_.count(c.node) > 0) continue;
    LaneArray& a = computed_[c.node];
    a.keep_in(view_.memory);
    a.reserve(static_cast<std::size_t>(view_.rows) + 1);
    store.to[static_cast<std::size_t>(c.result)] = a.data();
  }
  // Results of the parameter stage that depend on nothing at all, of loops that are not written out: the same for all
  // parameter values, of which there are none yet.
  const std::vector<NodeId>& nodes = program.code(Stage::parameter).results;
  std::vector<double> constants(nodes.size(), std::numeric_limits<double>::quiet_NaN());
  CheckedRun once(gcmp_, *this, nullptr, nullptr, 0, 0);
  once.be_silent();
  for (const Fixed& f : code.fixed)
    if (!f.constant)
      constants[static_cast<std::size_t>(f.index)] = once.value(nodes[static_cast<std::size_t>(f.index)]);
  if (once.endless()) return 1;
  std::vector<const double*> raw;
  for (const Column& c : program.columns)
    raw.push_back(c.result < 0 ? raw_column(gcmp_.graph.node(c.node).index) : nullptr);
  Sources sources;
  sources.version = 1;
  sources.columns = raw.data();
  sources.rows = view_.rows;
  std::vector<double> state(program.data_kept.size());
  sources.state = state.data();
  sources.state_stride = 1;
  LaneRunner runner(gcmp_, code);
  runner.fill_fixed(constants.data());
  const bool in_order = !program.data_kept.empty();
  Lanes lanes;
  for (std::int64_t row = 0; row < view_.rows; row += lanes.count) {
    lanes.count = in_order ? 1 : static_cast<int>(std::min<std::int64_t>(runner.strip(), view_.rows - row));
    std::iota(lanes.own[0], lanes.own[0] + lanes.count, static_cast<std::int32_t>(row));
    std::fill_n(lanes.own[1], lanes.count, 0);
    lanes.row = lanes.own[0];
    lanes.point = lanes.slot = lanes.own[1];
    lanes.rows = lanes.points = Lanes::Run::unknown;
    lanes.finish();
    if (in_order && subject_start(row) == row)
      for (std::size_t k = 0; k < state.size(); ++k)
        state[k] = gcmp_.graph.value(gcmp_.graph.carry_at(program.data_kept[k]).initial);
    if (runner.run(lanes, sources, *this, {}, store) != 0) return 1;
    state = store.kept;
  }
  return 0;
}

} // namespace torvale::engine
