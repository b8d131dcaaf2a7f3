#include "host/results.h"
#include "host/table_writers.h"
#include "host/text.h"
#include <fmt/format.h>

namespace torvale::host {

namespace {

constexpr std::string_view page_style =
    "body{font:15px/1.45 system-ui,sans-serif;margin:2em auto;max-width:72em;padding:0 1em;color:#1a1a1a}"
    "h1{font-size:1.5em}h2{font-size:1.2em;margin-top:2em;border-bottom:1px solid #ccc}h3{font-size:1.05em}"
    ".wide{overflow-x:auto}table{border-collapse:collapse;margin:1em 0 1.6em}"
    "caption{font-weight:600;text-align:left;padding:.3em 0}"
    "th,td{padding:.18em .8em;border-bottom:1px solid #e4e4e4;text-align:right;vertical-align:bottom;"
    "font-variant-numeric:tabular-nums}th{border-bottom:2px solid #999}.t{text-align:left}"
    ".note{color:#345}.warning{color:#8a5a00}.error{color:#a00000;font-weight:600}"
    "@media(prefers-color-scheme:dark){body{background:#181818;color:#ddd}th,td{border-color:#444}"
    ".note{color:#9ab}.warning{color:#e0b050}.error{color:#ff8080}}";

std::string escaped(std::string_view text)
{
  std::string out;
  for (const char c : valid_utf8(text)) {
    switch (c) {
    case '&':
      out += "&amp;";
      break;
    case '<':
      out += "&lt;";
      break;
    case '>':
      out += "&gt;";
      break;
    case '"':
      out += "&quot;";
      break;
    default:
      out += c;
    }
  }
  return out;
}

std::string messages_html(const StepResult& step)
{
  if (step.messages.empty()) return {};
  std::string out = "<ul class=\"messages\">\n";
  for (const Message& m : step.messages)
    out += fmt::format("<li class=\"{}\">{} {}/{}: {}</li>\n", severity_name(m.severity), severity_name(m.severity),
                       m.group, m.number, escaped(m.text));
  return out + "</ul>\n";
}

} // namespace

std::string by_text(const ByValues& by)
{
  std::string out;
  for (const auto& [name, value] : by)
    out += fmt::format("{}{}={}", out.empty() ? "" : " ", name,
                       value.text() ? *value.text() : shortest(value.as_number()));
  return out;
}

std::string html_text(const Table& table)
{
  std::string out = fmt::format("<div class=\"wide\"><table id=\"{}\">\n<caption>{}</caption>\n<tr>",
                                escaped(table.name), escaped(table.title.empty() ? table.label : table.title));
  std::vector<std::vector<std::string>> cells;
  const auto css = [&](std::size_t i) { return table.columns[i].kind == CellKind::text ? " class=\"t\"" : ""; };
  for (std::size_t i = 0; i < table.columns.size(); ++i) {
    out += fmt::format("<th{}>{}</th>", css(i), escaped(column_heading(table, table.columns[i])));
    cells.push_back(formatted_cells(table, i));
  }
  out += "</tr>\n";
  for (std::size_t row = 0; row < table.rows().size(); ++row) {
    out += "<tr>";
    for (std::size_t i = 0; i < cells.size(); ++i) out += fmt::format("<td{}>{}</td>", css(i), escaped(cells[i][row]));
    out += "</tr>\n";
  }
  return out + "</table></div>\n";
}

std::string results_html(const RunResults& results)
{
  std::string out = fmt::format("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                                "<meta name=\"viewport\" content=\"width=device-width\"><title>{0}</title>"
                                "<style>{1}</style></head><body>\n<h1>{0}</h1>\n",
                                escaped(results.program), page_style);
  for (std::size_t i = 0; i < results.steps.size(); ++i) {
    const StepResult& step = results.steps[i];
    if (results.steps.size() > 1) out += fmt::format("<h2>Step {}</h2>\n", i + 1);
    out += messages_html(step);
    for (const GroupResult& group : step.groups) {
      if (!group.by.empty()) out += fmt::format("<h3>{}</h3>\n", escaped(by_text(group.by)));
      for (const Table& table : group.tables) out += html_text(table);
    }
    for (const DataSetResult& set : step.data_sets)
      out += fmt::format("<p>Data set {}: {} rows, {}</p>\n", escaped(set.name), set.rows, escaped(set.path));
  }
  return out + fmt::format("<p>Torvale {}</p>\n</body></html>\n", escaped(results.version));
}

} // namespace torvale::host
