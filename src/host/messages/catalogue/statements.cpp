#include "host/messages/catalogue/topics.h"

namespace torvale::host {

namespace {

// Statements, their roles and options, the course of a run.
constexpr CatalogueEntry entries[] = {
    {503, 9512, "length_of_data_variable", W,
     "LENGTH of {name} has no effect: it is a variable of the data, whose values keep their length.", "",
     "SUBSTR(name, 1, n) gives the first n characters."},
    {503, 1, "no_input_data", E,
     "There is no input data set: the TORVALE statement needs DATA=[; data sets given on the command line: {known}].",
     "", "Write DATA=name, and put name.csv in the program's folder or give --data name=path."},
    {503, 2, "no_model", E, "A MODEL statement with one dependent variable is needed.",
     "The MODEL statement is missing, or names several variables.",
     "Write MODEL y ~ NORMAL(mean, variance); or another distribution."},
    {503, 4, "parameter_in_data", W,
     "The name {name} is a parameter and a variable of the data set; the parameter is meant.", "",
     "Rename one of them, or DROP= the variable."},
    {503, 5, "unknown_dependent_variable", E,
     "The dependent variable {name} is neither in the data set nor assigned in the program[; did you mean {near}?][: "
     "{statement} makes it a parameter].",
     "A name in PARMS is a parameter, whatever else has that name.", "Mend the name, or take it out of PARMS."},
    {503, 8, "subject_not_one_variable", E,
     "The RANDOM statement needs SUBJECT= with one variable[; {found} are given].", "",
     "Write SUBJECT=variable behind the distribution."},
    {503, 9, "role_variable_not_in_data", E,
     "The {role} variable {name} is not in the data set[; did you mean {near}?].",
     "A misspelled name, or a variable that the program computes: subjects and BY groups are read from the data set.",
     "Mend the name, or add the column to the file: subjects and BY groups are columns of the data set itself. "
     "'torvale describe' lists them."},
    {503, 10, "likelihood_without_random_effect", E,
     "The log likelihood does not depend on the random effect {name}[: {reason}].",
     "The random effect is declared in RANDOM but not used in the statements that compute the model, or a constant "
     "among "
     "the arguments of the distribution, as a variance of 0, leaves no likelihood.",
     "Use it in the model, or remove it from RANDOM; mend the argument."},
    {503, 12, "repeated_statement", E, "There is more than one {statement} statement[; the first is in line {first}].",
     "", "Join them into one, or begin a new TORVALE step."},
    {503, 13, "no_random_effect", E, "The RANDOM statement names no random effect.", "",
     "Write RANDOM names ~ NORMAL([means], [covariances]) SUBJECT=variable;"},
    {503, 14, "wrong_number_of_model_arguments", E,
     "The distribution of the MODEL statement takes {expected} arguments, but {found} are given.", "",
     "NORMAL(mean, variance), T(mean, variance, df), BINARY(p), BINOMIAL(n, p), POISSON(mean), NEGBIN(n, p), "
     "GAMMA(shape, scale), GENERAL(log likelihood)."},
    {503, 15, "wrong_number_of_random_arguments", E,
     "The normal distribution of RANDOM needs {expected} arguments[ for {effects} effects], means and then the lower "
     "triangle of the covariance matrix by rows; {found} are given.",
     "A covariance was left out, or the full matrix was written.", "For two effects: NORMAL([m1,m2],[v11,v21,v22])."},
    {503, 16, "quadrature_points_failed", E,
     "The quadrature points cannot be computed[: {points} points per dimension; QPOINTS= gives their number].",
     "A rule has at most 5000 points per dimension, and a subject at most 50 million.", "Use fewer points (QPOINTS=)."},
    {503, 18, "random_effect_in_data", W,
     "The name {name} is a random effect and a variable of the data set; the random effect is meant.", "",
     "Rename one of them, or DROP= the variable."},
    {503, 19, "firo_needs_normal", E, "METHOD=FIRO needs a MODEL with the normal distribution.", "",
     "Use the default METHOD=GAUSS."},
    {503, 20, "quadrature_points_dropped", W,
     "Of {points} quadrature points {kept} are used; the weights of the others are zero.", "Very many points.",
     "Use fewer points (QPOINTS=)."},
    {503, 22, "bad_replicate_variable", E,
     "The replicate variable {name} is neither numeric in the data set[ {data}] nor assigned in the program.", "",
     "Name a numeric column, or assign the variable in the program: it says how often each subject counts."},
    {503, 9450, "replicate_not_of_data", E,
     "The replicate variable {name} depends on the {kind} {input}; a count of subjects is a number of the data.",
     "The likelihood of a subject is raised to this number, which must not change while the fit goes on.",
     "Compute it from variables of the data. A parameter that scales a likelihood belongs into MODEL ... GENERAL()."},
    {503, 23, "hardy_needs_one_effect", E, "METHOD=HARDY needs exactly one random effect[; there are {count}].", "",
     "Use the default METHOD=GAUSS."},
    {503, 24, "bydata_without_effect", N,
     "BYDATA has no effect: there is no BY statement, or {data} lacks its variables. The starting values hold for all "
     "groups.",
     "", "Add the BY statement and its variables to the data set, or take BYDATA away."},
    {503, 25, "more_starting_values_than_used", W,
     "The PARMS data set has more rows for parameter {name} in this BY group than are used[: {points}]; the others are "
     "ignored.",
     "", "Keep one row for each parameter and starting point; WHERE= on the PARMS data set leaves rows out."},
    {503, 27, "predict_needs_one_expression", E, "A PREDICT statement takes one expression.", "",
     "Write PREDICT expression OUT=data; with a statement of its own for each expression."},
    {503, 28, "subject_missing", E,
     "The subject variable[ {name}] is missing in observation {observation}[; {count} rows have no subject]; the group "
     "is not used.",
     "", "Give these rows a subject, or leave them out: DATA=name(where=(subject ^= .))."},
    {503, 29, "estimate_needs_one_expression", E, "The ESTIMATE statement[ {label}] takes one expression.", "",
     "Use CONTRAST for several."},
    {503, 33, "depends_on_random_effects", E, "{statement} must not depend on random effects, but uses {name}.", "",
     "Use PREDICT for functions of random effects."},
    {503, 38, "estimate_of_unknown_name", E,
     "{statement} uses {name}, which is not a parameter or computed from parameters[; did you mean {near}?].",
     "A misspelled parameter, or a variable of the data set.",
     "Mend the name; put a number in the place of a data variable, as ESTIMATE 'at dose 5' b0 + 5*b1;"},
    {503, 9454, "predict_of_unknown_name", E,
     "PREDICT uses {name}, which is neither a variable of the data nor a name of the program[; did you mean {near}?].",
     "A misspelled name, or a variable that DROP= or KEEP= left out.", "Mend the name."},
    {503, 39, "dependent_is_character", E,
     "The dependent variable {name} is a character variable[: row {row} holds \"{value}\"][; a number is made of it by "
     "event = ({test}), and MODEL takes event].",
     "A text such as NA in a column of numbers, or levels written as words.",
     "Replace such texts by empty fields in the file; compute a number from levels, as event = (outcome = 'yes');"},
    {503, 58, "more_starting_rows_than_one", W,
     "The PARMS data set has more than the one row expected for this BY group; the others are ignored.", "",
     "Keep the row that is wanted; WHERE= on the PARMS data set leaves the others out."},
    {503, 59, "more_starting_rows_than_expected", W,
     "The PARMS data set has more than the {points} rows expected for this BY group; the others are ignored.", "",
     "Keep the rows that are wanted; WHERE= on the PARMS data set leaves the others out."},
    {503, 70, "program_fails_at_start", E,
     "The program cannot be evaluated at observation {observation}[: {reason}][, in \"{source}\"]; the group is not "
     "used.",
     "A logarithm of a number that is not positive, a division by zero, a function outside its domain, at the starting "
     "values.",
     "Look at the data of that observation; give other starting values; guard the expression with IF."},
    {503, 9570, "prediction_not_evaluated", W,
     "The expression of PREDICT cannot be evaluated at observation {observation}[: {reason}][, in \"{source}\"]; its "
     "prediction is "
     "missing there, and at others where it fails.",
     "A logarithm of a number that is not positive, a division by zero, at the values of that observation.",
     "Guard it: IF condition THEN value ELSE other value is an expression too."},
    {503, 9600, "importance_shift", N,
     "The -2 log likelihood of METHOD=ISAMP is shifted by the constant {shift}: do not compare it with that of other "
     "methods. Without the "
     "shift it is {unshifted}.",
     "", ""},
    {503, 9601, "monte_carlo_error", N,
     "The Monte Carlo standard error of the log likelihood is {error} with {points} points.", "",
     "More QPOINTS= make it smaller: four times as many halve it."},
    {503, 9602, "point_set_without_rule", W, "OUTQ= is ignored: METHOD={method} has no points to write.", "",
     "Use METHOD=GAUSS or METHOD=ISAMP."},
    {503, 9571, "result_name_taken", N,
     "{data}: the name {name} is taken by a variable of the input; the results stand in {given}.", "",
     "RENAME= or DROP= among the options of the output data set choose other names."},
    {503, 9572, "prediction_not_determined", N,
     "PREDICT OUT={data}: {count} predictions, the first at observation {observation}, have no standard error: they "
     "move with a combination of parameters that the data do not determine.",
     "", "Look at the table LinearDependencies for the combination, and leave one of its parameters out."},
    {503, 9573, "no_rounds_to_write", N,
     "OUTRI={data} has no rows: it holds the rounds of EBITER with several RANDOM statements.", "", ""},
    {503, 9574, "id_is_character", E,
     "ID names {name}, a character variable of the program; only numbers can be added to predictions.", "",
     "Leave it out: the variables of the input are in every data set of predictions."},
    {503, 9580, "chains_agree", N,
     "The chains agree: the largest R-hat is {rhat}, the smallest effective number of draws {draws}.", "", ""},
    {503, 9581, "chains_disagree", W,
     "The chains do not agree, or have too few effective draws: R-hat {rhat} ({worst}; 1.01 is wanted), {draws} "
     "effective draws ({least}; "
     "{wanted} are wanted).",
     "Chains that mix slowly, or have not left their starts.",
     "Draw more (SAMPLE=, BURN=), let the proposals adapt (ADJSCALE= within the burn-in), or use SAMPLER=NUTS."},
    {503, 9582, "chain_drifts", W,
     "{name} has drifted more than 1e8 standard errors away: its posterior may have no end.",
     "Flat priors do not always give a proper posterior: a variance with few subjects, a parameter that the data do "
     "not identify.",
     "Give it a PRIOR, or BOUNDS with two ends."},
    {503, 9583, "trajectories_diverged", W,
     "{count} trajectories of the no-U-turn sampler diverged: parts of the posterior may have been missed.",
     "A posterior with narrow places, as near a variance of 0.",
     "Give the variances a PRIOR that keeps them from 0, or a longer BURN=."},
    {503, 9584, "no_posterior_at_start", E, "The posterior has no value where a chain starts[: {part} has none there].",
     "The likelihood, or a PRIOR, cannot be computed at the estimates or starting values.",
     "Look at PRIOR and at the starting values."},
    {503, 9585, "sample_lacks_effects", W,
     "This BY group has more subjects than the first one: the data set of samples holds the effects of the first "
     "{count} only.",
     "", "Sample the groups in steps of their own."},
    {503, 9586, "cannot_sample", E, "MCMC cannot sample {what}.", "",
     "Leave MCMC out and fit the model, or change what the message names; SAMPLER=NUTS samples more models than the "
     "default, and needs exact derivatives."},
    {503, 9587, "prior_without_sampling", W,
     "PRIOR has no effect without an MCMC statement: the fit itself takes no prior.", "",
     "Add an MCMC statement, or take PRIOR away."},
    {503, 9588, "adaptation_beyond_burn_in", W,
     "ADJSCALE={adapted} is above BURN={burn}: samples that are kept come from proposals that still change.", "",
     "Set BURN= to at least ADJSCALE=."},
    {503, 9589, "replicates_not_sampled", E,
     "REPLICATE counts other than 1 cannot be sampled with their random effects.",
     "One random effect with a weight is not the model of several subjects.",
     "Use NOINTEGRATE, or repeat the records."},
    {503, 71, "no_usable_observation", E, "No observation can be used; the group is not analysed[; missing: {causes}].",
     "The dependent variable or a covariate is missing throughout, or WHERE= keeps no row.",
     "torvale describe DATA counts missing values."},
    {503, 72, "program_failed", W,
     "The program failed at observation {observation}[ in iteration {iteration}][: {reason}][, in \"{source}\"].",
     "The optimizer tried parameters at which the model cannot be computed; it steps back from there.",
     "If it occurs often, add BOUNDS or write the model in the logarithm of positive parameters."},
    {503, 73, "expression_fails_at_estimates", E,
     "The {statement} expressions cannot be evaluated at the final estimates[: {label}][: {reason}][, in "
     "\"{source}\"].",
     "The expression leaves the domain of a function, divides by zero, or uses a variable that is missing.",
     "Look at the estimates; write the expression so that it holds for them."},
    {503, 75, "prediction_failed", E, "The prediction of subject {subject} failed; its predictions are missing.", "",
     "Look at the data of that subject; guard logarithms, roots and divisions with IF."},
    {503, 131, "likelihood_not_usable", W,
     "The log likelihood is not usable[ for subject {subject}][ at observation {observation}][ in iteration "
     "{iteration}][: {reason}].",
     "The distribution is impossible for the response at these parameters, or an argument is missing; probabilities "
     "of DISCRETE are below 0, or leave nothing for the last point.",
     "Other starting values, or BOUNDS; one point of DISCRETE is never written: it is what the others leave."},
    {503, 132, "random_covariance_not_definite", W,
     "The covariance matrix of the random effects is not positive semidefinite[ for subject {subject}][ in iteration "
     "{iteration}].",
     "A covariance that is too large for its variances.",
     "Starting values with smaller covariances; BOUNDS variance > 0; or write it as a product of a triangular factor."},
    {503, 134, "qtol_too_small", E, "QTOL=[{value}] must be at least 1.11e-15.", "",
     "Leave QTOL= out (0.0001), or give a value such as 1e-6: each digit costs points."},
    {503, 135, "random_covariance_missing", W,
     "An element of the covariance matrix of the random effects is missing[ for subject {subject}][ in iteration "
     "{iteration}].",
     "An argument of RANDOM is computed after the RANDOM statement or from a missing value.",
     "Compute variances and covariances before the RANDOM statement, from parameters and from data without missing "
     "values; keep variances above 0 with BOUNDS."},
    {503, 137, "random_argument_changes", E,
     "An argument of the RANDOM distribution changes within a subject at observation {observation}; the group is not "
     "used[; the arguments depend on {variables}].",
     "", "Means and covariances of random effects must be constant within a subject."},
    {503, 139, "seed_negative", W, "SEED= is negative; the clock is used.", "",
     "Give SEED= a positive whole number, so that the run can be repeated."},
    {503, 140, "seed_too_large", E, "SEED= must be below {limit}.", "", "Any smaller positive whole number will do."},
    {503, 141, "empirical_needs_random", E, "EMPIRICAL needs a RANDOM statement.", "",
     "Leave EMPIRICAL out, or add a RANDOM statement: the robust covariance is made from the gradients of subjects."},
    {503, 142, "no_robust_covariance", W,
     "The robust covariance cannot be computed, since there are no gradients by subject; the model-based covariance is "
     "used.",
     "Derivatives by differences (FD), or no convergence.",
     "Leave FD out, so that there are exact gradients; if the fit did not converge, start it from its last estimates."},
    {503, 143, "empirical_needs_quadrature", E,
     "EMPIRICAL needs METHOD=GAUSS or METHOD=ISAMP, and normal random effects.", "",
     "Leave METHOD= out, or take EMPIRICAL away. DISCRETE effects are summed exactly, by no METHOD=."},
    {503, 144, "subgradient_needs_quadrature", E,
     "SUBGRADIENT= needs METHOD=GAUSS or METHOD=ISAMP, and normal random effects.", "",
     "Leave METHOD= out, or take SUBGRADIENT= away. DISCRETE effects are summed exactly, by no METHOD=."},
    {503, 145, "subgradient_not_stored", W,
     "The gradients by subject cannot be stored; SUBGRADIENT= writes nothing more.", "",
     "Leave SUBGRADIENT= out, or run with fewer subjects or more memory."},
    {503, 146, "random_variable_changes", E,
     "The variable {variable}, on which the RANDOM distribution depends, changes within a subject at observation "
     "{observation}; the group is not used.",
     "",
     "Use a variable that is the same in all records of a subject, as its first value (RETAIN) or its mean; or move "
     "the dependence from RANDOM into the model of the mean."},
    {503, 147, "subgradient_ignored_with_levels", W, "SUBGRADIENT= is ignored with several RANDOM statements.", "",
     "Leave SUBGRADIENT= out, or use one RANDOM statement."},
    {503, 148, "empirical_ignored_with_levels", W, "EMPIRICAL is ignored with several RANDOM statements.", "",
     "Leave EMPIRICAL out, or use one RANDOM statement."},
};

} // namespace

std::span<const CatalogueEntry> statements_messages()
{
  return entries;
}

} // namespace torvale::host
