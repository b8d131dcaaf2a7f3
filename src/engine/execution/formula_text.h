#pragma once
// Values of the graph as formulas of the language, for listings.

#include "engine/graph/compiler.h"

#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace torvale::engine {

// Writes nodes as a person would: variables of the program under their names, products as fractions, masks as
// conditions. What a formula says is the node's value in exact arithmetic; roundings and special cases at removable
// points are left out.
class FormulaText {
public:
  explicit FormulaText(const CMPGLOBAL& gcmp);

  // From now on what several of these nodes have in common goes by names "#1", "#2", ...; gives their lines.
  std::string share(std::span<const NodeId> roots);
  // The formula of a node; cut when it grows beyond what a person reads.
  std::string operator()(NodeId id);

private:
  // How tightly a formula holds together, loosest first.
  enum Strength { choice, either, both, comparison, sum, product, power, primary };

  // numerator * above / (denominator * below); factors with their powers.
  struct Product {
    double numerator = 1.0, denominator = 1.0;
    std::vector<std::pair<NodeId, int>> above, below;
  };
  struct Term {
    Product product;
    bool minus = false;
  };

  const Node& node(NodeId id) const { return gcmp_.graph.node(id); }
  bool is(NodeId id, Kernel k) const { return node(id).kind == NodeKind::kernel && node(id).kernel == k; }
  const std::string* name_of(NodeId id) const;
  bool full() const;

  void write(NodeId id, Strength around);
  void write_kernel(NodeId id, Strength around);
  void write_call(NodeId id);
  void write_choice(NodeId id, Strength around);
  void write_truth(NodeId id, bool negated, Strength around);
  void write_comparison(NodeId id, bool negated, Strength around);
  void write_sum(NodeId id, Strength around);
  void write_product(const Product& p);
  void write_factors(const std::vector<std::pair<NodeId, int>>& factors);

  std::vector<Term> terms_of(NodeId id) const;
  Product product_of(NodeId id, bool& minus) const;

  const CMPGLOBAL& gcmp_;
  std::unordered_map<NodeId, std::string> names_;
  std::string out_;
};

} // namespace torvale::engine
