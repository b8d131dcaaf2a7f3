#include "engine/stages/record_products.h"

#include <algorithm>
#include <iterator>

namespace torvale::engine {

namespace {

constexpr std::size_t most_parts = 8; // of a product

} // namespace

Product joined(const Product& a, const Product& b)
{
  Product both;
  std::merge(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(both));
  return both;
}

Products times(const Products& all, const Product& factor)
{
  Products products;
  for (const Product& p : all) products.insert(joined(p, factor));
  return products;
}

bool RecordProducts::same_for_all_records(NodeId id) const
{
  const Stage stage = gcmp_.dependence.stage(id);
  return stage == Stage::parameter || stage == Stage::point;
}

// The same at all points: an observation, say. What remains of it when something is subtracted may be little, and
// that little is what should be added up.
bool RecordProducts::of_record(NodeId id) const
{
  const Stage stage = gcmp_.dependence.stage(id);
  return stage == Stage::data || stage == Stage::observation;
}

bool RecordProducts::is_whole(NodeId id)
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
bool RecordProducts::varies_by_point_alone_within(NodeId id)
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

bool RecordProducts::has_terms(NodeId sum, const Products& of)
{
  Products terms;
  if (!list_terms(sum, terms)) return true;
  return std::count_if(of.begin(), of.end(), [&](const Product& p) { return terms.count(p) > 0; }) > 1;
}

bool RecordProducts::list_terms(NodeId id, Products& terms)
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

bool RecordProducts::single(NodeId id, Product& varying)
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

NodeId RecordProducts::core(NodeId id)
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

Product RecordProducts::varying_part(NodeId factor)
{
  Product varying;
  single(factor, varying);
  return varying;
}

} // namespace torvale::engine
