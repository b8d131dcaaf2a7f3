#include "host/results/results.h"
#include "host/values/text.h"
#include "host/writers/table_writers.h"
#include <algorithm>
#include <fmt/format.h>

namespace torvale::host {

namespace {

std::vector<std::string_view> lines_of(std::string_view text)
{
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

// The range of a message: its characters, or the words of its line.
std::string range_json(const Message& message, const std::vector<std::string_view>& lines)
{
  const int line = std::max(message.line - 1, 0);
  int begin = 0, end = 0;
  if (message.line > 0 && static_cast<std::size_t>(line) < lines.size()) {
    const std::string_view text = lines[static_cast<std::size_t>(line)];
    begin = message.column > 0 ? message.column - 1
                               : static_cast<int>(std::min(text.find_first_not_of(" \t"), text.size()));
    const int width = static_cast<int>(display_width(text));
    end = message.length > 0 ? begin + message.length : std::max(width, begin + 1);
  }
  return fmt::format(
      "{{\"start\": {{\"line\": {0}, \"character\": {1}}}, \"end\": {{\"line\": {0}, \"character\": {2}}}}}", line,
      begin, end);
}

} // namespace

std::string diagnostics_json(const RunResults& results, std::string_view file, std::string_view program)
{
  const std::vector<std::string_view> lines = lines_of(program);
  std::string out = "{\"uri\": ";
  append_json_string(out, file);
  out += ", \"diagnostics\": [";
  bool first = true;
  for (const StepResult& step : results.steps)
    for (const Message& message : step.messages) {
      const int severity = message.severity == Severity::error ? 1 : message.severity == Severity::warning ? 2 : 3;
      out += fmt::format(
          "{}\n  {{\"range\": {}, \"severity\": {}, \"code\": \"{}/{}\", \"source\": \"torvale\", \"message\": ",
          first ? "" : ",", range_json(message, lines), severity, message.group, message.number);
      append_json_string(out, message.text);
      out += '}';
      first = false;
    }
  return out + (first ? "]}\n" : "\n]}\n");
}

} // namespace torvale::host
