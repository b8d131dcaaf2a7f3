#include "host/values/text.h"
#include "host/writers/table_writers.h"
#include <algorithm>

namespace torvale::host {

namespace {

// One column ready for print: heading lines, cells, width.
struct ShownColumn {
  std::vector<std::string> heading;
  std::vector<std::vector<std::string>> cells; // per row its lines: long texts are broken
  std::size_t width = 1;
  bool text = false;
  bool identifies = false; // repeated at the left of every panel
};

constexpr std::size_t gap = 2;          // blanks between columns
constexpr std::size_t widest_text = 72; // columns of a text before it is broken into lines

ShownColumn shown_column(const Table& table, std::size_t i)
{
  const TableColumn& column = table.columns[i];
  ShownColumn out;
  out.text = column.kind == CellKind::text;
  for (std::string& cell : formatted_cells(table, i)) {
    const bool breaks = out.text && display_width(cell) > widest_text;
    out.cells.push_back(breaks ? wrapped(cell, widest_text, 0) : std::vector<std::string>{std::move(cell)});
    for (const std::string& line : out.cells.back()) out.width = std::max(out.width, display_width(line));
  }
  // A heading is broken at blanks to the width of the cells, or of its longest word.
  const std::string heading = column_heading(table, column);
  std::size_t longest_word = 0;
  for (const std::string& word : wrapped(heading, 1, 0)) longest_word = std::max(longest_word, display_width(word));
  out.width = std::max(out.width, longest_word);
  out.heading = wrapped(heading, std::max<std::size_t>(out.width, 10), 0);
  for (const std::string& line : out.heading) out.width = std::max(out.width, display_width(line));
  return out;
}

// The columns of each panel: as many as fit in the line; the identifying ones lead every panel.
std::vector<std::vector<std::size_t>> panels(const std::vector<ShownColumn>& columns, std::size_t width)
{
  std::vector<std::size_t> leading;
  std::size_t leading_width = 0;
  for (std::size_t i = 0; i < columns.size() && columns[i].identifies; ++i) {
    leading.push_back(i);
    leading_width += columns[i].width + gap;
  }
  std::vector<std::vector<std::size_t>> out(1, leading);
  std::size_t used = leading_width;
  for (std::size_t i = leading.size(); i < columns.size(); ++i) {
    if (used + columns[i].width > width && out.back().size() > leading.size()) {
      out.push_back(leading);
      used = leading_width;
    }
    out.back().push_back(i);
    used += columns[i].width + gap;
  }
  return out;
}

void append_line(std::string& out, std::string line)
{
  line.erase(line.find_last_not_of(' ') + 1);
  out += line + '\n';
}

std::string panel_text(const std::vector<ShownColumn>& columns, const std::vector<std::size_t>& chosen,
                       std::size_t rows, std::size_t width)
{
  std::size_t total = 0, heading_lines = 0;
  for (const std::size_t i : chosen) {
    total += columns[i].width + (total > 0 ? gap : 0);
    heading_lines = std::max(heading_lines, columns[i].heading.size());
  }
  const std::string margin(total < width ? (width - total) / 2 : 0, ' ');
  const auto aligned = [&](const ShownColumn& c, const std::string& text) {
    return c.text ? padded_right(text, c.width) : padded_left(text, c.width);
  };
  std::string out;
  for (std::size_t k = 0; k < heading_lines; ++k) {
    std::string line;
    for (const std::size_t i : chosen) {
      const ShownColumn& c = columns[i];
      const std::size_t first = heading_lines - c.heading.size(); // headings stand on the bottom line
      line += (line.empty() ? margin : std::string(gap, ' ')) + aligned(c, k < first ? "" : c.heading[k - first]);
    }
    append_line(out, line);
  }
  out += '\n';
  for (std::size_t row = 0; row < rows; ++row) {
    std::size_t lines = 1;
    for (const std::size_t i : chosen) lines = std::max(lines, columns[i].cells[row].size());
    for (std::size_t k = 0; k < lines; ++k) {
      std::string line;
      for (const std::size_t i : chosen) {
        const auto& cell = columns[i].cells[row];
        line += (line.empty() ? margin : std::string(gap, ' ')) + aligned(columns[i], k < cell.size() ? cell[k] : "");
      }
      append_line(out, line);
    }
  }
  return out;
}

} // namespace

std::string listing_text(const Table& table, std::size_t width)
{
  std::vector<ShownColumn> columns;
  for (std::size_t i = 0; i < table.columns.size(); ++i) columns.push_back(shown_column(table, i));
  // Columns that tell which row it is: texts and row numbers at the left.
  for (std::size_t i = 0; i < columns.size() && i < 2; ++i) {
    const std::string& name = table.columns[i].name;
    if (name != "Row" && name != "Iter" && name != "Parameter" && name != "Label") break;
    columns[i].identifies = true;
  }
  std::string out;
  append_line(out, centred(table.title.empty() ? table.label : table.title, width));
  out += '\n';
  bool first = true;
  for (const auto& chosen : panels(columns, width)) {
    if (!first) out += '\n';
    first = false;
    out += panel_text(columns, chosen, table.rows().size(), width);
  }
  return out;
}

} // namespace torvale::host
