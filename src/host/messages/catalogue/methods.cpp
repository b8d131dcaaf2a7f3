#include "host/messages/catalogue/topics.h"

namespace torvale::host {

namespace {

// Random effects, methods of integration, sampling.
constexpr CatalogueEntry entries[] = {
    {503, 9453, "covariance_divided", N,
     "COVARIANCE={form} divides the covariance matrix by the number of observations: standard errors are smaller by "
     "its root than those of maximum likelihood.",
     "", "Leave COVARIANCE= out, or add CFACTOR=1."},
    {503, 303, "random_argument_depends_on_effect", E,
     "An argument of the RANDOM distribution depends on the random effect {name}.", "",
     "Means and covariances may depend on parameters and data only."},
    {503, 307, "samples_drawn", N, "[{count} samples drawn.][{burn} burn-in iterations done.]", "", ""},
    {503, 309, "sampler_start_moved", N, "The sampler starts inside the bounds: {name} was moved.", "", ""},
    {503, 310, "sampler_out_of_bounds", E,
     "The sampler proposed points outside the bounds {count} times; it is stopped.", "",
     "Smaller proposals (SCALE=), or a larger MAXBVIOL=."},
    {503, 314, "covdata_lacks_variable", E, "COVDATA= lacks the variable {name}.", "",
     "COVDATA= takes a numeric column for each parameter, rows in the order of the parameters or named by a column "
     "Parameter."},
    {503, 9443, "covdata_variance_wrong", E, "COVDATA= has {value} as the variance of {name}.",
     "A column of other numbers than covariances, or rows in another order than the parameters.",
     "COVDATA= takes the covariance matrix of the parameters; a column Parameter names the rows."},
    {503, 9444, "covdata_not_symmetric", E,
     "COVDATA= has {below} as the covariance of {first} and {second}, and {above} as that of {second} and {first}.",
     "Rows in another order than the parameters, or columns that were scaled.",
     "Write a symmetric matrix, or one triangle only; a column Parameter names the rows."},
    {503, 9445, "covdata_not_definite", W,
     "The matrix of COVDATA= is not positive definite from {name} on: proposals for it begin without covariances.",
     "Covariances that do not belong together: a correlation of 1 or beyond.",
     "Take the covariances of one fit; ADJSCALE= lets the proposals adapt."},
    {503, 331, "firo_needs_random", E, "METHOD=FIRO needs a RANDOM statement.", "",
     "Leave METHOD= out: without random effects there is nothing to integrate."},
    {503, 332, "random_distribution_unknown", E, "RANDOM takes the distributions NORMAL and DISCRETE only.", "",
     "Write NORMAL([means],[covariances]); other shapes are functions of a normal effect in the model, as exp(u) for "
     "a lognormal one."},
    {503, 333, "discrete_in_model", E, "DISCRETE is a distribution of random effects, not of MODEL.", "",
     "Write the log likelihood of such a response with GENERAL(ll)."},
    {503, 334, "discrete_arguments_uneven", E,
     "The {found} arguments of DISCRETE do not come in support points and probabilities for {effects} random effects.",
     "",
     "For two effects and two points: DISCRETE([a1, b1, p1], [a2, b2, p2]); the last point may leave its values to "
     "the mean 0. The language reference shows the forms."},
    {503, 335, "outp_needs_discrete", W, "OUTP= is ignored: it needs the DISCRETE distribution.", "",
     "Leave OUTP= out; OUT= writes the estimated effects of normal distributions."},
    {503, 337, "unsorted_subjects_split", W,
     "The data set is not sorted by the subject variable {variable}: a value that comes again starts a new subject.",
     "", "Sort the file, or leave out NOSORTSUB."},
    {503, 350, "mode_not_found", W,
     "The mode of the random effects of subject {subject} was not found[ in iteration {iteration}].",
     "Starting values far away.", "EBOPT, more EBSTEPS=, other starting values."},
    {503, 351, "mode_not_found_text_subject", W,
     "The mode of the random effects of subject {subject} was not found[ in iteration {iteration}].",
     "Starting values far away.", "EBOPT, more EBSTEPS=, other starting values."},
    {503, 352, "integral_not_converging", W,
     "The integral of subject {subject} does not converge[ in iteration {iteration}].", "", "Use METHOD=GAUSS."},
    {503, 353, "integral_not_converging_text_subject", W,
     "The integral of subject {subject} does not converge[ in iteration {iteration}].", "", "Use METHOD=GAUSS."},
    {503, 354, "integral_zero", W, "The integral of subject {subject} is zero[ in iteration {iteration}].",
     "The response is impossible at every quadrature point.", "Other starting values; more QPOINTS=."},
    {503, 355, "integral_zero_text_subject", W, "The integral of subject {subject} is zero[ in iteration {iteration}].",
     "The response is impossible at every quadrature point.", "Other starting values; more QPOINTS=."},
    {503, 356, "no_shorter_step", N,
     "No shorter step improves the random effects of subject {subject}[ in iteration {iteration}].", "", ""},
    {503, 357, "no_shorter_step_text_subject", N,
     "No shorter step improves the random effects of subject {subject}[ in iteration {iteration}].", "", ""},
    {503, 358, "mode_steps_used_up", N,
     "The Newton steps for the random effects of subject {subject} are used up[ in iteration {iteration}].",
     "The mode stands where the model ends (a Poisson mean that would be negative), or the start is far from the data.",
     "Write positive quantities as EXP(a), probabilities as LOGISTIC(eta); other starting values; EBSTEPS=, EBTOL=."},
    {503, 359, "mode_steps_used_up_text_subject", N,
     "The Newton steps for the random effects of subject {subject} are used up[ in iteration {iteration}].",
     "The mode stands where the model ends (a Poisson mean that would be negative), or the start is far from the data.",
     "Write positive quantities as EXP(a), probabilities as LOGISTIC(eta); other starting values; EBSTEPS=, EBTOL=."},
    {503, 360, "gradient_before_objective", W,
     "The gradient was asked for at a point where the objective had not been evaluated; it was evaluated there.", "",
     "The result is right; please tell the makers of Torvale, with the program."},
    {503, 361, "fdhessian_ignored_with_fd", W, "FDHESSIAN is ignored together with FD.", "",
     "Leave one of them out: FD takes first and second derivatives by differences."},
    {503, 362, "fdhessian_ignored_with_method", W, "FDHESSIAN is ignored with METHOD={method}.", "",
     "Leave FDHESSIAN= out; FD takes all derivatives by differences."},
    {503, 363, "name_becomes_parameter", N,
     "The name {names} is not given a starting value: it is a parameter that starts at 1[; did you mean {near}?].",
     "A parameter that was forgotten in PARMS, or a misspelled variable.",
     "If it is a parameter, add it to PARMS; if not, mend the name."},
    {503, 364, "names_become_parameters", N,
     "The names {names} are not given starting values: they are parameters that start at 1[; did you mean {near}?].",
     "Parameters that were forgotten in PARMS, or misspelled variables.",
     "If they are parameters, add them to PARMS; if not, mend the names."},
    {503, 365, "no_parms_statement", N,
     "There is no PARMS statement: every undefined name is a parameter that starts at 1[: {names}].", "",
     "Give starting values in PARMS."},
    {503, 366, "undefined_name_is_character", E,
     "The undefined name {name} is used as characters, so it cannot be a parameter[; did you mean {near}?].", "",
     "Mend the name, assign it before, or quote it if a text is meant: (group = 'a')."},
};

} // namespace

std::span<const CatalogueEntry> methods_messages()
{
  return entries;
}

} // namespace torvale::host
