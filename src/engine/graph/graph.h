#pragma once
// The value graph: everything a model computes, as hash-consed nodes without side effects.
//
// Statements become selects over masks, so the graph has no control flow; two exceptions are "carried" values, which
// come from an earlier pass of the same code: from the record before (RETAIN, sums, lags) or from the iteration before
// (loops whose count is not known at compile time). Equal operations on equal operands are one node. A node's operands
// have smaller ids than the node, so increasing ids are an order of evaluation (next values of carries excepted).
//
// Truth values are the numbers 1 and 0. A missing value is a NaN of any kind. Where a program can meet special missing
// values (._, .A to .Z) their kind matters: nodes that may hold one are compared by kind, and arithmetic sees the
// ordinary missing value in its place.

#include "engine/kernels/kernels.h"
#include "syntax/source.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace torvale::engine {

using NodeId = std::int32_t;
inline constexpr NodeId no_node = -1;

enum class NodeKind : std::uint8_t {
  constant, // `value`
  symbol, // input: `index` is the symbol's place in the symbol table; data, parameter or random effect is decided later
  kernel, // `kernel` applied to the operands
  carry,  // value of carry `index` on entry of the pass: see Carry
  result, // value of carry `index` after its loop has ended
  text,   // number that the text expression `index` yields; operands are its numeric inputs
  row,    // number of the record, from 0 in the bound data: the counter of random functions
};

struct Node {
  NodeKind kind = NodeKind::constant;
  Kernel kernel = Kernel::copy;
  std::int32_t index = 0;    // of symbol, carry, result, text
  std::int32_t operands = 0; // count of operands
  std::array<NodeId, kernel_operands_max> operand{};
  double value = 0.0;     // of constant
  std::int32_t where = 0; // GraphBuilder::origin_at: the statement it first stood in
};

inline bool is_kernel(const Node& n, Kernel k)
{
  return n.kind == NodeKind::kernel && n.kernel == k;
}

// Carry: a value handed from one pass to the next. Loop 0 is the sequence of records of a subject; the others are
// loops of the program. All carries of a loop step together, so adding one (a derivative, say) changes no other.
struct Carry {
  std::int32_t loop = 0;
  NodeId initial = no_node; // value at the first pass; of loop 0 a constant
  NodeId next = no_node;    // value handed to the next pass, in terms of carries of the same loop
  NodeId entry = no_node;   // the carry node
};

// Origin: an execution of a statement. `path` and `active` are the masks under which it takes place.
struct Origin {
  syntax::Position where;
  std::int32_t caller = -1; // origin of the call, in a subprogram
  NodeId path = no_node;
  NodeId active = no_node;
};

struct Loop {
  std::int32_t parent = 0; // loop of the program around it; 0: none
  NodeId condition =
      no_node; // truth value, in terms of the carries on entry: another pass is made while any lane has it
  std::vector<std::int32_t> carries;
  syntax::Position where;
};

// True for kernels whose value is always 1 or 0: comparisons, logic, tests for missing values.
bool answers_truth(Kernel k);

// GraphBuilder: makes nodes, simplifying as it goes. A rewritten node has the same value, missing values included, with
// two exceptions: sums and products are regrouped by what their parts vary with (groups.cpp), and exponentials,
// logarithms and logistic functions of each other give way to simpler forms (algebra.cpp). There the last digits may
// differ, and a value may be found where the program as written would have met an overflow or the logarithm of 0. In
// derivative mode
// (`Derivative` below) a factor that is the constant 0 makes a product 0: derivatives of what does not vary are 0 even
// where the other factor is missing.
class GraphBuilder {
public:
  GraphBuilder();

  // --- nodes ---
  const Node& node(NodeId id) const { return nodes_[static_cast<std::size_t>(id)]; }
  NodeId operand(NodeId id, int k) const { return node(id).operand[static_cast<std::size_t>(k)]; }
  int size() const { return static_cast<int>(nodes_.size()); }
  bool is_constant(NodeId id) const { return node(id).kind == NodeKind::constant; }
  bool is_constant(NodeId id, double v) const { return is_constant(id) && node(id).value == v; }
  double value(NodeId id) const { return node(id).value; }
  bool is_truth(NodeId id) const { return truth_[static_cast<std::size_t>(id)]; } // known to be 1 or 0
  bool never_missing(NodeId id) const;             // known not to be missing, whatever the data
  void declare_present(std::int32_t symbol_index); // an input that is never missing: a parameter or random effect

  // What inputs vary with, declared before the statements are translated: sums are grouped by it.
  enum : std::uint8_t { by_record = 1, by_point = 2 };
  void declare_variation(std::int32_t symbol_index, std::uint8_t with);
  std::uint8_t variation(NodeId id);

  // Special missing values come from constants and from the variables declared so. A graph that has met one compares by
  // kind from then on: what was built before must be built again.
  void declare_special(std::int32_t symbol_index);
  bool has_special_missing() const { return special_missing_; }
  bool may_be_special(NodeId id) const;

  NodeId constant(double v);
  NodeId zero() { return constant(0.0); }
  NodeId one() { return constant(1.0); }
  NodeId missing(); // the ordinary missing value
  NodeId symbol(std::int32_t index);
  NodeId row();
  NodeId text(std::int32_t text_index, std::span<const NodeId> numeric_inputs);
  std::int32_t new_loop(std::int32_t parent, syntax::Position where);
  NodeId carry(std::int32_t loop, NodeId initial); // makes a new carry; its carry node. Set `next` later
  NodeId result(std::int32_t carry_index);
  Carry& carry_at(std::int32_t index) { return carries_[static_cast<std::size_t>(index)]; }
  const Carry& carry_at(std::int32_t index) const { return carries_[static_cast<std::size_t>(index)]; }
  Loop& loop_at(std::int32_t index) { return loops_[static_cast<std::size_t>(index)]; }
  const Loop& loop_at(std::int32_t index) const { return loops_[static_cast<std::size_t>(index)]; }
  int loops() const { return static_cast<int>(loops_.size()); }
  int carries() const { return static_cast<int>(carries_.size()); }

  // A kernel on operands: shared, folded when all are constant, simplified by the rules of the named functions below.
  NodeId apply(Kernel k, std::initializer_list<NodeId> operands);
  NodeId apply(Kernel k, std::span<const NodeId> operands);

  // --- arithmetic ---
  NodeId add(NodeId a, NodeId b);
  NodeId subtract(NodeId a, NodeId b);
  NodeId multiply(NodeId a, NodeId b);
  NodeId divide(NodeId a, NodeId b); // missing when b is 0
  NodeId negate(NodeId a);
  NodeId scale(double factor, NodeId a) { return multiply(constant(factor), a); }
  NodeId shift(NodeId a, double term) { return add(a, constant(term)); }
  NodeId square(NodeId a);
  NodeId reciprocal(NodeId a);
  NodeId power(NodeId a, NodeId b); // small constant whole and half powers become multiplications and roots
  NodeId call(Kernel k, NodeId a) { return apply(k, {a}); }
  NodeId call(Kernel k, NodeId a, NodeId b) { return apply(k, {a, b}); }
  NodeId call(Kernel k, NodeId a, NodeId b, NodeId c) { return apply(k, {a, b, c}); }

  // --- truth values ---
  NodeId truth(NodeId a); // 1 when a is neither 0 nor missing
  NodeId compare(Kernel comparison, NodeId a,
                 NodeId b);        // less ... greater_equal: exact; the `known` form where allowed
  NodeId and_(NodeId a, NodeId b); // operands are made truth values
  NodeId or_(NodeId a, NodeId b);
  NodeId not_(NodeId a);
  NodeId select(NodeId mask, NodeId a, NodeId b); // mask ? a : b, per lane; the side not taken has no influence
  NodeId is_missing(NodeId a);
  NodeId ordinary(NodeId a); // a, the ordinary missing value in place of a special one

  // Nodes made from now on are looked at only where the mask is 1: the branches of the program that are being taken.
  void assume(NodeId mask) { assumed_ = mask; }

  // --- where nodes come from ---
  // Nodes made from now on belong to this statement (messages of faults).
  void set_origin(const Origin& origin);
  std::int32_t origin() const { return origin_; }
  void return_to_origin(std::int32_t index) { origin_ = index; }
  void inherit_origin(NodeId id) { origin_ = node(id).where; } // nodes from now on: as that node's
  const Origin& origin_at(std::int32_t index) const { return origins_[static_cast<std::size_t>(index)]; }
  syntax::Position position(NodeId id) const { return origin_at(node(id).where).where; }
  // All statements that compute the node, in order: sharing hides which of them a run has executed.
  std::vector<Origin> origins(NodeId id) const;

  // While one lives the builder is in derivative mode.
  class Derivative {
  public:
    explicit Derivative(GraphBuilder& g) : graph_(g), before_(g.derivative_mode_) { g.derivative_mode_ = true; }
    ~Derivative() { graph_.derivative_mode_ = before_; }
    Derivative(const Derivative&) = delete;
    Derivative& operator=(const Derivative&) = delete;

  private:
    GraphBuilder& graph_;
    bool before_;
  };

  // Nodes asked for so far, shared ones counted each time: what the graph would be without sharing.
  std::int64_t requests() const { return requests_; }

private:
  struct Hash {
    std::size_t operator()(const Node& n) const;
  };
  struct Same {
    bool operator()(const Node& a, const Node& b) const;
  };
  NodeId intern(const Node& n);
  NodeId intern_kernel(Kernel k, std::span<const NodeId> operands);
  NodeId simplified(Kernel k, std::span<const NodeId> operands); // no_node: nothing to simplify
  NodeId whole_power(NodeId a, int n);
  NodeId plain_sum(NodeId a, NodeId b, bool minus); // two operands, as they are
  NodeId plain_product(NodeId a, NodeId b);
  NodeId plain_or(NodeId a, NodeId b);
  NodeId regrouped(Kernel operation, NodeId a, NodeId b, bool minus = false); // add, multiply or or_; no_node: as it is
  NodeId regrouped_quotient(NodeId a, NodeId b);
  struct Parts;
  static constexpr int nested_parts = 2;
  Parts parts(Kernel operation, NodeId a, bool negative, int depth = nested_parts);
  NodeId logarithm(Kernel k, NodeId a); // of log and log_or_minus_infinity; no_node: no simpler form
  NodeId known_logarithm(NodeId a);     // of a product of exponentials and their kin; no_node: it takes a logarithm
  NodeId log_one_plus(NodeId a);        // log(1 + a), likewise
  NodeId log_of_rest(NodeId a);         // log(1 - 1 / (1 + t)), where the rest is known to be below 1
  NodeId logistic_quotient(NodeId a, NodeId b);  // a / b as a logistic function
  NodeId cancelled_quotient(NodeId a, NodeId b); // a / b without an exponential that both have
  bool lost_by_overflow_alone(NodeId a, int depth) const;
  bool assumed_inside_unit(NodeId a) const; // above 0 and below 1
  NodeId one_plus_exp(NodeId a);            // x where a is 1 + exp(x)
  NodeId complement(NodeId a);              // 1 - a where that has a form of its own
  NodeId gamma_ratio(NodeId a, NodeId b);   // lgamma(x + y) - lgamma(x)
  NodeId compare_kinds(Kernel comparison, NodeId a, NodeId b);
  NodeId compare_as_one(Kernel comparison, NodeId a, NodeId b);
  bool found_truth(const Node& n) const;
  bool passes_special(const Node& n) const;

  std::vector<Node> nodes_;
  std::vector<Carry> carries_;
  std::vector<Loop> loops_;
  std::unordered_map<Node, NodeId, Hash, Same> known_; // never iterated: its order has no influence
  std::vector<bool> present_symbols_;
  std::vector<bool> special_symbols_;
  std::vector<std::uint8_t> symbol_variation_;
  std::vector<std::uint8_t> variation_; // per node, as far as they have been asked for
  std::vector<bool> truth_;             // per node
  std::vector<bool> passes_special_; // per node: what it holds may come unchanged from an input, a constant or a carry
  bool special_missing_ = false;
  std::vector<Origin> origins_;
  std::unordered_map<NodeId, std::vector<std::int32_t>> also_; // nodes that further statements asked for
  std::int32_t origin_ = 0;
  NodeId assumed_ = no_node;
  std::int64_t requests_ = 0;
  bool derivative_mode_ = false;
};

// PartialRule: the partial derivative of kernel node `node` by its operand number `operand`, as a node; no_node when no
// rule is known. Rules may use the node itself (exp' = exp) and its operands. They are asked only for operands that
// depend on what is differentiated by; a rule that cannot serve one operand of a kernel returns no_node for that one.
// Comparisons, masks, floor and their kin have derivative 0 and are never asked. select, is_missing, truth: neither.
using PartialRule = NodeId (*)(GraphBuilder& g, NodeId node, int operand);

// ExpansionRule: the value of a language function on numeric arguments. It builds nodes; no_node when the arguments
// do not suit, with the reason in *error (a complete sentence).
using ExpansionRule = NodeId (*)(GraphBuilder& g, std::span<const NodeId> arguments, std::string* error);

} // namespace torvale::engine
