#pragma once
// Registers of a stage's steps: until here a step names what it reads and writes by node.

#include "engine/stages/program.h"

#include <unordered_map>

namespace torvale::engine {

// Gives every value a register, which it shares with values that are no longer or not yet in use. Nodes in `alias` are
// in the register of another. Numbers below 0 name values that are no nodes.
void share_registers(StageCode& code, const std::unordered_map<NodeId, NodeId>& alias);

} // namespace torvale::engine
