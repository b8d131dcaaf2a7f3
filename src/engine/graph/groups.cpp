// Sums, products and disjunctions grouped by what their parts vary with: first what is the same at all points of the
// random effects, then what is the same for all records, last what varies by both. The first two are then computed once
// per record and once per point, wherever in the program a random effect was written; a lane joins two or three
// numbers.

#include "engine/graph/graph.h"

namespace torvale::engine {

void GraphBuilder::declare_variation(std::int32_t symbol_index, std::uint8_t with)
{
  const auto at = static_cast<std::size_t>(symbol_index);
  if (symbol_variation_.size() <= at) symbol_variation_.resize(at + 1, 0);
  if (symbol_variation_[at] != with) variation_.clear();
  symbol_variation_[at] = with;
}

std::uint8_t GraphBuilder::variation(NodeId id)
{
  for (auto k = static_cast<NodeId>(variation_.size()); k <= id; ++k) {
    const Node& n = node(k);
    std::uint8_t with = 0;
    const auto index = static_cast<std::size_t>(n.index);
    if (n.kind == NodeKind::symbol && index < symbol_variation_.size()) with = symbol_variation_[index];
    if (n.kind == NodeKind::row || n.kind == NodeKind::text) with = by_record;
    if (n.kind == NodeKind::carry || n.kind == NodeKind::result) with = by_record | by_point; // perhaps
    for (int j = 0; j < n.operands; ++j)
      with = static_cast<std::uint8_t>(with |
                                       variation_[static_cast<std::size_t>(n.operand[static_cast<std::size_t>(j)])]);
    variation_.push_back(with);
  }
  return variation_[static_cast<std::size_t>(id)];
}

namespace {

// A part of a sum, product or disjunction; no_node: none. Only a term of a sum is negative.
struct Part {
  NodeId id = no_node;
  bool negative = false;
};

} // namespace

struct GraphBuilder::Parts {
  Part group[3]; // the same at all points; the same for all records; neither
  Part& of(std::uint8_t with) { return group[(with & by_point) == 0 ? 0 : (with & by_record) == 0 ? 1 : 2]; }
  bool several() const { return (group[0].id != no_node) + (group[1].id != no_node) + (group[2].id != no_node) > 1; }
  // False when both have parts of one group.
  bool join(const Parts& other)
  {
    for (int k = 0; k < 3; ++k) {
      if (other.group[k].id == no_node) continue;
      if (group[k].id != no_node) return false;
      group[k] = other.group[k];
    }
    return true;
  }
};

// The groups of a node: of a sum (product, ...) that has been grouped, which is nested two deep; else it is a part by
// itself.
GraphBuilder::Parts GraphBuilder::parts(Kernel operation, NodeId a, bool negative, int depth)
{
  const Node& n = node(a);
  const bool difference = operation == Kernel::add && is_kernel(n, Kernel::subtract);
  if (depth > 0 && (difference || is_kernel(n, operation))) {
    Parts p = parts(operation, n.operand[0], negative, depth - 1);
    if (p.join(parts(operation, n.operand[1], negative != difference, depth - 1)) && p.several()) return p;
  }
  Parts p;
  p.of(variation(a)) = {a, negative};
  return p;
}

NodeId GraphBuilder::regrouped(Kernel operation, NodeId a, NodeId b, bool minus)
{
  if (derivative_mode_ || ((variation(a) | variation(b)) & by_point) == 0) return no_node;
  const Parts x = parts(operation, a, false), y = parts(operation, b, minus);
  if (!x.several() && !y.several()) return no_node;
  const auto join = [&](Part p, Part q) -> Part {
    if (p.id == no_node || q.id == no_node) return p.id == no_node ? q : p;
    if (operation == Kernel::multiply) return {plain_product(p.id, q.id)};
    if (operation == Kernel::or_) return {plain_or(p.id, q.id)};
    if (p.negative == q.negative) return {plain_sum(p.id, q.id, false), p.negative};
    return {p.negative ? plain_sum(q.id, p.id, true) : plain_sum(p.id, q.id, true), false};
  };
  Part all;
  for (int k = 0; k < 3; ++k) all = join(all, join(x.group[k], y.group[k]));
  return all.negative ? negate(all.id) : all.id;
}

// The factor that is the same for all records takes a divisor of its kind.
NodeId GraphBuilder::regrouped_quotient(NodeId a, NodeId b)
{
  if (derivative_mode_ || variation(b) != by_point || !is_kernel(node(a), Kernel::multiply)) return no_node;
  Parts p = parts(Kernel::multiply, a, false);
  Part& factor = p.of(by_point);
  if (!p.several() || factor.id == no_node) return no_node;
  factor.id = divide(factor.id, b);
  NodeId all = no_node;
  for (const Part& q : p.group)
    if (q.id != no_node) all = all == no_node ? q.id : plain_product(all, q.id);
  return all;
}

} // namespace torvale::engine
