#pragma once
// The course of a fit as its tables and the log tell it.

#include "model/run_record.h"

namespace torvale::solve {

// nlpterm: the optimizer's termination callback: writes the history, tells the objective which iterate was accepted,
// and ends with the library's test. (nlp nonlinear problem, term termination.) Returns what znlptrm returns.
int nlpterm(optimizer::MINSTR* str, int job);

// tvliter: one call of the iteration history (tvl procedure, iter iteration): job 10 opens "IterHistory", 1 writes a
// row, 1000 + code closes it and writes "ConvergenceStatus".
void tvliter(model::NX& n, int job);

// continued_row: a row of the history for a run in other coordinates that goes on from the fit's own; what belongs to
// the fit's technique stays empty.
void continued_row(model::NX& n, const optimizer::MINSTR& run);

// Rows that the optimizer hands over: GRADCHECK's table, and the linear dependencies of a singular Hessian, which
// write_dependencies turns into the table "LinearDependencies".
void gradient_check_row(optimizer::MINSTR* str, const optimizer::GradientCheckRow& row);
void dependency_row(optimizer::MINSTR* str, const optimizer::DependencyRow& row);
void write_dependencies(model::NX& n);

// The optimizer's messages, in the words of its library, go to the run's log.
void optimizer_message(optimizer::MINSTR* str, int group, int number, int severity, const double* values, int count);

} // namespace torvale::solve
