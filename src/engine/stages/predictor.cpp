// cmppredictor: the value of a record through which alone parameters act on programs.

#include "engine/stages/program.h"
#include "engine/stages/shared_forms.h"

#include <algorithm>
#include <map>
#include <set>

namespace torvale::engine {

namespace {

// What the lanes and points of a program read that may depend on parameters: values of records, and of the parameters
// alone. Everything else of the program is computed from these, from data and from random effects.
void entries(const Program& program, std::set<NodeId>& found)
{
  const auto& observation = program.code(Stage::observation).results;
  const auto& parameter = program.code(Stage::parameter).results;
  found.insert(observation.begin(), observation.end());
  for (const Stage s : {Stage::lane, Stage::point})
    for (const Fixed& f : program.code(s).fixed)
      if (!f.constant) found.insert(parameter[static_cast<std::size_t>(f.index)]);
}

} // namespace

Predictor cmppredictor(CMPGLOBAL& gcmp, std::span<const Program* const> programs)
{
  std::set<NodeId> found, tabulated; // what is tabulated by the values of a column is not moved by the record
  for (const Program* const p : programs) {
    if (p->sequential()) return {};
    entries(*p, found);
    const auto& results = p->code(Stage::distinct).results;
    tabulated.insert(results.begin(), results.end());
  }
  found.insert(tabulated.begin(), tabulated.end());
  std::map<std::int32_t, std::set<NodeId>> ways; // per parameter's symbol
  for (const NodeId id : found) {
    NodeId way = id;
    bool negative = false;
    is_exp_factor(gcmp.graph, id, way, negative); // moves with its exponent
    for (const std::int32_t symbol : gcmp.dependence.symbols_behind(id))
      if (gcmp.at(symbol).parameter >= 0) ways[symbol].insert(way);
  }
  std::map<NodeId, std::vector<CMPSYM*>> alone;
  for (const auto& [symbol, nodes] : ways)
    if (nodes.size() == 1 && tabulated.count(*nodes.begin()) == 0 &&
        gcmp.dependence.stage(*nodes.begin()) == Stage::observation)
      alone[*nodes.begin()].push_back(&gcmp.at(symbol));
  const auto most = std::max_element(alone.begin(), alone.end(),
                                     [](const auto& a, const auto& b) { return a.second.size() < b.second.size(); });
  if (most == alone.end()) return {};
  CMPSYM& value = gcmp.new_symbol("_predictor", 'd', 'n');
  value.assigned = true;
  gcmp.value.resize(gcmp.symbols.size(), no_node);
  gcmp.value[static_cast<std::size_t>(value.index)] = most->first;
  return {&value, most->second};
}

} // namespace torvale::engine
