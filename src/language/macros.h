#pragma once
// The macro facility: text with parameters and integer loops, for generated programs and for users.
//
//   %macro name(a=, b=1);  ...  %mend;      definition with keyword parameters
//   %name(a=x);                             a call: the body, with &a replaced, is read next
//   %do i = 1 %to 3 [%by 2]; ... %end;      the text once per integer, with &i replaced
//
// &name, or &name. with the dot eaten, is replaced when name is a parameter or loop variable in force; anything else
// keeps its ampersand. Single-quoted texts and comments are left alone.

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace torvale::language {

struct MacroParameter {
  std::string name;  // upper case
  std::string value; // the default
};

struct Macro {
  std::string name; // as defined
  std::vector<MacroParameter> parameters;
  std::string body;
};

// What went wrong, and where in the text that was read. `text` is empty when all went well.
struct MacroFault {
  std::string text;
  std::size_t at = 0;
  explicit operator bool() const { return !text.empty(); }
};

constexpr std::size_t largest_expansion = 8u << 20; // characters that macros may make in one program
constexpr long longest_loop = 100000;               // rounds of one %do
constexpr int deepest_loop = 20;                    // %do inside %do

// Reads a definition whose "%macro" begins at `at`. *end gets the place behind "%mend;" (on a fault: where to go on).
MacroFault read_definition(std::string_view text, std::size_t at, Macro& macro, std::size_t* end);
// Reads the bracket of a call, if there is one at `at`, and binds the parameters. *end: behind the bracket.
MacroFault read_call(std::string_view text, std::size_t at, const Macro& macro, std::vector<MacroParameter>& bound,
                     std::size_t* end);
// Finds the end of the loop whose "%do" begins at `at`: behind its "%end;".
MacroFault find_loop_end(std::string_view text, std::size_t at, std::size_t* end);
// Replaces parameters and runs loops. `budget` is what may still be written; it is lowered.
MacroFault expand(std::string_view text, std::vector<MacroParameter>& bound, std::string& out, std::size_t& budget,
                  int depth = 0);

} // namespace torvale::language
