// cmptotal: outputs that are only wanted as sums over records, as functions of sums of simpler terms. What is the same
// for all records of a point comes out of a sum, and sums of sums are taken term by term: a lane then computes products
// of a few values, and the rest of the work is done once for each point.
//
// Sums are taken apart where that costs no digits. A sum that is multiplied by several things that vary by record, two
// of its own terms among them, is kept whole, as in the square of a derivative that is a difference: the rounding of
// its terms is then the same in all of these products, and what cancels between them cancels.

#include "engine/stages/record_products.h"

#include <algorithm>
#include <map>
#include <set>

namespace torvale::engine {

namespace {

constexpr std::size_t most_factors = 256; // that one value is multiplied by
constexpr int most_rounds = 24;

class Totaliser {
public:
  // `sparing`: every sum that is multiplied by several things is kept whole.
  Totaliser(CMPGLOBAL& gcmp, const std::set<NodeId>& whole, bool sparing)
      : gcmp_(gcmp), graph_(gcmp.graph), records_(gcmp, whole), sparing_(sparing)
  {
  }

  // False when there is too much of it.
  bool run(const std::vector<NodeId>& outputs, std::vector<NodeId>& totals)
  {
    for (const NodeId id : outputs) open_[id].insert(Product());
    while (!open_.empty()) { // users come before what they use
      const auto last = std::prev(open_.end());
      const NodeId id = last->first;
      const Products by = std::move(last->second);
      open_.erase(last);
      if (by.size() > most_factors) return false;
      take_apart(id, by);
    }
    for (const NodeId id : outputs) totals.push_back(total(id, Product()));
    return terms_.size() <= most_terms;
  }

  const std::vector<NodeId>& terms() const { return terms_; }
  const std::set<NodeId>& whole() const { return records_.whole(); }

private:
  void pass_on(NodeId id, const Products& by)
  {
    if (!records_.same_for_all_records(id)) open_[id].insert(by.begin(), by.end());
  }

  // Decides how the products of a value and these are added up.
  void take_apart(NodeId id, const Products& by)
  {
    if (records_.same_for_all_records(id) || records_.is_whole(id)) return;
    const Node n = graph_.node(id);
    const NodeId a = n.operand[0], b = n.operand[1];
    switch (n.kernel) {
    case Kernel::add:
    case Kernel::subtract:
      if (by.size() > 1 && (sparing_ || records_.has_terms(id, by))) {
        records_.keep_whole(id);
        return;
      }
      pass_on(a, by);
      pass_on(b, by);
      return;
    case Kernel::multiply:
      return take_product_apart(id, a, b, by);
    case Kernel::select:
      if (!records_.same_for_all_records(a)) return pass_on(b, times(by, {where(a)}));
      pass_on(b, by);
      pass_on(n.operand[2], by);
      return;
    case Kernel::square:
      if (Product of_a; !records_.single(a, of_a)) records_.keep_whole(records_.core(a));
      return;
    default: // negate, divide
      return pass_on(a, by);
    }
  }

  void take_product_apart(NodeId id, NodeId a, NodeId b, const Products& by)
  {
    Product varying;
    NodeId factor = b, rest = a;
    if (!records_.single(b, varying)) {
      varying.clear();
      factor = a;
      rest = b;
      if (!records_.single(a, varying)) { // sums both: one is kept whole
        if (records_.core(b) < records_.core(a)) std::swap(factor, rest);
        records_.keep_whole(records_.core(factor));
        varying.clear();
        records_.single(factor, varying);
      }
    }
    factor_[id] = factor;
    pass_on(rest, times(by, varying));
  }

  // The sum over records of a value times a product.
  NodeId total(NodeId id, const Product& by)
  {
    const auto known = known_.find({id, by});
    if (known != known_.end()) return known->second;
    const NodeId made = make_total(id, by);
    known_[{id, by}] = made;
    return made;
  }

  NodeId make_total(NodeId id, const Product& by)
  {
    if (records_.same_for_all_records(id)) return graph_.multiply(id, total_of_term(by));
    if (records_.is_whole(id)) return total_of_term(joined(by, {id}));
    const Node n = graph_.node(id);
    const NodeId a = n.operand[0], b = n.operand[1];
    switch (n.kernel) {
    case Kernel::add:
      return graph_.add(total(a, by), total(b, by));
    case Kernel::subtract:
      return graph_.subtract(total(a, by), total(b, by));
    case Kernel::negate:
      return graph_.negate(total(a, by));
    case Kernel::select:
      if (!records_.same_for_all_records(a)) return total(b, joined(by, {where(a)}));
      return graph_.select(a, total(b, by), total(n.operand[2], by));
    case Kernel::multiply: {
      const NodeId factor = factor_.at(id), rest = factor == a ? b : a;
      return multiple(factor, total(rest, joined(by, records_.varying_part(factor))));
    }
    case Kernel::square: {
      const Product part = records_.varying_part(a);
      return multiple(a, multiple(a, total_of_term(joined(joined(by, part), part))));
    }
    default:
      return graph_.apply(n.kernel, {total(a, by), b});
    }
  }

  // What of a single product does not vary by record, times a total.
  NodeId multiple(NodeId factor, NodeId total)
  {
    if (records_.same_for_all_records(factor)) return graph_.multiply(factor, total);
    if (records_.is_whole(factor)) return total;
    const Node n = graph_.node(factor);
    switch (n.kernel) {
    case Kernel::multiply:
      return multiple(n.operand[0], multiple(n.operand[1], total));
    case Kernel::square:
      return multiple(n.operand[0], multiple(n.operand[0], total));
    case Kernel::negate:
      return graph_.negate(multiple(n.operand[0], total));
    default:
      return graph_.apply(n.kernel, {multiple(n.operand[0], total), n.operand[1]});
    }
  }

  NodeId total_of_term(const Product& p)
  {
    const auto first = std::find_if(p.begin(), p.end(), [](NodeId part) { return part >= 0; }); // masks come before
    NodeId term = first == p.end() ? graph_.one() : *first;
    for (auto k = first; k != p.end() && k + 1 != p.end(); ++k)
      term = k == first && k[1] == k[0] ? graph_.square(term) : graph_.multiply(term, k[1]);
    for (auto k = p.begin(); k != first; ++k) term = graph_.select(mask_of(*k), term, graph_.zero());
    const auto [at, fresh] = place_.try_emplace(term, static_cast<int>(terms_.size())); // two products may be one
    if (fresh) terms_.push_back(term);
    return graph_.symbol(gcmp_.total_symbol(at->second).index);
  }

  CMPGLOBAL& gcmp_;
  GraphBuilder& graph_;
  RecordProducts records_;
  const bool sparing_;
  std::map<NodeId, Products> open_; // values, and what their sums over records are multiplied by
  std::map<NodeId, NodeId> factor_; // per product: the operand that comes out of the sums, or into their terms
  std::map<std::pair<NodeId, Product>, NodeId> known_;
  std::map<NodeId, int> place_; // per term
  std::vector<NodeId> terms_;
};

CMPSYM* symbol_of(CMPGLOBAL& gcmp, NodeId id, const char* name, std::size_t number)
{
  CMPSYM& s = gcmp.new_symbol(name + std::to_string(number), 'd', 'n');
  s.assigned = true;
  gcmp.value.resize(gcmp.symbols.size(), no_node);
  gcmp.value[static_cast<std::size_t>(s.index)] = id;
  return &s;
}

} // namespace

TotalForms cmptotal(CMPGLOBAL& gcmp, std::span<CMPSYM* const> outputs, std::span<CMPSYM* const> whole)
{
  TotalForms forms;
  const auto ends_runs = [&](const Effect& e) { return e.fatal() && !gcmp.graph.is_constant(e.guard, 0.0); };
  if (gcmp.graph.has_special_missing() || std::any_of(gcmp.effects.begin(), gcmp.effects.end(), ends_runs))
    return forms;
  std::vector<NodeId> nodes, totals;
  std::set<NodeId> kept;
  for (const CMPSYM* const s : outputs) {
    nodes.push_back(gcmp.node_of(*s));
    if ((gcmp.dependence.classes(nodes.back()) & depends::on_history) != 0) return forms;
  }
  for (const CMPSYM* const s : whole) kept.insert(gcmp.node_of(*s));
  const GraphBuilder::Derivative mode(gcmp.graph);
  gcmp.graph.inherit_origin(nodes.front());
  std::vector<NodeId> terms;
  // Whether a sum has a term that it is multiplied by depends on which sums within it are kept whole: these are found
  // one by one, the innermost first, and the last round is the one that counts.
  const auto look = [&](bool sparing) {
    for (int round = 0; round < most_rounds; ++round) {
      Totaliser totaliser(gcmp, kept, sparing);
      std::vector<NodeId> found;
      if (!totaliser.run(nodes, found)) return;
      const auto inner = std::find_if(totaliser.whole().begin(), totaliser.whole().end(),
                                      [&](NodeId id) { return kept.count(id) == 0; });
      if (!sparing && inner != totaliser.whole().end() && round + 1 < most_rounds) {
        kept.insert(*inner);
        continue;
      }
      if (!totals.empty() && terms.size() <= totaliser.terms().size()) return;
      terms = totaliser.terms();
      totals = std::move(found);
      return;
    }
  };
  const std::set<NodeId> asked_for = kept;
  look(false);
  kept = asked_for;
  look(true);
  for (const NodeId id : terms) forms.terms.push_back(symbol_of(gcmp, id, "_term", forms.terms.size()));
  for (const NodeId id : totals) forms.totals.push_back(symbol_of(gcmp, id, "_sum", forms.totals.size()));
  return forms;
}

} // namespace torvale::engine
