#include "language/diagnostics.h"

#include <algorithm>

namespace torvale::language {

namespace {

std::string_view severity_word(Severity s)
{
  return s == Severity::error ? "ERROR" : s == Severity::warning ? "WARNING" : "NOTE";
}

std::size_t characters(std::string_view s) // of UTF-8
{
  return static_cast<std::size_t>(
      std::count_if(s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
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

std::string render(const syntax::SourceMap& sources, const Diagnostic& d)
{
  std::string out = std::string(severity_word(d.severity)) + " " + std::to_string(message_group) + "/" +
                    std::to_string(d.number()) + ": ";
  out += sources.describe(d.where) + ": " + d.text;
  if (!d.expected.empty()) {
    out += " Expected ";
    for (std::size_t i = 0; i < d.expected.size(); ++i)
      out += (i == 0 ? "" : i + 1 == d.expected.size() ? " or " : ", ") + d.expected[i];
    out += ".";
  }
  if (!d.suggestion.empty()) out += " Is " + d.suggestion + " meant?";
  if (!d.repair.empty()) out += " To read on, " + d.repair + ".";
  out += "\n";
  std::string line(sources.line_text(d.where));
  if (line.empty() && d.where.line < 1) return out;
  std::replace(line.begin(), line.end(), '\t', ' ');
  // A long line is shown around the place.
  constexpr std::size_t widest = 110;
  std::size_t column = d.where.column > 0 ? static_cast<std::size_t>(d.where.column - 1) : 0;
  std::string lead;
  if (characters(line) > widest) {
    const std::size_t begin = column > widest / 2 ? column - widest / 2 : 0;
    std::size_t from = 0, seen = 0;
    while (from < line.size() && seen < begin) {
      ++from;
      while (from < line.size() && (static_cast<unsigned char>(line[from]) & 0xC0) == 0x80) ++from;
      ++seen;
    }
    std::size_t to = from, shown = 0;
    while (to < line.size() && shown < widest) {
      ++to;
      while (to < line.size() && (static_cast<unsigned char>(line[to]) & 0xC0) == 0x80) ++to;
      ++shown;
    }
    if (begin > 0) lead = "... ";
    line = line.substr(from, to - from);
    column -= begin;
  }
  const std::string number = std::to_string(d.where.line);
  out += "  " + number + " | " + lead + line + "\n  " + std::string(number.size(), ' ') + " | " +
         std::string(lead.size() + column, ' ');
  const std::size_t left = characters(line) > column ? characters(line) - column : 1;
  out += std::string(std::min<std::size_t>(static_cast<std::size_t>(d.length), left), '^') + "\n";
  return out;
}

} // namespace torvale::language
