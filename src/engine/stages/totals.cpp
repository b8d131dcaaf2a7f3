// cmptotal: outputs that are only wanted as sums over records, as functions of sums of simpler terms. What is the same
// for all records of a point comes out of a sum, and sums of sums are taken term by term: a lane then computes products
// of a few values, and the rest of the work is done once for each point.
//
// Sums are taken apart where that costs no digits. A sum that is multiplied by several things that vary by record, two
// of its own terms among them, is kept whole, as in the square of a derivative that is a difference: the rounding of
// its terms is then the same in all of these products, and what cancels between them cancels.

#include "engine/graph/compiler.h"

#include <algorithm>
#include <map>
#include <set>

namespace torvale::engine {

namespace {

constexpr std::size_t most_terms = 64;
constexpr std::size_t most_factors = 256; // that one value is multiplied by
constexpr std::size_t most_parts = 8;     // of a product
constexpr int most_rounds = 24;

class Totaliser {
public:
  // `sparing`: every sum that is multiplied by several things is kept whole.
  Totaliser(CMPGLOBAL& gcmp, bool sparing) : gcmp_(gcmp), graph_(gcmp.graph), sparing_(sparing) {}

  // False when there is too much of it.
  bool run(const std::vector<NodeId>& outputs, const std::set<NodeId>& whole, std::vector<NodeId>& totals)
  {
    whole_ = whole;
    for (const NodeId id : outputs) open_[id].insert(Product());
    while (!open_.empty()) { // users come before what they use
      const auto last = std::prev(open_.end());
      const NodeId id = last->first;
      const std::set<Product> by = std::move(last->second);
      open_.erase(last);
      if (by.size() > most_factors) return false;
      take_apart(id, by);
    }
    for (const NodeId id : outputs) totals.push_back(total(id, Product()));
    return terms_.size() <= most_terms;
  }

  const std::vector<NodeId>& terms() const { return terms_; }
  const std::set<NodeId>& whole() const { return whole_; }

private:
  using Product =
      std::vector<NodeId>; // of values that vary by record, and masks; ascending, with repetitions; empty: 1

  bool same_for_all_records(NodeId id)
  {
    const Stage stage = gcmp_.dependence.stage(id);
    return stage == Stage::parameter || stage == Stage::point;
  }

  // The same at all points: an observation, say. What remains of it when something is subtracted may be little, and
  // that little is what should be added up.
  bool of_record(NodeId id)
  {
    const Stage stage = gcmp_.dependence.stage(id);
    return stage == Stage::data || stage == Stage::observation;
  }

  // What is not taken apart further.
  bool is_whole(NodeId id)
  {
    if (whole_.count(id) > 0) return true;
    const Node& n = graph_.node(id);
    if (n.kind != NodeKind::kernel) return true;
    switch (n.kernel) {
    case Kernel::add:
    case Kernel::subtract:
      return of_record(n.operand[0]) || of_record(n.operand[1]) || !varies_by_point_alone_within(id);
    case Kernel::select: // a guard of parameters, or what is nothing in some records
      return !same_for_all_records(n.operand[0]) && !graph_.is_constant(n.operand[2], 0.0);
    case Kernel::negate:
    case Kernel::multiply:
    case Kernel::square:
      return false;
    case Kernel::divide:
    case Kernel::divide_unchecked:
      return !same_for_all_records(n.operand[1]);
    default:
      return true;
    }
  }

  // Whether something in the sums, products and quotients that make it comes out of a sum over records.
  bool varies_by_point_alone_within(NodeId id)
  {
    if (same_for_all_records(id)) return !graph_.is_constant(id);
    const Node& n = graph_.node(id);
    if (n.kind != NodeKind::kernel) return false;
    if (const auto known = within_.find(id); known != within_.end()) return known->second;
    const NodeId a = n.operand[0], b = n.operand[1];
    bool found = false;
    switch (n.kernel) {
    case Kernel::select:
      found = same_for_all_records(a);
      break;
    case Kernel::add:
    case Kernel::subtract:
    case Kernel::multiply:
      found = varies_by_point_alone_within(a) || varies_by_point_alone_within(b);
      break;
    case Kernel::negate:
    case Kernel::square:
      found = varies_by_point_alone_within(a);
      break;
    case Kernel::divide:
    case Kernel::divide_unchecked:
      found = varies_by_point_alone_within(a) || same_for_all_records(b);
      break;
    default:
      break;
    }
    return within_[id] = found;
  }

  // Whether the sum has two of these among its terms, as one that is multiplied by itself. Of a sum of too many, or of
  // products of sums, it is thought so.
  bool has_terms(NodeId sum, const std::set<Product>& of)
  {
    std::set<Product> terms;
    if (!list_terms(sum, terms)) return true;
    return std::count_if(of.begin(), of.end(), [&](const Product& p) { return terms.count(p) > 0; }) > 1;
  }
  bool list_terms(NodeId id, std::set<Product>& terms)
  {
    const Node n = graph_.node(id);
    if (!same_for_all_records(id) && !is_whole(id)) {
      if (n.kernel == Kernel::add || n.kernel == Kernel::subtract)
        return list_terms(n.operand[0], terms) && list_terms(n.operand[1], terms);
      if (const NodeId inner = core(id); inner != id) return list_terms(inner, terms);
    }
    Product varying;
    if (!single(id, varying)) return false;
    terms.insert(varying);
    return terms.size() <= most_terms;
  }

  static Product joined(const Product& a, const Product& b)
  {
    Product both;
    std::merge(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(both));
    return both;
  }

  static std::set<Product> times(const std::set<Product>& all, const Product& factor)
  {
    std::set<Product> products;
    for (const Product& p : all) products.insert(joined(p, factor));
    return products;
  }

  // A part of a product that makes it 0, even a missing one, where the mask is not set; and its mask.
  static NodeId where(NodeId mask) { return -1 - mask; }
  static NodeId mask_of(NodeId part) { return -1 - part; }

  // Whether a value is a single product, and what of it varies by record.
  bool single(NodeId id, Product& varying)
  {
    if (same_for_all_records(id)) return true;
    if (varying.size() > most_parts) return false;
    if (is_whole(id)) {
      varying.insert(std::upper_bound(varying.begin(), varying.end(), id), id);
      return true;
    }
    const Node n = graph_.node(id);
    switch (n.kernel) {
    case Kernel::multiply:
      return single(n.operand[0], varying) && single(n.operand[1], varying);
    case Kernel::square:
      return single(n.operand[0], varying) && single(n.operand[0], varying);
    case Kernel::negate:
    case Kernel::divide:
    case Kernel::divide_unchecked:
      return single(n.operand[0], varying);
    default:
      return false;
    }
  }

  // The sum that a multiple of it is made of, or the value itself.
  NodeId core(NodeId id)
  {
    while (!is_whole(id)) {
      const Node& n = graph_.node(id);
      const NodeId a = n.operand[0], b = n.operand[1];
      if (n.kernel == Kernel::negate || n.kernel == Kernel::divide || n.kernel == Kernel::divide_unchecked)
        id = a;
      else if (n.kernel == Kernel::multiply && same_for_all_records(a))
        id = b;
      else if (n.kernel == Kernel::multiply && same_for_all_records(b))
        id = a;
      else
        break;
    }
    return id;
  }

  void pass_on(NodeId id, const std::set<Product>& by)
  {
    if (!same_for_all_records(id)) open_[id].insert(by.begin(), by.end());
  }

  // Decides how the products of a value and these are added up.
  void take_apart(NodeId id, const std::set<Product>& by)
  {
    if (same_for_all_records(id) || is_whole(id)) return;
    const Node n = graph_.node(id);
    const NodeId a = n.operand[0], b = n.operand[1];
    switch (n.kernel) {
    case Kernel::add:
    case Kernel::subtract:
      if (by.size() > 1 && (sparing_ || has_terms(id, by))) {
        whole_.insert(id);
        return;
      }
      pass_on(a, by);
      pass_on(b, by);
      return;
    case Kernel::multiply:
      return take_product_apart(id, a, b, by);
    case Kernel::select:
      if (!same_for_all_records(a)) return pass_on(b, times(by, {where(a)}));
      pass_on(b, by);
      pass_on(n.operand[2], by);
      return;
    case Kernel::square:
      if (Product of_a; !single(a, of_a)) whole_.insert(core(a));
      return;
    default: // negate, divide
      return pass_on(a, by);
    }
  }

  void take_product_apart(NodeId id, NodeId a, NodeId b, const std::set<Product>& by)
  {
    Product varying;
    NodeId factor = b, rest = a;
    if (!single(b, varying)) {
      varying.clear();
      factor = a;
      rest = b;
      if (!single(a, varying)) { // sums both: one is kept whole
        if (core(b) < core(a)) std::swap(factor, rest);
        whole_.insert(core(factor));
        varying.clear();
        single(factor, varying);
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
    if (same_for_all_records(id)) return graph_.multiply(id, total_of_term(by));
    if (is_whole(id)) return total_of_term(joined(by, {id}));
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
      if (!same_for_all_records(a)) return total(b, joined(by, {where(a)}));
      return graph_.select(a, total(b, by), total(n.operand[2], by));
    case Kernel::multiply: {
      const NodeId factor = factor_.at(id), rest = factor == a ? b : a;
      return multiple(factor, total(rest, joined(by, varying_part(factor))));
    }
    case Kernel::square: {
      const Product part = varying_part(a);
      return multiple(a, multiple(a, total_of_term(joined(joined(by, part), part))));
    }
    default:
      return graph_.apply(n.kernel, {total(a, by), b});
    }
  }

  Product varying_part(NodeId factor)
  {
    Product varying;
    single(factor, varying);
    return varying;
  }

  // What of a single product does not vary by record, times a total.
  NodeId multiple(NodeId factor, NodeId total)
  {
    if (same_for_all_records(factor)) return graph_.multiply(factor, total);
    if (is_whole(factor)) return total;
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
  const bool sparing_;
  std::set<NodeId> whole_;
  std::map<NodeId, bool> within_;
  std::map<NodeId, std::set<Product>> open_; // values, and what their sums over records are multiplied by
  std::map<NodeId, NodeId> factor_;          // per product: the operand that comes out of the sums, or into their terms
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
      Totaliser totaliser(gcmp, sparing);
      std::vector<NodeId> found;
      if (!totaliser.run(nodes, kept, found)) return;
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
