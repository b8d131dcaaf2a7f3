#pragma once
// The records of parsed procedure statements: STMT, STLIST, PROCSTR.
//
// A statement's options are cells of an array indexed by slot number and bits of a flag set indexed by flag number;
// the numbers are part of the language (docs/ lists them) and are what statement processing reads.

#include "syntax/source.h"
#include "syntax/tree.h"

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace torvale::syntax {

// StItem: one entry of a list cell.
struct StItem {
  enum class Kind : std::uint8_t {
    number,     // `number` (missing: the missing pattern)
    range,      // `number` TO `to` BY `by`; of a PARMS value list
    name,       // `text`: a name of a variable, parameter or symbol
    text,       // `text`: a quoted text, quotes removed
    word,       // `text`: an option word kept as it stands (VARDEF)
    expression, // `expr`
    relation,   // `text`: one of < <= > >= ; joins operand lists `group` and `group` + 1 (BOUNDS)
    data_set,   // `text`: name as typed, quotes removed; `quoted`; `options`: text between the parentheses
  } kind = Kind::number;
  double number = 0.0;
  double to = 0.0;
  double by = 0.0;
  std::string text;
  std::string options;
  bool quoted = false;
  bool descending = false;    // of a BY variable
  int group = -1;             // bracket list, operand list or nesting this entry belongs to, from 0; -1 when none
  const Expr* expr = nullptr; // borrowed from the arena
  Position where;
};

// STLIST: one slot of a statement. type 0: the option was not given; 'n' a number; 'l' a list; 't' a text or data set.
struct STLIST {
  char type = 0;
  unsigned char mode = 0;          // 1: NOTSORTED of BY; else 0
  double number = 0.0;             // of type 'n'
  std::vector<StItem> list;        // of types 'l' and 't'
  Position where;                  // the option's word
  bool given() const { return type != 0; }
};

// Slots and flags have names: one enumeration each per statement, which the build makes from the grammar
// (syntax/statement_names.h).
template <class Name> inline constexpr bool names_slot = false;
template <class Name> inline constexpr bool names_flag = false;
template <class Name> concept SlotName = names_slot<Name>;
template <class Name> concept FlagName = names_flag<Name>;

// STMT: one procedure statement.
struct STMT {
  std::string name;                       // the statement's first word, upper case, in its full unabbreviated spelling as typed
  std::array<std::uint8_t, 32> opt{};     // flags: number n is bit 0x80 >> (n mod 8) of byte n / 8
  int nfld = 0;                           // slots 0..nfld are present
  std::vector<STLIST> fld;                // indexed by slot number, nfld + 1 cells
  Position where;                         // the statement's first word
  Position end;                           // its semicolon

  bool flag(int n) const { return (opt[static_cast<std::size_t>(n / 8)] & (0x80u >> (n % 8))) != 0; }
  void set_flag(int n, bool on = true)
  {
    const auto bit = static_cast<std::uint8_t>(0x80u >> (n % 8));
    auto& byte = opt[static_cast<std::size_t>(n / 8)];
    byte = static_cast<std::uint8_t>(on ? (byte | bit) : (byte & ~bit));
  }
  const STLIST& slot(int n) const;        // an empty cell when n is beyond nfld
  bool given(int n) const { return slot(n).given(); }
  double number_or(int n, double otherwise) const { return given(n) ? slot(n).number : otherwise; }

  bool flag(FlagName auto which) const { return flag(static_cast<int>(which)); }
  const STLIST& slot(SlotName auto which) const { return slot(static_cast<int>(which)); }
  bool given(SlotName auto which) const { return given(static_cast<int>(which)); }
  double number_or(SlotName auto which, double otherwise) const { return number_or(static_cast<int>(which), otherwise); }
};

// PROCSTR: what the parser leaves of one step.
struct PROCSTR {
  std::deque<STMT> statements;   // in source order; the first is the TORVALE statement
  STMT* current = nullptr;       // the statement being parsed, or null
  std::vector<int> traces;       // trace classes that the TORVALE statement switched on
  Program program;               // programming statements, generated ones included, with MODEL and RANDOM sites
  bool error = false;            // a statement is wrong: the step ends with return code 3000
};

// FindStmt: counts the statements whose name begins with `label`; *stmt gets the last match, null when none.
int FindStmt(PROCSTR& proc, std::string_view label, STMT** stmt);

} // namespace torvale::syntax
