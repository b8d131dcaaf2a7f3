#pragma once
// The builder: turns recognised productions into statement records and the typed tree.

#include "language/actions.h"
#include "language/grammar.h"
#include "language/parser.h"
#include "language/scanner.h"
#include "syntax/records.h"

#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace torvale::language {

struct List;

// What a symbol on the parse stack carries.
struct Value {
  // How an entry of a list of names or values is to be read.
  enum class Form : std::uint8_t {
    plain,
    numbered, // a1-a9: list holds both ends
    ordered,  // a--b, by the order of the data
    ordered_numeric,
    ordered_character,
    prefix,    // a:
    range,     // n TO m BY k; list holds to and by
    bracketed, // an expression in parentheses: not open to be continued as a chain
    negated,   // an expression that begins with NOT
    whole_array,
  };
  Token token; // the first token
  syntax::Expr* expr = nullptr;
  syntax::Statement* stmt = nullptr;
  List* list = nullptr;
  void* node = nullptr;  // a part of a statement that is neither: LoopRange, PutItem, ...
  std::int16_t code = 0; // of words: their code; of expressions: the height of the tree
  Form form = Form::plain;
  std::int16_t depth = 0; // DO, SELECT, THEN and subprograms that are open
};

// A list under construction; lives in the scratch arena.
struct ListCell {
  Value value;
  ListCell* next = nullptr;
};
struct List {
  ListCell* first = nullptr;
  ListCell* last = nullptr;
  std::int32_t count = 0;
};

class Builder {
public:
  Builder(const ParseRequest& request, Scanner& scanner, TokenStream& stream, Diagnostics*& diagnostics)
      : request_(request), scanner_(scanner), stream_(stream), diagnostics_(diagnostics), arena_(*request.arena)
  {
  }

  // Begins a step: `proc` gets what is built.
  void begin(syntax::PROCSTR& proc);
  // Carries out one action. `right` are the values of the production's symbols; `result` comes with the first one's.
  void act(const SEMARG& action, std::span<Value> right, Value& result);
  // Checks that need the whole step: jump targets, arrays' elements.
  void finish();
  // The statement in work was given up after a syntax error.
  void abandon_statement();

private:
  // --- one function for each action of the grammar
  template <Action action> void on(const SEMARG& a, std::span<Value> r, Value& result);
  using ActionFunction = void (Builder::*)(const SEMARG& a, std::span<Value> r, Value& result);
  static ActionFunction function_of(Action action);

  // --- lists (build_lists.cpp)
  List* new_list();
  void append(List& list, const Value& value);
  void append_all(List& list, const Value& value);
  std::vector<Value> items(const List* list) const;
  void pair_of(const Value& x, const Value& y, Value::Form form, Value& result);
  struct Name {
    std::string_view text;
    syntax::Position where;
  };
  void expand(const Value& item, std::vector<Name>& out);
  void expand_numbered(const Value& item, std::vector<Name>& out);
  void expand_ordered(const Value& item, std::vector<Name>& out);
  void expand_prefix(const Value& item, std::vector<Name>& out);
  std::vector<Name> names(const List* list);
  std::vector<Name> names_of(const Value& value)
  {
    return value.list && value.form == Value::Form::plain ? names(value.list) : one_name(value);
  }
  std::vector<Name> one_name(const Value& value);
  void know_name(std::string_view name);
  std::vector<Name> function_names(const Value& value); // of OF: program variables and elements of arrays too

  // --- expressions (build_expressions.cpp)
  syntax::Expr* expr(syntax::ExprKind kind, syntax::Position where);
  void set_args(syntax::Expr* e, const std::vector<syntax::Expr*>& args);
  void set_expr(Value& result, syntax::Expr* e, std::initializer_list<const Value*> parts);
  void check_height(Value& result, int height);
  syntax::Expr* name_expression(const Value& name);
  syntax::Expr* number_expression(const Token& token);
  syntax::Expr* binary(syntax::Op op, syntax::Expr* a, syntax::Expr* b, syntax::Position where);
  void compare(std::span<Value> r, Value& result);
  void in_list(syntax::Op op, std::span<Value> r, Value& result);
  void call(std::span<Value> r, Value& result);
  void element(std::span<Value> r, Value& result);
  void condition(const Value& value);
  void warn_not(const Value& value, std::string_view rest);
  std::vector<syntax::Expr*> expressions(const List* list) const;

  // --- programming statements (build_statements.cpp)
  // A record of the production's place; `store` makes it what the production yields, `statement` does both.
  template <class S> S* make_statement(syntax::StatementKind kind, std::span<Value> r);
  static void store(Value& result, syntax::Statement* s);
  template <class S> S* statement(syntax::StatementKind kind, std::span<Value> r, Value& result);
  syntax::Block block(const List* list);
  void open(Value& result, syntax::Expr* e, List* list, void* node = nullptr);
  void assignment(syntax::Assignment::Form form, std::span<Value> r, Value& result);
  void leave(syntax::StatementKind kind, std::span<Value> r, Value& result);
  void select_statement(std::span<Value> r, Value& result);
  syntax::Statement* or_empty(const Value& value);

  // --- DO groups (build_loops.cpp)
  void open_do(syntax::Expr* syntax::LoopRange::*part, const Value& test, Value& result);
  void do_statement(std::span<Value> r, Value& result);
  syntax::LoopRange& loop(syntax::Expr* start, syntax::Expr* stop, syntax::Expr* step, const Value* condition,
                          Value& result);

  // --- PUT and FILE (build_output.cpp)
  void put_statement(std::span<Value> r, Value& result);
  syntax::PutItem& put_item(syntax::PutItem::Kind kind, const Value& first, Value& result);
  void put_value(syntax::PutItem::Kind kind, std::span<Value> r, Value& result);

  // --- declarations (build_arrays.cpp, build_declarations.cpp, build_subprograms.cpp)
  std::vector<Name> array_elements(const List* list, syntax::ArrayDeclaration& array);
  void array_statement(std::span<Value> r, Value& result);
  void attribute_statements(std::span<Value> r, Value& result);
  void retain_statement(std::span<Value> r, Value& result);
  void retain(List* entries, const std::vector<Name>& list, const std::vector<syntax::Expr*>& initial, Value& result);
  syntax::AttributeDeclaration& attributes_of(const Value& named, Value& result);
  void set_length(syntax::AttributeDeclaration& part, const Token& token, bool character);
  void subprogram(std::span<Value> r, Value& result);
  std::vector<syntax::Expr*> initial_values(const Value& value);
  std::span<const std::string_view> name_span(const std::vector<Name>& list);

  // --- procedure statements (build_procedure.cpp, build_parameters.cpp)
  void open_statement(const SEMARG& a, std::span<Value> r);
  void check_top_level(const Value& head);
  syntax::STMT& procedure_record();
  void close_statement(const SEMARG& a, std::span<Value> r, Value& result);
  syntax::STLIST& cell(int slot, char type, syntax::Position where);
  syntax::STLIST& cell(syntax::SlotName auto slot, char type, syntax::Position where)
  {
    return cell(static_cast<int>(slot), type, where);
  }
  static syntax::StItem item(syntax::StItem::Kind kind, syntax::Position where);
  void add_names(syntax::STLIST& to, const std::vector<Name>& list, int group);
  void add_expressions(const std::vector<syntax::Expr*>& list, syntax::Position where);
  void end_torvale(std::span<Value> r);
  void end_distribution(std::span<Value> r);
  void end_parms(std::span<Value> r);
  void parms_group(const Value& named, const std::vector<Value>& values);
  void add_parms_value(syntax::STLIST& to, const Value& value, int group);
  void end_bounds(std::span<Value> r);
  void end_labelled(const Value& label, const std::vector<syntax::Expr*>& list);
  void subject(std::span<Value> r);
  void end_by(std::span<Value> r);
  void option(const SEMARG& a, std::span<Value> r);
  syntax::StItem data_set_item(const Value& value);
  void option_value(const OptionRow& row, const OptionValue& value, std::string_view word, const Value& given);
  bool check_number(const OptionValue& value, std::string_view word, const Value& given);

  const ParseRequest& request_;
  Scanner& scanner_;
  TokenStream& stream_;
  Diagnostics*& diagnostics_;
  syntax::Arena& arena_;
  std::unique_ptr<syntax::Arena> scratch_;
  syntax::PROCSTR* proc_ = nullptr;
  std::vector<InputVariable> variables_; // of the input data set
  std::vector<std::string_view> known_;  // names of PARMS, in order of appearance
  std::unordered_set<std::string> known_set_;
  std::vector<std::string_view> assigned_; // targets and elements of arrays, in order of appearance; some repeatedly
  std::unordered_map<std::string, std::vector<std::string_view>> arrays_; // elements by array, upper case
  std::unordered_set<std::string> labels_;
  std::vector<const syntax::JumpStatement*> jumps_;
  std::unordered_set<int> given_;         // option rows of the statement in work
  syntax::FileStatement file_;            // options of the FILE statement in work
  std::int32_t file_value_ = 0;           // of the option read last; 0: a name
  std::vector<std::string_view> outputs_; // OUTARGS names of the subprogram in work
  bool by_given_ = false;
};

template <class S> S* Builder::make_statement(syntax::StatementKind kind, std::span<Value> r)
{
  S* s = arena_.make<S>();
  s->kind = kind;
  s->where = r.front().token.where;
  s->end = r.back().token.where;
  return s;
}

template <class S> S* Builder::statement(syntax::StatementKind kind, std::span<Value> r, Value& result)
{
  S* s = make_statement<S>(kind, r);
  store(result, s);
  return s;
}

// One function each: an action of the grammar without one does not link.
#define TORVALE_ACTION(name) template <> void Builder::on<Action::name>(const SEMARG&, std::span<Value>, Value&);
TORVALE_ACTIONS(TORVALE_ACTION)
#undef TORVALE_ACTION

} // namespace torvale::language
