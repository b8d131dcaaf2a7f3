#include "engine/stages/element_chains.h"

#include <algorithm>

namespace torvale::engine {

namespace {

constexpr double most_numbers = 65536.0; // of a table of elements
constexpr std::size_t shortest = 3;      // chain that is looked up

struct Link { // select(number = value, element, rest)
  NodeId number = no_node, element = no_node, rest = no_node;
  std::size_t value = 0;
};

// False when the node is no such select.
bool is_link(const GraphBuilder& graph, NodeId id, Link& link)
{
  const Node& n = graph.node(id);
  if (!is_kernel(n, Kernel::select)) return false;
  const Node& mask = graph.node(n.operand[0]);
  if (!is_kernel(mask, Kernel::equal) && !is_kernel(mask, Kernel::equal_known)) return false;
  const int constant = graph.is_constant(mask.operand[1]) ? 1 : 0;
  const double v = graph.node(mask.operand[static_cast<std::size_t>(constant)]).value;
  if (!graph.is_constant(mask.operand[static_cast<std::size_t>(constant)]) || !(v >= 0.0 && v < most_numbers))
    return false;
  link = {mask.operand[static_cast<std::size_t>(1 - constant)], n.operand[1], n.operand[2],
          static_cast<std::size_t>(v)};
  return static_cast<double>(link.value) == v;
}

} // namespace

ElementChain element_chain(const GraphBuilder& graph, NodeId head, const std::function<bool(NodeId)>& available)
{
  ElementChain chain;
  std::vector<Link> links;
  Link link;
  NodeId rest = head;
  std::size_t highest = 0;
  while (is_link(graph, rest, link) && (links.empty() || (link.number == links[0].number && !available(rest)))) {
    if (!links.empty()) chain.inner.push_back(rest);
    links.push_back(link);
    highest = std::max(highest, link.value);
    rest = link.rest;
  }
  if (links.size() < shortest || highest > 8 * links.size()) return {};
  chain.operands.assign(highest + 3, rest);
  chain.operands[0] = links[0].number;
  for (auto at = links.rbegin(); at != links.rend(); ++at) chain.operands[2 + at->value] = at->element;
  return chain;
}

} // namespace torvale::engine
