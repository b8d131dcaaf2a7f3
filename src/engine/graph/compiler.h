#pragma once
// CMPGLOBAL: the compiler of one model. Private to the room; engine.h is what others see.

#include "engine/engine.h"
#include "engine/graph/dependence.h"
#include "engine/graph/graph.h"
#include "engine/graph/text_values.h"

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>

namespace torvale::engine {

class Program;

// ArrayInfo: an array of the program. Elements are symbols, in row-major order of the subscripts.
struct ArrayInfo {
  const syntax::ArrayDeclaration* declaration = nullptr;
  std::vector<std::int32_t> elements;
};

// Effect: a statement that does more than compute. `guard` is 1 in lanes that execute it.
struct Effect {
  enum class Kind : std::uint8_t { stop, abort, subscript, put, file } kind = Kind::stop;
  const void* owner = nullptr; // statement or expression that keeps the mask while the program is translated
  syntax::Position where;
  NodeId guard = no_node;
  std::int32_t loop = 0; // whose passes execute it
  struct Item {
    const syntax::PutItem* item = nullptr;
    std::string name;   // what named_value prints
    std::string format; // of the item, or else of the variable
    NodeId number = no_node;
    TextId text = no_text;
  };
  std::vector<Item> items; // of put
  std::string text;        // of ABORT 'text'
  // STOP, ABORT and faults that end the run; PUT and FILE only write.
  bool fatal() const { return kind <= Kind::subscript; }
};

// Derivative: which mixed derivative a derivative symbol is. Variables in ascending order of symbol index.
struct DerivativeOrigin {
  std::int32_t base = -1;       // symbol that is differentiated
  std::vector<std::int32_t> by; // symbols
  bool operator<(const DerivativeOrigin& o) const { return base != o.base ? base < o.base : by < o.by; }
};

// Case-free ordering of names.
struct NameLess {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const;
};

class CMPGLOBAL {
public:
  explicit CMPGLOBAL(const CMPINIT& init);
  ~CMPGLOBAL();

  // --- what the caller gave ---
  CMPINIT options;
  const syntax::Program* program = nullptr;          // borrowed
  std::vector<const syntax::Expr*> late_expressions; // cmpexpr, in order
  std::vector<DataVariable> data_variables;          // cmprslv

  // --- symbols ---
  std::deque<CMPSYM> symbols; // index == CMPSYM::index
  std::vector<CMPSYM*> named; // in order of first appearance
  std::map<std::string, std::int32_t, NameLess> by_name;
  std::map<std::string, ArrayInfo, NameLess> arrays;
  std::map<std::string, const syntax::SubprogramDefinition*, NameLess> subprograms;
  std::map<const syntax::Expr*, std::int32_t> sites;    // sites and late expressions: their value symbols
  std::map<std::int32_t, const syntax::Expr*> initial;  // retained symbols with an initial value
  std::set<std::int32_t> sums;                          // targets of sum statements: begin at 0
  std::set<std::int32_t> written;                       // given a value by an executable statement
  std::map<std::string, std::string, NameLess> formats; // by variable, of FORMAT and ATTRIB
  std::vector<std::int32_t> totals;                     // per sum of Frame::set_totals: its symbol
  std::map<std::int32_t, std::int32_t> text_length;     // declared lengths of character variables
  // Variables that subprograms keep from call to call and that turned out to be texts: their lengths.
  std::map<std::pair<const void*, std::string>, std::int32_t> kept_text_length;
  std::map<std::int32_t, std::vector<syntax::Position>> places; // where each symbol is named, for the cross-reference

  // --- what they became ---
  GraphBuilder graph;
  TextPool text;
  std::unique_ptr<class Translator> translator; // keeps the last values of all variables
  bool translated = false;
  std::size_t late_done = 0; // late expressions translated so far
  bool generated = false;
  std::vector<NodeId> value;      // per symbol: its node after the program; no_node: none
  std::vector<TextId> text_value; // per symbol: its text after the program
  std::vector<Effect> effects;    // in program order
  NodeId deleted = no_node;       // 1 where DELETE was executed
  int lag_depth = 0;
  std::int64_t requests_before = 0; // graph requests of the translation

  // --- derivatives ---
  std::map<std::int32_t, DerivativeOrigin> origin; // per derivative symbol
  std::map<DerivativeOrigin, NodeId> known_derivatives;
  std::map<std::int32_t, std::unordered_map<NodeId, NodeId>> tangents; // per variable: node -> its derivative
  Dependence dependence{*this};

  // --- programs ---
  std::vector<std::shared_ptr<Program>> programs; // made by a higher folder, which alone knows what they are

  // --- messages ---
  std::vector<Diagnostic> diagnostics;
  int errors = 0;
  void say(Diagnostic::Severity severity, int number, syntax::Position where, std::string text_of_message);
  void error(int number, syntax::Position where, std::string t)
  {
    say(Diagnostic::Severity::error, number, where, std::move(t));
  }
  void warning(int number, syntax::Position where, std::string t)
  {
    say(Diagnostic::Severity::warning, number, where, std::move(t));
  }
  void note(int number, syntax::Position where, std::string t)
  {
    say(Diagnostic::Severity::note, number, where, std::move(t));
  }

  // The symbol of that name, made when new.
  CMPSYM& named_symbol(std::string_view name, syntax::Position where);
  CMPSYM* find(std::string_view name);
  CMPSYM& new_symbol(std::string name, char kind, char type);
  CMPSYM& total_symbol(int index); // what programs of totals read
  CMPSYM& at(std::int32_t index) { return symbols[static_cast<std::size_t>(index)]; }
  const CMPSYM& at(std::int32_t index) const { return symbols[static_cast<std::size_t>(index)]; }

  // Turns the statements into the graph, once; again when a binding has changed before any derivative request.
  void translate();
  // The value node of a symbol: of a derivative its own, else the variable's after the program. Missing when it has
  // none.
  NodeId node_of(const CMPSYM& symbol);
};

// Messages of the engine's group, by number.
namespace message {
inline constexpr int unknown_function = 1;
inline constexpr int wrong_arguments = 2;
inline constexpr int recursion = 3;
inline constexpr int unsupported = 4;
inline constexpr int type_mismatch = 5;
inline constexpr int subscript = 6;
inline constexpr int jump = 7;
inline constexpr int read_before_written = 8;
inline constexpr int unused_variable = 9;
inline constexpr int undefined_variable = 10;
inline constexpr int no_derivative = 11;
inline constexpr int conversion = 12;
inline constexpr int text_cut = 13;
inline constexpr int unmatched_select = 14;
inline constexpr int loop = 15;
inline constexpr int retain = 16;
inline constexpr int delete_condition = 17;
inline constexpr int declaration = 18;
inline constexpr int not_equal_reading = 19;
} // namespace message

// Reads the declarations and names of a program into the symbol table (cmpprogram).
void scan_program(CMPGLOBAL& gcmp, const syntax::Program& program);
// Names in an expression that is evaluated after the program.
void scan_late_expression(CMPGLOBAL& gcmp, const syntax::Expr& expression);
// A constant of a declaration: a number, a signed number or a missing value.
double constant_of(const syntax::Expr& e);

} // namespace torvale::engine
