#pragma once
// The no-U-turn sampler on a density over unbounded coordinates. (M. D. Hoffman, A. Gelman, The No-U-Turn Sampler,
// Journal of Machine Learning Research 15, 2014, 1593-1623; multinomial weights and the generalized criterion of M.
// Betancourt, A conceptual introduction to Hamiltonian Monte Carlo, 2017.)

#include "sampling/random_stream.h"

#include <vector>

namespace torvale::sampling {

// A log density with its gradient. Minus infinity where there is none.
class Density {
public:
  virtual ~Density() = default;
  virtual int dimension() const = 0;
  virtual double gradient(const double* q, double* g) = 0;
};

// Step size and diagonal metric, found during the warm-up: dual averaging towards an acceptance of 0.8; the metric from
// windows that double in length.
class NoUTurn {
public:
  NoUTurn(Density& density, std::vector<double> start, long warm_up);

  // One transition with the iteration's own random numbers. iteration: from 1; up to warm_up the sampler adapts.
  void advance(long iteration, RandomStream& random);

  const std::vector<double>& position() const { return q_; }
  double log_density() const { return logp_; }
  bool possible() const;                      // the start has a density
  bool diverged() const { return diverged_; } // in the last transition
  double step_size() const { return step_; }
  long gradients() const { return gradients_; }

private:
  struct State {
    std::vector<double> q, p, g; // position, momentum, gradient
    double logp = 0.0;
  };
  struct Tree {
    State left, right;
    std::vector<double> q, g; // the candidate
    double logp = 0.0;
    double log_weight = 0.0;      // log sum of exp(-energy error)
    std::vector<double> momentum; // sum over the tree
    bool valid = true;
  };

  void leap(State& s, double step);
  double energy(const State& s) const;
  bool turns(const std::vector<double>& sum, const State& a, const State& b) const;
  Tree leaf(const State& from, double step);
  Tree grow(const State& from, int depth, double step, RandomStream& random);
  bool join(Tree& into, Tree& right_or_left, bool forward, bool biased, RandomStream& random);
  void first_step_size(RandomStream& random);
  void adapt(long iteration, RandomStream& random);
  void restart_averaging();

  Density& density_;
  const int d_;
  const long warm_up_;
  std::vector<double> q_, g_, metric_; // metric_: variances, the inverse of the mass
  double logp_;
  double step_ = 1.0, energy0_ = 0.0;
  double accept_sum_ = 0.0;
  long accept_count_ = 0, gradients_ = 0;
  bool diverged_ = false;
  // Dual averaging.
  double mu_ = 0.0, hbar_ = 0.0, log_bar_ = 0.0;
  long averaged_ = 0;
  // The window that the metric is estimated from.
  long window_begin_ = 0, window_end_ = 0, window_length_ = 0, count_ = 0;
  std::vector<double> mean_, squares_;
};

} // namespace torvale::sampling
