#pragma once
// Functions of one argument that have most of their work in common, taken apart for the steps of a stage so that it is
// done once.

#include "engine/graph/graph.h"

#include <functional>
#include <vector>

namespace torvale::engine {

// A node as it will be computed.
struct LogisticForm {
  Kernel kernel = Kernel::copy;
  std::vector<NodeId> operands;
};

// logistic(x) and softplus(x) from exp(-|x|), to the same bits as the kernels (lane_elementary.h). Of two arguments
// that are each other's negative, both needed by the stage, one serves for both. Makes nodes; the graph is in
// derivative mode.
LogisticForm logistic_form(GraphBuilder& graph, NodeId id, const std::function<bool(NodeId)>& needed);

} // namespace torvale::engine
