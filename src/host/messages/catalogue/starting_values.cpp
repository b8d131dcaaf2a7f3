#include "host/messages/catalogue/topics.h"

namespace torvale::host {

namespace {

// Starting values and bounds.
constexpr CatalogueEntry entries[] = {
    {503, 230, "starting_variable_not_numeric", E,
     "The variable {variable} of the PARMS data set {data} must be numeric.", "",
     "Replace texts in that column by numbers or empty fields; only the variable Parameter holds names."},
    {503, 231, "best_above_points", W, "BEST=[{best}] is above the number of starting points, {points}; all are kept.",
     "", "Give a smaller BEST=, or leave it out."},
    {503, 9447, "no_mode_steps", W, "EBSTEPS=0 allows no Newton step, so that no subject's random effects have a mode.",
     "", "Leave EBSTEPS= out, or write EBOPT, which lets the optimizer seek the modes."},
    {503, 232, "no_starting_point", E, "None of the[ {count}] starting points can be used.",
     "The model fails, or a bound is violated, at each of them.",
     "Start from values at which the curve looks like the data; check the units; check BOUNDS."},
    {503, 235, "no_starting_value", E, "The parameter {name} has no starting value.", "", "Write PARMS {name}=value;"},
    {503, 236, "starting_point_not_used", W, "Starting point {point} is not used: {values}.", "",
     "Bring the values inside their BOUNDS, or take the point out of the grid."},
    {503, 237, "parameter_given_twice", E, "The parameter {name} is given twice.",
     "It stands twice in PARMS, or in PARMS and in its data set.", "Keep one of them."},
    {503, 238, "no_estimate_variable", E,
     "The PARMS data set {data} has the character variable Parameter, but no variable Estimate.", "",
     "Name the column of the values Estimate; or give each parameter a column of its own and leave Parameter out."},
    {503, 250, "bad_bounds", E, "BOUNDS: {problem}.",
     "A limit stands against a limit, a parameter against a parameter, or the lower limit is above the upper one.",
     "Write BOUNDS a > 0, 0 <= b <= 1;"},
    {503, 251, "bounds_need_parameter_and_number", E,
     "BOUNDS: on one side of a comparison a parameter, on the other a number is needed.", "",
     "Write BOUNDS name > number. For a relation between parameters write one through another, as b = a + exp(d)."},
    {503, 252, "bounds_name_no_parameter", E, "BOUNDS names {name}, which is not a parameter[; did you mean {near}?].",
     "", "Mend the name, or take it out: only parameters have bounds, neither data nor computed variables."},
    {503, 270, "integral_not_accurate", E,
     "The integral is not accurate enough with {points} quadrature points: relative change {change}, tolerance "
     "{tolerance}[; {option} needs many points: leave it out, or give QPOINTS= or a larger QMAX=].",
     "Starting values far from the data make the integrand very narrow or irregular.",
     "Better starting values; QPOINTS=; QMAX=; a larger QTOL=."},
    {503, 271, "more_zero_eigenvalues", W,
     "The final Hessian matrix has more zero eigenvalues ({count}) than active constraints account for; the covariance "
     "is a generalized inverse.[ The data do not identify {names}: there are no standard errors for them.]",
     "Parameters that the data cannot tell apart, or a parameter without influence.",
     "Remove or fix a parameter; the table \"LinearDependencies\" shows what moves together."},
    {503, 272, "negative_eigenvalues", W,
     "The {matrix} has negative eigenvalues ({count}): the estimates are not a minimum.",
     "A saddle point, or a stop on flat ground.", "Other starting values, another TECHNIQUE=, a smaller GCONV=."},
};

} // namespace

std::span<const CatalogueEntry> starting_values_messages()
{
  return entries;
}

} // namespace torvale::host
