#pragma once
// The typed tree of programming statements: what the language room builds and the engine room compiles.
//
// All nodes live in one Arena and are never freed one by one; text is interned there, spelled as first seen. Names
// are compared without regard to case (`same_name`). The tree resolves nothing: a name is a name until the engine
// binds it, except that an array element is told from a function call by the arrays declared before it.

#include "syntax/source.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace torvale::syntax {

// True when two names are equal without regard to case (ASCII).
bool same_name(std::string_view a, std::string_view b);

enum class ExprKind : std::uint8_t {
  number,      // `number`; a missing literal is the missing pattern with its letter
  text,        // `name` holds the characters, quotes removed
  variable,    // `name`
  element,     // array `name`, subscripts in args
  whole_array, // array `name` given whole to a function: SUM(OF a[*])
  unary,       // op, args[0]
  binary,      // op, args[0], args[1]
  chain,       // comparisons a < b <= c: args are the operands, ops the links; the AND of the links
  conditional, // IF args[0] THEN args[1] ELSE args[2]
  call,        // function `name`, args
  in_list,     // args[0] IN (items), items as pairs args[1],args[2], ...: low, high; high is null for a single value
};

enum class Op : std::uint8_t {
  none,
  plus, minus, not_,                                     // prefix
  add, subtract, multiply, divide, power, minimum, maximum, concatenate,
  less, less_equal, greater, greater_equal, equal, not_equal,
  and_, or_,
  in, not_in,
};

struct Expr {
  ExprKind kind = ExprKind::number;
  Op op = Op::none;
  bool truncated = false;           // comparison of texts cut to the shorter (=: and its kin); of binary and chain
  Position where;                   // first character of the operator, name or literal
  double number = 0.0;              // of a number
  std::string_view name;            // of text, variable, element, whole_array, call
  std::span<Expr* const> args;      // see ExprKind
  std::span<const Op> ops;          // links of a chain, one fewer than args
};

enum class StatementKind : std::uint8_t {
  assign,        // Assignment (also the sum form and SUBSTR on the left)
  if_,           // IfStatement
  do_,           // DoStatement
  select,        // SelectStatement
  go_to, link,   // JumpStatement
  return_,       // ReturnStatement
  leave, continue_, stop, delete_, // Statement
  abort,         // ReturnStatement: optional value
  call,          // CallStatement
  put, file,     // PutStatement, FileStatement
  array,         // ArrayDeclaration
  attributes,    // AttributeDeclaration: LENGTH, LABEL, FORMAT, ATTRIB
  retain,        // RetainDeclaration: RETAIN and STATIC
  keep_drop,     // KeepDeclaration: KEEP and DROP
  subprogram,    // SubprogramDefinition: FUNCTION and SUBROUTINE
  site,          // ExpressionSite: expressions of a procedure statement, evaluated where it stands
  empty,         // a lone semicolon, or only a label
};

struct Statement {
  StatementKind kind = StatementKind::empty;
  Position where;            // first word
  Position end;              // the closing semicolon
  std::string_view label;    // statement label, empty when none
};

using Block = std::span<Statement* const>;

// target = value; target + value (sum form: adds to a retained target, missing counts as 0);
// SUBSTR(target, position, length) = value.
struct Assignment : Statement {
  enum class Form : std::uint8_t { plain, sum, substring } form = Form::plain;
  Expr* target = nullptr;    // variable or element
  Expr* position = nullptr;  // of substring
  Expr* length = nullptr;    // of substring, null to the end
  Expr* value = nullptr;
};

struct IfStatement : Statement {
  Expr* condition = nullptr;
  Statement* then_branch = nullptr;
  Statement* else_branch = nullptr; // null when absent
};

// One loop specification: start [TO stop] [BY step] [WHILE (e) | UNTIL (e)].
struct LoopRange {
  Expr* start = nullptr;
  Expr* stop = nullptr;      // null: the single value `start`
  Expr* step = nullptr;      // null: 1
  Expr* while_ = nullptr;
  Expr* until = nullptr;
};

// DO; ... END;   DO i = ranges; ... END;   DO WHILE (e); DO UNTIL (e);
struct DoStatement : Statement {
  Expr* index = nullptr;                // variable or element; null without one
  std::span<const LoopRange> ranges;    // with an index
  Expr* while_ = nullptr;               // without an index
  Expr* until = nullptr;
  Block body;
};

struct WhenClause {
  std::span<Expr* const> values;   // with a selector: equal to any; without: any is true
  Statement* body = nullptr;
};

struct SelectStatement : Statement {
  Expr* selector = nullptr;        // null: SELECT;
  std::span<const WhenClause> whens;
  Statement* otherwise = nullptr;  // null when absent: nothing is done
};

struct JumpStatement : Statement {
  std::string_view target;         // a statement label
};

struct ReturnStatement : Statement {
  Expr* value = nullptr;           // null when absent
};

struct CallStatement : Statement {
  std::string_view name;
  std::span<Expr* const> args;
};

struct PutItem {
  enum class Kind : std::uint8_t {
    text, value, named_value, column, advance, next_line, next_page, all, pdv, hold
  } kind = Kind::text;
  std::string_view text;     // of text
  Expr* value = nullptr;     // value, named_value (printed as name=value), column (@e), advance (+e)
  std::string_view format;   // empty: default
};

struct PutStatement : Statement {
  std::span<const PutItem> items;
};

struct FileStatement : Statement {
  std::string_view target;   // LOG, PRINT, or a file name
  bool is_name = false;      // a quoted file name
  std::int32_t line_size = 0; // LRECL=, LINESIZE=: characters of a line; 0: no limit
  bool drop_over = false;     // DROPOVER: what is beyond them is left out, not put on further lines
  bool stop_over = false;     // STOPOVER: a longer line is a fault
  bool pad = false;           // PAD: shorter lines are filled with blanks
  bool append = false;        // MOD: behind what the file holds
};

// ARRAY name[bounds] [$ length] [elements] [(initial values)]; bounds low:high per dimension.
struct ArrayDeclaration : Statement {
  std::string_view name;
  std::span<const std::int32_t> low;       // one per dimension
  std::span<const std::int32_t> high;
  std::span<const std::string_view> elements; // names; empty for a temporary array
  bool temporary = false;
  bool character = false;
  std::int32_t length = 0;                 // of character elements, 0 when not given
  std::span<Expr* const> initial;          // constants
};

// LENGTH, LABEL, FORMAT or ATTRIB of the named variables; unset fields are absent.
struct AttributeDeclaration : Statement {
  std::span<const std::string_view> names;
  bool has_length = false;
  bool character = false;
  std::int32_t length = 0;
  bool has_label = false;
  std::string_view text_label;
  std::string_view format;
};

struct RetainDeclaration : Statement {
  bool is_static = false;                   // STATIC
  std::span<const std::string_view> names;  // empty: all variables of the program
  std::span<Expr* const> initial;           // per name a constant, or null
};

struct KeepDeclaration : Statement {
  bool drop = false;
  std::span<const std::string_view> names;
};

struct Parameter {
  std::string_view name;
  bool character = false;
  bool output = false;      // named in OUTARGS
  bool array = false;       // name[*]
};

struct SubprogramDefinition : Statement {
  bool is_function = false; // FUNCTION returns a value, SUBROUTINE does not
  bool character_result = false;
  std::string_view name;
  std::span<const Parameter> parameters;
  Block body;
};

// Expressions of a MODEL or RANDOM statement, in program order: the engine keeps each one's value as an anonymous symbol.
struct ExpressionSite : Statement {
  std::string_view statement;           // "MODEL", "RANDOM"
  std::span<Expr* const> expressions;
};

// Owns every node and every text of a tree.
class Arena {
public:
  Arena() = default;
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;
  template <class T> T* make() { return new (pool_.allocate(sizeof(T), alignof(T))) T(); }
  template <class T> std::span<T> copy(const std::vector<T>& items)
  {
    if (items.empty()) return {};
    T* block = static_cast<T*>(pool_.allocate(items.size() * sizeof(T), alignof(T)));
    std::uninitialized_copy(items.begin(), items.end(), block);
    return {block, items.size()};
  }
  std::string_view text(std::string_view s);

private:
  std::pmr::monotonic_buffer_resource pool_;
};

// A parsed program: the statements in order. Borrowed from the arena that made them.
struct Program {
  std::vector<Statement*> statements;
};

// The text of an expression: it parses back to the same tree, numbers to the same double, and compound parts are
// bracketed. Used in messages, in tables and in generated statements.
std::string to_text(const Expr& e);

} // namespace torvale::syntax
