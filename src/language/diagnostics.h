#pragma once
// What the scanner and parser have to say: data first, words for people second.

#include "host/messages/names/problem_numbers.h"
#include "syntax/source.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace torvale::language {

enum class Severity : std::uint8_t { note, warning, error };

// Messages of group 100, by name.
using torvale::Problem;

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

// What a diagnostic says, without its place.
std::string sentences(const Diagnostic& diagnostic);

// One diagnostic for people: place, text, the source line and a caret under it.
std::string render(const syntax::SourceMap& sources, const Diagnostic& diagnostic);

} // namespace torvale::language
