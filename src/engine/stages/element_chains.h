#pragma once
// Elements of arrays with subscripts that only a run knows: in the graph a chain of selects that compares the subscript
// with one number after the other, in stages that are walked a single look-up.

#include "engine/graph/graph.h"

#include <functional>
#include <vector>

namespace torvale::engine {

// A chain of selects as operands of an element step (Step::Kind::element).
struct ElementChain {
  std::vector<NodeId> operands; // empty: no chain, or one that is too short to gain by it
  std::vector<NodeId> inner;    // the selects behind the first
};

// The chain that begins with the select `head`. It ends before what does not belong to it or is available anyway.
ElementChain element_chain(const GraphBuilder& graph, NodeId head, const std::function<bool(NodeId)>& available);

} // namespace torvale::engine
