#pragma once
// The parts of cmpspec: which values each stage must give, and the steps of one stage.

#include "engine/graph/loop_nesting.h"
#include "engine/stages/program.h"

#include <unordered_map>

namespace torvale::engine {

// What the stages of one program ask of each other.
class Specialiser {
public:
  Specialiser(CMPGLOBAL& gcmp, Program& program) : gcmp_(gcmp), graph_(gcmp.graph), program_(program) {}

  Stage stage_of(NodeId id) { return gcmp_.dependence.stage(id); }

  std::int32_t ask(Stage s, NodeId id) // index of a result of a stage
  {
    auto& results = program_.code(s).results;
    const auto [it, fresh] = asked_[static_cast<std::size_t>(s)].emplace(id, static_cast<std::int32_t>(results.size()));
    if (fresh) results.push_back(id);
    return it->second;
  }

  std::int32_t column(NodeId id)
  {
    const auto [it, fresh] = column_.emplace(id, static_cast<std::int32_t>(program_.columns.size()));
    if (fresh) {
      const bool raw = graph_.node(id).kind == NodeKind::symbol;
      program_.columns.push_back({id, raw ? -1 : ask(Stage::data, id)});
    }
    return it->second;
  }

  CMPGLOBAL& gcmp_;
  GraphBuilder& graph_;
  Program& program_;
  LoopNesting loops_{graph_};

private:
  std::array<std::unordered_map<NodeId, std::int32_t>, stages> asked_;
  std::unordered_map<NodeId, std::int32_t> column_;
};

// Turns the results of a stage into steps: finds what they need, puts it in order, joins operations, shares out
// registers.
void emit_stage(Specialiser& all, Stage stage);

} // namespace torvale::engine
