// The loops, for the instruction set that this file is compiled for. Logistic and Poisson are written out; the
// compartment models are sums of exponentials in jets, with all that depends on the point alone computed before the
// loop. Both sides of a branch are computed and one is chosen, as the program does. Parameters that enter through one
// sum with a random effect have the same derivative, which is stored twice.

#include "engine/hand_loops.h"
#include "engine/jets.h"

namespace torvale::bench {
namespace {

using namespace engine;

constexpr int stride = 512;
constexpr double impossible = -1e20;
constexpr double tiny = 1.110223024625157e-16;

void put(double* out, int output, int i, Lanes x)
{
  store(out + output * stride + i, unless(is_nan(x), x));
}

template <int Order> void logistic_loop(const HandInput& in, double* out, int lanes)
{
  const double shift = in.theta[0] + in.effects[0];
  for (int i = 0; i < lanes; i += width) {
    const Lanes time = load(in.time + i), one = all(1.0);
    const Mask success = load(in.dv + i) > one;
    const Lanes eta = all(in.theta[1]) * time + all(shift);
    const Lanes e = lane::exp(-eta);
    const Lanes p = one / (one + e), q = one - p;
    const Mask bad = (success & (p <= all(tiny))) | (~success & (p >= all(1.0 - tiny)));
    const Lanes r = one_or_zero(success);
    Lanes ll = if_else(success, r * lane::log(p), Lanes{});
    ll = if_else(success, ll, ll + (one - r) * lane::log(q));
    put(out, 0, i, if_else(bad, all(impossible), ll));
    if (Order == 0) continue;
    const Lanes slope = if_else(success, r / p, -(one - r) / q);
    const Lanes g = if_else(bad, Lanes{}, slope * (e * p * p));
    if (Order == 1) {
      put(out, 1, i, g);
      put(out, 2, i, g * time);
      put(out, 3, i, g);
    } else {
      const Lanes h = if_else(bad, Lanes{}, -p * q);
      put(out, 1, i, g);
      put(out, 2, i, h);
    }
  }
}

template <int Order> void poisson_loop(const HandInput& in, double* out, int lanes)
{
  const double shift = in.theta[0] + in.effects[0];
  for (int i = 0; i < lanes; i += width) {
    const Lanes time = load(in.time + i);
    const Lanes y = largest_whole_below(load(in.dv + i) * all(3.0));
    const Lanes lambda = lane::exp(all(in.theta[1]) * time + all(shift));
    const Mask bad = (lambda < all(tiny)) | (lambda > all(1.3407807929943e+154));
    const Lanes ll = -lambda - load(in.log_factorial + i) + y * lane::log(lambda);
    put(out, 0, i, if_else(bad, all(impossible), ll));
    if (Order == 0) continue;
    const Lanes g = if_else(bad, Lanes{}, y - lambda);
    put(out, 1, i, g);
    if (Order == 1) {
      put(out, 2, i, g * time);
      put(out, 3, i, g);
    } else {
      put(out, 2, i, if_else(bad, Lanes{}, -lambda));
    }
  }
}

// The normal log likelihood of dv with mean `conc`, and its outputs. N: variables of the jets; Variance: which of them
// is the variance, -1 when it is not one (mode search). `again`: variables stored a second time, for the random
// effects.
template <int N, int O, int Variance>
void normal_outputs(const Jet<Lanes, N, O>& conc, Lanes dv, double s2, const int (&again)[3], double* out, int i)
{
  const Lanes r = dv - conc.v;
  const Mask absent = is_nan(dv) | is_nan(conc.v);
  const Mask bad = magnitude(r) > all(1.3407807929943e154);
  const Lanes ll = all(-0.5) * (all(1.8378770664093456) + r * r / all(s2) + all(std::log(s2)));
  put(out, 0, i, if_else(absent, missing_lanes(), if_else(bad, all(impossible), ll)));
  const Mask none = absent | bad;
  const Lanes slope = r * all(1.0 / s2);
  for (int k = 0; k < conc.gradients; ++k) {
    const Lanes g = k == Variance ? all(-0.5 / s2) + all(0.5 / (s2 * s2)) * r * r : slope * conc.g[k];
    const Lanes value = if_else(none, Lanes{}, g);
    put(out, 1 + k, i, value);
    if (O == 1)
      for (int u = 0; u < 3; ++u)
        if (again[u] == k) put(out, 1 + N + u, i, value);
  }
  for (int a = 0, k = 0; k < conc.hessians; ++a)
    for (int b = 0; b <= a; ++b, ++k)
      put(out, 1 + N + k, i, if_else(none, Lanes{}, slope * conc.h[k] - all(1.0 / s2) * conc.g[a] * conc.g[b]));
}

// The variables of a set of outputs: of the gradient the parameters, of the mode search the random effects.
template <int N, int O> Jet<double, N, O> input(const HandInput& in, int parameter, int effect)
{
  const double x = in.theta[parameter] + (effect >= 0 ? in.effects[effect] : 0.0);
  return Jet<double, N, O>::variable(x, O == 2 ? effect : parameter);
}

template <int N, int O> void one_compartment_loop(const HandInput& in, double* out, int lanes)
{
  using D = Jet<double, N, O>;
  using L = Jet<Lanes, N, O>;
  static L factor, minus_ke, minus_ka;
  if (in.new_point) {
    const D ka = exponential(input<N, O>(in, 0, 0)), cl = exponential(input<N, O>(in, 1, 1)),
            ke = exponential(input<N, O>(in, 2, 2));
    factor = L(D(100.0) * ke * ka / (cl * (ka - ke)));
    minus_ke = L(D(0.0) - ke);
    minus_ka = L(D(0.0) - ka);
  }
  for (int i = 0; i < lanes; i += width) {
    const Lanes time = load(in.time + i);
    const L conc = factor * (exponential(times(minus_ke, time)) - exponential(times(minus_ka, time)));
    normal_outputs<N, O, O == 2 ? -1 : 3>(conc, load(in.dv + i), in.theta[3], {0, 1, 2}, out, i);
  }
}

template <int N, int O> void two_compartment_loop(const HandInput& in, double* out, int lanes)
{
  using D = Jet<double, N, O>;
  using L = Jet<Lanes, N, O>;
  static L a1, a2, b1, b2, m1, m2;
  if (in.new_point) {
    const D k10 = exponential(input<N, O>(in, 0, 0)), k12 = exponential(input<N, O>(in, 1, 1)),
            k21 = exponential(input<N, O>(in, 2, -1));
    const D v = exponential(input<N, O>(in, 3, 2));
    const D e1 = k10 + k12, sum = e1 + k21, difference = root(sum * sum - D(4.0) * (e1 * k21 - k12 * k21));
    const D l1 = D(0.5) * (sum + difference), l2 = D(0.5) * (sum - difference);
    const D f1 = D(50.0) / v * ((k21 - l1) / (l2 - l1)) / l1, f2 = D(50.0) / v * ((k21 - l2) / (l1 - l2)) / l2;
    const D late1 = f1 * (D(1.0) - exponential(D(-2.0) * l1)), late2 = f2 * (D(1.0) - exponential(D(-2.0) * l2));
    a1 = L(f1);
    a2 = L(f2);
    b1 = L(late1);
    b2 = L(late2);
    m1 = L(D(0.0) - l1);
    m2 = L(D(0.0) - l2);
  }
  for (int i = 0; i < lanes; i += width) {
    const Lanes time = load(in.time + i);
    const Mask during = time <= all(2.0);
    const Lanes after = time - all(2.0);
    const L early = a1 * (L(1.0) - exponential(times(m1, time))) + a2 * (L(1.0) - exponential(times(m2, time)));
    const L late = b1 * exponential(times(m1, after)) + b2 * exponential(times(m2, after));
    L conc;
    conc.v = if_else(during, early.v, late.v);
    for (int k = 0; k < conc.gradients; ++k) conc.g[k] = if_else(during, early.g[k], late.g[k]);
    for (int k = 0; k < conc.hessians; ++k) conc.h[k] = if_else(during, early.h[k], late.h[k]);
    normal_outputs<N, O, O == 2 ? -1 : 4>(conc, load(in.dv + i), in.theta[4], {0, 1, 3}, out, i);
  }
}

template <int N, int O> void three_compartment_loop(const HandInput& in, double* out, int lanes)
{
  using D = Jet<double, N, O>;
  using L = Jet<Lanes, N, O>;
  static L coefficient[4], minus_rate[4];
  if (in.new_point) {
    const D ka = exponential(input<N, O>(in, 0, 0)), k10 = exponential(input<N, O>(in, 1, 1)),
            k12 = exponential(input<N, O>(in, 2, -1));
    const D k21 = exponential(input<N, O>(in, 3, -1)), k13 = exponential(input<N, O>(in, 4, -1)),
            k31 = exponential(input<N, O>(in, 5, -1));
    const D v = exponential(input<N, O>(in, 6, 2));
    const D out1 = k10 + k12 + k13;
    const D a = out1 + k21 + k31;
    const D b = out1 * k21 + k31 * (out1 + k21) - k12 * k21 - k13 * k31;
    const D c = out1 * k21 * k31 - k31 * k12 * k21 - k21 * k13 * k31;
    const D m = (D(3.0) * b - a * a) / D(3.0);
    const D n = (D(2.0) * a * a * a - D(9.0) * a * b + D(27.0) * c) / D(27.0);
    const D q = n * n / D(4.0) + m * m * m / D(27.0);
    const D alpha = root(D(0.0) - q), beta = D(-0.5) * n;
    const D gam = cube_root(root(beta * beta + alpha * alpha));
    const D third = angle(alpha, beta) / D(3.0);
    const D co = cosine(third), si = D(std::sqrt(3.0)) * sine(third);
    const D root1 = a / D(3.0) + gam * (co + si), root2 = a / D(3.0) + gam * (co - si),
            root3 = a / D(3.0) - D(2.0) * gam * co;
    const D scale = D(100.0) * ka / v;
    const D all_rates[4] = {root1, root2, root3, ka};
    for (int j = 0; j < 4; ++j) {
      D f = scale * (k21 - all_rates[j]) * (k31 - all_rates[j]);
      for (int k = 0; k < 4; ++k)
        if (k != j) f = f / (all_rates[k] - all_rates[j]);
      coefficient[j] = L(f);
      minus_rate[j] = L(D(0.0) - all_rates[j]);
    }
  }
  for (int i = 0; i < lanes; i += width) {
    const Lanes time = load(in.time + i);
    L conc = coefficient[0] * exponential(times(minus_rate[0], time));
    for (int j = 1; j < 4; ++j) conc = conc + coefficient[j] * exponential(times(minus_rate[j], time));
    normal_outputs<N, O, O == 2 ? -1 : 7>(conc, load(in.dv + i), in.theta[7], {0, 1, 6}, out, i);
  }
}

} // namespace

constexpr HandLoops table{{
    {logistic_loop<0>, logistic_loop<1>, logistic_loop<2>},
    {poisson_loop<0>, poisson_loop<1>, poisson_loop<2>},
    {one_compartment_loop<4, 0>, one_compartment_loop<4, 1>, one_compartment_loop<3, 2>},
    {two_compartment_loop<5, 0>, two_compartment_loop<5, 1>, two_compartment_loop<3, 2>},
    {three_compartment_loop<8, 0>, three_compartment_loop<8, 1>, three_compartment_loop<3, 2>},
}};
#if defined(__AVX512F__)
const HandLoops hand_loops_avx512 = table;
#elif defined(__AVX2__)
const HandLoops hand_loops_avx2 = table;
#else
const HandLoops hand_loops_baseline = table;
#endif

} // namespace torvale::bench
