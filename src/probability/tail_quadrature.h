#pragma once

namespace torvale::probability {

// Half of the 20-point Gauss-Legendre rule on (-1, 1): nodes and weights.
inline constexpr double legendre_node[10] = {0.076526521133497333755, 0.22778585114164507808, 0.37370608871541956067,
                                             0.510867001950827098,    0.63605368072651502545, 0.74633190646015079261,
                                             0.83911697182221882339,  0.91223442825132590587, 0.96397192727791379127,
                                             0.99312859918509492479};
inline constexpr double legendre_weight[10] = {0.1527533871307258507,   0.14917298647260374679, 0.14209610931838205133,
                                               0.1316886384491766269,   0.11819453196151841731, 0.10193011981724043504,
                                               0.083276741576704748725, 0.06267204833410906357, 0.040601429800386941331,
                                               0.017614007139152118312};

// The integral of a decreasing, smooth integrand from 0 to limit, panel by panel until a panel adds nothing. panel is
// the width over which the integrand falls by no more than about exp(-10): the 20-point rule is then exact to rounding.
// About five panels for the tails of the gamma and beta distributions.
template <class Integrand> double integrate_tail(const Integrand& f, double panel, double limit)
{
  double sum = 0.0;
  for (double start = 0.0; start < limit;) {
    const double width = panel < limit - start ? panel : limit - start;
    const double half = 0.5 * width;
    const double middle = start + half;
    double part = 0.0;
    for (int i = 0; i < 10; ++i)
      part += legendre_weight[i] * (f(middle - half * legendre_node[i]) + f(middle + half * legendre_node[i]));
    sum += part * half;
    if (!(part * half > 1e-18 * sum)) break; // "not above", so that a NaN ends it too
    start += width;
  }
  return sum;
}

} // namespace torvale::probability
