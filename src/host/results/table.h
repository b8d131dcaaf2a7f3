#pragma once
#include "host/values/missing.h"
#include <concepts>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace torvale::host {

// One cell: a number (missing values and infinities allowed), an integer, or a text.
class Cell {
public:
  Cell(double x) : value_(x) {}
  Cell(std::integral auto x) : value_(static_cast<long long>(x)) {}
  Cell(std::string x) : value_(std::move(x)) {}
  Cell(std::string_view x) : value_(std::string(x)) {}
  Cell(const char* x) : value_(std::string(x)) {}

  const double* number() const { return std::get_if<double>(&value_); }
  const long long* integer() const { return std::get_if<long long>(&value_); }
  const std::string* text() const { return std::get_if<std::string>(&value_); }
  double as_number() const; // a text is missing
  bool is_missing() const { return number() && wzmis(*number()); }
  friend bool operator==(const Cell&, const Cell&) = default;

private:
  std::variant<double, long long, std::string> value_;
};

enum class CellKind { text, integer, number };

struct TableColumn {
  std::string name;                 // "Estimate"
  CellKind kind = CellKind::number; // of every cell in it; a number cell may stand in an integer column when missing
  std::string label;                // heading; empty: the table template's, else the name
  std::string format;               // "10.4", "D8.3", "PVALUE6.4"; empty: the template's, else best fit
  std::string generic;              // name of the family of columns it belongs to, as "Parm"; empty: none
};

// One output table: full precision; only a writer rounds.
class Table {
public:
  // The path is "Stat.TVL." and the name.
  Table(std::string name, std::string label, std::vector<TableColumn> columns);

  std::string name;  // "FitStatistics"
  std::string path;  // "Stat.TVL.FitStatistics"
  std::string label; // "Fit Statistics"
  std::string title; // dynamic title above it; empty: the label
  std::vector<TableColumn> columns;
  std::vector<std::pair<std::string, double>> dynamic; // values for headings, as {"confidence", 95}

  void row(std::vector<Cell> cells); // as many cells as columns
  const std::vector<std::vector<Cell>>& rows() const { return rows_; }
  std::size_t column(std::string_view column_name) const; // index, or npos
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

private:
  std::vector<std::vector<Cell>> rows_;
};

// Where tables go. A table is opened, filled row by row over any stretch of the run, and closed; it stands in the
// results at the place where it was opened.
class TableSink {
public:
  virtual ~TableSink() = default;
  virtual Table& open(Table table) = 0; // valid until closed
  virtual void close(Table& table) = 0; // shown now; no rows afterwards

  // wobmth, the table service in one call: publish a finished table.
  void wobmth(Table table) { close(open(std::move(table))); }
};

} // namespace torvale::host
