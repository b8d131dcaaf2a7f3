#pragma once
#include "host/data/data_set.h"
#include "host/results/table.h"
#include <string>
#include <string_view>

namespace torvale::host {

// Headings and formats that the producers of tables leave open, by column name.
struct ColumnTemplate {
  std::string_view name;
  std::string_view heading; // {confidence} is filled from the table's dynamic values
  std::string_view format;
};
const ColumnTemplate* column_template(std::string_view column);
std::string column_heading(const Table& table, const TableColumn& column);
std::string column_format(const TableColumn& column);

// The cells of one column as they are shown in listing and report, not padded.
std::vector<std::string> formatted_cells(const Table& table, std::size_t column);

inline constexpr std::size_t listing_width = 100; // columns of a listing line

// A table as text: centred title and headings, columns aligned; split into panels when it is wider than the line.
std::string listing_text(const Table& table, std::size_t width = listing_width);

// A table as CSV (names, then full precision).
std::string csv_text(const Table& table);

// JSON of one table, in the form of the results file.
void append_json(std::string& out, const Table& table);
void append_json_string(std::string& out, std::string_view text); // quoted and escaped
void append_json_number(std::string& out, double x);              // null for missing, "inf", "-inf"

// The table as a data set, for SQLite and CSV libraries.
DataSet table_data_set(const Table& table);

} // namespace torvale::host
