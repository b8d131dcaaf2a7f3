#include "syntax/walk.h"

namespace torvale::syntax {

namespace {

class Walk {
public:
  explicit Walk(const ExpressionVisitor& visit) : visit_(visit) {}

  void statement(const Statement* s)
  {
    if (s == nullptr) return;
    switch (s->kind) {
    case StatementKind::assign: {
      const auto& a = static_cast<const Assignment&>(*s);
      all({a.target, a.position, a.length, a.value});
      break;
    }
    case StatementKind::if_: {
      const auto& i = static_cast<const IfStatement&>(*s);
      expression(i.condition);
      statement(i.then_branch);
      statement(i.else_branch);
      break;
    }
    case StatementKind::do_: {
      const auto& d = static_cast<const DoStatement&>(*s);
      for (const LoopRange& r : d.ranges) all({r.start, r.stop, r.step, r.while_, r.until});
      all({d.while_, d.until});
      for (const Statement* inner : d.body) statement(inner);
      break;
    }
    case StatementKind::select: {
      const auto& c = static_cast<const SelectStatement&>(*s);
      expression(c.selector);
      for (const WhenClause& w : c.whens) {
        for (const Expr* value : w.values) expression(value);
        statement(w.body);
      }
      statement(c.otherwise);
      break;
    }
    case StatementKind::return_:
    case StatementKind::abort:
      expression(static_cast<const ReturnStatement&>(*s).value);
      break;
    case StatementKind::call:
      for (const Expr* e : static_cast<const CallStatement&>(*s).args) expression(e);
      break;
    case StatementKind::put:
      for (const PutItem& item : static_cast<const PutStatement&>(*s).items) expression(item.value);
      break;
    case StatementKind::subprogram:
      for (const Statement* inner : static_cast<const SubprogramDefinition&>(*s).body) statement(inner);
      break;
    case StatementKind::site:
      for (const Expr* e : static_cast<const ExpressionSite&>(*s).expressions) expression(e);
      break;
    default:
      break; // no expressions
    }
  }

  void expression(const Expr* e)
  {
    if (e == nullptr) return;
    visit_(*e);
    for (const Expr* part : e->args) expression(part);
  }

private:
  void all(std::initializer_list<const Expr*> parts)
  {
    for (const Expr* e : parts) expression(e);
  }

  const ExpressionVisitor& visit_;
};

} // namespace

void each_expression(const Expr* expression, const ExpressionVisitor& visit)
{
  Walk(visit).expression(expression);
}

void each_expression(const Statement* statement, const ExpressionVisitor& visit)
{
  Walk(visit).statement(statement);
}

void each_expression(const Program& program, const ExpressionVisitor& visit)
{
  Walk walk(visit);
  for (const Statement* s : program.statements) walk.statement(s);
}

} // namespace torvale::syntax
