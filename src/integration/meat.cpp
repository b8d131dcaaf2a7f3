#include "integration/objective.h"

#include "integration/subjects/evaluation_parts.h"
#include "matrix/packed.h"

namespace torvale::integration {

using model::NX;

int outer_products(NX& n, std::vector<double>& sum)
{
  if (n.failed || !n.dograd || n.ebtrial_point != n.parm) return 1;
  sum.assign(static_cast<std::size_t>(matrix::packed_size(n.nparm)), 0.0);
  if (n.nreff() == 0) return add_record_products(n, *n.ctx[0], sum.data());
  for (const auto& s : n.outer().SubInfo)
    if (!s.badsub)
      add_outer_product(n.slot_grad.data() + static_cast<long>(s.index) * n.grad_stride, n.nparm, s.weight, sum.data());
  return 0;
}

int form_meat(NX& n)
{
  if (n.nreff() == 0 || outer_products(n, n.meat) != 0) return 1;
  n.havemeat = true;
  return 0;
}

} // namespace torvale::integration
