#include "language/diagnostics.h"

#include "host/messages/source_excerpt.h"

#include <algorithm>

namespace torvale::language {

namespace {

std::string_view severity_word(Severity s)
{
  return s == Severity::error ? "ERROR" : s == Severity::warning ? "WARNING" : "NOTE";
}

} // namespace

Diagnostic& Diagnostics::add(Severity severity, Problem problem, syntax::Position where, std::string text,
                             std::int32_t length)
{
  Diagnostic d;
  d.severity = severity;
  d.problem = problem;
  d.where = where;
  d.length = std::max<std::int32_t>(1, length);
  d.text = std::move(text);
  if (severity == Severity::error) ++errors_;
  list_.push_back(std::move(d));
  return list_.back();
}

std::string sentences(const Diagnostic& d)
{
  std::string out = d.text;
  if (!d.expected.empty()) {
    out += " Expected ";
    for (std::size_t i = 0; i < d.expected.size(); ++i)
      out += (i == 0 ? "" : i + 1 == d.expected.size() ? " or " : ", ") + d.expected[i];
    out += ".";
  }
  if (!d.suggestion.empty()) out += " Is " + d.suggestion + " meant?";
  if (!d.repair.empty()) out += " To read on, " + d.repair + ".";
  return out;
}

std::string render(const syntax::SourceMap& sources, const Diagnostic& d)
{
  std::string out = std::string(severity_word(d.severity)) + " " + std::to_string(message_group) + "/" +
                    std::to_string(d.number()) + ": " + sources.describe(d.where) + ": " + sentences(d) + "\n";
  if (d.where.line < 1) return out;
  for (const auto& line : host::source_excerpt(d.where.line, sources.line_text(d.where), d.where.column, d.length))
    out += line + "\n";
  return out;
}

} // namespace torvale::language
