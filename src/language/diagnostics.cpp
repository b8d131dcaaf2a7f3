#include "language/diagnostics.h"

#include <algorithm>

namespace torvale::language {

namespace {

constexpr ProblemEntry all_problems[] = {
  {Problem::syntax, Severity::error, "A word or mark stands where the language has no use for it.",
   "Look at the place of the caret and just before it: a missing semicolon, comma, operator or bracket is the usual cause."},
  {Problem::unclosed_comment, Severity::error, "A comment /* is not closed by */.", "Add */ where the comment ends."},
  {Problem::unclosed_quote, Severity::error, "A quoted text is not closed on its line.", "Add the closing quote; a quote inside a text is doubled."},
  {Problem::unknown_character, Severity::error, "A character that the language does not use.", "Remove it, or put the text into quotes."},
  {Problem::out_of_range, Severity::error, "The number of an option is outside its range.", "Give a number within the range that the message names."},
  {Problem::not_whole, Severity::error, "An option that counts was given a fraction.", "Give a whole number."},
  {Problem::name_too_long, Severity::error, "A name has more than 32 characters.", "Shorten it: it is not cut, since two names could become one."},
  {Problem::given_twice, Severity::warning, "An option or statement is given twice.", "Remove one; spellings of one option count as the same."},
  {Problem::before_first_step, Severity::error, "A statement stands before the first TORVALE statement.", "Begin the step with TORVALE DATA=...;"},
  {Problem::bad_list, Severity::error, "A list of names or values cannot be resolved.", "Name the members one by one, or correct the ends of the range."},
  {Problem::unknown_label, Severity::error, "A jump has no target, or a label is used twice.", "Labels are names followed by a colon at a statement's start."},
  {Problem::bad_literal, Severity::error, "A literal is no date, time or number.", "Write '31jan2024'd, '13:30't, '31jan2024:13:30:00'dt."},
  {Problem::macro_fault, Severity::error, "A macro definition, call or loop is malformed.", "See the macro section of the language guide."},
  {Problem::include_fault, Severity::error, "A file named by INCLUDE cannot be read.", "Paths are relative to the program's folder."},
  {Problem::misplaced_statement, Severity::error, "A statement stands where it cannot.", "Procedure statements stand at the top level of the step."},
  {Problem::missing_part, Severity::error, "A required option or part is absent.", "Add what the message names."},
  {Problem::bad_sequence, Severity::error, "A sequence n TO m BY k is empty or never ends.", "The sign of BY must lead from the first number to the last."},
  {Problem::not_available, Severity::error, "A statement of the language that this procedure does not offer.", "The message names what to use instead."},
  {Problem::without_effect, Severity::warning, "A statement or option that is accepted and does nothing.", "Remove it, so that readers are not misled."},
  {Problem::ambiguous_reading, Severity::warning, "A text that people often mean otherwise than it is read.", "Add parentheses or use the word form of the operator."},
  {Problem::bad_array, Severity::error, "An array is declared or used wrongly.", "ARRAY name[size] elements; subscripts in brackets of one kind."},
  {Problem::too_many_errors, Severity::error, "The step has more than 100 errors; the rest is not read.", "Correct the first ones: they may be the cause of the others."},
  {Problem::bad_subprogram, Severity::error, "A subprogram is defined wrongly.", "FUNCTION name(arguments); ... RETURN (value); ENDSUB;"},
  {Problem::ends_early, Severity::error, "A name ends before it is complete.", "A data set is called name, library.name or 'path'."},
  {Problem::too_deep, Severity::error, "Texts, statements or expressions are nested too deeply.", "Split them."},
};

std::string_view severity_word(Severity s)
{
  return s == Severity::error ? "ERROR" : s == Severity::warning ? "WARNING" : "NOTE";
}

std::size_t characters(std::string_view s) // of UTF-8
{
  return static_cast<std::size_t>(std::count_if(s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

} // namespace

std::span<const ProblemEntry> problems() { return all_problems; }

Diagnostic& Diagnostics::add(Severity severity, Problem problem, syntax::Position where, std::string text, std::int32_t length)
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
  std::string out = std::string(severity_word(d.severity)) + " " + std::to_string(message_group) + "/" + std::to_string(d.number()) + ": ";
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
    while (from < line.size() && seen < begin) { ++from; while (from < line.size() && (static_cast<unsigned char>(line[from]) & 0xC0) == 0x80) ++from; ++seen; }
    std::size_t to = from, shown = 0;
    while (to < line.size() && shown < widest) { ++to; while (to < line.size() && (static_cast<unsigned char>(line[to]) & 0xC0) == 0x80) ++to; ++shown; }
    if (begin > 0) lead = "... ";
    line = line.substr(from, to - from);
    column -= begin;
  }
  const std::string number = std::to_string(d.where.line);
  out += "  " + number + " | " + lead + line + "\n  " + std::string(number.size(), ' ') + " | " + std::string(lead.size() + column, ' ');
  const std::size_t left = characters(line) > column ? characters(line) - column : 1;
  out += std::string(std::min<std::size_t>(static_cast<std::size_t>(d.length), left), '^') + "\n";
  return out;
}

} // namespace torvale::language
