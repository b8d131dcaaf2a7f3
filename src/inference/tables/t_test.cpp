#include "host/values/missing.h"
#include "inference/tables/tables.h"
#include "probability/f.h"
#include "probability/quantiles.h"

#include <cmath>

namespace torvale::inference {

int tvltval(TVAL& t)
{
  t.tval = t.prob = t.lower = t.upper = host::missing;
  if (!std::isfinite(t.estimate) || !(t.sder > 0.0) || !std::isfinite(t.sder)) return 1;
  if (std::isnan(t.dfe) || std::isnan(t.alpha)) return 1;
  t.tval = t.estimate / t.sder;
  if (!std::isfinite(t.tval)) {
    t.tval = host::missing;
    return 1;
  }
  const double p = probability::zprbf(t.tval * t.tval, 1.0, t.dfe); // upper tail of F(1, df): two-sided t
  t.prob = p == -1.0 ? host::missing : p;
  double q = 0.0;
  if (t.alpha > 0.0 && t.alpha < 1.0 && probability::zqt(1.0 - t.alpha / 2.0, t.dfe, &q) == 0) {
    t.lower = t.estimate - q * t.sder;
    t.upper = t.estimate + q * t.sder;
  }
  return 0;
}

} // namespace torvale::inference
