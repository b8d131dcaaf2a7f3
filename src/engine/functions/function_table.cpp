#include "engine/functions/functions.h"

#include "engine/functions/dates.h"
#include "engine/functions/names.h"
#include "syntax/tree.h"

#include <vector>

namespace torvale::engine {
namespace {

using Nodes = std::span<const NodeId>;

template <Kernel k> NodeId kernel(GraphBuilder& g, Nodes x, std::string*)
{
  return g.apply(k, x);
}

NodeId round_rule(GraphBuilder& g, Nodes x, std::string*)
{
  return x.size() == 1 ? g.call(Kernel::round, x[0]) : g.call(Kernel::round_to, x[0], x[1]);
}
// One line each, so that the family reads as a table.
// clang-format off
NodeId fact_rule(GraphBuilder& g, Nodes x, std::string*) { return g.call(Kernel::gamma, g.shift(x[0], 1.0)); }
NodeId lfact_rule(GraphBuilder& g, Nodes x, std::string*) { return g.call(Kernel::lgamma, g.shift(x[0], 1.0)); }
NodeId beta_rule(GraphBuilder& g, Nodes x, std::string*)
{
  return g.call(Kernel::exp, g.call(Kernel::lbeta, x[0], x[1]));
}
// clang-format on
NodeId lcomb_rule(GraphBuilder& g, Nodes x, std::string*)
{
  const NodeId rest = g.shift(g.subtract(x[0], x[1]), 1.0);
  return g.subtract(g.call(Kernel::lgamma_ratio, rest, x[1]), g.call(Kernel::lgamma, g.shift(x[1], 1.0)));
}
NodeId logsumexp_rule(GraphBuilder& g, Nodes x, std::string*)
{
  NodeId sum = x[0];
  for (const NodeId term : x.subspan(1)) sum = g.call(Kernel::log_add_exp, sum, term);
  return sum;
}

// Least and greatest are selects, not kernels: a derivative then follows the operand that is taken, and a missing
// derivative of the other cannot reach it.
NodeId least_present(GraphBuilder& g, NodeId a, NodeId b)
{
  const NodeId has_a = g.not_(g.is_missing(a)), lacks_b = g.is_missing(b);
  const NodeId in_order = g.and_(g.compare(Kernel::less_equal, a, b), g.or_(has_a, lacks_b));
  return g.select(g.or_(in_order, g.and_(has_a, lacks_b)), a, b);
}
NodeId min_rule(GraphBuilder& g, Nodes x, std::string*)
{
  NodeId least = x[0];
  for (const NodeId other : x.subspan(1)) least = least_present(g, least, other);
  return least;
}
NodeId max_rule(GraphBuilder& g, Nodes x, std::string*)
{
  NodeId greatest = x[0];
  for (const NodeId other : x.subspan(1)) greatest = greatest_of(g, greatest, other);
  return greatest;
}

// Statistics pass over missing arguments.
NodeId count_rule(GraphBuilder& g, Nodes x, std::string*)
{
  NodeId count = g.zero();
  for (const NodeId a : x) count = g.add(count, g.not_(g.is_missing(a)));
  return count;
}
NodeId nmiss_rule(GraphBuilder& g, Nodes x, std::string*)
{
  NodeId count = g.zero();
  for (const NodeId a : x) count = g.add(count, g.is_missing(a));
  return count;
}
NodeId sum_of_present(GraphBuilder& g, Nodes x)
{
  NodeId sum = no_node;
  for (const NodeId a : x) {
    const NodeId term = g.select(g.is_missing(a), g.zero(), a);
    sum = sum == no_node ? term : g.add(sum, term);
  }
  return sum;
}
// The value where at least `least` arguments are present, else missing: not a fault.
NodeId with_present(GraphBuilder& g, Nodes x, double least, NodeId value)
{
  return g.select(g.compare(Kernel::less_equal, g.constant(least), count_rule(g, x, nullptr)), value, g.missing());
}
// One line each, so that the family reads as a table.
// clang-format off
NodeId sum_rule(GraphBuilder& g, Nodes x, std::string*) { return with_present(g, x, 1.0, sum_of_present(g, x)); }
NodeId mean_of_present(GraphBuilder& g, Nodes x) { return g.divide(sum_of_present(g, x), count_rule(g, x, nullptr)); }
NodeId mean_rule(GraphBuilder& g, Nodes x, std::string*) { return with_present(g, x, 1.0, mean_of_present(g, x)); }
// clang-format on
NodeId variance_of_present(GraphBuilder& g, Nodes x)
{
  const NodeId mean = mean_of_present(g, x);
  NodeId sum = g.zero();
  for (const NodeId a : x) sum = g.add(sum, g.select(g.is_missing(a), g.zero(), g.square(g.subtract(a, mean))));
  return g.divide(sum, g.shift(count_rule(g, x, nullptr), -1.0));
}
NodeId var_rule(GraphBuilder& g, Nodes x, std::string*)
{
  return with_present(g, x, 2.0, variance_of_present(g, x));
}
NodeId std_rule(GraphBuilder& g, Nodes x, std::string*)
{
  return with_present(g, x, 2.0, g.call(Kernel::sqrt, variance_of_present(g, x)));
}
NodeId missing_rule(GraphBuilder& g, Nodes x, std::string*)
{
  return g.is_missing(x[0]);
}
NodeId coalesce_rule(GraphBuilder& g, Nodes x, std::string*)
{
  NodeId value = x.back();
  for (std::size_t k = x.size() - 1; k-- > 0;) value = g.select(g.is_missing(x[k]), value, x[k]);
  return value;
}

// Functions of linear systems of compartments.
NodeId exp_mean_rule(GraphBuilder& g, Nodes x, std::string*)
{
  const NodeId y = x.size() > 1 ? x[1] : g.zero();
  const auto exponential = [&](NodeId of) { return g.call(Kernel::exp, g.negate(of)); };
  return g.apply(Kernel::exp_mean, {x[0], y, exponential(x[0]), exponential(y), g.zero()});
}
NodeId cubic_root_rule(GraphBuilder& g, Nodes x, std::string* error)
{
  if (g.is_constant(x[3]) && (g.value(x[3]) == 1.0 || g.value(x[3]) == 2.0 || g.value(x[3]) == 3.0))
    return g.apply(Kernel::cubic_root, x);
  *error = "The fourth argument of CUBICROOT must be 1, 2 or 3.";
  return no_node;
}
NodeId response_rule(GraphBuilder& g, Nodes x, std::string* error)
{
  if (g.is_constant(x[0]) && CompartmentResponse::of(g.value(x[0])).valid())
    return g.apply(Kernel::compartment_response, x);
  *error = "The first argument of _RESPONSE is not the number of a response.";
  return no_node;
}

constexpr FunctionClass numeric = FunctionClass::numeric;
constexpr FunctionClass text = FunctionClass::text;
constexpr FunctionClass distribution = FunctionClass::distribution;
constexpr DistributionQuestion none = DistributionQuestion::pdf; // of rows that are not distributions

// One row for each function.
// clang-format off
constexpr LanguageFunction rows[] = {
    // Arithmetic and rounding
    {"ABS", "", numeric, 1, 1, kernel<Kernel::absolute>, none, "x", "absolute value"},
    {"SIGN", "", numeric, 1, 1, kernel<Kernel::sign>, none, "x", "-1, 0 or 1"},
    {"MIN", "", numeric, 1, any_number, min_rule, none, "x, ...", "least of the arguments that are not missing"},
    {"MAX", "", numeric, 1, any_number, max_rule, none, "x, ...", "greatest of the arguments that are not missing"},
    {"MOD", "", numeric, 2, 2, kernel<Kernel::modulo>, none, "x, y", "remainder of x / y, with the sign of x"},
    {"INT", "", numeric, 1, 1, kernel<Kernel::truncate>, none, "x", "whole part, towards 0"},
    {"FLOOR", "", numeric, 1, 1, kernel<Kernel::floor>, none, "x", "greatest whole number that is not above x"},
    {"CEIL", "CEILING", numeric, 1, 1, kernel<Kernel::ceil>, none, "x", "least whole number that is not below x"},
    {"ROUND", "", numeric, 1, 2, round_rule, none, "x [, unit]",
     "nearest whole number or multiple of unit, halves away from 0"},
    {"SQRT", "", numeric, 1, 1, kernel<Kernel::sqrt>, none, "x", "square root"},
    // Exponential functions and logarithms
    {"EXP", "", numeric, 1, 1, kernel<Kernel::exp>, none, "x", "e to the power x"},
    {"EXPM1", "", numeric, 1, 1, kernel<Kernel::expm1>, none, "x", "exp(x) - 1, accurate near 0"},
    {"EXPMEAN", "", numeric, 1, 2, exp_mean_rule, none, "x [, y]",
     "mean of exp(-v) for v between x and y (0), accurate where they are near each other"},
    {"LOG", "LN", numeric, 1, 1, kernel<Kernel::log>, none, "x", "natural logarithm"},
    {"LOG1P", "", numeric, 1, 1, kernel<Kernel::log1p>, none, "x", "log(1 + x), accurate near 0"},
    {"LOG2", "", numeric, 1, 1, kernel<Kernel::log2>, none, "x", "logarithm to base 2"},
    {"LOG10", "", numeric, 1, 1, kernel<Kernel::log10>, none, "x", "logarithm to base 10"},
    {"LOGISTIC", "", numeric, 1, 1, kernel<Kernel::logistic>, none, "x", "1 / (1 + exp(-x))"},
    {"LOGIT", "", numeric, 1, 1, kernel<Kernel::logit>, none, "p", "log(p / (1 - p))"},
    {"LOGSUMEXP", "", numeric, 1, any_number, logsumexp_rule, none, "x, ...", "log(exp(x) + ...), without overflow"},
    {"SOFTPLUS", "", numeric, 1, 1, kernel<Kernel::softplus>, none, "x", "log(1 + exp(x)), without overflow"},
    {"CUBICROOT", "", numeric, 4, 4, cubic_root_rule, none, "a, b, c, k",
     "root k, 1 the largest, of x**3 - a*x**2 + b*x - c, whose roots are real and none negative"},
    {"_RESPONSE", "", numeric, 9, 9, response_rule, none, "which, t, ka, p1, p2, p3, l1, l2, l3",
     "response of a system of compartments, in statements that CMPTMODEL writes"},
    // Trigonometric and hyperbolic functions, angles in radians
    {"SIN", "", numeric, 1, 1, kernel<Kernel::sin>, none, "x", "sine"},
    {"COS", "", numeric, 1, 1, kernel<Kernel::cos>, none, "x", "cosine"},
    {"TAN", "", numeric, 1, 1, kernel<Kernel::tan>, none, "x", "tangent"},
    {"ASIN", "ARSIN ARCSIN", numeric, 1, 1, kernel<Kernel::asin>, none, "x", "arc sine"},
    {"ACOS", "ARCOS ARCCOS", numeric, 1, 1, kernel<Kernel::acos>, none, "x", "arc cosine"},
    {"ATAN", "ARCTAN", numeric, 1, 1, kernel<Kernel::atan>, none, "x", "arc tangent"},
    {"ATAN2", "", numeric, 2, 2, kernel<Kernel::atan2>, none, "y, x", "angle of the point (x, y)"},
    {"SINH", "", numeric, 1, 1, kernel<Kernel::sinh>, none, "x", "hyperbolic sine"},
    {"COSH", "", numeric, 1, 1, kernel<Kernel::cosh>, none, "x", "hyperbolic cosine"},
    {"TANH", "", numeric, 1, 1, kernel<Kernel::tanh>, none, "x", "hyperbolic tangent"},
    {"ASINH", "ARSINH", numeric, 1, 1, kernel<Kernel::asinh>, none, "x", "inverse hyperbolic sine"},
    {"ACOSH", "ARCOSH", numeric, 1, 1, kernel<Kernel::acosh>, none, "x", "inverse hyperbolic cosine"},
    {"ATANH", "ARTANH", numeric, 1, 1, kernel<Kernel::atanh>, none, "x", "inverse hyperbolic tangent"},
    // Gamma function and its kin
    {"ERF", "", numeric, 1, 1, kernel<Kernel::erf>, none, "x", "error function"},
    {"ERFC", "", numeric, 1, 1, kernel<Kernel::erfc>, none, "x", "1 - erf(x), accurate for large x"},
    {"GAMMA", "", numeric, 1, 1, kernel<Kernel::gamma>, none, "x", "gamma function"},
    {"LGAMMA", "", numeric, 1, 1, kernel<Kernel::lgamma>, none, "x",
     "logarithm of the absolute value of the gamma function"},
    {"LGAMMARATIO", "", numeric, 2, 2, kernel<Kernel::lgamma_ratio>, none, "a, b",
     "LGAMMA(a + b) - LGAMMA(a), for a, a + b above 0 without cancellation"},
    {"DIGAMMA", "", numeric, 1, 1, kernel<Kernel::digamma>, none, "x", "derivative of LGAMMA"},
    {"TRIGAMMA", "", numeric, 1, 1, kernel<Kernel::trigamma>, none, "x", "derivative of DIGAMMA"},
    {"BETA", "", numeric, 2, 2, beta_rule, none, "a, b", "beta function"},
    {"LBETA", "LOGBETA", numeric, 2, 2, kernel<Kernel::lbeta>, none, "a, b", "logarithm of the beta function"},
    {"COMB", "", numeric, 2, 2, kernel<Kernel::comb>, none, "n, k", "number of ways to choose k of n"},
    {"LCOMB", "", numeric, 2, 2, lcomb_rule, none, "n, k", "logarithm of COMB"},
    {"FACT", "", numeric, 1, 1, fact_rule, none, "n", "factorial, gamma(n + 1)"},
    {"LFACT", "", numeric, 1, 1, lfact_rule, none, "n", "logarithm of the factorial"},
    // Distributions
    {"PHI", "", numeric, 1, 1, kernel<Kernel::normal_cdf>, none, "x", "standard normal distribution function"},
    {"PROBIT", "", numeric, 1, 1, kernel<Kernel::normal_quantile>, none, "p", "standard normal quantile"},
    {"PDF", "", distribution, 2, any_number, nullptr, DistributionQuestion::pdf, "'name', x, parameters",
     "density or probability of x"},
    {"LOGPDF", "", distribution, 2, any_number, nullptr, DistributionQuestion::logpdf, "'name', x, parameters",
     "its logarithm"},
    {"CDF", "", distribution, 2, any_number, nullptr, DistributionQuestion::cdf, "'name', x, parameters",
     "probability of at most x"},
    {"LOGCDF", "", distribution, 2, any_number, nullptr, DistributionQuestion::logcdf, "'name', x, parameters",
     "its logarithm"},
    {"SDF", "SURVIVAL", distribution, 2, any_number, nullptr, DistributionQuestion::sdf, "'name', x, parameters",
     "probability of more than x"},
    {"LOGSDF", "LOGSURVIVAL", distribution, 2, any_number, nullptr, DistributionQuestion::logsdf,
     "'name', x, parameters", "its logarithm"},
    {"QUANTILE", "", distribution, 2, any_number, nullptr, DistributionQuestion::quantile, "'name', p, parameters",
     "least x whose CDF reaches p, 0 < p < 1"},
    // Statistics of the arguments that are not missing
    {"SUM", "", numeric, 1, any_number, sum_rule, none, "x, ...", "sum"},
    {"MEAN", "", numeric, 1, any_number, mean_rule, none, "x, ...", "mean"},
    {"VAR", "", numeric, 2, any_number, var_rule, none, "x, ...", "variance, divisor n - 1"},
    {"STD", "", numeric, 2, any_number, std_rule, none, "x, ...", "standard deviation, divisor n - 1"},
    {"N", "", FunctionClass::any, 1, any_number, count_rule, none, "x, ...",
     "number of arguments that are not missing"},
    {"NMISS", "", FunctionClass::any, 1, any_number, nmiss_rule, none, "x, ...",
     "number of arguments that are missing"},
    {"MISSING", "", FunctionClass::any, 1, 1, missing_rule, none, "x",
     "1 when x is missing, a text when it is blank; else 0"},
    {"COALESCE", "", FunctionClass::any, 1, any_number, coalesce_rule, none, "x, ...",
     "first argument that is not missing"},
    // Arrays
    {"DIM", "", FunctionClass::array, 1, 2, nullptr, none, "array [, dimension]", "number of elements of a dimension"},
    {"LBOUND", "", FunctionClass::array, 1, 2, nullptr, none, "array [, dimension]", "lower bound of a dimension"},
    {"HBOUND", "", FunctionClass::array, 1, 2, nullptr, none, "array [, dimension]", "upper bound of a dimension"},
    // Dates (days since 1960-01-01) and moments (seconds since then)
    {"YEAR", "", numeric, 1, 1, year_rule, none, "date", "its year"},
    {"MONTH", "", numeric, 1, 1, month_rule, none, "date", "its month, 1 to 12"},
    {"DAY", "", numeric, 1, 1, day_rule, none, "date", "its day of the month"},
    {"WEEKDAY", "", numeric, 1, 1, weekday_rule, none, "date", "1 for Sunday to 7 for Saturday"},
    {"MDY", "", numeric, 3, 3, mdy_rule, none, "month, day, year", "the date; missing when there is none"},
    {"HOUR", "", numeric, 1, 1, hour_rule, none, "time", "hours of a time of day or a moment, 0 to 23"},
    {"MINUTE", "", numeric, 1, 1, minute_rule, none, "time", "its minutes"},
    {"SECOND", "", numeric, 1, 1, second_rule, none, "time", "its seconds, with their fraction"},
    {"HMS", "", numeric, 3, 3, hms_rule, none, "hours, minutes, seconds", "a time of day"},
    {"DHMS", "", numeric, 4, 4, dhms_rule, none, "date, hours, minutes, seconds", "a moment"},
    {"DATEPART", "", numeric, 1, 1, datepart_rule, none, "moment", "its date"},
    {"TIMEPART", "", numeric, 1, 1, timepart_rule, none, "moment", "its time of day"},
    {"INTCK", "", text, 3, 3, nullptr, none, "'unit', from, to",
     "beginnings of a DAY, WEEK, MONTH, QUARTER or YEAR between two dates"},
    {"INTNX", "", text, 3, 4, nullptr, none, "'unit', date, n [, 'place']",
     "the date n units on: their beginning ('B'), end ('E') or the same place ('S')"},
    // Values of earlier records of the subject
    {"LAG", "", FunctionClass::history, 1, 1, nullptr, none, "x",
     "x at the record before; LAGn: n records before, n at most 100"},
    {"DIF", "", FunctionClass::history, 1, 1, nullptr, none, "x", "x - LAG(x); DIFn: x - LAGn(x)"},
    // Random numbers
    {"UNIFORM", "", FunctionClass::random, 0, 1, nullptr, none, "[seed]", "random number, uniform between 0 and 1"},
    {"NORMAL", "", FunctionClass::random, 0, 1, nullptr, none, "[seed]", "random number, standard normal"},
    // Texts
    {"SUBSTR", "", text, 2, 3, nullptr, none, "text, position [, length]", "part of a text, positions from 1"},
    {"TRIM", "", text, 1, 1, nullptr, none, "text", "text without blanks at its end"},
    {"LEFT", "", text, 1, 1, nullptr, none, "text", "text with the blanks at its beginning moved to its end"},
    {"STRIP", "", text, 1, 1, nullptr, none, "text", "text without blanks at both ends"},
    {"UPCASE", "UPPER", text, 1, 1, nullptr, none, "text", "in upper case"},
    {"LOWCASE", "LOWER", text, 1, 1, nullptr, none, "text", "in lower case"},
    {"PROPCASE", "", text, 1, 1, nullptr, none, "text", "every word with one capital"},
    {"REVERSE", "", text, 1, 1, nullptr, none, "text", "characters in reverse order"},
    {"COMPRESS", "", text, 1, 2, nullptr, none, "text [, characters]",
     "text without blanks, or without the characters"},
    {"REPEAT", "", text, 2, 2, nullptr, none, "text, n", "text followed by n copies of it"},
    {"TRANWRD", "REPLACE", text, 3, 3, nullptr, none, "text, from, to", "every occurrence of from replaced by to"},
    {"TRANSLATE", "", text, 3, 3, nullptr, none, "text, to, from",
     "characters of from replaced by those of to at the same place"},
    {"SCAN", "WORD", text, 2, 3, nullptr, none, "text, n [, separators]",
     "word n of a text, from its end for negative n"},
    {"CAT", "", text, 1, any_number, nullptr, none, "text, ...", "texts joined, blanks kept"},
    {"CATS", "", text, 1, any_number, nullptr, none, "text, ...", "texts joined, each without blanks at both ends"},
    {"LENGTH", "", text, 1, 1, nullptr, none, "text", "number of characters without blanks at the end, at least 1"},
    {"LENGTHN", "", text, 1, 1, nullptr, none, "text", "the same, 0 for a blank text"},
    {"INDEX", "FIND", text, 2, 2, nullptr, none, "text, part", "position of the part, 0 when it is absent"},
    {"INDEXC", "", text, 2, 2, nullptr, none, "text, characters",
     "first position that holds one of the characters, else 0"},
    {"VERIFY", "", text, 2, 2, nullptr, none, "text, characters",
     "first position that holds none of the characters, else 0"},
    {"COUNT", "", text, 2, 2, nullptr, none, "text, part", "number of occurrences"},
    {"COUNTW", "WORDS", text, 1, 2, nullptr, none, "text [, separators]", "number of words"},
    {"RANK", "", text, 1, 1, nullptr, none, "text", "code of the first character"},
    {"PUT", "", text, 1, 2, nullptr, none, "x [, format]", "value as text"},
    {"INPUT", "", text, 1, 2, nullptr, none, "text [, format]", "text as number, date or time"},
};

// clang-format on
// n of LAGn, DIFn: 1 to 100 after the stem; 0 when the name is of another form.
int history_order(std::string_view name, std::string_view stem)
{
  if (name.size() <= stem.size() || name.size() > stem.size() + 3 ||
      !syntax::same_name(name.substr(0, stem.size()), stem))
    return 0;
  int n = 0;
  for (const char c : name.substr(stem.size())) {
    if (c < '0' || c > '9') return 0;
    n = 10 * n + (c - '0');
  }
  return n <= 100 ? n : 0;
}

} // namespace

std::span<const LanguageFunction> language_functions()
{
  return rows;
}

const LanguageFunction* find_function(std::string_view name, int* order)
{
  if (order != nullptr) *order = 0;
  for (const LanguageFunction& f : rows) {
    const bool history = f.cls == FunctionClass::history;
    const int n = history ? history_order(name, f.name) : 0;
    if (n == 0 && !is_spelling(name, f.name, f.aliases)) continue;
    if (order != nullptr && history) *order = n == 0 ? 1 : n;
    return &f;
  }
  return nullptr;
}

std::string_view nearest_name(std::string_view misspelled, std::span<const std::string_view> others)
{
  std::vector<std::string_view> known(others.begin(), others.end());
  for (const LanguageFunction& f : rows) known.push_back(f.name);
  return nearest_among(misspelled, known);
}

std::string argument_fault(const LanguageFunction& f, int count)
{
  if (count >= f.least && (f.most == any_number || count <= f.most)) return {};
  const std::string least = std::to_string(f.least);
  std::string takes = least;
  if (f.most == any_number)
    takes = "at least " + least;
  else if (f.most == f.least + 1)
    takes = least + " or " + std::to_string(f.most);
  else if (f.most > f.least)
    takes = least + " to " + std::to_string(f.most);
  const bool one = f.most == 1 || (f.most == any_number && f.least == 1);
  return "The function " + std::string(f.name) + "(" + std::string(f.arguments) + ") takes " + takes +
         (one ? " argument, but " : " arguments, but ") + std::to_string(count) +
         (count == 1 ? " is given." : " are given.");
}

NodeId expand_function(GraphBuilder& g, const LanguageFunction& f, std::span<const NodeId> arguments,
                       std::string* error)
{
  *error = argument_fault(f, static_cast<int>(arguments.size()));
  if (error->empty() && f.expand == nullptr) *error = "The function " + std::string(f.name) + " cannot be used here.";
  return error->empty() ? f.expand(g, arguments, error) : no_node;
}

NodeId expand_random(GraphBuilder& g, const LanguageFunction& f, NodeId seed, NodeId row, NodeId call_site,
                     NodeId count, std::span<const NodeId> arguments)
{
  const Kernel draw = f.name == "UNIFORM" ? Kernel::uniform_random : Kernel::normal_random;
  return g.apply(draw, {arguments.empty() ? seed : arguments[0], row, call_site, count});
}

NodeId least_of(GraphBuilder& g, NodeId a, NodeId b)
{
  return g.select(g.compare(Kernel::less_equal, a, b), a, b);
}
NodeId greatest_of(GraphBuilder& g, NodeId a, NodeId b)
{
  return g.select(g.compare(Kernel::less_equal, b, a), a, b);
}

} // namespace torvale::engine
