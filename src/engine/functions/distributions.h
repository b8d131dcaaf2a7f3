#pragma once
// Distributions by name: density, distribution function, survival function, their logarithms, and quantile as graph
// nodes.

#include "engine/functions/functions.h"

namespace torvale::engine {

// One distribution. Each rule receives x (or the probability) and the parameters, defaults filled in.
struct Distribution {
  std::string_view name;
  std::string_view aliases;
  int least = 0, most = 0;     // number of parameters
  double defaults[3] = {};     // of those that may be left out
  std::string_view parameters; // as the reference shows them
  std::string_view support;
  using Rule = NodeId (*)(GraphBuilder& g, NodeId x, const NodeId* parameters);
  Rule logpdf, cdf, logcdf, sdf, logsdf, quantile;
};

std::span<const Distribution> distributions();

} // namespace torvale::engine
