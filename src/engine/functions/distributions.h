#pragma once
// Distributions by name: density, distribution function, survival function, their logarithms, and quantile as graph
// nodes.

#include "engine/functions/functions.h"

namespace torvale::engine {

// What a parameter may be. A value outside is a fault, and everything asked of the distribution is then missing.
enum class Domain : unsigned char { any, positive, nonnegative, probability, above_the_one_before };

// One distribution. Each rule receives x (or the probability) and the parameters, defaults filled in.
struct Distribution {
  std::string_view name;
  std::string_view aliases;
  int least = 0, most = 0;     // number of parameters
  double defaults[3] = {};     // of those that may be left out
  Domain domain[2] = {};       // of each parameter
  bool has_ends = true;        // values beyond an end have probability 0
  std::string_view parameters; // as the reference shows them
  std::string_view support;
  using Rule = NodeId (*)(GraphBuilder& g, NodeId x, const NodeId* parameters);
  Rule logpdf, cdf, logcdf, sdf, logsdf, quantile;
};

std::span<const Distribution> distributions();

} // namespace torvale::engine
