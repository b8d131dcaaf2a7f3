#pragma once
// What each node of the graph depends on: classes of inputs (for the stages of a program) and the single variables of
// differentiation (so that only derivatives that are not identically zero are made).

#include "engine/graph/graph.h"

#include <cstdint>
#include <vector>

namespace torvale::engine {

class CMPGLOBAL;

namespace depends {
inline constexpr std::uint8_t on_parameters = 1;
inline constexpr std::uint8_t on_data = 2;
inline constexpr std::uint8_t on_random_effects = 4;
inline constexpr std::uint8_t on_history = 8; // a value of the record before takes part
} // namespace depends

// Stages of a program: what a value depends on decides how often it is computed.
// `distinct` is the observations' work that goes by one column alone: once for each value that the column has.
enum class Stage : std::uint8_t { parameter, data, distinct, observation, point, lane };
inline constexpr int stages = 6;
Stage stage_of_classes(std::uint8_t classes);

class Dependence {
public:
  explicit Dependence(CMPGLOBAL& compiler) : compiler_(&compiler) {}

  // Classes of inputs behind a node, masks and loop conditions included.
  std::uint8_t classes(NodeId id);
  Stage stage(NodeId id) { return stage_of_classes(classes(id)); } // never `distinct`: programs choose what is
  // The numeric data variable, as a node, through which alone a node depends on data; no_node: on none, or on others.
  NodeId only_column(NodeId id);
  // True for a division whose divisor depends on parameters or random effects but is computed less often than the
  // quotient: programs multiply by its inverse, which is computed as rarely. (By a number or a data value the quotient
  // is exact: programs compare such quotients.)
  bool divides_by_inverse(NodeId id) const; // of a node whose stage has been asked for
  // True when the derivative of the node by the symbol may differ from 0: a path that is not through masks.
  bool varies_with(NodeId id, std::int32_t symbol_index);
  // True when the symbol is behind the node in any way.
  bool reads(NodeId id, std::int32_t symbol_index);
  // All symbols behind a node, ascending.
  std::vector<std::int32_t> symbols_behind(NodeId id);
  // Forgets everything (bindings changed).
  void clear();

private:
  void extend();          // covers nodes made since the last call
  bool update(NodeId id); // recomputes one node; true when it changed
  std::uint64_t* smooth(NodeId id) { return smooth_.data() + static_cast<std::size_t>(id) * words_; }

  CMPGLOBAL* compiler_;
  std::size_t words_ = 0;              // of a bit set over differentiation variables
  std::vector<std::int32_t> variable_; // per symbol: its bit among the parameters and random effects, or -1
  std::vector<std::uint8_t> classes_;  // per node
  std::vector<std::uint64_t> smooth_;  // per node `words_` words
  static constexpr NodeId several = -2;
  std::vector<NodeId> column_; // per node: its only column, no_node or `several`
};

// True for operands of a kernel through which no derivative passes: masks, comparisons, roundings, selectors.
bool passes_no_derivative(Kernel k, int operand);

} // namespace torvale::engine
