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

// A parameter, or the missing value where it is outside its domain.
NodeId in_domain(GraphBuilder& g, Domain domain, const NodeId* v)
{
  switch (domain) {
  case Domain::positive:
    return positive(g, *v);
  case Domain::nonnegative:
    return g.call(Kernel::nonnegative, *v);
  case Domain::probability:
    return g.call(Kernel::probability, *v);
  case Domain::above_the_one_before:
    return positive(g, g.subtract(v[0], v[-1]));
  case Domain::any:
    break;
  }
  return *v;
}

// The answer at minus or plus infinity.
NodeId limit(GraphBuilder& g, DistributionQuestion q, NodeId x)
{
  const auto by_side = [&](double low, double high) {
    return g.select(below(g, x, 0.0), g.constant(low), g.constant(high));
  };
  switch (q) {
  case DistributionQuestion::pdf:
    return g.zero();
  case DistributionQuestion::logpdf:
    return g.constant(minus_infinity);
  case DistributionQuestion::cdf:
    return by_side(0.0, 1.0);
  case DistributionQuestion::logcdf:
    return by_side(minus_infinity, 0.0);
  case DistributionQuestion::sdf:
    return by_side(1.0, 0.0);
  case DistributionQuestion::logsdf:
    return by_side(0.0, minus_infinity);
  case DistributionQuestion::quantile:
    break;
  }
  return g.missing();
}

// The answer where all parameters are in their domains. Rules for distributions on a part of the line need it: beyond its
// ends they give their answer without a look at the parameters. Nor are they made for infinite values.
NodeId where_defined(GraphBuilder& g, DistributionQuestion q, const Distribution& d, NodeId x, const NodeId* v,
                     NodeId answer)
{
  if (!d.has_ends) return answer;
  NodeId defined = g.one();
  for (int k = 0; k < d.most; ++k) defined = g.and_(defined, g.not_(g.is_missing(in_domain(g, d.domain[k], v + k))));
  const NodeId infinite = above(g, g.call(Kernel::absolute, x), std::numeric_limits<double>::max());
  return g.select(defined, g.select(infinite, limit(g, q, x), answer), g.missing());
}

NodeId answer_of(GraphBuilder& g, DistributionQuestion q, const Distribution& d, NodeId x, const NodeId* v)
{
  switch (q) {
  case DistributionQuestion::pdf:
    return g.call(Kernel::exp, d.logpdf(g, x, v));
  case DistributionQuestion::logpdf:
    return d.logpdf(g, x, v);
  case DistributionQuestion::cdf:
    return d.cdf(g, x, v);
  case DistributionQuestion::logcdf:
    return d.logcdf(g, x, v);
  case DistributionQuestion::sdf:
    return d.sdf(g, x, v);
  case DistributionQuestion::logsdf:
    return d.logsdf(g, x, v);
  case DistributionQuestion::quantile:
    return d.quantile(g, x, v);
  }
  return no_node;
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
  return where_defined(g, q, *d, arguments[0], v, answer_of(g, q, *d, arguments[0], v));
}

} // namespace torvale::engine
