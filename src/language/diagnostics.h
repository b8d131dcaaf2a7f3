#pragma once
// What the scanner and parser have to say: data first, words for people second.

#include "syntax/source.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace torvale::language {

enum class Severity : std::uint8_t { note, warning, error };

// Messages of group 100, by number.
enum class Problem : std::int16_t {
  syntax = 1, // a word or mark that cannot stand here
  unclosed_comment = 2,
  unclosed_quote = 3,
  unknown_character = 4,
  out_of_range = 5,
  not_whole = 6,
  name_too_long = 7,
  given_twice = 8,
  before_first_step = 9,
  bad_list = 10, // a range or prefix of names that cannot be resolved
  unknown_label = 11,
  bad_literal = 12, // a date, time or number that is none
  macro_fault = 13,
  include_fault = 14,
  misplaced_statement = 15,
  missing_part = 16, // a required option or part is absent
  bad_sequence = 17, // an empty TO/BY list, BY 0
  not_available = 18,
  without_effect = 19,
  ambiguous_reading = 20,
  bad_array = 21,
  too_many_errors = 22,
  bad_subprogram = 23,
  ends_early = 24, // a data set name that ends with a dot, and the like
  too_deep = 25,
};

// What each number means stands in the host's catalogue, group 100, for "torvale explain".
constexpr int message_group = 100;

struct Diagnostic {
  Severity severity = Severity::error;
  Problem problem = Problem::syntax;
  syntax::Position where;
  std::int32_t length = 1;           // characters that the caret line underlines
  std::string text;                  // complete sentences: what, and what to do
  std::string found;                 // of a syntax problem: what stands there
  std::vector<std::string> expected; // at most eight words that could stand there; empty after a repair
  std::string repair;                // what was repaired, to read on
  std::string suggestion;            // the nearest keyword of a misspelled word

  int number() const { return static_cast<int>(problem); }
};

// All diagnostics of a step, in order of discovery.
class Diagnostics {
public:
  Diagnostic& add(Severity severity, Problem problem, syntax::Position where, std::string text,
                  std::int32_t length = 1);
  Diagnostic& error(Problem problem, syntax::Position where, std::string text, std::int32_t length = 1)
  {
    return add(Severity::error, problem, where, std::move(text), length);
  }
  Diagnostic& warning(Problem problem, syntax::Position where, std::string text, std::int32_t length = 1)
  {
    return add(Severity::warning, problem, where, std::move(text), length);
  }
  int errors() const { return errors_; }
  std::vector<Diagnostic>& list() { return list_; }

private:
  std::vector<Diagnostic> list_;
  int errors_ = 0;
};

// One diagnostic for people: place, text, the source line and a caret under it.
std::string render(const syntax::SourceMap& sources, const Diagnostic& diagnostic);

} // namespace torvale::language
