#include "host/data/data_set.h"
#include "host/values/formats.h"
#include "host/values/text.h"
#include <algorithm>
#include <numeric>

namespace torvale::host {

namespace {

std::string_view without_trailing_blanks(std::string_view text)
{
  const std::size_t last = text.find_last_not_of(' ');
  return last == std::string_view::npos ? std::string_view{} : text.substr(0, last + 1);
}

} // namespace

Column::Column(std::string name, ColumnKind kind, std::string label)
    : name_(std::move(name)), label_(std::move(label)), kind_(kind)
{
}

void Column::append(std::string_view value)
{
  value = without_trailing_blanks(value);
  // Neighbouring rows often agree (subjects, treatments): then no lookup.
  if (!codes_.empty() && dictionary_[codes_.back()] == value) {
    codes_.push_back(codes_.back());
    return;
  }
  codes_.push_back(code_of(value));
}

std::uint32_t Column::code_of(std::string_view value)
{
  const auto at = index_.find(value);
  if (at != index_.end()) return at->second;
  const auto code = static_cast<std::uint32_t>(dictionary_.size());
  dictionary_.emplace_back(value);
  index_.emplace(dictionary_.back(), code);
  return code;
}

void Column::append_codes(std::span<const std::uint32_t> codes, std::span<const std::uint32_t> code_here)
{
  for (const std::uint32_t code : codes) codes_.push_back(code_here[code]);
}

void Column::append_missing()
{
  if (numeric())
    append(missing);
  else
    append(std::string_view{});
}

std::size_t Column::text_width() const
{
  std::size_t width = 1;
  for (const std::string& value : dictionary_) width = std::max(width, value.size());
  return width;
}

std::string Column::shown(std::size_t row) const
{
  return numeric() ? shortest(numbers_[row]) : text(row);
}

Moment Column::moment() const
{
  std::string problem;
  const auto format = format_.empty() || !numeric() ? std::nullopt : parse_value_format(format_, problem);
  return format ? format->moment() : Moment::none;
}

Moment Column::written_as() const
{
  const Moment meant = moment();
  if (meant == Moment::none) return meant;
  std::string spelled;
  for (const double x : numbers_) {
    spelled.clear();
    if (!wzmis(x) && !append_iso(spelled, x, meant)) return Moment::none;
  }
  return meant;
}

void Column::reserve(std::size_t rows)
{
  if (numeric())
    numbers_.reserve(rows);
  else
    codes_.reserve(rows);
}

void Column::keep_in(const RowMemory& memory)
{
  numbers_ = RowVector<double>(RowAllocator<double>(memory));
  codes_ = RowVector<std::uint32_t>(RowAllocator<std::uint32_t>(memory));
}

Column Column::select(std::span<const std::size_t> rows) const
{
  Column out(name_, kind_, label_);
  out.set_format(format_);
  out.keep_in(numbers_.get_allocator().memory());
  out.reserve(rows.size());
  for (const std::size_t row : rows) {
    if (numeric())
      out.append(numbers_[row]);
    else
      out.append(std::string_view(text(row)));
  }
  return out;
}

int compare_cells(const Column& a, std::size_t row_a, const Column& b, std::size_t row_b)
{
  if (a.numeric()) return compare_values(a.number(row_a), b.number(row_b));
  if (&a == &b && a.codes()[row_a] == b.codes()[row_b]) return 0;
  return compare_padded(a.text(row_a), b.text(row_b));
}

std::size_t DataSet::xvfind(std::string_view column) const
{
  for (std::size_t i = 0; i < columns_.size(); ++i)
    if (equal_names(columns_[i].name(), column)) return i;
  return npos;
}

const Column* DataSet::find(std::string_view column) const
{
  const std::size_t i = xvfind(column);
  return i == npos ? nullptr : &columns_[i];
}

Column& DataSet::add(Column column)
{
  columns_.push_back(std::move(column));
  return columns_.back();
}

DataSet DataSet::select(std::span<const std::size_t> rows) const
{
  DataSet out;
  out.name = name;
  out.path = path;
  out.label = label;
  for (const Column& column : columns_) out.add(column.select(rows));
  std::vector<std::int64_t> file_rows;
  file_rows.reserve(rows.size());
  for (const std::size_t row : rows) file_rows.push_back(file_row(row));
  out.set_file_rows(std::move(file_rows));
  return out;
}

void DataSet::sort_rows(std::span<const std::size_t> by)
{
  std::vector<std::size_t> order(rows());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    for (const std::size_t i : by) {
      const int c = compare_cells(columns_[i], a, columns_[i], b);
      if (c != 0) return c < 0;
    }
    return false;
  });
  *this = select(order);
}

std::vector<std::string> DataSet::column_names() const
{
  std::vector<std::string> names;
  for (const Column& column : columns_) names.push_back(column.name());
  return names;
}

} // namespace torvale::host
