#include "integration/objective.h"

#include "integration/subjects/evaluation_parts.h"
#include "integration/subjects/slot_tree.h"
#include "matrix/packed.h"

#include <algorithm>

namespace torvale::integration {

using model::NX;

int outer_products(NX& n, std::vector<double>& sum)
{
  using Evaluated = model::GroupState::Evaluated;
  if (n.failed || n.ebtrial_point != n.parm) return 1;
  if (n.evaluated == Evaluated::sums) sum = n.kept_products;
  if (n.evaluated != Evaluated::gradient) return n.evaluated == Evaluated::sums && !sum.empty() ? 0 : 1;
  sum.assign(static_cast<std::size_t>(matrix::packed_size(n.nparm)), 0.0);
  if (sum.empty()) return 0; // no parameters
  if (n.nreff() == 0) return add_record_products(n, *n.ctx[0], sum.data());
  const auto add = [&](long first, long last, double* products) {
    for (long slot = first; slot < last; ++slot) {
      const auto& s = n.outer().SubInfo[static_cast<std::size_t>(slot)];
      if (!s.badsub) add_outer_product(n.slot_grad.data() + slot * n.grad_stride, n.nparm, s.weight, products);
    }
  };
  std::vector<double> room;
  SlotTree tree(room, static_cast<long>(n.slot_value.size()), sum.size());
  std::copy_n(tree.sum(n.workers.get(), add), sum.size(), sum.begin());
  return 0;
}

int form_meat(NX& n)
{
  if (n.nreff() == 0 || outer_products(n, n.meat) != 0) return 1;
  n.havemeat = true;
  return 0;
}

} // namespace torvale::integration
