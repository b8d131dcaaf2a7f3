#include "probability/chi_square.h"

#include "probability/constants.h"
#include "probability/gamma.h"

namespace torvale::probability {

Tails chi_square_tails(double x, double df)
{
  Tails t = gamma_tails(0.5 * x, 0.5 * df);
  t.log_density -= ln2;
  return t;
}

} // namespace torvale::probability
