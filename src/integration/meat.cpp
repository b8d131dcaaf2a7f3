#include "integration/objective.h"

#include "matrix/packed.h"

namespace torvale::integration {

using model::NX;

int form_meat(NX& n)
{
  const std::size_t np = static_cast<std::size_t>(n.nparm);
  if (n.nreff() == 0 || n.failed || !n.dograd || n.ebtrial_point != n.parm) return 1;
  n.meat.assign(static_cast<std::size_t>(matrix::packed_size(n.nparm)), 0.0);
  for (const auto& s : n.outer().SubInfo) {
    if (s.badsub) continue;
    const double* const g = n.slot_grad.data() + static_cast<long>(s.index) * n.grad_stride;
    std::size_t k = 0;
    for (std::size_t i = 0; i < np; ++i)
      for (std::size_t j = 0; j <= i; ++j) n.meat[k++] += s.weight * (g[i] * g[j]);
  }
  n.havemeat = true;
  return 0;
}

} // namespace torvale::integration
