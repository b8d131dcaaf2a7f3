#include "engine/functions/distributions.h"

#include "engine/functions/distribution_parts.h"
#include "engine/functions/names.h"

#include <vector>

namespace torvale::engine {

std::span<const Distribution> distributions()
{
  static const std::vector<Distribution> all = [] {
    std::vector<Distribution> rows;
    for (const auto group : {continuous_distributions(), discrete_distributions()})
      rows.insert(rows.end(), group.begin(), group.end());
    return rows;
  }();
  return all;
}

namespace {

const Distribution* find_distribution(std::string_view name)
{
  for (const Distribution& d : distributions())
    if (is_spelling(name, d.name, d.aliases)) return &d;
  return nullptr;
}

std::string unknown_distribution(std::string_view name)
{
  std::vector<std::string_view> known;
  for (const Distribution& d : distributions()) known.push_back(d.name);
  std::string text = "There is no distribution named '" + std::string(name) + "'.";
  if (const std::string_view near = nearest_among(name, known); !near.empty())
    return text + " Did you mean '" + std::string(near) + "'?";
  text += " Known are";
  for (const std::string_view k : known) text += (k == known.front() ? " " : ", ") + std::string(k);
  return text + ".";
}

} // namespace

NodeId expand_distribution(GraphBuilder& g, DistributionQuestion q, std::string_view distribution,
                           std::span<const NodeId> arguments, std::string* error)
{
  const Distribution* const d = find_distribution(distribution);
  if (d == nullptr) {
    *error = unknown_distribution(distribution);
    return no_node;
  }
  const int given = static_cast<int>(arguments.size()) - 1;
  if (given < d->least || given > d->most) {
    *error = "The distribution " + std::string(d->name) + " takes " +
             (q == DistributionQuestion::quantile ? "a probability" : "a value") + " and the parameters (" +
             std::string(d->parameters) + "), but " + std::to_string(given < 0 ? 0 : given) +
             (given == 1 ? " parameter is given." : " parameters are given.");
    return no_node;
  }
  NodeId v[3] = {no_node, no_node, no_node};
  for (int k = 0; k < d->most; ++k) {
    const auto at = static_cast<std::size_t>(k);
    v[k] = k < given ? arguments[at + 1] : g.constant(d->defaults[at]);
  }
  const NodeId x = arguments[0];
  switch (q) {
  case DistributionQuestion::pdf:
    return g.call(Kernel::exp, d->logpdf(g, x, v));
  case DistributionQuestion::logpdf:
    return d->logpdf(g, x, v);
  case DistributionQuestion::cdf:
    return d->cdf(g, x, v);
  case DistributionQuestion::logcdf:
    return d->logcdf(g, x, v);
  case DistributionQuestion::sdf:
    return d->sdf(g, x, v);
  case DistributionQuestion::logsdf:
    return d->logsdf(g, x, v);
  case DistributionQuestion::quantile:
    return d->quantile(g, x, v);
  }
  return no_node;
}

} // namespace torvale::engine
