#pragma once
// From statements to the value graph: a symbolic run of the program.
//
// Every variable is a slot that holds the node of its current value. A branch runs both sides from the same slots and
// joins what they changed by selects. Jumps do not move control: they clear the mask `active` (a slot like any other),
// an assignment where active is not 1 becomes a select, and the label sets the mask again. Loops with a known count
// are unrolled; the others carry the slots that they change.

#include "engine/graph/compiler.h"

#include <functional>
#include <map>
#include <optional>
#include <set>

namespace torvale::engine {

// The current value of a variable or expression: a number or a text.
struct Value {
  NodeId number = no_node;
  TextId text = no_text;
  bool is_text() const { return text != no_text; }
  bool operator==(const Value&) const = default;
};

using Slot = std::int32_t;

struct LanguageFunction; // of the library: functions/functions.h

struct TextRow;     // of translate_texts.cpp
struct QuestionRow; // of translate_texts.cpp

class Translator {
public:
  explicit Translator(CMPGLOBAL& gcmp);
  void run();                       // the whole program; fills value, text_value and effects of the compiler
  void late(const syntax::Expr& e); // an expression after the program
  // The run found something that it should have known from its beginning: it must be repeated.
  bool learned() const { return learned_; }
  void check_kept_texts(); // refuses texts that cannot be handed from record to record

private:
  using Statement = syntax::Statement;
  using Expr = syntax::Expr;

  struct SlotInfo {
    std::string name;
    std::int32_t symbol = -1;
    char type = ' ';             // 'n', 'c', ' ' not yet decided
    std::int32_t length = 0;     // of texts, 0 not yet decided
    bool written = false;        // some statement before has given it a value
    bool hidden = false;         // a mask or count of the translator's own
    bool lasting = false;        // keeps its value from pass to pass of a loop though made inside
    bool kept = false;           // begins with the value of the record before
    const void* owner = nullptr; // subprogram whose variable it is, when it is kept from call to call
  };
  struct Array {
    std::vector<Slot> slots;
    const syntax::ArrayDeclaration* declaration = nullptr; // null: an array argument, subscripts from 1
  };
  struct Scope { // of an inlined subprogram
    const syntax::SubprogramDefinition* definition = nullptr;
    std::map<std::string, Slot, NameLess> locals;
    std::map<std::string, Array, NameLess> arrays;
    Slot result = -1;
    bool keeps_all = false; // STATIC without names
  };
  struct LoopMasks {
    Slot leave = -1; // lanes that have left
    Slot next = -1;  // lanes that wait for the next pass
  };
  struct Labels {
    std::map<std::string, Slot, NameLess> pending; // lanes that wait at a label of this block
    std::map<std::string, bool, NameLess> passed;  // the label lies behind and no loop returns to it
  };
  // --- slots (translate.cpp) ---
  Slot new_slot(std::string name, Value initial, bool hidden);
  Slot symbol_slot(std::string_view name, syntax::Position where);
  Slot flag_slot(const void* owner, std::string name); // lasting mask of a statement or expression, initially 0
  Slot kept_slot(std::string name, Value first);       // begins with its last value of the record before
  bool is_kept(const CMPSYM& s) const;
  Value initial_value(const CMPSYM& s);
  NodeId code_of(TextId text, syntax::Position where); // the number that stands for a text handed on
  Value& env(Slot s) { return values_[static_cast<std::size_t>(s)]; }
  SlotInfo& info(Slot s) { return infos_[static_cast<std::size_t>(s)]; }
  void set(Slot s, Value v); // as it stands
  void set(Slot s, NodeId n) { set(s, Value{n, no_text}); }
  void learn_text(const SlotInfo& i, TextId text);
  void assign(Slot s, Value v, syntax::Position where); // what an assignment does: conversion, mask
  NodeId active() { return env(active_).number; }
  bool is_active() { return !graph_.is_constant(active(), 0.0); }
  void follow(NodeId path)
  {
    path_ = path;
    graph_.assume(path);
  }
  void branch(NodeId mask, const std::function<void()>& yes, const std::function<void()>& no);
  Value choose(NodeId mask, Value yes, Value no);
  void store_results();

  // --- statements (translate_statements.cpp) ---
  void stand_at(syntax::Position where) { graph_.set_origin({where, caller_, path_, active()}); }
  void run_block(syntax::Block block);
  void run_statements(syntax::Block block, std::size_t first, std::size_t last, bool looping);
  void run_statement(const Statement* s);
  bool too_large(syntax::Position where);
  void assignment(const syntax::Assignment& a);
  void select_statement(const syntax::SelectStatement& s);
  void select_from(const syntax::SelectStatement& s, const Value& selector, std::size_t when);
  void stop(Effect::Kind kind, const Statement* s);
  void put(const syntax::PutStatement& s);
  void file(const syntax::FileStatement& s);
  void site(const syntax::ExpressionSite& s);

  // --- jumps and loops (translate_loops.cpp) ---
  void go_to(const syntax::JumpStatement& j);
  void link(const syntax::JumpStatement& j);
  void goto_loop(syntax::Block block, std::size_t first, std::size_t last);
  void give_back(Value v, syntax::Position where);
  void return_from(const syntax::ReturnStatement& r);
  void leave_or_continue(const Statement* s);
  void do_statement(const syntax::DoStatement& d);
  void ranges(const syntax::DoStatement& d);
  void counted(const syntax::DoStatement& d, const syntax::LoopRange& r);
  bool unrolled(const syntax::DoStatement& d, double passes, const std::function<void(double)>& known_pass);
  void take_back(std::size_t mark, std::size_t effects);
  void conditional_loop(const syntax::DoStatement& d);
  void pass(const syntax::DoStatement& d, const Expr* while_, const Expr* until, Slot ended);
  Value handed_on(Slot s, NodeId number);
  syntax::Block outermost_block() const;
  std::string no_way_to(std::string_view label) const;
  void carried_loop(syntax::Position where, Slot again, std::initializer_list<Slot> own,
                    const std::function<void()>& body);

  // --- expressions (translate_expressions.cpp) ---
  Value value_of(const Expr& e);
  NodeId number_of(const Expr& e);
  NodeId truth_of(const Expr& e) { return graph_.truth(number_of(e)); }
  TextId text_of(const Expr& e);
  NodeId as_number(Value v, syntax::Position where);
  TextId as_text(Value v, syntax::Position where);
  Value variable(const Expr& e);
  Value binary(const Expr& e);
  Value element(const Expr& e);
  void assign_to(const Expr& target, Value v, syntax::Position where); // a variable or an element
  void assign_element(const Expr& target, Value v);
  std::optional<Array> array_named(std::string_view name);
  // Place of an element: *fixed when the subscripts are constants, else a node that counts from 0. False: faulty.
  bool place(const Expr& e, const Array& a, std::optional<std::size_t>& fixed, NodeId& index);
  NodeId comparison(syntax::Op op, Value a, Value b, bool truncated, syntax::Position where);
  NodeId in_list(const Expr& e);

  // --- declarations in subprograms (translate_locals.cpp) ---
  void declare(const Statement* s);
  Slot local(std::string_view name);
  void local_array(const syntax::ArrayDeclaration& a);
  void local_attributes(const syntax::AttributeDeclaration& a);
  void keep_local(std::string_view name, Value first);
  Value constant_value(const Expr& e);

  // --- calls (translate_calls.cpp, translate_texts.cpp) ---
  Value call(const Expr& e);
  void call_statement(const syntax::CallStatement& c);
  Value inlined(const syntax::SubprogramDefinition& d, std::span<Expr* const> arguments, syntax::Position where);
  bool pass_arguments(const syntax::SubprogramDefinition& d, std::span<Expr* const> given, syntax::Position where,
                      Scope& scope);
  void take_back_outputs(const Scope& scope, std::span<Expr* const> given, syntax::Position where);
  Value draw(const Expr& e, const LanguageFunction& f, std::span<const NodeId> arguments);
  std::optional<Value> lag(const Expr& e);
  std::optional<Value> array_bound(const Expr& e);
  std::optional<Value> text_function(const Expr& e);
  Value text_made(const TextRow& row, const Expr& e);
  Value question_asked(const QuestionRow& row, const Expr& e);
  Value scanned_word(const Expr& e);
  Value texts_joined(const Expr& e, const std::string& name);
  std::optional<Value> missing_text(const Expr& e);
  Value first_text(const Expr& e);
  NodeId is_blank(TextId t);
  Value wrong_count(const Expr& e, const std::string& takes);
  Value converted(const Expr& e, const std::string& name);
  Value interval_function(const Expr& e, const std::string& name);
  Value library(const Expr& e);
  std::vector<Value> arguments(const Expr& e);

  NodeId fail(int number, syntax::Position where, std::string text); // an error; a missing value in its place

  CMPGLOBAL& gcmp_;
  GraphBuilder& graph_;
  TextPool& text_;
  std::vector<Value> values_;
  std::vector<SlotInfo> infos_;
  std::vector<Slot> slot_of_symbol_;
  std::vector<std::pair<Slot, Value>> journal_; // (slot, value before) of every change, for branches
  std::map<const void*, Slot> flags_;
  std::map<std::int32_t, Slot> kept_; // carries of the records: index -> slot whose last value is next
  std::map<std::pair<const void*, std::string>, Slot> kept_locals_; // variables that subprograms keep
  std::vector<std::pair<NodeId, syntax::Position>> codes_;          // of texts handed on
  std::vector<Slot> lagged_;                                        // per LAG in loops: its argument in the last pass
  std::size_t lags_ = 0;                                            // LAG in loops met so far
  std::map<const Expr*, int> draws_;                                // numbers of the random functions
  std::map<const ArrayInfo*, Array> arrays_;                        // those used so far
  std::vector<Scope> scopes_;
  std::vector<LoopMasks> loops_;
  std::vector<Labels> labels_;
  std::vector<Slot> returns_;
  std::vector<const Statement*> links_;
  NodeId path_ = no_node;    // mask of the branches around the current statement
  std::int32_t caller_ = -1; // origin of the call whose subprogram is being inlined
  Slot active_ = 0;
  Slot deleted_ = 0;
  int carried_depth_ = 0;               // loops with carried values around the current statement
  std::int32_t carried_loop_ = 0;       // the innermost of them
  std::set<const Statement*> too_long_; // loops whose passes are too many, or too much, to be unrolled
  std::int64_t long_loop_nodes_ = 0, long_loop_requests_ = 0; // of the unrolled loops of many passes
  bool learned_ = false;
  bool too_large_ = false; // the graph has reached its limit; nothing more is translated
};

} // namespace torvale::engine
