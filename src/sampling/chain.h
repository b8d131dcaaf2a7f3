#pragma once
// One Markov chain: where it stands, what it has drawn, how it moves.

#include "model/run_record.h"
#include "sampling/log_posterior.h"

#include <functional>
#include <memory>
#include <vector>

namespace torvale::sampling {

struct ChainOptions {
  long sample = 1000;        // iterations kept
  long burn = 0;             // iterations discarded first
  long adjscale = 0;         // proposals are adapted during so many first iterations
  long adjincr = 50;         // iterations between adaptations
  long maxbviol = 10000;     // most proposals out of bounds in a row
  bool single = false;       // one parameter at a time
  bool keep_effects = false; // draws of the random effects are wanted
  std::int64_t seed = 1;
};

// What all chains of a run share. Constant while they run.
struct Posterior {
  model::NX* n = nullptr;
  LogPosterior* joint = nullptr; // effects are sampled; null: they are integrated out, or there are none
  std::function<double(int context, const double* theta, double* gradient)>
      prior;                        // log prior density; gradient (added to) may be null; empty: flat
  std::vector<double> lower, upper; // bounds of the parameters, infinite without
  std::vector<char> fixed;          // per parameter: equal bounds, never moved
  int effects() const { return joint == nullptr ? 0 : joint->subjects() * joint->effects(); }
  bool inside(const double* theta) const;
  double log_prior(int context, const double* theta) const { return prior ? prior(context, theta, nullptr) : 0.0; }
  // The integrated log likelihood by the fit's own objective; `impossible` where it fails. gradient: np, or null.
  double integrated(const double* theta, double* gradient) const;
};

struct ChainDraws {
  std::vector<double> theta;   // kept x np
  std::vector<double> effects; // kept x effects, as they are (u), when wanted
  std::vector<double> logpost; // kept
  long kept() const { return static_cast<long>(logpost.size()); }
};

// How often a chain moved.
struct ChainCounts {
  std::vector<long> proposed, accepted, outside; // per parameter (block moves count for all)
  std::vector<long> subject_proposed, subject_accepted;
  long divergent = 0; // trajectories that left the typical set (no-U-turn)
};

class Chain {
public:
  virtual ~Chain() = default;
  enum class Failure { none, no_start, out_of_bounds };
  // Runs up to `iterations` more on a context. Returns 0; 1 when it cannot go on (`failure` says why).
  virtual int advance(int context, long iterations) = 0;
  long done = 0; // iterations run, burn-in included
  Failure failure = Failure::none;
  ChainDraws draws;
  ChainCounts counts;
};

// The start of a chain: parameters inside their bounds, effects in the form of the joint posterior.
struct ChainStart {
  std::vector<double> theta, effects;
};

// Proposals of the random walk: the packed Cholesky factor of the parameters' covariance, and one of nr a subject.
struct WalkProposal {
  std::vector<double> factor;  // np (np + 1) / 2
  std::vector<double> effects; // subjects x nrs
};

std::unique_ptr<Chain> make_random_walk(const Posterior& posterior, const ChainOptions& options, int number,
                                        const ChainStart& start, const WalkProposal& proposal);

// What the no-U-turn sampler whitens with: theta by the factor of its covariance on the unbounded scale, effects by
// u = mode + D (theta - estimate) + S w.
struct WhiteningMap {
  std::vector<double> centre;     // np: parameters at the centre
  std::vector<double> factor;     // packed Cholesky factor of their covariance, on the parameters' own scale
  std::vector<double> mode;       // effects at the centre; empty: effects have no map (they are z)
  std::vector<double> derivative; // subjects x nr x np: D
  std::vector<double> spread;     // subjects x nrs: S
};

std::unique_ptr<Chain> make_no_u_turn(const Posterior& posterior, const ChainOptions& options, int number,
                                      const ChainStart& start, const WhiteningMap& map);

} // namespace torvale::sampling
