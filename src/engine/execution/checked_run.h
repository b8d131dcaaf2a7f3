#pragma once
// CheckedRun: the slow path. One lane, one node at a time, from the wanted value down: what no wanted value needs is
// not executed, so a fault found is a fault that reaches a result. The kernels are those of the fast path, so that it
// finds what the fast path met.

#include "engine/execution/bound_data.h"
#include "engine/graph/loop_nesting.h"

#include <functional>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

namespace torvale::engine {

class CheckedRun final : TextInputs {
public:
  CheckedRun(const CMPGLOBAL& gcmp, const BoundData& data, const double* theta, const double* ran, std::int64_t stride,
             int point)
      : gcmp_(gcmp), graph_(gcmp.graph), data_(data), theta_(theta), ran_(ran), stride_(stride), point_(point),
        loops_(gcmp.graph)
  {
  }

  // Makes `row` the current record. Values kept from record to record that the nodes need are brought up to it.
  void start(std::int64_t row, const std::vector<NodeId>& wanted);
  double value(NodeId id);
  std::string text_value(TextId id);
  // Makes the passes of a loop; `in_pass` is called in each of them and may ask for the `wanted` nodes.
  void each_pass(std::int32_t loop, const std::vector<NodeId>& wanted, const std::function<void()>& in_pass);
  const LoopNesting& nesting() const { return loops_; }
  void be_silent() { silent_ = true; } // only values are wanted
  bool endless() const { return passes_ > most_passes; }

  std::vector<Fault> faults;
  std::vector<Fault> earlier; // of records before the wanted one, that its kept values went through
  int made_missing = 0; // operations that gave a missing value because an operand was missing

private:
  std::string_view column(std::int32_t symbol) const override { return data_.text(symbol, row_); }
  double number(NodeId id) const override { return known_.at(id); }
  void compute(NodeId id);
  double kernel_value(NodeId id, const Node& n);
  double symbol_value(const Node& n) const;
  Fault fault_of(NodeId id, const Node& n, const double* operands);
  std::vector<Origin> executed_origins(NodeId id);
  bool executed(const Origin& origin);
  bool computable(NodeId id) const;
  using Carries = std::map<std::int32_t, double>;
  Carries run_loop(std::int32_t loop, const std::vector<NodeId>& wanted, const std::function<void()>& in_pass);
  void needed_carries(std::int32_t loop, NodeId from, std::set<std::int32_t>& carries);
  void inputs_of_text(TextId id);

  const CMPGLOBAL& gcmp_;
  const GraphBuilder& graph_;
  const BoundData& data_;
  const double* theta_;
  const double* ran_;
  std::int64_t stride_;
  int point_;
  LoopNesting loops_;
  std::int64_t row_ = 0;
  bool silent_ = false;                      // what is computed now belongs to a message, not to the program's run
  bool earlier_ = false;                     // records before the wanted one
  int passes_ = 0;                           // of all loops, in this record
  std::unordered_map<NodeId, double> known_; // values of this record (and pass)
  std::map<std::int32_t, double> kept_;      // carries of the records
  std::vector<NodeId> pass_;                 // nodes computed in the current pass of a loop
};

} // namespace torvale::engine
