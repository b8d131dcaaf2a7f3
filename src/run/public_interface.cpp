// The public interface of the library, on top of a session: typed copies of its results.

#include "torvale/torvale.h"

#include "host/data/data_set.h"
#include "host/values/text.h"
#include "host/writers/table_writers.h"
#include "run/session.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace torvale {

namespace {

Value value_of(const host::Cell& cell)
{
  if (const auto* text = cell.text()) return *text;
  if (const auto* integer = cell.integer()) return *integer;
  return host::wzmis(*cell.number()) ? std::numeric_limits<double>::quiet_NaN() : *cell.number();
}

Table table_of(const host::Table& table)
{
  Table out{table.name, table.label, {}, {}};
  for (const host::TableColumn& column : table.columns) out.columns.push_back({column.name, column.label});
  for (const auto& row : table.rows()) {
    auto& cells = out.rows.emplace_back();
    for (const host::Cell& cell : row) cells.push_back(value_of(cell));
  }
  return out;
}

Severity severity_of(host::Severity severity)
{
  return severity == host::Severity::note      ? Severity::note
         : severity == host::Severity::warning ? Severity::warning
                                               : Severity::error;
}

Step step_of(const host::StepResult& step)
{
  Step out;
  out.return_code = step.return_code;
  for (const host::Message& m : step.messages)
    out.messages.push_back({m.group, m.number, severity_of(m.severity), m.text, m.by_group});
  for (const host::GroupResult& group : step.groups) {
    Group& g = out.groups.emplace_back();
    g.return_code = group.return_code;
    for (const auto& [name, value] : group.by) g.by.emplace_back(name, value_of(value));
    for (const host::Table& table : group.tables) g.tables.push_back(table_of(table));
  }
  for (const host::DataSetResult& d : step.data_sets) out.data_sets.push_back({d.name, d.path, d.rows});
  return out;
}

const Value* cell(const Table& table, std::size_t row, std::string_view column_name)
{
  const auto column = table.column(column_name);
  return column && row < table.rows.size() ? &table.rows[row][*column] : nullptr;
}

} // namespace

std::optional<std::size_t> Table::column(std::string_view column_name) const
{
  for (std::size_t i = 0; i < columns.size(); ++i)
    if (host::equal_names(columns[i].name, column_name)) return i;
  return std::nullopt;
}

double Table::number(std::size_t row, std::string_view column_name) const
{
  const Value* value = cell(*this, row, column_name);
  if (value != nullptr)
    if (const auto* integer = std::get_if<long long>(value)) return static_cast<double>(*integer);
  const double* number = value != nullptr ? std::get_if<double>(value) : nullptr;
  return number != nullptr ? *number : std::numeric_limits<double>::quiet_NaN();
}

std::string Table::text(std::size_t row, std::string_view column_name) const
{
  const Value* value = cell(*this, row, column_name);
  if (value == nullptr) return {};
  if (const auto* text = std::get_if<std::string>(value)) return *text;
  if (const auto* integer = std::get_if<long long>(value)) return std::to_string(*integer);
  return host::shortest(std::get<double>(*value));
}

const Table* Group::table(std::string_view name) const
{
  const auto at = std::find_if(tables.begin(), tables.end(), [&](auto& t) { return host::equal_names(t.name, name); });
  return at == tables.end() ? nullptr : &*at;
}

Data& Data::add(std::string name, std::span<const double> values)
{
  columns_.push_back({std::move(name), {values.begin(), values.end()}, {}, false});
  return *this;
}

Data& Data::add(std::string name, std::span<const std::string> values)
{
  columns_.push_back({std::move(name), {}, {values.begin(), values.end()}, true});
  return *this;
}

struct Run::State {
  std::unique_ptr<Session> session;
};

Run::Run(Settings settings) : state_(std::make_unique<State>())
{
  RunSettings s;
  s.program_name = std::move(settings.program_name);
  s.program_folder = std::move(settings.program_folder);
  s.output_folder = std::move(settings.output_folder);
  s.threads = settings.threads;
  s.seed = settings.seed;
  s.check_only = settings.check_only;
  s.strict = settings.strict;
  s.memory = settings.memory;
  s.listing = std::move(settings.listing);
  s.log = std::move(settings.log);
  if (settings.progress || settings.interrupted)
    s.progress = [state = state_.get(), progress = std::move(settings.progress),
                  interrupted = std::move(settings.interrupted)](std::string_view text) {
      if (progress) progress(text);
      if (interrupted && interrupted()) state->session->interrupt();
    };
  state_->session = std::make_unique<Session>(std::move(s));
}

Run::~Run() = default;

void Run::bind_data(const std::string& name, const std::string& path)
{
  state_->session->libraries().bind_data(name, path);
}

void Run::bind_library(const std::string& name, const std::string& path)
{
  state_->session->libraries().bind_library(name, path);
}

void Run::bind_data(const std::string& name, const Data& data)
{
  host::DataSet set;
  for (const Data::Column& given : data.columns_) {
    if (set.find(given.name)) throw std::invalid_argument("two columns are named " + given.name);
    host::Column column(std::string(host::cut_name(given.name, host::DataSet::longest_name)),
                        given.character ? host::ColumnKind::character : host::ColumnKind::numeric);
    for (const double x : given.numbers) column.append(x);
    for (const std::string& text : given.texts) column.append(std::string_view(text));
    if (!set.columns().empty() && column.rows() != set.rows())
      throw std::invalid_argument("column " + given.name + " has " + std::to_string(column.rows()) +
                                  " values, the others " + std::to_string(set.rows()));
    set.add(std::move(column));
  }
  state_->session->libraries().bind_memory(name, std::move(set));
}

Results Run::run(const std::string& program)
{
  const RunOutcome outcome = state_->session->run(program);
  Results results;
  results.exit_code = outcome.exit_code;
  for (const host::StepResult& step : outcome.results.steps) results.steps.push_back(step_of(step));
  results.json = host::results_json(outcome.results);
  return results;
}

void Run::interrupt()
{
  state_->session->interrupt();
}

} // namespace torvale
