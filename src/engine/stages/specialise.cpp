// cmpspec: a program for a set of outputs. The lane stage asks for what it needs of the other stages, these ask in
// turn; each is then put into steps (stage_emitter).

#include "engine/stages/node_table.h"
#include "engine/stages/stage_emitter.h"

#include <algorithm>
#include <map>

namespace torvale::engine {

namespace {

// Nodes behind the outputs, ascending.
std::vector<NodeId> nodes_behind(const GraphBuilder& graph, const std::vector<NodeId>& outputs)
{
  NodeSet reached;
  std::vector<NodeId> open(outputs.begin(), outputs.end());
  while (!open.empty()) {
    const NodeId id = open.back();
    open.pop_back();
    if (!reached.insert(id)) continue;
    const Node& n = graph.node(id);
    for (int k = 0; k < n.operands; ++k) open.push_back(n.operand[static_cast<std::size_t>(k)]);
    if (n.kind == NodeKind::result) open.push_back(graph.carry_at(n.index).next);
  }
  return reached.ascending();
}

// How many there are, and how many there would be if nothing were shared.
void measure(const GraphBuilder& graph, const std::vector<NodeId>& reached, const std::vector<NodeId>& outputs,
             Program& program)
{
  std::vector<double> tree(static_cast<std::size_t>(graph.size()), 0.0);
  for (const NodeId id : reached) {
    const Node& n = graph.node(id);
    double sum = 1.0;
    for (int k = 0; k < n.operands; ++k) sum += tree[static_cast<std::size_t>(n.operand[static_cast<std::size_t>(k)])];
    tree[static_cast<std::size_t>(id)] = std::min(sum, 1e15);
  }
  double total = 0.0;
  for (const NodeId id : outputs) total += tree[static_cast<std::size_t>(id)];
  program.nodes = static_cast<int>(reached.size());
  program.nodes_before = static_cast<std::int64_t>(std::min(total, 2e9));
}

// Tens of instructions, and more.
bool is_costly(Kernel k)
{
  return k == Kernel::compartment_response || (k >= Kernel::gamma && k <= Kernel::comb) ||
         (k >= Kernel::gamma_lower && k <= Kernel::negative_binomial_quantile);
}

// An instruction or two in machine code.
bool is_plain(Kernel k)
{
  switch (k) {
  case Kernel::add:
  case Kernel::subtract:
  case Kernel::multiply:
  case Kernel::negate:
  case Kernel::square:
  case Kernel::positive_part:
  case Kernel::absolute:
  case Kernel::truth:
  case Kernel::and_:
  case Kernel::or_:
  case Kernel::not_:
  case Kernel::and_not:
  case Kernel::select:
  case Kernel::select_or_zero:
  case Kernel::is_missing:
  case Kernel::is_present:
    return true;
  default:
    return k >= Kernel::less && k <= Kernel::greater_equal_known;
  }
}

// One point, or no model of random effects, and nothing kept from record to record: the lanes of such a program go one
// by one.
bool lanes_are_records(CMPGLOBAL& gcmp, const std::vector<NodeId>& results, Visits visits)
{
  const auto is_effect = [](const CMPSYM& s) { return s.random_effect >= 0; };
  if (visits != Visits::once && std::any_of(gcmp.symbols.begin(), gcmp.symbols.end(), is_effect)) return false;
  return std::none_of(results.begin(), results.end(),
                      [&](NodeId id) { return (gcmp.dependence.classes(id) & depends::on_history) != 0; });
}

} // namespace

int Specialiser::plain_operations(NodeId id)
{
  constexpr int other = most_plain_operations + 1;
  const Node& n = graph_.node(id);
  if (n.kind == NodeKind::constant) return 0;
  if (n.kind == NodeKind::symbol) return gcmp_.at(n.index).type == 'c' ? other : 0;
  if (n.kind != NodeKind::kernel || !is_plain(n.kernel)) return other;
  if (const auto known = plain_.find(id); known != plain_.end()) return known->second;
  int sum = 1;
  for (int k = 0; k < n.operands && sum < other; ++k) sum += plain_operations(n.operand[static_cast<std::size_t>(k)]);
  return plain_[id] = std::min(sum, other);
}

void Specialiser::choose_counted(const std::vector<NodeId>& nodes)
{
  std::map<NodeId, int> costly; // by column
  for (const NodeId id : nodes) {
    const Node& n = graph_.node(id);
    if (n.kind != NodeKind::kernel || !is_costly(n.kernel) || gcmp_.dependence.stage(id) != Stage::observation)
      continue;
    if (const NodeId column = gcmp_.dependence.only_column(id); column != no_node) ++costly[column];
  }
  int most = 0;
  for (const auto& [column, count] : costly) {
    if (count <= most) continue;
    most = count;
    counted_ = column;
    program_.counted = graph_.node(column).index;
  }
}

bool Specialiser::costs(NodeId id)
{
  const Node& n = graph_.node(id);
  if (n.kind != NodeKind::kernel || gcmp_.dependence.stage(id) != Stage::observation) return false;
  if (const auto known = costs_.find(id); known != costs_.end()) return known->second;
  bool found = is_costly(n.kernel);
  for (int k = 0; k < n.operands && !found; ++k) found = costs(n.operand[static_cast<std::size_t>(k)]);
  return costs_[id] = found;
}

namespace {

// Takes the results of the observation stage from the other program, where that has them all.
void share_records(Program& program, const Program* beside)
{
  if (beside == nullptr) return;
  if (beside->records_of != nullptr) beside = beside->records_of;
  std::vector<NodeId>& own = program.code(Stage::observation).results;
  const std::vector<NodeId>& all = beside->code(Stage::observation).results;
  std::vector<std::int32_t> place;
  for (const NodeId id : own) {
    const auto at = std::find(all.begin(), all.end(), id);
    if (at == all.end()) return;
    place.push_back(static_cast<std::int32_t>(at - all.begin()));
  }
  if (own.empty()) return;
  own.clear();
  program.records_of = beside;
  for (const Stage s : {Stage::lane, Stage::point})
    for (Input& input : program.code(s).inputs)
      if (input.from == Input::From::observation) input.index = place[static_cast<std::size_t>(input.index)];
}

} // namespace

const Program* cmpspec(CMPGLOBAL& gcmp, std::span<CMPSYM* const> outputs, Visits visits, const Program* beside)
{
  gcmp.translate();
  auto owned = std::make_unique<Program>();
  Program& program = *owned;
  program.number = static_cast<int>(gcmp.programs.size());
  std::vector<NodeId> nodes;
  for (const CMPSYM* const s : outputs) {
    const NodeId id = s == nullptr ? gcmp.graph.zero() : gcmp.node_of(*s);
    const auto place = std::find(nodes.begin(), nodes.end(), id);
    program.output_place.push_back(static_cast<std::int32_t>(place - nodes.begin()));
    if (place == nodes.end()) nodes.push_back(id);
    const std::uint8_t classes = gcmp.dependence.classes(id);
    program.point_dependent.push_back((classes & depends::on_random_effects) != 0);
  }
  program.outputs = static_cast<int>(nodes.size());
  const std::vector<NodeId> behind = nodes_behind(gcmp.graph, nodes);
  measure(gcmp.graph, behind, nodes, program);
  for (std::size_t k = 0; k < gcmp.effects.size() && visits != Visits::totals; ++k) {
    const Effect& e = gcmp.effects[k];
    if (!e.fatal() || gcmp.graph.is_constant(e.guard, 0.0)) continue;
    program.traps.push_back(static_cast<std::int32_t>(k));
    nodes.push_back(e.guard);
  }
  program.code(Stage::lane).results = nodes;
  program.code(Stage::lane).outputs = program.outputs;
  Specialiser all(gcmp, program);
  all.choose_counted(behind);
  if (visits == Visits::totals)
    all.let_points_be_lanes();
  else if (lanes_are_records(gcmp, nodes, visits))
    all.let_records_be_lanes();
  program.code(Stage::lane).canonical = visits != Visits::terms;
  for (const Stage s : {Stage::lane, Stage::point}) emit_stage(all, s);
  share_records(program, beside);
  for (const Stage s : {Stage::observation, Stage::distinct}) emit_stage(all, s);
  program.computed_columns = static_cast<int>(program.code(Stage::data).results.size());
  emit_stage(all, Stage::data);
  emit_stage(all, Stage::parameter);
  gcmp.programs.push_back(std::move(owned));
  return gcmp.programs.back().get();
}

bool sequential(const Program& program)
{
  return program.sequential();
}

bool varies_by_point(const Program& program, int output)
{
  return program.point_dependent[static_cast<std::size_t>(output)];
}

int distinct_output(const Program& program, int output)
{
  return program.output_place[static_cast<std::size_t>(output)];
}

int lane_nodes(CMPGLOBAL& gcmp, std::span<CMPSYM* const> outputs)
{
  std::vector<NodeId> nodes;
  for (const CMPSYM* const s : outputs) nodes.push_back(gcmp.node_of(*s));
  const auto reached = nodes_behind(gcmp.graph, nodes);
  return static_cast<int>(std::count_if(reached.begin(), reached.end(), [&](NodeId id) {
    return gcmp.graph.node(id).kind == NodeKind::kernel && gcmp.dependence.stage(id) == Stage::lane;
  }));
}

ProgramSize program_size(const Program& program)
{
  ProgramSize size;
  size.nodes_before = static_cast<int>(program.nodes_before);
  size.nodes = program.nodes;
  size.parameter = program.code(Stage::parameter).operations;
  size.data = program.code(Stage::data).operations;
  size.distinct = program.code(Stage::distinct).operations;
  size.observation = program.code(Stage::observation).operations;
  size.point = program.code(Stage::point).operations;
  size.lane = program.code(Stage::lane).operations;
  size.registers = program.code(Stage::lane).registers;
  return size;
}

} // namespace torvale::engine
