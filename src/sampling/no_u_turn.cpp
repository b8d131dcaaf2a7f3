#include "sampling/no_u_turn.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::sampling {

namespace {

constexpr int most_doublings = 10;
constexpr double target_acceptance = 0.8, most_energy_error = 1000.0;
constexpr double infinity = std::numeric_limits<double>::infinity();

double log_sum(double a, double b)
{
  const double high = std::max(a, b);
  return high == -infinity ? -infinity : high + std::log1p(std::exp(std::min(a, b) - high));
}

} // namespace

NoUTurn::NoUTurn(Density& density, std::vector<double> start, long warm_up)
    : density_(density), d_(density.dimension()), warm_up_(warm_up), q_(std::move(start)), g_(q_.size()),
      metric_(q_.size(), 1.0), mean_(q_.size(), 0.0), squares_(q_.size(), 0.0)
{
  logp_ = density_.gradient(q_.data(), g_.data());
  ++gradients_;
  // Windows: a first one for the step size alone, windows of the metric that double, a last one for the step size.
  const bool long_enough = warm_up_ >= 150;
  window_begin_ = long_enough ? 75 : warm_up_ * 15 / 100;
  window_length_ = long_enough ? 25 : std::max(warm_up_ * 75 / 100, 1L);
  window_end_ = window_begin_ + window_length_;
}

bool NoUTurn::possible() const
{
  return std::isfinite(logp_) && std::all_of(g_.begin(), g_.end(), [](double x) { return std::isfinite(x); });
}

double NoUTurn::energy(const State& s) const
{
  double kinetic = 0.0;
  for (std::size_t i = 0; i < s.p.size(); ++i) kinetic += s.p[i] * s.p[i] * metric_[i];
  const double e = 0.5 * kinetic - s.logp;
  return std::isnan(e) ? infinity : e;
}

// One leapfrog step.
void NoUTurn::leap(State& s, double step)
{
  for (std::size_t i = 0; i < s.p.size(); ++i) {
    s.p[i] += 0.5 * step * s.g[i];
    s.q[i] += step * metric_[i] * s.p[i];
  }
  s.logp = density_.gradient(s.q.data(), s.g.data());
  ++gradients_;
  for (std::size_t i = 0; i < s.p.size(); ++i) s.p[i] += 0.5 * step * s.g[i];
}

// The ends of a stretch with total momentum `sum` begin to approach each other.
bool NoUTurn::turns(const std::vector<double>& sum, const State& a, const State& b) const
{
  double left = 0.0, right = 0.0;
  for (std::size_t i = 0; i < sum.size(); ++i) {
    left += sum[i] * metric_[i] * a.p[i];
    right += sum[i] * metric_[i] * b.p[i];
  }
  return !(left > 0.0 && right > 0.0);
}

NoUTurn::Tree NoUTurn::leaf(const State& from, double step)
{
  Tree t;
  t.left = from;
  leap(t.left, step);
  t.right = t.left;
  t.q = t.left.q;
  t.g = t.left.g;
  t.logp = t.left.logp;
  t.momentum = t.left.p;
  const double error = energy(t.left) - energy0_;
  t.log_weight = -error;
  if (error > most_energy_error) {
    diverged_ = true;
    t.valid = false;
  }
  accept_sum_ += std::min(1.0, std::exp(-error));
  ++accept_count_;
  return t;
}

// Adds `other`, grown on one side of `into`. Candidates: within a tree by weight; between the old tree and its new half
// the new one is favoured (biased). False when the joined tree turns.
bool NoUTurn::join(Tree& into, Tree& other, bool forward, bool biased, RandomStream& random)
{
  Tree& first = forward ? into : other;
  Tree& second = forward ? other : into;
  const double total = log_sum(into.log_weight, other.log_weight);
  const double against = biased ? into.log_weight : total;
  if (std::log(random.uniform()) < other.log_weight - against) {
    into.q.swap(other.q);
    into.g.swap(other.g);
    into.logp = other.logp;
  }
  // The whole, and each half with the nearest end of the other.
  std::vector<double> sum = into.momentum;
  for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += other.momentum[i];
  bool straight = !turns(sum, first.left, second.right);
  std::vector<double> part = first.momentum;
  for (std::size_t i = 0; i < part.size(); ++i) part[i] += second.left.p[i];
  straight = straight && !turns(part, first.left, second.left);
  part = second.momentum;
  for (std::size_t i = 0; i < part.size(); ++i) part[i] += first.right.p[i];
  straight = straight && !turns(part, first.right, second.right);
  if (forward)
    into.right = std::move(other.right);
  else
    into.left = std::move(other.left);
  into.momentum = std::move(sum);
  into.log_weight = total;
  return straight;
}

NoUTurn::Tree NoUTurn::grow(const State& from, int depth, double step, RandomStream& random)
{
  if (depth == 0) return leaf(from, step);
  Tree tree = grow(from, depth - 1, step, random);
  if (!tree.valid) return tree;
  const bool forward = step > 0.0;
  Tree other = grow(forward ? tree.right : tree.left, depth - 1, step, random);
  if (!other.valid) {
    tree.valid = false;
    return tree;
  }
  tree.valid = join(tree, other, forward, false, random);
  return tree;
}

void NoUTurn::advance(long iteration, RandomStream& random)
{
  if (iteration == 1 && warm_up_ > 0) {
    first_step_size(random);
    restart_averaging();
  } else if (iteration == 1) {
    first_step_size(random);
  }
  Tree tree;
  tree.left.q = tree.q = q_;
  tree.left.g = tree.g = g_;
  tree.left.p.resize(q_.size());
  for (std::size_t i = 0; i < q_.size(); ++i) tree.left.p[i] = random.normal() / std::sqrt(metric_[i]);
  tree.left.logp = tree.logp = logp_;
  tree.right = tree.left;
  tree.momentum = tree.left.p;
  energy0_ = energy(tree.left);
  tree.log_weight = 0.0;
  diverged_ = false;
  accept_sum_ = 0.0;
  accept_count_ = 0;
  for (int depth = 0; depth < most_doublings; ++depth) {
    const bool forward = random.uniform() < 0.5;
    Tree other = grow(forward ? tree.right : tree.left, depth, forward ? step_ : -step_, random);
    if (!other.valid || !join(tree, other, forward, true, random)) break;
  }
  q_ = std::move(tree.q);
  g_ = std::move(tree.g);
  logp_ = tree.logp;
  if (iteration <= warm_up_) adapt(iteration, random);
}

// A step that changes the energy by about log 0.8: doubled or halved until it crosses.
void NoUTurn::first_step_size(RandomStream& random)
{
  State s;
  s.q = q_;
  s.g = g_;
  s.logp = logp_;
  s.p.resize(q_.size());
  for (std::size_t i = 0; i < q_.size(); ++i) s.p[i] = random.normal() / std::sqrt(metric_[i]);
  energy0_ = energy(s);
  int direction = 0;
  for (int k = 0; k < 50; ++k) {
    State trial = s;
    leap(trial, step_);
    const double change = energy0_ - energy(trial);
    const int wanted = change > std::log(target_acceptance) ? 1 : -1;
    if (direction == 0) direction = wanted;
    if (wanted != direction) return;
    step_ *= direction > 0 ? 2.0 : 0.5;
  }
}

void NoUTurn::restart_averaging()
{
  mu_ = std::log(10.0 * step_);
  hbar_ = log_bar_ = 0.0;
  averaged_ = 0;
}

void NoUTurn::adapt(long iteration, RandomStream& random)
{
  constexpr double gamma = 0.05, offset = 10.0, kappa = 0.75;
  const double acceptance = accept_count_ > 0 ? accept_sum_ / static_cast<double>(accept_count_) : 0.0;
  const auto m = static_cast<double>(++averaged_);
  const double weight = 1.0 / (m + offset);
  hbar_ = (1.0 - weight) * hbar_ + weight * (target_acceptance - acceptance);
  const double log_step = mu_ - std::sqrt(m) / gamma * hbar_;
  const double decay = std::pow(m, -kappa);
  log_bar_ = decay * log_step + (1.0 - decay) * log_bar_;
  step_ = std::exp(log_step);

  const long last = warm_up_ >= 150 ? warm_up_ - 50 : warm_up_ * 9 / 10;
  if (iteration > window_begin_ && iteration <= last) {
    ++count_;
    for (std::size_t i = 0; i < q_.size(); ++i) {
      const double change = q_[i] - mean_[i];
      mean_[i] += change / static_cast<double>(count_);
      squares_[i] += change * (q_[i] - mean_[i]);
    }
    const bool closes = iteration == last || (iteration == window_end_ && last - window_end_ >= 2 * window_length_);
    if (closes && count_ > 1) {
      // Drawn towards the unit metric that the whitened coordinates suggest.
      const auto count = static_cast<double>(count_);
      for (std::size_t i = 0; i < q_.size(); ++i)
        metric_[i] = count / (count + 5.0) * (squares_[i] / (count - 1.0)) + 5.0 / (count + 5.0);
      window_length_ *= 2;
      window_end_ = iteration + window_length_;
      count_ = 0;
      std::fill(mean_.begin(), mean_.end(), 0.0);
      std::fill(squares_.begin(), squares_.end(), 0.0);
      first_step_size(random);
      restart_averaging();
    }
  }
  if (iteration == warm_up_ && averaged_ > 0) step_ = std::exp(log_bar_);
}

} // namespace torvale::sampling
