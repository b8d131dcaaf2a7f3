#include "host/data/libraries.h"
#include "host/values/text.h"

namespace torvale::host {

std::size_t OutputDataSet::add_column(std::string name, ColumnKind kind, std::string label, std::string format)
{
  name = cut_name(name, DataSet::longest_name);
  // A name that is taken gets the first free number behind it, within the length that names have.
  std::string unique = name;
  for (int n = 2; data_.find(unique); ++n) {
    const std::string suffix = std::to_string(n);
    unique = std::string(cut_name(name, DataSet::longest_name - suffix.size())).append(suffix);
  }
  data_.add(Column(std::move(unique), kind, std::move(label))).set_format(std::move(format));
  numbers_.push_back(missing);
  texts_.emplace_back();
  return numbers_.size() - 1;
}

void OutputDataSet::set_from(std::size_t column, const Column& source, std::size_t row)
{
  if (source.numeric())
    numbers_[column] = source.number(row);
  else
    texts_[column] = source.text(row);
}

void OutputDataSet::end_row()
{
  for (std::size_t i = 0; i < numbers_.size(); ++i) {
    Column& column = data_.columns()[i];
    if (column.numeric())
      column.append(numbers_[i]);
    else
      column.append(std::string_view(texts_[i]));
    numbers_[i] = missing;
    texts_[i].clear();
  }
}

} // namespace torvale::host
