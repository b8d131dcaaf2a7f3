// Sums grouped by what their terms vary with: first what is the same at all points of the random effects, then what is
// the same for all records, last what varies by both. The first two are then computed once per record and once per
// point, wherever in the sum a random effect was written; a lane adds up two or three numbers.

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

// A term of a sum; no_node: none.
struct Term {
  NodeId id = no_node;
  bool negative = false;
};

} // namespace

// A sum in its groups.
struct GraphBuilder::Summands {
  Term group[3]; // the same at all points; the same for all records; neither
  Term& of(std::uint8_t with) { return group[(with & by_point) == 0 ? 0 : (with & by_record) == 0 ? 1 : 2]; }
  bool several() const { return (group[0].id != no_node) + (group[1].id != no_node) + (group[2].id != no_node) > 1; }
  // False when both have terms of one group.
  bool join(const Summands& other)
  {
    for (int k = 0; k < 3; ++k) {
      if (other.group[k].id == no_node) continue;
      if (group[k].id != no_node) return false;
      group[k] = other.group[k];
    }
    return true;
  }
};

// The groups of a node: of a sum that has been grouped, which is nested two deep; else it is a term by itself.
GraphBuilder::Summands GraphBuilder::summands(NodeId a, bool negative, int depth)
{
  const Node& n = node(a);
  const bool difference = is_kernel(n, Kernel::subtract);
  if (depth > 0 && (difference || is_kernel(n, Kernel::add))) {
    Summands s = summands(n.operand[0], negative, depth - 1);
    if (s.join(summands(n.operand[1], negative != difference, depth - 1)) && s.several()) return s;
  }
  Summands s;
  s.of(variation(a)) = {a, negative};
  return s;
}

NodeId GraphBuilder::regrouped_sum(NodeId a, NodeId b, bool minus)
{
  if (derivative_mode_ || ((variation(a) | variation(b)) & by_point) == 0) return no_node;
  constexpr int nested = 2;
  const Summands x = summands(a, false, nested), y = summands(b, minus, nested);
  if (!x.several() && !y.several()) return no_node;
  const auto sum = [&](Term p, Term q) -> Term {
    if (p.id == no_node || q.id == no_node) return p.id == no_node ? q : p;
    if (p.negative == q.negative) return {plain_sum(p.id, q.id, false), p.negative};
    return {p.negative ? plain_sum(q.id, p.id, true) : plain_sum(p.id, q.id, true), false};
  };
  Term all;
  for (int k = 0; k < 3; ++k) all = sum(all, sum(x.group[k], y.group[k]));
  return all.negative ? negate(all.id) : all.id;
}

} // namespace torvale::engine
