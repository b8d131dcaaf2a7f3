#pragma once
// The table itself, for those who ask it for a number while they are compiled.

#include "optimizer/messages/message_table.h"

#include <string_view>

namespace torvale::optimizer {

struct MessageKey {
  int group;
  int number;
};

namespace rows {

constexpr int N = 1, W = 2, E = 3; // as severity_note, severity_warning, severity_error

// Group, number, name, severity, words, usual causes, what to try. Values go by position: {0}, {1}.
inline constexpr MessageRow message_rows[] = {
    // Options.
    {503, 330, "maxiter_below_miniter", W, "MAXITER={0} is below MINITER={1} and takes its value.", "",
     "Raise MAXITER= or leave MINITER= out."},
    {503, 9400, "hessians_too_dear", N,
     "A Hessian by differences costs {0} calls, too many for MAXFUNC={1}: TECHNIQUE=DUQUAN is run in its place.",
     "TRUREG, NEWRAP and NRRIDG need a Hessian in each iteration; by differences it costs a call or more per "
     "parameter, "
     "from values alone some for each pair.",
     "Raise MAXFUNC= to insist on the technique."},
    {352, 451, "no_maximization_of_least_squares", E, "Maximization is not available for least squares.", "",
     "Use the default technique."},
    {352, 452, "least_squares_not_available", E, "Least-squares and norm objectives are not available.", "",
     "Use the default technique."},
    {352, 453, "nonlinear_constraints_with_quadratic", E,
     "Nonlinear constraints are not available for a quadratic objective.", "", "Use the default technique."},
    {352, 454, "replaced_by_quadratic_active_set", W, "The technique is replaced by the quadratic active set method.",
     "", "Leave TECHNIQUE= out."},
    {352, 455, "quadratic_not_available", E, "Quadratic problems given by their matrices are not available.", "",
     "Use the default technique."},
    {352, 456, "nrlins_run_as_newrap", W, "TECHNIQUE=NRLINS is run as TECHNIQUE=NEWRAP.", "",
     "Write TECHNIQUE=NEWRAP."},
    {352, 457, "technique_not_available", E, "TECHNIQUE number {0} is not available.", "",
     "Use the default technique."},
    {352, 458, "levmar_is_for_least_squares", E, "TECHNIQUE=LEVMAR is for least squares only.", "",
     "Use the default technique."},
    {352, 459, "hyquan_is_for_least_squares", E, "TECHNIQUE=HYQUAN is for least squares only.", "",
     "Use the default technique."},
    {352, 460, "gaunew_is_for_least_squares", E, "TECHNIQUE=GAUNEW is for least squares only.", "",
     "Use the default technique."},
    {352, 461, "simplex_with_linear_constraints", E, "A simplex technique cannot handle linear constraints.", "",
     "Leave TECHNIQUE= out: the default handles linear constraints."},
    {352, 462, "nonlinear_constraints_not_available", E, "Nonlinear constraints are not available.", "",
     "Write the parameters as functions of free ones, as p = 1/(1 + exp(-a))."},
    {352, 463, "update_not_of_quanew", E, "UPDATE number {0} does not belong to TECHNIQUE=QUANEW.", "",
     "UPDATE=BFGS or DFP."},
    {352, 464, "update_not_of_duquan", E, "UPDATE number {0} does not belong to TECHNIQUE=DUQUAN or DBLDOG.", "",
     "BFGS or DFP in their dual forms."},
    {352, 465, "update_not_of_congra", E, "UPDATE number {0} does not belong to TECHNIQUE=CONGRA.", "",
     "UPDATE=PB, FR, PR or CD."},
    {352, 466, "update_ignored", W, "UPDATE= is ignored: the technique has no update.", "",
     "Leave UPDATE= out, or choose a technique that updates: DUQUAN, QUANEW, DBLDOG, CONGRA."},
    {352, 467, "hescal_ignored", W, "HESCAL= is ignored: the technique does not scale the Hessian.", "",
     "Leave HESCAL= out, or choose a technique that scales: TRUREG, NEWRAP, NRRIDG, DBLDOG."},
    {352, 468, "lcdeact_ignored", W, "LCDEACT={0} has the wrong sign for this problem and is ignored.", "",
     "Leave LCDEACT= out, or give a value of the other sign."},
    {352, 469, "linesearch_ignored", W, "LINESEARCH= is ignored: the technique has no line search.", "",
     "Leave LINESEARCH= out, or choose a technique with a line search: DUQUAN, QUANEW, NEWRAP, CONGRA."},
    {352, 471, "gradcheck_ignored", W, "GRADCHECK is ignored: the gradient comes from differences.", "",
     "Leave FD out to have the analytic gradient checked, or take GRADCHECK away."},
    {352, 472, "fd_ignored", W, "FD= is ignored because FDHESSIAN= is given: analytic gradients are used.", "",
     "Leave FDHESSIAN= out: FD takes first and second derivatives by differences."},
    {352, 473, "fd_ignored_with_quadratic", W, "FD is ignored with a quadratic objective.", "", "Leave FD out."},
    // Reports.
    {549, 1, "stopped_before_convergence", E, "No further progress could be made. The largest gradient element is {0}.",
     "A hard problem, poor starting values, or parameters that the data cannot tell apart.",
     "Larger MAXITER= and MAXFUNC=; start from the last estimates; rescale parameters to similar sizes."},
    {549, 2, "time_limit", E, "The time limit of {0} seconds was reached.", "", "A larger MAXTIME=."},
    {549, 3, "all_fixed", N, "All parameters are fixed by active constraints.", "", ""},
    {549, 4, "no_convergence", E, "The optimization did not converge.",
     "A flat or irregular objective, derivatives that are not accurate, a tolerance below what rounding allows.",
     "Other starting values, another TECHNIQUE=, larger tolerances, rescaled parameters."},
    {549, 6, "not_completed", E, "The optimization could not be completed.", "",
     "Look at the messages before; other starting values, another TECHNIQUE=."},
    {549, 7, "criterion_satisfied", N, "{0} convergence criterion satisfied.", "", ""},
    {549, 8, "point_not_made_feasible", E, "A point that violates the constraints could not be made feasible.", "",
     "Look whether the BOUNDS can all hold at once, and start from values that satisfy them."},
    {549, 9, "newton_line_search_failed", E, "The line search of the Newton technique failed.", "",
     "Another TECHNIQUE=."},
    {549, 10, "start_moved", N, "The start was moved to a point that satisfies the bounds and linear constraints.", "",
     ""},
    {549, 40, "unbounded_below", W, "The step length reached {0}: the objective seems to be unbounded below.", "",
     "BOUNDS; check the model."},
    {549, 41, "unbounded_above", W, "The step length reached {0}: the objective seems to be unbounded above.", "",
     "BOUNDS; check the model."},
    {549, 42, "lower_bound_mark", N, "~", "", ""},
    {549, 43, "upper_bound_mark", N, "^", "", ""},
    {549, 46, "no_feasible_point", E, "No point satisfies the bounds and linear constraints within LCEPSILON={0}.", "",
     "Check BOUNDS."},
    {549, 57, "criterion_satisfied_too_few_times", N,
     "{0} convergence criterion satisfied {1} times, less often than asked for.", "", ""},
    {549, 59, "no_iteration", N, "No iteration was done.", "", ""},
    {549, 130, "no_feasible_start", E, "There is no feasible start.", "", "Check BOUNDS and PARMS."},
    {549, 131, "no_objective_at_start", E, "The objective cannot be computed at the start.", "The model fails there.",
     "Other starting values."},
    {549, 132, "no_derivatives_at_start", E, "The derivatives of the objective cannot be computed at the start.",
     "The model fails near there.", "Other starting values."},
    {549, 133, "no_objective_during_optimization", E,
     "The objective cannot be computed during the optimization, or it is unbounded.", "The model fails there.",
     "BOUNDS that keep away from where the model fails."},
    {549, 134, "no_gradient_during_optimization", E, "The gradient cannot be computed during the optimization.",
     "The model fails there.", "BOUNDS that keep away from where the model fails."},
    {549, 136, "gradient_not_small", W,
     "The largest gradient element at the returned point is {0}, which is not small.", "",
     "A smaller GCONV=, another TECHNIQUE=."},
    {549, 137, "constraints_hold_loosely", W, "The constraints hold only within the looser tolerance {0}.", "",
     "Start from values well inside the constraints; rescale parameters to similar sizes."},
    {549, 138, "active_set_changed", N, "The set of active constraints changed in the last iteration.", "", ""},
    {549, 171, "equality", N, "Equality", "", ""},
    {549, 172, "lower_bound", N, "Lower BC", "", ""},
    {549, 173, "upper_bound", N, "Upper BC", "", ""},
    {549, 174, "infeasible", N, "Infeasible", "", ""},
    {549, 181, "gradient_disagrees", W,
     "GRADCHECK: the analytic gradient disagrees with differences of the objective: {0} cases, largest error {1}.", "",
     "Check the derivatives."},
    {549, 182, "hessian_disagrees", W, "The Hessian differs from its differences.", "", "Check the derivatives."},
    {549, 183, "constraint_derivatives_disagree", W,
     "The derivatives of the constraints differ from their differences.", "",
     "Use bounds in place of these constraints, or rescale parameters to similar sizes."},
    {549, 184, "sigsq_ignored", W, "SIGSQ={0} is ignored: the problem is not one of least squares.", "",
     "Leave SIGSQ= out."},
    {549, 185, "one_singular_direction", W, "The covariance matrix has one singular direction.", "",
     "Look for the parameters that share it (LinearDependencies) and leave one out, or fix it with BOUNDS."},
    {549, 188, "covariance_matrix_not_available", W,
     "The covariance form needs a matrix that is not available; no covariance is computed.", "",
     "Leave COVARIANCE= out: the default uses the Hessian, which is there."},
    {549, 189, "singular_hessian_dependencies", N,
     "The Hessian is singular. The dependencies among the parameters are listed.", "", ""},
    {549, 180, "gradient_agrees", N,
     "GRADCHECK: the analytic gradient agrees with differences of the objective (largest error {1}).", "", ""},
    {549, 190, "singular_hessian_inverse", W, "The Hessian is singular. The covariance is its Moore-Penrose inverse.",
     "",
     "Look for parameters that do the same work (LinearDependencies) and leave one out; standard errors hold only for "
     "what the data determine."},
    {549, 257, "negative_variances", W,
     "Some variances are negative: the Hessian is not positive definite at the returned point.", "",
     "The point is no minimum: other starting values, another TECHNIQUE=, smaller tolerances (GCONV=)."},
    {549, 253, "constraints_violated", W,
     "The constraints do not hold even within a tolerance that was loosened ten times.", "",
     "Start from values that satisfy the constraints; rescale parameters to similar sizes."},
    {549, 255, "two_singular_directions", W, "The covariance matrix has two singular directions.", "",
     "Look for the parameters that share them (LinearDependencies) and leave some out."},
    {549, 256, "singular_directions", W, "The covariance matrix has {0} singular directions.", "",
     "Look for the parameters that share them (LinearDependencies) and leave some out."},
    {549, 550, "iteration_history", N, "Iteration History", "", ""},
    {549, 551, "optimization_start", N, "Optimization Start", "", ""},
    {549, 552, "active_constraints", N, "Active Constraints", "", ""},
    {549, 553, "active_constraints_changed", N, "Active Constraints (changed)", "", ""},
    {549, 554, "objective_function", N, "Objective Function", "", ""},
    {549, 555, "maximum_gradient", N, "Maximum Gradient", "", ""},
    {549, 556, "radius", N, "Radius", "", ""},
    {549, 558, "maximum_violation", N, "Maximum Violation", "", ""},
    {549, 559, "maximum_lagrangian_gradient", N, "Maximum Gradient of the Lagrangian", "", ""},
    {549, 601, "stopped_before_miniter", W, "The optimization stopped before MINITER= iterations.", "",
     "Leave MINITER= out, or raise MAXITER= and MAXFUNC=."},
    {549, 603, "time_limit_reached", E, "The time limit of {0} seconds was reached.", "", "A larger MAXTIME=."},
    {549, 604, "time_limit_exceeded", E, "The time limit of {0} seconds was reached.", "", "A larger MAXTIME=."},
    {549, 605, "maxiter_reached", E, "MAXITER={0} iterations were done without convergence.", "", "A larger MAXITER=."},
    {549, 606, "maxfunc_reached", E, "MAXFUNC={1} objective calls were made without convergence.", "",
     "A larger MAXFUNC=."},
    {549, 607, "criterion_met", N, "Convergence criterion {0} is satisfied.", "", ""},
    {549, 608, "criterion_met_by_name", N, "{0} convergence criterion satisfied.", "", ""},
    {549, 609, "all_held", N, "All parameters are held by active constraints.", "", ""},
    {549, 610, "all_fixed_by_constraints", N, "All parameters are fixed by active constraints.", "", ""},
    {549, 611, "limit_while_criterion_met", W,
     "A limit was reached while convergence criterion {0} was met {1} times, less often than asked for.", "",
     "Ask for fewer times, or raise MAXITER= or MAXFUNC=."},
    {549, 612, "limit_after_criterion", W, "A limit was reached when the {0} criterion had been satisfied {1} times.",
     "", "Raise MAXITER= and MAXFUNC=, or ask for the criterion fewer times."},
    {549, 613, "no_iteration_done", N, "No iteration was done.", "", ""},
    {549, 614, "ended_without_criterion", N, "The optimization ended without a convergence criterion.", "",
     "Raise MAXITER= and MAXFUNC=, or start from the last estimates."},
};

} // namespace rows

// The message of that name; a name that the table lacks does not compile.
consteval MessageKey named(std::string_view name)
{
  for (const MessageRow& row : rows::message_rows)
    if (name == row.name) return {row.group, row.number};
  throw "there is no message of that name";
}

} // namespace torvale::optimizer
