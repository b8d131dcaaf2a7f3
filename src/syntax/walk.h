#pragma once
// Walks over a typed tree: every expression of a program, in program order.

#include "syntax/tree.h"

#include <functional>

namespace torvale::syntax {

using ExpressionVisitor = std::function<void(const Expr&)>;

// Calls visit for the expression and all parts of it, outer ones first.
void each_expression(const Expr* expression, const ExpressionVisitor& visit);
// The same for all expressions of a statement and of those in it.
void each_expression(const Statement* statement, const ExpressionVisitor& visit);
// The same for all expressions of a program's statements, those in branches, loops and subprograms included.
void each_expression(const Program& program, const ExpressionVisitor& visit);

} // namespace torvale::syntax
