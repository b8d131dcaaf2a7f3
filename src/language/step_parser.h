#pragma once
// The inside of the parser: the parse of one step, and what happens when a token does not fit.

#include "language/builder/builder.h"
#include "language/lr_machine.h"
#include "language/parser.h"
#include "language/repair.h"
#include "language/scanner.h"

#include <memory>
#include <string>
#include <vector>

namespace torvale::language {

struct Parser::Implementation {
  ParseRequest request;
  PARSECONTROL control = tvlg();
  Diagnostics* diagnostics = nullptr; // of the step in work
  TokenStream stream;
  Scanner scanner;
  Builder builder;
  Repair repair;
  int semicolon = 0;      // its symbol
  int earlier_errors = 0; // of the steps before
  bool stopped = false;   // too many errors: nothing more is read

  // The step in work.
  syntax::PROCSTR* current_proc = nullptr;
  std::unique_ptr<LrMachine> parse;
  std::vector<Value> values; // one for each state but the first
  Token last;                // shifted last
  int statement_tokens = 0;  // shifted since the last semicolon
  Cursor begin;              // where the token in work begins

  // A word at a line's start that was taken for a name where the statement before could have ended.
  Token suspect;
  Cursor suspect_at;
  bool suspect_is_assignment = false; // any name of PARMS: suspect only if what is given to it is no number
  bool quiet = false;                 // what goes wrong in this statement follows from a mistake already reported

  explicit Implementation(ParseRequest r);
  ParseResult parse_step();

  // --- reading (parser.cpp)
  bool find_step();
  void read_token();
  void check_name(const Token& token);
  int act(const SEMARG& action);
  void reduce(int production);
  void settle();
  void shift(const Token& token);
  void trace(const std::string& line) const;
  int nonterminal(std::string_view name) const;
  const syntax::STMT* statement_in_work() const { return current_proc ? current_proc->current : nullptr; }

  // --- errors (error_recovery.cpp)
  enum class Recovery {
    repair,           // look for the cheapest one
    leave_out,        // the wrong token
    leave_out_option, // the wrong word, and the value given to it
    as_number,        // put a number in its place
    as_power,         // put the power operator in its place
    as_value,         // put some value of the option in its place
    give_up,          // leave out the statement
  };
  // Mistakes that have a name of their own, and how to read on from them.
  struct Hint {
    std::string text; // empty: nothing special
    Recovery recovery = Recovery::repair;
    bool at_last = false; // the mistake is the token before the wrong one
  };
  void handle_error(const Token& wrong);
  Hint special_hint(const Token& wrong) const;
  static Hint no_statement(std::string_view word);
  std::string found_text(const Token& token) const;
  std::string open_block() const;
  int option_length();
  bool misspelled_statement();
  void describe_repair(Diagnostic& d, const RepairPlan& plan);
  void carry_out(const RepairPlan& plan);
  void note_suspect(const Token& token);
  void restart_at_suspect();
  void give_up_statement(const Token& wrong);
  void skip_statement();
  void drop_statement();
  bool too_many();
};

} // namespace torvale::language
