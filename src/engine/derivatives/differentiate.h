#pragma once
// Symbolic differentiation on the value graph.
//
// First derivatives go backward from the object (one sweep gives all variables, and the factors that variables have in
// common are made once). Derivatives of derivatives go forward and are remembered per node and variable, so that all
// objects of a request share them.

#include "engine/graph/compiler.h"

#include <map>
#include <span>

namespace torvale::engine {

class Differentiator {
public:
  explicit Differentiator(CMPGLOBAL& gcmp) : gcmp_(gcmp), graph_(gcmp.graph) {}

  // Derivatives of y by each of the symbols (parameters or random effects); no_node where it is identically zero.
  std::vector<NodeId> gradient(NodeId y, std::span<const std::int32_t> symbols);
  // Derivative of y by one symbol; no_node when identically zero.
  NodeId derivative(NodeId y, std::int32_t symbol);
  bool failed() const { return failed_; }

private:
  // An adjoint is known only where its guard is 1; elsewhere its value is anything, a missing value too. So what an
  // untaken branch would contribute is never multiplied by 0: it is never looked at.
  struct Guarded {
    NodeId guard = no_node;
    NodeId value = no_node;
  };
  using Contributions = std::vector<Guarded>;

  Guarded joined(const Contributions& all);
  void contribute(Contributions& to, Guarded what);
  NodeId partial(NodeId node, int operand);
  NodeId chosen(NodeId node, int operand);
  bool jacobian_is_cheaper(NodeId y, const std::vector<NodeId>& nodes, std::span<const std::int32_t> symbols);
  std::vector<NodeId> varying_below(NodeId y, std::span<const std::int32_t> symbols,
                                    const std::unordered_map<NodeId, NodeId>* known);
  NodeId tangent_of(NodeId node, std::int32_t symbol);                 // operands' tangents are known
  std::int32_t tangent_carry(std::int32_t carry, std::int32_t symbol); // -1: does not vary
  void close_carries();

  CMPGLOBAL& gcmp_;
  GraphBuilder& graph_;
  struct Open {
    std::int32_t carry, tangent, symbol;
  };
  std::vector<Open> open_; // carries of derivatives whose next values are still to be made
  bool closing_ = false;
  bool failed_ = false;
};

} // namespace torvale::engine
