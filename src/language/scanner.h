#pragma once
// The scanner: the next token as the parse sees it. Keywords are contextual, so it asks the parse what can be shifted.

#include "language/lr_machine.h"
#include "language/token.h"
#include "language/token_stream.h"
#include "syntax/tree.h"

#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace torvale::language {

// Terminals by spelling, from PARSECONTROL.
class Spellings {
public:
  explicit Spellings(const PARSECONTROL& control);
  int word(std::string_view upper) const;        // a keyword, also by a spelling that the table marks with $; 0 none
  int word_equals(std::string_view upper) const; // a keyword that contains its "="; 0 none
  int mark(std::string_view text) const;         // an operator or bracket; 0 none
  bool hidden(int terminal) const;               // a $ spelling, or a word no user types

private:
  enum class Kind { word, word_equals, mark, none };
  // What a user types for a terminal.
  std::pair<Kind, std::string_view> typed(int terminal) const;
  std::size_t place_of(Kind kind, std::string_view text) const; // where it is, or where it would be
  int find(Kind kind, std::string_view text) const { return places_[place_of(kind, text)]; }

  const PARSECONTROL* control_;
  // Terminals at open places, 0 where there is none: a power of two, twice as many as there are terminals. Made anew
  // for every parse, so it is small.
  std::vector<std::int16_t> places_;
};

class Scanner {
public:
  Scanner(const PARSECONTROL& control, TokenStream& stream, syntax::Arena& arena, Diagnostics*& diagnostics)
      : spellings_(control), stream_(stream), arena_(arena), diagnostics_(diagnostics)
  {
  }

  // The next token of the stream for this parse. Reports lexical problems.
  Token next(const LrMachine& parse);
  // The same from a copy of the cursor, without effects or messages; symbol 0 when it cannot be told (a macro).
  Token next_copy(const LrMachine& parse, Cursor& cursor);

  const Spellings& spellings() const { return spellings_; }
  std::string_view intern(std::string_view s); // one text per spelling without regard to case: the first seen
  void declare_array(std::string_view name);
  bool is_array(std::string_view name) const;
  void forget_arrays() { arrays_.clear(); }

private:
  Token scan(const LrMachine& parse, Cursor& cursor, bool report);
  Token word(const LrMachine& parse, Cursor& cursor, bool start);
  int word_symbol(const LrMachine& parse, const Cursor& cursor, std::string_view upper, std::size_t end, bool start,
                  std::size_t* used);
  bool keeps_keyword(std::string_view upper, std::string_view text, std::size_t end) const;
  bool names_variable(std::string_view upper, std::string_view text, std::size_t end) const;
  Token number(const LrMachine& parse, Cursor& cursor, bool report);
  Token quoted(const LrMachine& parse, Cursor& cursor, bool report);
  Token mark(const LrMachine& parse, Cursor& cursor, bool report);
  Token make(int symbol, Cursor& cursor, std::size_t end, std::string_view text);
  std::string_view keyword_text(std::string_view s); // apart from names: a keyword decides no name's spelling
  void skip_statement_comment(Cursor& cursor);

  Spellings spellings_;
  TokenStream& stream_;
  syntax::Arena& arena_;
  Diagnostics*& diagnostics_;
  std::unordered_map<std::string, std::string_view> interned_;      // by upper case
  std::unordered_map<std::string, std::string_view> keyword_texts_; // as typed
  std::unordered_set<std::string> arrays_;
};

} // namespace torvale::language
