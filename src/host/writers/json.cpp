#include "host/results/results.h"
#include "host/values/text.h"
#include "host/writers/table_writers.h"
#include <cmath>
#include <fmt/format.h>

namespace torvale::host {

namespace {

std::string_view kind_name(CellKind kind)
{
  return kind == CellKind::text ? "text" : kind == CellKind::integer ? "integer" : "double";
}

void append_cell(std::string& out, const Cell& cell)
{
  if (cell.text())
    append_json_string(out, *cell.text());
  else if (cell.integer())
    out += std::to_string(*cell.integer());
  else
    append_json_number(out, *cell.number());
}

void append_field(std::string& out, std::string_view name, std::string_view text)
{
  out += fmt::format("\"{}\": ", name);
  append_json_string(out, text);
}

// Puts a separator before every element but the first.
class Separated {
public:
  Separated(std::string& out, std::string_view separator) : out_(out), separator_(separator) {}
  void next()
  {
    if (!first_) out_ += separator_;
    first_ = false;
  }

private:
  std::string& out_;
  std::string_view separator_;
  bool first_ = true;
};

void append_message(std::string& out, const Message& message)
{
  out += fmt::format("{{\"group\": {}, \"number\": {}, \"severity\": \"{}\", ", message.group, message.number,
                     severity_name(message.severity));
  append_field(out, "text", message.text);
  if (message.line > 0 && !message.file.empty()) {
    out += ", ";
    append_field(out, "file", message.file);
    out += fmt::format(", \"line\": {}", message.line);
    if (message.column > 0) out += fmt::format(", \"column\": {}", message.column);
  }
  out += message.by_group < 0 ? ", \"by\": null}" : fmt::format(", \"by\": {}}}", message.by_group);
}

// The keys of a fit: what programs that read results ask for first.
void append_fit(std::string& out, const FitSummary& fit)
{
  if (!fit.present) return;
  out += fmt::format(", \"converged\": {}", !fit.converged ? "null" : *fit.converged ? "true" : "false");
  out += ",\n        \"verdict\": {";
  Separated findings(out, ", ");
  for (const auto& [item, finding] : fit.findings) {
    findings.next();
    append_json_string(out, item);
    out += ": ";
    append_json_string(out, finding);
  }
  out += "},\n        \"fit\": {";
  Separated figures(out, ", ");
  for (const auto& [key, value] : fit.figures) {
    figures.next();
    append_json_string(out, key);
    out += ": ";
    append_cell(out, value);
  }
  const auto by_parameter = [&](std::string_view key, const std::vector<double>& values) {
    out += fmt::format("}},\n        \"{}\": {{", key);
    Separated each(out, ", ");
    for (std::size_t i = 0; i < values.size(); ++i) {
      each.next();
      append_json_string(out, fit.parameters[i]);
      out += ": ";
      append_json_number(out, values[i]);
    }
  };
  by_parameter("start", fit.start);
  by_parameter("estimates", fit.estimates);
  out += "},\n        \"covariance\": ";
  if (fit.covariance.empty()) {
    out += "null";
    return;
  }
  out += "{\"names\": [";
  Separated names(out, ", ");
  for (const std::string& name : fit.parameters) {
    names.next();
    append_json_string(out, name);
  }
  out += "], \"packed\": [";
  Separated elements(out, ", ");
  for (const double x : fit.covariance) {
    elements.next();
    append_json_number(out, x);
  }
  out += "]}";
}

void append_data_source(std::string& out, const StepResult& step)
{
  if (!step.data.name.empty()) {
    out += "\"data\": {";
    append_field(out, "name", step.data.name);
    out += ", ";
    append_field(out, "path", step.data.path);
    out += fmt::format(", \"rows\": {}, \"variables\": {}", step.data.rows, step.data.variables);
    if (!step.data.sha256.empty()) {
      out += ", ";
      append_field(out, "sha256", step.data.sha256);
    }
    out += "},\n     ";
  }
  if (step.seed) out += fmt::format("\"seed\": {},\n     ", *step.seed);
}

void append_group(std::string& out, const GroupResult& group)
{
  out += "{\"by\": {";
  Separated by(out, ", ");
  for (const auto& [name, value] : group.by) {
    by.next();
    append_json_string(out, name);
    out += ": ";
    append_cell(out, value);
  }
  out += fmt::format("}}, \"return_code\": {}", group.return_code);
  append_fit(out, group.fit);
  out += ",\n        \"tables\": [";
  Separated tables(out, ",");
  for (const Table& table : group.tables) {
    tables.next();
    out += "\n        ";
    append_json(out, table);
  }
  out += "]}";
}

void append_listings(std::string& out, const std::vector<ProgramListing>& listings)
{
  out += ",\n     \"listings\": [";
  Separated separated(out, ",");
  for (const ProgramListing& listing : listings) {
    separated.next();
    out += "\n       {";
    append_field(out, "title", listing.title);
    out += ", ";
    append_field(out, "text", listing.text);
    out += '}';
  }
  out += ']';
}

void append_step(std::string& out, const StepResult& step)
{
  out += fmt::format("{{\"return_code\": {},\n     ", step.return_code);
  append_data_source(out, step);
  out += "\"messages\": [";
  Separated messages(out, ",");
  for (const Message& message : step.messages) {
    messages.next();
    out += "\n       ";
    append_message(out, message);
  }
  out += "],\n     \"groups\": [";
  Separated groups(out, ",");
  for (const GroupResult& group : step.groups) {
    groups.next();
    out += "\n       ";
    append_group(out, group);
  }
  out += "],\n     \"data_sets\": [";
  Separated sets(out, ", ");
  for (const DataSetResult& set : step.data_sets) {
    sets.next();
    out += '{';
    append_field(out, "name", set.name);
    out += ", ";
    append_field(out, "path", set.path);
    out += fmt::format(", \"rows\": {}}}", set.rows);
  }
  out += ']';
  if (!step.listings.empty()) append_listings(out, step.listings);
  out += '}';
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

void append_json_string(std::string& out, std::string_view text)
{
  out += '"';
  for (const char c : valid_utf8(text)) {
    switch (c) {
    case '"':
      out += "\\\"";
      break;
    case '\\':
      out += "\\\\";
      break;
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      if (static_cast<unsigned char>(c) < 0x20)
        out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
      else
        out += c;
    }
  }
  out += '"';
}

void append_json_number(std::string& out, double x)
{
  if (std::isnan(x))
    out += "null";
  else if (std::isinf(x))
    out += x > 0 ? "\"inf\"" : "\"-inf\"";
  else if (x == 0.0 && std::signbit(x))
    out += "-0.0"; // readers take "-0" for the integer 0
  else if (x == std::floor(x) && std::abs(x) < 9007199254740992.0)
    out += fmt::format("{:.0f}", x); // an integer: 1000000, not 1e+06
  else
    append_shortest(out, x);
}

void append_json(std::string& out, const Table& table)
{
  out += '{';
  append_field(out, "name", table.name);
  out += ", ";
  append_field(out, "path", table.path);
  out += ", ";
  append_field(out, "label", table.label);
  out += ",\n         \"columns\": [";
  Separated columns(out, ", ");
  for (const TableColumn& column : table.columns) {
    columns.next();
    out += '{';
    append_field(out, "name", column.name);
    out += fmt::format(", \"type\": \"{}\", ", kind_name(column.kind));
    append_field(out, "label", column_heading(table, column));
    out += '}';
  }
  out += "],\n         \"rows\": [";
  Separated rows(out, ",");
  for (const auto& row : table.rows()) {
    rows.next();
    out += "\n          [";
    Separated cells(out, ", ");
    for (const Cell& cell : row) {
      cells.next();
      append_cell(out, cell);
    }
    out += ']';
  }
  out += "]}";
}

std::string results_json(const RunResults& results)
{
  std::string out = "{";
  append_field(out, "torvale", results.version);
  out += ",\n \"program\": ";
  append_json_string(out, results.program);
  out += ",\n \"steps\": [";
  Separated steps(out, ",");
  for (const StepResult& step : results.steps) {
    steps.next();
    out += "\n    ";
    append_step(out, step);
  }
  out += "]}\n";
  return out;
}

} // namespace torvale::host
