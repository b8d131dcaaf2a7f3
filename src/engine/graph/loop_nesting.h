#pragma once
// In which loop of the program a node is computed: a node that uses a value carried from pass to pass belongs to the
// passes of that loop; what uses none stands outside, however deep its statement did.

#include "engine/graph/graph.h"

namespace torvale::engine {

class LoopNesting {
public:
  explicit LoopNesting(const GraphBuilder& graph) : graph_(graph) {}

  // The innermost loop whose passes compute the node; 0 outside all loops.
  std::int32_t loop_of(NodeId id)
  {
    for (auto k = static_cast<NodeId>(loop_.size()); k <= id; ++k) loop_.push_back(found(k));
    return loop_[static_cast<std::size_t>(id)];
  }

  // True when `inner` is `outer` or stands in it.
  bool within(std::int32_t inner, std::int32_t outer) const
  {
    while (inner != outer && inner != 0) inner = graph_.loop_at(inner).parent;
    return inner == outer;
  }

  // The loop directly inside `outer` that holds `inner`; `outer` itself when they are the same.
  std::int32_t step_into(std::int32_t outer, std::int32_t inner) const
  {
    while (inner != outer && graph_.loop_at(inner).parent != outer) inner = graph_.loop_at(inner).parent;
    return inner;
  }

private:
  std::int32_t found(NodeId id) const
  {
    const Node& n = graph_.node(id);
    if (n.kind == NodeKind::carry) return graph_.carry_at(n.index).loop;
    if (n.kind == NodeKind::result) return graph_.loop_at(graph_.carry_at(n.index).loop).parent;
    std::int32_t loop = 0;
    for (int k = 0; k < n.operands; ++k) {
      const std::int32_t other = loop_[static_cast<std::size_t>(n.operand[static_cast<std::size_t>(k)])];
      if (depth(other) > depth(loop)) loop = other;
    }
    return loop;
  }
  int depth(std::int32_t loop) const
  {
    int d = 0;
    for (; loop != 0; loop = graph_.loop_at(loop).parent) ++d;
    return d;
  }

  const GraphBuilder& graph_;
  std::vector<std::int32_t> loop_;
};

} // namespace torvale::engine
