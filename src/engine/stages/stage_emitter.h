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

  // Of the data variables that alone go into costly functions of parameters (log gamma of counts, say), takes the one
  // with the most: for these functions the stage `distinct` is made.
  void choose_counted(const std::vector<NodeId>& nodes); // of the program

  // Lanes without random effects are records, each computed once: nothing goes from one stage to the other for them.
  void let_records_be_lanes() { record_is_lane_ = true; }
  // The same of points, where no lane has a record.
  void let_points_be_lanes() { point_is_lane_ = true; }

  // Where a node is computed, as a stage sees it. What follows from data columns by a few plain operations is no column
  // of its own: it is computed with the observations, or with the values, but for the data stage itself.
  Stage stage_of(NodeId id, Stage seen_from)
  {
    Stage stage = gcmp_.dependence.stage(id);
    if (stage == Stage::data && seen_from != Stage::data && graph_.node(id).kind == NodeKind::kernel &&
        plain_operations(id) <= most_plain_operations)
      stage = Stage::observation;
    if (stage == Stage::observation && (seen_from == Stage::distinct || by_counted(id))) return Stage::distinct;
    if (stage == Stage::point && point_is_lane_) return Stage::lane;
    return stage == Stage::observation && record_is_lane_ ? Stage::lane : stage;
  }

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
  static constexpr int most_plain_operations = 8;
  bool by_counted(NodeId id)
  {
    return counted_ != no_node && gcmp_.dependence.only_column(id) == counted_ && costs(id);
  }
  bool costs(NodeId id);           // there is a costly function of parameters behind a node of the counted variable
  int plain_operations(NodeId id); // that make it of columns and constants; more than the most when there are others

  bool record_is_lane_ = false, point_is_lane_ = false;
  std::unordered_map<NodeId, int> plain_;
  NodeId counted_ = no_node;
  std::unordered_map<NodeId, bool> costs_;
  std::array<std::unordered_map<NodeId, std::int32_t>, stages> asked_;
  std::unordered_map<NodeId, std::int32_t> column_;
};

// Turns the results of a stage into steps: finds what they need, puts it in order, joins operations, shares out
// registers.
void emit_stage(Specialiser& all, Stage stage);

} // namespace torvale::engine
