#pragma once
// What nests are worked on in. A nest is an outermost subject with all subjects nested in it: a tree whose nodes are
// subjects. Levels are counted as in NX::reff, the deepest first. Random effects are written u = m + L z at every node,
// so z is standard normal a priori throughout the tree.
//
// A node's chain are its ancestors' effects, the outermost first, then its own: `above` and `own` effects. The effects
// of a record are the chain of its leaf.

#include "model/batch_work.h"

#include <cstdint>
#include <vector>

namespace torvale::model {

// NestNodes: the usable subjects of one level in a batch, in the order of the index: those of a nest are consecutive,
// and so are the children of a node. Constant in an evaluation.
struct NestNodes {
  std::vector<int> subject; // per node: index into SubInfo of the level
  std::vector<int> parent;  // per node: its parent among the nodes of the next outer level; -1 at the outermost
  std::vector<int> slot;    // per node: the slot of its first leaf (a leaf: its own)
  std::vector<int> first;   // per nest: its first node; one more closes the last
};

// NestLevel: the nodes of one level in hand. Rows per node unless stated otherwise.
struct NestLevel : Priors {
  const NestNodes* nodes = nullptr;
  int own = 0, above = 0; // effects
  int place = 0;          // of its first effect on the chain: the same as above
  bool varies = false;    // priors differ between nodes
  int chain() const { return above + own; }
  int triangle() const { return own * (own + 1) / 2; }
  int prior_of(int node) const { return varies ? node : 0; }
  std::vector<int> failure; // of the prior
  std::vector<int> listed;  // nodes of the nests in hand, ascending
  // The mode
  std::vector<double> z, zold, step; // own
  std::vector<double> u;             // own: m + L z
  std::vector<double> round_start;   // own: u when a round of EBITER$ began
  std::vector<double> part, square;  // what a node contributes to numbers of its nest's search
  std::vector<double> bent;          // own: what third derivatives add to a first step
  // How the mode u moves with the parameters: first derivatives of the log likelihood by u, summed over the leaves
  // below; how u would follow the parameters but for the likelihood's pull; how it does.
  std::vector<double> slope, lead; // own
  std::vector<double> move;        // own x np rows, a column for each node
  // The Hessian by z of a nest's negative log joint density is an arrow. A node's front is what is left of the rows of
  // its chain when everything below it is eliminated: a packed triangle by the chain; and the same of the gradient.
  std::vector<double> front; // chain (chain + 1) / 2
  std::vector<double> right; // chain
  // Elimination of the node itself: given its ancestors' deviations from their modes its own has mean `regression`
  // times these and covariance `inverse`.
  std::vector<double> inverse;    // own triangle: inverse of its block of the front
  std::vector<double> spread;     // own triangle: lower Cholesky factor of that
  std::vector<double> regression; // own x above
  std::vector<double>
      tilt; // own x above: how the points follow the ancestors' deviations: regression, or 0 without scaling
  std::vector<double> logdet; // log determinant of the block, where it has more than one effect
  // Points: `points` of its own for each of `outer` joint points of its ancestors. Joint point q * outer + p has the
  // own point q and the ancestors' joint point p. Leaves keep nothing per joint point.
  long points = 1, outer = 1;
  long joint() const { return points * outer; }
  std::vector<double> deviation; // own x joint: z less the mode
  std::vector<double> effects;   // own x joint: u
  std::vector<double> weight;    // joint: log integrand; then weight given p; then joint weight
  std::vector<double> integral;  // outer: log of the integral over everything from here down, given p
  // Sums over the leaves below, per joint point, weighted: derivatives by u, and pulls of the leaves' centres.
  std::vector<double> slopes; // own x joint
  std::vector<double> pulls;  // own x joint
  // Adjoints
  std::vector<double> mode_bar;       // own: by the mode z; later H^-1 times this
  std::vector<double> spread_bar;     // own x own
  std::vector<double> regression_bar; // own x above
  std::vector<double> front_bar;      // like front
  std::vector<double> mean_bar;       // own
  std::vector<double> factor_bar;     // own triangle
};

// RoundEffect: where a random effect stood when a round of EBITER$ ended.
struct RoundEffect {
  int round = 0, level = 0, subject = 0, effect = 0; // from 0; level and subject as in NX::reff
  double value = 0.0;
};

// NestWork: the nests of a batch.
struct NestWork {
  std::vector<NestLevel> level;
  int nests = 0;
  std::vector<int> failure;                   // per nest
  std::vector<ModeSearch> search;             // per nest
  std::vector<char> active;                   // per nest: its search goes on
  std::vector<char> turn;                     // per nest: the rounds of EBITER$ go on
  std::vector<RoundEffect>* rounds = nullptr; // after the fit, for who asked: gets every round; borrowed
  std::vector<int> leaf_of_slot;              // per slot: node
  std::vector<int> nest_of_leaf;              // per leaf node
  std::vector<int> columns;                   // slots of the program run in hand
  std::vector<char> closed;                   // per nest: columns of curvature_sums are of its mode
  std::vector<double> length, square;         // per nest: of the Newton step, as ModeSearch has them
  std::vector<double> bent;                   // per nest: the same square of what has bent it, or its own
  // Results of programs.mode at the modes: a row per place, a column per slot, b.mode_stride apart.
  std::vector<double> leaf;
  // Sums over a leaf's own points given its ancestors' joint point p, row k * outer + p, column slot, b.mode_stride
  // apart; scaled by exp(-peak): of the weights, and weighted moments (nest_points.h).
  std::vector<double> peak, total, moments;
  std::vector<double> gradient; // per nest: np
  std::vector<double> value;    // per nest
  std::vector<double> products; // of one chunk of points
};

} // namespace torvale::model
