// Symbols made of symbols: what a caller wants summed of values and derivatives.

#include "engine/graph/compiler.h"

namespace torvale::engine {

CMPSYM* cmpcombine(CMPGLOBAL& gcmp, syntax::Op op, const CMPSYM* a, const CMPSYM* b)
{
  gcmp.translate();
  const NodeId left = gcmp.node_of(*a), right = gcmp.node_of(*b);
  NodeId node = no_node;
  const char* sign = "";
  switch (op) {
  case syntax::Op::add:
    node = gcmp.graph.add(left, right);
    sign = "+";
    break;
  case syntax::Op::subtract:
    node = gcmp.graph.subtract(left, right);
    sign = "-";
    break;
  case syntax::Op::multiply:
    node = gcmp.graph.multiply(left, right);
    sign = "*";
    break;
  case syntax::Op::divide:
    node = gcmp.graph.divide(left, right);
    sign = "/";
    break;
  default:
    return nullptr;
  }
  CMPSYM& s = gcmp.new_symbol("(" + a->name + ")" + sign + "(" + b->name + ")", 'd', 'n');
  s.assigned = true;
  s.where = a->where;
  gcmp.value.resize(gcmp.symbols.size(), no_node);
  gcmp.value[static_cast<std::size_t>(s.index)] = node;
  return &s;
}

} // namespace torvale::engine
