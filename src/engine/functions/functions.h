#pragma once
// The functions of the language: their names and arguments, how each becomes nodes of the value graph, and the partial
// derivatives of the kernels that they are made of.
//
// A function with arguments that are numbers is expanded here. The others (texts, lags, bounds of arrays, random
// numbers) need what only the translator of statements has; their rows tell it names and arguments.

#include "engine/graph/graph.h"

#include <span>
#include <string>
#include <string_view>

namespace torvale::engine {

enum class FunctionClass : std::uint8_t {
  numeric,      // numbers to a number, by expand_function
  distribution, // the first argument is the name of a distribution, then numbers, by expand_distribution
  any,          // MISSING, COALESCE, N, NMISS on arguments of either type: by expand_function where they are numbers
  text,         // texts take part
  history,      // LAGn and DIFn
  array,        // DIM, LBOUND, HBOUND: the name of an array, an optional constant dimension
  random,       // UNIFORM and NORMAL: by expand_random
};

enum class DistributionQuestion : std::uint8_t { pdf, logpdf, cdf, logcdf, sdf, logsdf, quantile };

inline constexpr int any_number = -1; // of arguments

struct LanguageFunction {
  std::string_view name;    // the main spelling, in upper case
  std::string_view aliases; // other spellings, separated by blanks
  FunctionClass cls = FunctionClass::numeric;
  int least = 0, most = 0;                                   // number of arguments; most may be any_number
  ExpansionRule expand = nullptr;                            // of numeric and any
  DistributionQuestion question = DistributionQuestion::pdf; // of distribution
  std::string_view arguments;                                // as the reference shows them
  std::string_view summary;                                  // one line of text for the reference
};

// All functions, grouped as in the reference.
std::span<const LanguageFunction> language_functions();

// The function of that name, without regard to case; null when there is none. `order` receives n of LAGn and DIFn (1
// for LAG and DIF, at most 100), else 0.
const LanguageFunction* find_function(std::string_view name, int* order = nullptr);

// The spelling of a function or of a name in `others` that is nearest to a misspelled name: at most two letters
// inserted, left out, replaced or exchanged with a neighbour (one in names of up to four letters). Empty when none is
// so near.
std::string_view nearest_name(std::string_view misspelled, std::span<const std::string_view> others);

// Empty when `count` arguments suit the function, else a complete sentence.
std::string argument_fault(const LanguageFunction& f, int count);

// The value of a function on numeric arguments; no_node when they do not suit, with the reason in *error.
NodeId expand_function(GraphBuilder& g, const LanguageFunction& f, std::span<const NodeId> arguments,
                       std::string* error);

// The same for a distribution of that name (without regard to case), with the arguments that follow the name.
NodeId expand_distribution(GraphBuilder& g, DistributionQuestion q, std::string_view distribution,
                           std::span<const NodeId> arguments, std::string* error);

// A random number, from the counters that tell where it is drawn. The argument, when there is one, replaces the seed.
NodeId expand_random(GraphBuilder& g, const LanguageFunction& f, NodeId seed, NodeId row, NodeId call_site,
                     NodeId count, std::span<const NodeId> arguments);

// The rule for the partial derivatives of a kernel; null when it has none (comparisons and masks are never asked).
// Every function that is smooth has rules that close: its derivatives exist to third order at least.
PartialRule partial_rule(Kernel k);

// Operators >< and <>: least and greatest value, a missing one being below every number.
NodeId least_of(GraphBuilder& g, NodeId a, NodeId b);
NodeId greatest_of(GraphBuilder& g, NodeId a, NodeId b);

} // namespace torvale::engine
