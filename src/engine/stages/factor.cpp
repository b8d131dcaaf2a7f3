// cmpfactor: outputs as sums of products of what varies by random effects and what does not.

#include "engine/graph/compiler.h"

#include <algorithm>
#include <map>

namespace torvale::engine {

namespace {

constexpr std::size_t most_terms = 8; // of one output

class Factoriser {
public:
  explicit Factoriser(CMPGLOBAL& gcmp) : gcmp_(gcmp), graph_(gcmp.graph) {}

  std::vector<FactoredTerm> terms_of(NodeId output)
  {
    std::vector<Term> terms;
    const bool few = collect(output, false, terms);
    const bool factored = std::any_of(terms.begin(), terms.end(), [](const Term& t) { return t.factor != no_node; });
    if (!few || !factored) terms.assign(1, {output, no_node, false});
    std::vector<FactoredTerm> named;
    for (const Term& t : terms) {
      const NodeId coefficient = t.negative ? negated(t.coefficient) : t.coefficient;
      named.push_back({symbol_of(coefficient), t.factor == no_node ? nullptr : symbol_of(t.factor)});
    }
    return named;
  }

private:
  struct Term {
    NodeId coefficient, factor; // no factor: 1
    bool negative;
  };

  bool same_for_all_points(NodeId id)
  {
    const Stage stage = gcmp_.dependence.stage(id);
    return stage != Stage::lane && stage != Stage::point;
  }

  // Sums are taken apart, and the outermost product of each term. False when there are too many terms.
  bool collect(NodeId id, bool negative, std::vector<Term>& terms)
  {
    if (same_for_all_points(id)) {
      terms.push_back({graph_.one(), id, negative});
      return terms.size() <= most_terms;
    }
    const Node n = graph_.node(id);
    const NodeId a = n.operand[0], b = n.operand[1];
    if (n.kind == NodeKind::kernel) switch (n.kernel) {
      case Kernel::add:
        return collect(a, negative, terms) && collect(b, negative, terms);
      case Kernel::subtract:
        return collect(a, negative, terms) && collect(b, !negative, terms);
      case Kernel::negate:
        return collect(a, !negative, terms);
      case Kernel::select:
        return collect_sides(n, negative, terms);
      case Kernel::multiply:
        if (same_for_all_points(a) != same_for_all_points(b)) {
          const bool first = same_for_all_points(b);
          terms.push_back({first ? a : b, first ? b : a, negative});
          return terms.size() <= most_terms;
        }
        break;
      default:
        break;
      }
    terms.push_back({id, no_node, negative});
    return terms.size() <= most_terms;
  }

  // A selection becomes one of coefficients where both sides have the factor; else the other side's coefficient is 0.
  bool collect_sides(const Node& n, bool negative, std::vector<Term>& terms)
  {
    std::vector<Term> yes, no;
    if (!graph_.is_constant(n.operand[1], 0.0) && !collect(n.operand[1], negative, yes)) return false;
    if (!graph_.is_constant(n.operand[2], 0.0) && !collect(n.operand[2], negative, no)) return false;
    const GraphBuilder::Derivative mode(graph_);
    for (const Term& t : yes) {
      const auto same = std::find_if(no.begin(), no.end(),
                                     [&](const Term& o) { return o.factor == t.factor && o.negative == t.negative; });
      const NodeId other = same == no.end() ? graph_.zero() : same->coefficient;
      terms.push_back({graph_.select(n.operand[0], t.coefficient, other), t.factor, t.negative});
      if (same != no.end()) no.erase(same);
    }
    for (const Term& t : no)
      terms.push_back({graph_.select(n.operand[0], graph_.zero(), t.coefficient), t.factor, t.negative});
    return terms.size() <= most_terms;
  }

  NodeId negated(NodeId id)
  {
    const GraphBuilder::Derivative mode(graph_);
    graph_.inherit_origin(id);
    return graph_.negate(id);
  }

  CMPSYM* symbol_of(NodeId id)
  {
    const auto [it, fresh] = symbol_.emplace(id, nullptr);
    if (!fresh) return it->second;
    CMPSYM& s = gcmp_.new_symbol("_part" + std::to_string(symbol_.size()), 'd', 'n');
    s.assigned = true;
    gcmp_.value.resize(gcmp_.symbols.size(), no_node);
    gcmp_.value[static_cast<std::size_t>(s.index)] = id;
    return it->second = &s;
  }

  CMPGLOBAL& gcmp_;
  GraphBuilder& graph_;
  std::map<NodeId, CMPSYM*> symbol_;
};

} // namespace

std::vector<std::vector<FactoredTerm>> cmpfactor(CMPGLOBAL& gcmp, std::span<CMPSYM* const> outputs)
{
  Factoriser factoriser(gcmp);
  std::vector<std::vector<FactoredTerm>> all;
  for (const CMPSYM* const output : outputs)
    all.push_back(output == nullptr ? std::vector<FactoredTerm>() : factoriser.terms_of(gcmp.node_of(*output)));
  return all;
}

} // namespace torvale::engine
