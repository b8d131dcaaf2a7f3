#pragma once
// The grammar as the parser interprets it: tables that the build makes from torvale.grammar, and the option rows.

#include <cstdint>
#include <span>
#include <string_view>

namespace torvale::language {

struct PARSECONTROL;

// SEMARG: a semantic action as the parser hands it over.
struct SEMARG {
  int action = 0; // routine number
  int argn = 0;   // arguments in use
  std::int16_t arglist[20] = {};
  std::int16_t production = 0; // the production that was recognised
  std::int16_t length = 0;     // symbols of its right-hand side
};

// PARSECONTROL: everything that the table-driven parser knows of the language. Tables are constant and shared.
// Symbols: 1..maxterminal are terminals (token classes, then spellings in ASCII order, the end mark $$$ last);
// goaltoken and above are nonterminals.
struct PARSECONTROL {
  std::int16_t revision;    // 1
  std::int16_t goaltoken;   // first nonterminal, maxterminal + 1
  std::int16_t maxterminal; // number of the end mark
  std::int32_t maxprslsz;   // elements of prslst

  const std::int16_t* prdlst;  // productions: a length, then the right-hand side, last symbol first; -k is action k
  const std::int16_t* prdndx;  // offset of each production in prdlst
  const std::int16_t* lhstbl;  // left-hand side of each production, 0-based nonterminal
  const std::int16_t* prslst;  // per state (symbol, entry) pairs by rising symbol: entry > 0 a state, < 0 minus a
                               // production; symbol 0: reduce without looking at the next token; entry 0 accepts
  const std::int32_t* prsndx;  // offset of each state in prslst; one more at the end
  const std::int16_t* actmap;  // routine number of each action, from 1
  const std::int16_t* argndx;  // offset of an action's arguments in argtbl, -1 none
  const std::int16_t* argtbl;  // a count, then the arguments
  const char* symtbl;          // terminal spellings: a length byte, then the text
  const std::int16_t* symndx;  // offset of each spelling in symtbl
  const std::int16_t* symmap;  // symbol number of each spelling
  const std::uint8_t* delcost; // cost of deleting a terminal, by symbol - 1
  const std::uint8_t* inscost; // cost of inserting a symbol, by symbol - 1
  const std::int16_t* insndx;  // offset of each nonterminal in instbl
  const std::int16_t* instbl;  // a count, then the cheapest terminals that derive the nonterminal
  std::int16_t maxcost;        // 127: no repair is tried above it
  std::int16_t valcost;        // 63: a repair must stay under it
  std::int16_t inslen;         // elements of instbl

  // semroutine: called with each recognised production that has an action, in order. Filled by the parser.
  int (*semroutine)(PARSECONTROL& control, const SEMARG& action, void* user);
  void* user;     // handed to semroutine
  bool xsyndebug; // shifts and reductions are traced

  // Sizes and classes that the tables themselves do not tell.
  std::int32_t productions, states, classes;

  std::string_view spelling(int terminal) const
  {
    const char* entry = symtbl + symndx[terminal - 1];
    return {entry + 1, static_cast<std::size_t>(static_cast<unsigned char>(entry[0]))};
  }
};

// The forms of an option's value.
enum class ValueKind : std::uint8_t {
  number,
  count,
  integer,
  number_or_missing,
  count_or_missing, // count and integer: whole numbers
  input,
  output, // data sets
  name,
  word,
  keep,
};

struct OptionWord {
  std::string_view spelling; // with the $ mark
  std::int16_t code;
};

// One value that an option takes.
struct OptionValue {
  ValueKind kind;
  std::int16_t slot;
  bool has_low, has_high;
  std::int16_t low, high;            // limits, inclusive
  std::span<const OptionWord> words; // of word and keep
};

// One option of a statement, as the grammar file states it.
struct OptionRow {
  std::string_view statement;
  std::span<const std::string_view> words; // spellings, with the $ mark
  bool optional;                           // "= value" may be left out
  std::span<const OptionValue> values;     // alternatives; empty for a flag
  std::span<const OptionValue> bracket;    // zero or one
  std::span<const std::int16_t> traces;    // trace classes
  std::span<const std::int16_t> flags;     // flags set
  std::string_view initial;                // what holds without the option
  std::string_view meaning;
};

// tvlg: the grammar of this program (tvl the procedure, g grammar). A copy of the record; the tables are shared.
PARSECONTROL tvlg();
// All options of all statements, in the order of the grammar file; an action `option` names its row by position.
std::span<const OptionRow> option_rows();
// The name of a nonterminal (0-based), for traces.
std::string_view nonterminal_name(int index);

} // namespace torvale::language
