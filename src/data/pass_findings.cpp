#include "data/pass_findings.h"

#include <algorithm>

namespace torvale::data {

using model::ModelLists;

const double* arguments_at(const ModelLists& n, const PassFindings& pass, std::size_t level, std::int64_t row)
{
  const auto& reff = n.reff[level];
  return pass.arguments[level].data() + (reff.setup_varies ? row * reff.nd : 0);
}

void means_at(const ModelLists& n, const PassFindings& pass, std::int64_t row, double* mean)
{
  for (std::size_t k = 0; k < n.reff.size(); ++k) {
    const auto& reff = n.reff[k];
    if (reff.distrtype != 0 || pass.arguments.size() <= k || pass.arguments[k].empty()) continue;
    std::copy_n(arguments_at(n, pass, k, row), reff.nr, mean + reff.first_effect);
  }
}

std::vector<double> no_effects(const ModelLists& n)
{
  return std::vector<double>(static_cast<std::size_t>(std::max(1, n.programs.ne)), 0.0);
}

} // namespace torvale::data
