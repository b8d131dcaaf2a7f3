#pragma once
// What of a value varies by record within a point: single products of such things, and the sums that they are factors
// of. cmptotal takes sums over records apart by this.

#include "engine/graph/compiler.h"

#include <map>
#include <set>
#include <vector>

namespace torvale::engine {

inline constexpr std::size_t most_terms = 64; // of all sums, and of one

// Of values that vary by record, and masks (where); ascending, with repetitions; empty: 1.
using Product = std::vector<NodeId>;
using Products = std::set<Product>;

Product joined(const Product& a, const Product& b);
Products times(const Products& all, const Product& factor);

// A part of a product that makes it 0, even a missing one, where the mask is not set; and its mask. Such parts come
// first.
inline NodeId where(NodeId mask)
{
  return -1 - mask;
}
inline NodeId mask_of(NodeId part)
{
  return -1 - part;
}

class RecordProducts {
public:
  RecordProducts(CMPGLOBAL& gcmp, std::set<NodeId> whole) : gcmp_(gcmp), graph_(gcmp.graph), whole_(std::move(whole)) {}

  bool same_for_all_records(NodeId id) const;
  // What is not taken apart further.
  bool is_whole(NodeId id);
  void keep_whole(NodeId id) { whole_.insert(id); }
  const std::set<NodeId>& whole() const { return whole_; } // those that were asked for
  // Whether a value is a single product; what of it varies by record is joined to `varying`.
  bool single(NodeId id, Product& varying);
  Product varying_part(NodeId factor); // of a single product
  // The sum that a multiple of it is made of, or the value itself.
  NodeId core(NodeId id);
  // Whether the sum has two of these among its terms, as one that is multiplied by itself. Of a sum of too many, or of
  // products of sums, it is thought so.
  bool has_terms(NodeId sum, const Products& of);

private:
  bool of_record(NodeId id) const;
  bool varies_by_point_alone_within(NodeId id);
  bool list_terms(NodeId id, Products& terms);

  CMPGLOBAL& gcmp_;
  const GraphBuilder& graph_;
  std::set<NodeId> whole_;
  std::map<NodeId, bool> within_;
};

} // namespace torvale::engine
