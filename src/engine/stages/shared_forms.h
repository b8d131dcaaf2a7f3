#pragma once
// Functions taken apart for the steps of a stage, so that what they have in
// common is done once, or in a stage that runs less often. All make nodes; the
// graph is in derivative mode, sums stay as they are asked for.

#include "engine/graph/dependence.h"
#include "engine/graph/graph.h"

#include <functional>
#include <vector>

namespace torvale::engine {

// A node as it will be computed.
struct StepForm {
  Kernel kernel = Kernel::copy;
  std::vector<NodeId> operands;
};

class SharedForms {
public:
  // needed: whether the stage needs a node; stage_of: where a node is computed.
  SharedForms(GraphBuilder& graph, std::function<bool(NodeId)> needed, std::function<Stage(NodeId)> stage_of)
      : graph_(graph), needed_(std::move(needed)), stage_of_(std::move(stage_of))
  {
  }

  // logistic(x) and softplus(x) from exp(-|x|), to the same bits as the kernels
  // (lane_elementary.h) unless x can be split. Of two arguments that are each
  // other's negative, both needed, one serves for both.
  StepForm logistic(NodeId id);
  // exp(r + s) as exp(r) exp(s), r once per record and s once per point. The
  // factors are made where r and s are at most 350 in size: the product of
  // those is a normal number; elsewhere a lane takes the exponential of the
  // sum. False: not such a sum.
  bool exponential(NodeId id, StepForm& form);

private:
  NodeId exp_of(NodeId x, bool negative);
  NodeId factor(NodeId x, bool negative);

  GraphBuilder& graph_;
  std::function<bool(NodeId)> needed_;
  std::function<Stage(NodeId)> stage_of_;
};

// Whether a node is such a factor, exp(r) or exp(-r): of which r.
bool is_exp_factor(const GraphBuilder& graph, NodeId id, NodeId& of, bool& negative);

} // namespace torvale::engine
