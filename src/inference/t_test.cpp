#include "host/missing.h"
#include "inference/tables.h"
#include "probability/f.h"
#include "probability/quantiles.h"

#include <cmath>
#include <limits>

namespace torvale::inference {

int tvltval(TVAL& t)
{
  constexpr double tiny = std::numeric_limits<double>::min();
  constexpr double largest = std::numeric_limits<double>::max();
  const bool unusable = std::isnan(t.estimate) || std::isnan(t.sder) || std::isnan(t.dfe) || std::isnan(t.alpha);
  if (unusable || (std::abs(t.estimate) < tiny && std::abs(t.sder) < tiny)) {
    t.tval = t.prob = t.lower = t.upper = host::missing;
    return 1;
  }
  if (std::abs(t.sder) < tiny) { // an estimate without error
    t.tval = t.upper = largest;
    t.lower = -largest;
    t.prob = 0.0;
    return 0;
  }
  t.tval = t.estimate / t.sder;
  const double p = probability::zprbf(t.tval * t.tval, 1.0, t.dfe); // upper tail of F(1, df): two-sided t
  t.prob = p == -1.0 ? host::missing : p;
  double q = 0.0;
  if (t.alpha > 0.0 && t.alpha < 1.0 && probability::zqt(1.0 - t.alpha / 2.0, t.dfe, &q) == 0) {
    t.lower = t.estimate - q * t.sder;
    t.upper = t.estimate + q * t.sder;
  } else {
    t.lower = t.upper = host::missing;
  }
  return 0;
}

} // namespace torvale::inference
