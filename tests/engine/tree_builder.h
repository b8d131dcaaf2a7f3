#pragma once
// Builds typed trees in a few words, for tests that need no text.

#include "syntax/tree.h"

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace torvale::test {

using namespace torvale::syntax;

class Trees {
public:
  Arena arena;

  Expr* number(double v)
  {
    Expr* const e = make(ExprKind::number);
    e->number = v;
    return e;
  }
  Expr* text(std::string_view s) { return named(ExprKind::text, s); }
  Expr* var(std::string_view s) { return named(ExprKind::variable, s); }
  Expr* element(std::string_view s, std::vector<Expr*> subscripts)
  {
    return with(named(ExprKind::element, s), std::move(subscripts));
  }
  Expr* whole(std::string_view s) { return named(ExprKind::whole_array, s); }
  Expr* call(std::string_view s, std::vector<Expr*> args) { return with(named(ExprKind::call, s), std::move(args)); }
  Expr* unary(Op op, Expr* a)
  {
    Expr* const e = make(ExprKind::unary);
    e->op = op;
    return with(e, {a});
  }
  Expr* binary(Op op, Expr* a, Expr* b)
  {
    Expr* const e = make(ExprKind::binary);
    e->op = op;
    return with(e, {a, b});
  }
  Expr* conditional(Expr* c, Expr* a, Expr* b) { return with(make(ExprKind::conditional), {c, a, b}); }
  Expr* add(Expr* a, Expr* b) { return binary(Op::add, a, b); }
  Expr* sub(Expr* a, Expr* b) { return binary(Op::subtract, a, b); }
  Expr* mul(Expr* a, Expr* b) { return binary(Op::multiply, a, b); }
  Expr* div(Expr* a, Expr* b) { return binary(Op::divide, a, b); }
  Expr* power(Expr* a, Expr* b) { return binary(Op::power, a, b); }

  Statement* assign(std::string_view target, Expr* value) { return assign(var(target), value); }
  Statement* assign(Expr* target, Expr* value)
  {
    auto* const s = statement<Assignment>(StatementKind::assign);
    s->target = target;
    s->value = value;
    return s;
  }
  Statement* sum(std::string_view target, Expr* value)
  {
    auto* const s = static_cast<Assignment*>(assign(target, value));
    s->form = Assignment::Form::sum;
    return s;
  }
  Statement* if_(Expr* condition, Statement* yes, Statement* no = nullptr)
  {
    auto* const s = statement<IfStatement>(StatementKind::if_);
    s->condition = condition;
    s->then_branch = yes;
    s->else_branch = no;
    return s;
  }
  Statement* group(std::vector<Statement*> body)
  {
    auto* const s = statement<DoStatement>(StatementKind::do_);
    s->body = arena.copy(body);
    return s;
  }
  Statement* loop(std::string_view index, Expr* start, Expr* stop, std::vector<Statement*> body, Expr* while_ = nullptr,
                  Expr* until = nullptr)
  {
    auto* const s = static_cast<DoStatement*>(group(std::move(body)));
    s->index = var(index);
    LoopRange r;
    r.start = start;
    r.stop = stop;
    r.while_ = while_;
    r.until = until;
    s->ranges = arena.copy(std::vector<LoopRange>{r});
    return s;
  }
  Statement* while_(Expr* condition, std::vector<Statement*> body)
  {
    auto* const s = static_cast<DoStatement*>(group(std::move(body)));
    s->while_ = condition;
    return s;
  }
  Statement* array(std::string_view name, int high, std::vector<std::string_view> elements)
  {
    auto* const s = statement<ArrayDeclaration>(StatementKind::array);
    s->name = arena.text(name);
    s->low = arena.copy(std::vector<std::int32_t>{1});
    s->high = arena.copy(std::vector<std::int32_t>{high});
    s->elements = arena.copy(elements);
    return s;
  }
  Statement* jump(StatementKind kind, std::string_view label)
  {
    auto* const s = statement<JumpStatement>(kind);
    s->target = arena.text(label);
    return s;
  }
  Statement* plain(StatementKind kind) { return statement<Statement>(kind); }
  Statement* return_(Expr* value = nullptr, StatementKind kind = StatementKind::return_)
  {
    auto* const s = statement<ReturnStatement>(kind);
    s->value = value;
    return s;
  }
  Statement* labelled(std::string_view label, Statement* s)
  {
    s->label = arena.text(label);
    return s;
  }
  template <class T> T* statement(StatementKind kind)
  {
    T* const s = arena.make<T>();
    s->kind = kind;
    s->where = {0, ++line_, 1};
    return s;
  }
  Program program(std::vector<Statement*> statements) { return {std::move(statements)}; }

private:
  Expr* make(ExprKind kind)
  {
    Expr* const e = arena.make<Expr>();
    e->kind = kind;
    e->where = {0, line_ + 1, 1};
    return e;
  }
  Expr* named(ExprKind kind, std::string_view s)
  {
    Expr* const e = make(kind);
    e->name = arena.text(s);
    return e;
  }
  Expr* with(Expr* e, std::vector<Expr*> args)
  {
    e->args = arena.copy(args);
    return e;
  }
  std::int32_t line_ = 0;
};

} // namespace torvale::test
