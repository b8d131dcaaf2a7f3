#pragma once
// The draws of a run, for whoever looks at them when it is over.

#include "sampling/diagnostics.h"

#include <string>
#include <vector>

namespace torvale::sampling {

struct SampleDraws {
  std::vector<std::string> names; // parameters that moved, then LogPost
  int chains = 0;                 // 0: nothing was drawn
  std::vector<double> draws;      // names x chains x iterations

  Chains of(std::size_t quantity) const
  {
    const std::size_t size = names.empty() ? 0 : draws.size() / names.size();
    return {std::span(draws).subspan(quantity * size, size), chains};
  }
};

} // namespace torvale::sampling
