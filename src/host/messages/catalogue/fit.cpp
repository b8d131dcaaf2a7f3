#include "host/messages/catalogue/topics.h"

namespace torvale::host {

namespace {

// The data pass, the fit and its verdict.
constexpr CatalogueEntry entries[] = {
    {503, 9201, "program_stopped", E,
     "The program cannot go on[ at observation {observation}][: {reason}][, in \"{source}\"]; the group is not used "
     "(code "
     "{code}).",
     "STOP or ABORT, a loop that does not end, or a subscript outside its array.",
     "Look at that observation; guard STOP and ABORT with IF, give every loop an end, keep subscripts inside their "
     "arrays."},
    {503, 9202, "value_missing_at_start", W,
     "{count} observations are not used, since {what} is missing at the starting values although the data are there "
     "(first observation {observation}).",
     "A variable that is used before it has a value, or a text that is no number.",
     "Follow the variables of the model back to where they get their values."},
    {503, 9203, "replicate_changes", E,
     "The replicate variable {variable} changes within a subject at observation {observation}; the group is not used.",
     "", "The count must be constant within a subject."},
    {503, 9204, "impossible_at_start", W,
     "The model calls {count} observations impossible at the starting values (first: {observations}); the fit cannot "
     "start there.",
     "A response outside the range of its distribution, a probability of 0 or 1, or a mean that is 0 to machine "
     "precision.",
     "Check these responses; other starting values."},
    {503, 9205, "missing_start_read_as_one", N, "Missing values in the PARMS data set {data} are read as 1.", "", ""},
    {503, 9206, "starting_variable_unused", N,
     "The variable {variable} of the PARMS data set {data} is in no statement; it is not a parameter.", "", ""},
    {503, 9207, "starting_by_variable_mismatch", E,
     "A BY variable is numeric in one and characters in the other of the input and the PARMS data set {data}.", "",
     "Write the BY variable in both data sets alike, as numbers or as texts."},
    {503, 9208, "no_starting_rows_for_group", E, "The PARMS data set {data} has no rows for this BY group.", "",
     "Add rows for the group, or leave the BY variables out of the PARMS data set: its values then hold for all "
     "groups."},
    {503, 9209, "response_not_whole", W,
     "{count} values of the response {name} are not whole numbers (first observation {observation}); the distribution "
     "{distribution} takes them as they are.",
     "A response that is no count: a mean, a rate, a measurement.", "Another distribution, or the counts themselves."},
    {503, 9211, "replicate_not_positive", W,
     "{count} observations are not used, since the replicate variable {name} is missing, or not above SINGVAR= (first "
     "observation {observation}).",
     "", "The values are counts or weights: above 0."},
    {503, 9210, "large_grid", N, "The starting grid has {count} points; BEST= shortens the table.", "", ""},
    {503, 9223, "put_file_not_written", E, "The file {file}, which PUT writes to, cannot be written: {problem}.",
     "The folder is missing or may not be written to.",
     "Correct the path behind FILE; relative ones begin at the output folder."},
    {503, 9222, "variance_vanished", W,
     "The variance of the random effect {name} is {value} at the estimates: the effect has vanished.",
     "The data show no variation of this kind between subjects.", "Leave the effect out, or give its variance BOUNDS."},
    {503, 9452, "effects_singular", W,
     "The covariance matrix of the random effects {names} is singular at the estimates[: {pair} have the correlation "
     "{correlation}].",
     "The data tell fewer ways in which subjects differ than the program has effects.",
     "Leave an effect out, or put one effect in the place of two, as b0 + u + (b1 + k*u)*x."},
    {503, 9221, "estimate_at_bound", W, "The estimate of {name} stands at its bound {bound}.",
     "The effect is absent, or its unit is large.", "Rescale; SINGVAR=; a bound without strictness (>=)."},
    {503, 9302, "seed_above_range", W, "SEED={seed} is above 2147483646; the clock is used.", "",
     "Give a seed from 1 to 2147483646."},
    {503, 9303, "seed_from_clock", N, "The clock gave the seed {seed}; SEED={seed} repeats this run.", "", ""},
    {503, 9310, "bounds_contradict", E, "BOUNDS: the lower bound {lower} of {name} is above its upper bound {upper}.",
     "Two statements, or two relations of one, contradict each other.", "Remove one of them."},
    {503, 9311, "parameter_held", N,
     "{name} is held at {value}, where its bounds meet; its starting values are not used.", "", ""},
    {503, 9320, "random_effect_twice", E, "{name} stands twice in the RANDOM statement.", "",
     "Name each random effect once."},
    {503, 9321, "reserved_name", E, "{name} is a name of the generated statements and cannot be {role}.",
     "MODEL assigns the log likelihood by statements that use this name.", "Choose another name."},
    {503, 9322, "role_is_assigned", E, "{name} is {role} and is also assigned a value in the program.",
     "An assignment would hide it, and the model would be another one.", "Rename one of the two."},
    {503, 9323, "method_with_discrete", E, "METHOD= cannot be combined with the DISCRETE distribution.", "",
     "Leave METHOD= out."},
    {503, 9324, "parameter_and_random_effect", E, "{name} is in PARMS and in RANDOM.", "",
     "A name is a parameter or a random effect, not both."},
    {503, 9330, "not_available", E, "{what} is not available in this version.", "",
     "Leave it out; the documentation lists what is there."},
    {503, 9331, "parameter_unused", W, "The parameter {name} is in PARMS, but nothing depends on it.",
     "A misspelled name in the program, which then became a parameter of its own.",
     "Compare it with the names in the notes above."},
    {503, 9430, "parms_data_without_rows", E, "The PARMS data set {data} has no rows: it gives no starting values.", "",
     "Check where it comes from and its WHERE= option."},
    {503, 9431, "parameter_without_influence", W,
     "-2 log likelihood does not depend on {name}: it has no standard error.",
     "The parameter stands behind a condition that no record meets, or is multiplied by 0.",
     "Take it out of the model, or look at the records that it should belong to."},
    {503, 9432, "no_degrees_of_freedom", N,
     "With {df} degrees of freedom t values have no probability, and there are no confidence limits.",
     "There are no more subjects than random effects.", "Give the degrees of freedom in DF=."},
    {503, 9433, "name_not_in_parms", W,
     "PARMS does not name {names}[; did you mean {near}?][; {effects} looks like a random effect, which needs a RANDOM "
     "statement].",
     "A misspelled name: it is now a parameter that starts at 1, and the fit is another one than was meant.",
     "Mend the name, add it to PARMS, or write the RANDOM statement; --strict makes this an error."},
    {503, 9434, "name_not_in_parms_refused", E,
     "{names} is neither in PARMS nor given a value[; did you mean {near}?][; {effects} looks like a random effect, "
     "which "
     "needs a RANDOM statement].",
     "With --strict every parameter must stand in PARMS.", "Mend the name, add it to PARMS, or leave out --strict."},
    {503, 9435, "put_file_protected", E, "FILE may not replace {file}: {reason}.", "",
     "Give the lines of PUT a file of their own."},
    {503, 9436, "options_without_effect", N, "Options that have no effect: {options}.",
     "They are accepted so that programs which carry them run.",
     "Leave them out; docs/language.md says what each option does."},
    {503, 9437, "start_fails_at_subject", W,
     "At the starting values the model fails[ at {bad} of {records} records of this subject, first] at observation "
     "{observation}[: {reason}][, in \"{source}\"][: {response} is impossible].",
     "Starting values far from the data: a probability that rounds to 0 or 1, a mean or variance that is not positive "
     "(POISSON takes means from 1.1e-16 on), an exponential that overflows.",
     "Start nearer: slopes of 0 and the level of the data; write probabilities as LOGISTIC(eta), positive quantities "
     "as EXP(a)."},
    {503, 9340, "no_covariance", W,
     "The covariance of the estimates could not be computed; there are no standard errors.",
     "The Hessian cannot be evaluated near the estimates.",
     "Look at the final gradient; try other starting values or FDHESSIAN=CENTRAL."},
    {503, 9543, "no_mistakes", N, "No mistakes found.", "", ""},
    {503, 9550, "text_never_occurs", W, "The text '{value}' never occurs in {name}[; is one of these meant: {near}?].",
     "A misspelled level, other capitals, or a level that this data set lacks: the comparison is false in every row.",
     "torvale describe lists the levels of a column."},
    {503, 9513, "moments_of_two_kinds", W,
     "{name} and '{value}' are moments of two kinds: a date is a number of days, a time or a date with a time one of "
     "seconds.",
     "The comparison is the same in every row.",
     "Spell the text as the column does, as in '2024-01-31T00:00:00', or compare DATEPART of the variable."},
    {503, 9551, "bar_is_or", W,
     "A number before | makes a logical OR with {name}, which is 1 or 0: a random effect by {name} is written with "
     "RANDOM.",
     "A formula from another language, as (1|id).",
     "Add an effect to the model and write RANDOM u ~ NORMAL(0, variance) SUBJECT=variable;"},
    {503, 9552, "response_outside_support", W,
     "The response {name} is {value} here[, and outside in {count} rows]: {support}[; {advice}].",
     "Codes of levels or of missing values, or another distribution than the data have.",
     "Recode the response in the program, leave rows out with WHERE=, or choose the distribution that takes such "
     "values."},
    {503, 9553, "data_binding_unused", N, "--data names {name}, which no statement of the program uses.",
     "A misspelled name.", "Name it in DATA= of the TORVALE statement, or correct the name behind --data."},
    {503, 9554, "decimal_comma", W,
     "PARMS holds {found}: two starting values; a decimal is written with a point, {meant}.", "A decimal comma.",
     "Write a blank behind the comma when two values are meant."},
    {503, 9360, "confirmation_lowered_objective", N,
     "The technique had stopped where no minimum was confirmed; {iterations} trust-region iterations from there "
     "brought "
     "-2 log L from {from} to {to}.",
     "Starting values far from the optimum, parameters of very different size, or variances near the edge of what the "
     "model allows.",
     ""},
    {503, 9421, "lower_without_effect", N,
     "Where {name} is 0 there is a better minimum: -2 log L is {from} with it and {to} without. The fit goes on from "
     "there.",
     "A likelihood may have one maximum with an effect and one without it, in small data with outliers above all. "
     "Variances that the data hardly tell from 0 are therefore tried at 0.",
     "Look for outliers; the variance is not supported by the data."},
    {503, 9410, "minimum_not_confirmed", W,
     "No minimum was confirmed: at the returned point -2 log L is {value}[, and a Newton step promises to lower it by "
     "{gain}].",
     "The limits of the fit were reached, or the likelihood has no maximum that steps from here can find.",
     "Other starting values; larger MAXITER= and MAXFUNC=; BOUNDS; another parameterization."},
    {503, 9411, "likelihood_rises_without_end", W,
     "The likelihood does not fall along {names} within a standard error: it seems to rise without end, and there is "
     "no maximum.",
     "Complete separation: the data split the responses perfectly. Or a parameter without influence far away.",
     "Remove the effect, join groups, or give BOUNDS."},
    {503, 9412, "stopped_by_given_criterion", W,
     "The criterion that was given stopped the fit before a minimum was confirmed[: a Newton step promises to lower -2 "
     "log L by {gain}].",
     "", "Leave the criterion at its default, or make it smaller."},
    {503, 9413, "convergence_not_judged", W,
     "Convergence could not be confirmed: the Hessian cannot be computed at the returned point.",
     "The model fails close to the estimates.", "Other starting values; BOUNDS; another parameterization."},
    {503, 9414, "more_points_at_estimates", N,
     "At the estimates the integral needs {points} quadrature points in place of {before}: the fit goes on with them.",
     "The starting values were chosen where the integrand is wider than at the estimates.",
     "QPOINTS= settles the number."},
    {503, 9415, "more_points_than_qmax", W,
     "At the estimates the integral still changes by more than the relative tolerance {tolerance} with {points} "
     "quadrature points, and QMAX= allows no more.",
     "", "A larger QMAX= or QTOL=."},
    {503, 9416, "integral_changes_with_points", W,
     "With {points} quadrature points in place of {before}, -2 log L at the estimates changes by {change}.",
     "The integrals of the subjects are narrow or irregular.", "QPOINTS={points}, or a smaller QTOL=."},
    {503, 9449, "integrands_have_other_modes", W,
     "The integrands of {count} of {looked} subjects have another mode that the points do not reach (most of all "
     "subject "
     "{subject}): with them -2 log L at the estimates would change by about {change}.",
     "A random effect that enters by its square or absolute value, so that its sign is not known; subjects whose data "
     "have two explanations.",
     "METHOD=HARDY sums one random effect over all modes; NOAD takes points over the whole prior, and needs many; or "
     "write the model so that one sign remains, as EXP(u) in place of u**2."},
    {503, 9420, "minimum_of_the_points", W,
     "The estimates may be no minimum: a standard error from them -2 log L rises by as much as {points} quadrature "
     "points "
     "in place of {before} change that.",
     "The integrands are narrow or steep beside the distance of the points (a large variance of random effects, "
     "responses "
     "that subjects tell apart completely); sums over few points then have minima that the likelihood does not have.",
     "QPOINTS={points} or more, a larger QMAX=; BOUNDS for a variance that goes on growing."},
    {503, 9417, "miniter_not_reached", N,
     "The fit ended after {iterations} iterations, before MINITER={least}: nothing was left to gain.", "", ""},
    {503, 9343, "interrupted", W, "The run was interrupted; what was finished is written.", "",
     "Start again from what was reached: the last estimates as values in PARMS."},
    {503, 9342, "no_step", E, "{program} holds no step: a program begins with the TORVALE statement.", "",
     "Begin with TORVALE DATA=name; and end the step with RUN;"},
    {503, 9344, "only_grammar_checked", N,
     "Only the grammar was checked: names, the model and its derivatives need the variables of the data set.", "", ""},
    {503, 9341, "out_of_memory", E, "There is not enough memory.", "Very many points or observations for this machine.",
     "Fewer QPOINTS=, fewer random effects, or a data set of fewer variables (KEEP=, or a file without the others)."},
};

} // namespace

std::span<const CatalogueEntry> fit_messages()
{
  return entries;
}

} // namespace torvale::host
