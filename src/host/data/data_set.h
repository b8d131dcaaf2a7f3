#pragma once
#include "host/storage/scratch_file.h"
#include "host/values/calendar.h"
#include "host/values/missing.h"
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace torvale::host {

enum class ColumnKind { numeric, character };

// One variable: its values in row order. Characters are kept as codes into a dictionary of distinct values.
class Column {
public:
  Column(std::string name, ColumnKind kind, std::string label = {});

  const std::string& name() const { return name_; }
  const std::string& label() const { return label_; }
  const std::string& format() const { return format_; } // as "YYMMDD10."; empty: none
  ColumnKind kind() const { return kind_; }
  bool numeric() const { return kind_ == ColumnKind::numeric; }
  std::size_t rows() const { return numeric() ? numbers_.size() : codes_.size(); }

  // Numeric columns.
  std::span<const double> numbers() const { return numbers_; }
  double number(std::size_t row) const { return numbers_[row]; }
  void append(double value) { numbers_.push_back(canonical_missing(value)); }

  // Character columns. Values hold no trailing blanks; the empty text is the missing value.
  std::span<const std::uint32_t> codes() const { return codes_; }
  const std::vector<std::string>& dictionary() const { return dictionary_; } // code -> text, in order of appearance
  const std::string& text(std::size_t row) const { return dictionary_[codes_[row]]; }
  void append(std::string_view value);
  std::size_t text_width() const; // bytes of the longest value, at least 1

  bool is_missing(std::size_t row) const { return numeric() ? wzmis(numbers_[row]) : text(row).empty(); }
  void append_missing();
  // Many at a time, as a reader has them: numbers without other NaNs than
  // missing values; codes of another dictionary, of which code i means this
  // column's code code_here[i].
  void append_numbers(std::span<const double> values) { numbers_.insert(numbers_.end(), values.begin(), values.end()); }
  std::uint32_t code_of(std::string_view value); // new values are added
  void append_codes(std::span<const std::uint32_t> codes, std::span<const std::uint32_t> code_here);
  std::string shown(std::size_t row) const; // the value as text: shortest number, or the characters

  void rename(std::string name) { name_ = std::move(name); }
  void set_label(std::string label) { label_ = std::move(label); }
  void set_format(std::string format) { format_ = std::move(format); }
  Moment moment() const; // what its numbers mean, by the format
  // What the numbers mean to a file that can spell it: the moment of the format when every value has an ISO spelling.
  Moment written_as() const;
  void reserve(std::size_t rows);
  void keep_in(const RowMemory& memory);                  // where its values lie from now on; it must be empty
  Column select(std::span<const std::size_t> rows) const; // a copy of these rows, in this order

private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  std::string name_;
  std::string label_;
  std::string format_;
  ColumnKind kind_;
  RowVector<double> numbers_;
  RowVector<std::uint32_t> codes_;
  std::vector<std::string> dictionary_;
  std::unordered_map<std::string, std::uint32_t, Hash, std::equal_to<>> index_; // text -> code; looked up, never walked
};

// Order and equality of two rows' values of columns of the same kind: numbers with missing ones first, characters
// padded.
int compare_cells(const Column& a, std::size_t row_a, const Column& b, std::size_t row_b);

// A data set in memory: columns of equal length. Names are not case-sensitive and at most 32 bytes long.
class DataSet {
public:
  static constexpr std::size_t longest_name = 32;
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  std::string name; // "work.theoph", "mylib.theoph", or the path that was given
  std::string path; // file it came from; empty in memory
  std::string label;

  std::size_t rows() const { return columns_.empty() ? 0 : columns_.front().rows(); }
  const std::vector<Column>& columns() const { return columns_; }
  std::vector<Column>& columns() { return columns_; }

  // xvfind: index of a variable by name, npos when there is none. (x host, v variable.)
  std::size_t xvfind(std::string_view column) const;
  const Column* find(std::string_view column) const; // null when there is none
  Column& add(Column column);                        // the name must be new; valid until the next add

  // Row of the file (from 1, without the row of names) that row i of this set came from.
  std::int64_t file_row(std::size_t row) const
  {
    return file_rows_.empty() ? static_cast<std::int64_t>(row) + 1 : file_rows_[row];
  }
  void set_file_rows(std::vector<std::int64_t> rows) { file_rows_ = std::move(rows); }

  DataSet select(std::span<const std::size_t> rows) const; // a copy of these rows; file rows are kept
  std::vector<std::string> column_names() const;

  // Sorts the rows by these columns (indices), first one first; stable, missing values first. File rows go along.
  void sort_rows(std::span<const std::size_t> by);

private:
  std::vector<Column> columns_;
  std::vector<std::int64_t> file_rows_; // empty: row i is file row i + 1
};

} // namespace torvale::host
