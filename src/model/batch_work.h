#pragma once
// What a batch of subjects works in: subjects go through the kernels together so that their lanes fill the tiles. What
// a subject yields never depends on the others in its batch.

#include "model/aligned_rows.h"

#include <cstdint>
#include <vector>

namespace torvale::model {

// Batch: consecutive subjects, dealt to one worker. Constant in an evaluation. Its records are taken level by level:
// the first record of each of its subjects, then the second of those that have two, and so on, so that subjects lie
// side by side in the lanes.
struct Batch {
  int number = 0;                    // place in GroupState::batches
  int first_nest = 0, last_nest = 0; // outermost subjects, unusable ones included
  int first = 0;                     // entries first..last-1 of GroupState::batch_subjects: its slots
  int last = 0;
  std::int64_t first_record = 0; // its part of GroupState::batch_records
  std::int64_t records = 0;
  std::int64_t first_level = 0; // its part of GroupState::batch_levels: where each level begins, and the end
  int levels = 0;
};

// ModeSearch: the Newton search of one subject in progress.
struct ModeSearch {
  enum State : char { searching, near, found, failed }; // near: its next evaluation is the one at the mode
  State state = searching;
  bool from_mean = false; // started from the mean: there is no further start
  int step = 0;           // Newton steps taken
  int substep = 0;        // shrinkings of the present step
  int failure = 0;        // message number when failed
  double bound = 0.0;     // value that the next step may not exceed
  double previous = 0.0;  // largest square of a component of the last step, in posterior variances
  double logdet = 0.0;    // log determinant of the Hessian at the mode
};

// LineSum: the trapezoidal rule of one subject in progress: points centre + k step, -left <= k <= right.
struct LineSum {
  enum Phase : char { first, right_side, left_side, look_right, look_left, halving, done, weighing, failed };
  Phase phase = first;
  bool left_closed = false, right_closed = false; // what lies beyond is small
  bool looked_left = false, looked_right = false; // for other modes
  int least_left = 0, least_right = 0;            // points that the other modes need
  double centre = 0.0, step = 0.0;                // in z
  int left = 0, right = 0;
  int next = 0;                   // points done of a halving, or with derivatives
  double peak = 0.0, total = 0.0; // log of the largest term; the sum, relative to it
  double log_integral = 0.0;
  double term[16] = {};                                    // logs of the terms of the last sweep
  double weights = 0.0, slope = 0.0, slope_by_point = 0.0; // sums of the weights, times ll_u, times z too
};

// Priors: means, G's factor and distribution arguments of the subjects of one level in hand: one entry for all when the
// arguments do not vary, else one per subject.
struct Priors {
  std::vector<double> mean;   // nr each
  std::vector<double> factor; // L, nrs each
  std::vector<double>
      arguments;             // values and derivatives of the distribution arguments, as the level's setup yields them
  bool prior_loaded = false; // the one prior belongs to the present parameters
  int prior_failure = 0;     // its failure
  std::vector<const double*> outputs; // outputs of a setup run; null: zero
};

// BatchWork: arrays of one worker, for at most `slots` subjects of a batch ordered by falling record count (a "slot" is
// a subject's place in that order) and `pairs` (subject, point) pairs. nr random effects, nrs = nr (nr + 1) / 2.
// Random effects are written u = m + L z: m the means, L the lower Cholesky factor of G, z standard normal a priori.
// The priors are those of the slots.
struct BatchWork : Priors {
  int slots = 0;
  int number = 0;                        // of the batch
  int nests = 0;                         // outermost subjects; with one level they are the slots
  std::vector<int> nest;                 // per nest: index into SubInfo of the outermost level
  std::vector<int> subject;              // per slot: index into SubInfo
  std::vector<int> column;               // per slot: its column in curvature_sums; below 0: none yet
  std::vector<int> failure;              // per slot: message number of its failure, 0 when good
  std::vector<std::int64_t> failure_row; // per slot: store row that the failure names
  std::vector<int> active;               // slots of the program run in hand: still searching, or good
  // Record k of slot s stands at level[k] + s among the records of the batch, when that is below level[k + 1].
  const std::int32_t* level = nullptr;
  int levels = 0;
  const std::int32_t* rows = nullptr; // store rows of these records
  std::vector<ModeSearch> search;     // per slot
  std::vector<double> parameter_step; // from the point of the accepted modes
  // Modes, per slot.
  std::vector<double> z;          // nr: mode, or trial point of the search
  std::vector<double> zold;       // nr: last accepted point of the search
  std::vector<double> slope;      // nr: first derivatives of the log likelihood by u at the mode
  std::vector<double> curve;      // nrs: second derivatives there
  std::vector<double> covariance; // nrs: inverse Hessian of the joint density by z at the mode
  std::vector<double> spread;     // nrs: its lower Cholesky factor
  // Sums over records, row per output, column per pair (stride mode_stride, pair_stride).
  long mode_stride = 0, pair_stride = 0;
  AlignedRows mode_sums;      // programs.mode
  AlignedRows curvature_sums; // programs.curvature, or closing
  AlignedRows point_sums;     // programs.gradient or programs.value
  AlignedRows term_sums;      // of a program of terms; rows as far apart as pairs can be many
  // Points of the run in hand.
  AlignedRows ran;   // nr x pair_stride: random effects
  AlignedRows prior; // per pair: log of weight and prior kernel; then the log integrand; then its weight
  // Support points of a discrete distribution, per prior: a row of nr coordinates and a probability each, the last one
  // derived from the others; and as many such blocks of derivatives as there are parameters.
  std::vector<double> support, support_by;
  // Sums over points, per slot; scaled by exp(-peak).
  std::vector<double> peak;          // largest log integrand so far
  std::vector<double> total;         // sum of weights
  std::vector<double> point_moments; // of the standard points: nr, then nrs
  std::vector<double> slope_moments; // of the derivatives by u: nr; times the points: nr x nr
  std::vector<double> direct;        // np: of the derivatives by parameters
  std::vector<double> null_scale; // per effect, all levels: largest information of a subject on it, where G leaves it
                                  // no variance; 0: none
  std::vector<double> gradients;  // per slot np: of its integral; without what products of factored derivatives come to
  // Factored derivatives (FactoredPrograms); rows are by coefficient, multiplier, source or parameter.
  struct Factored {
    bool in_use = false;       // no subject has too many lanes
    std::vector<double> lanes; // coefficients of the pairs of a block, lane_stride apart
    std::vector<long> level;   // where the lanes of a level begin there, and the end
    long lane_stride = 0, record_stride = 0, slot_stride = 0;
    std::vector<double>
        coefficients; // per record of the batch: those of the points, weighted and added up, then those of the modes
    std::vector<double> multipliers; // per record
    std::vector<double> weights;     // per source and slot
    std::vector<double> products;    // per parameter and slot: what its products come to
  } factored;
  std::vector<LineSum> line;   // the trapezoidal rule, per slot
  double constants = 0.0;      // nr/2 log 2 pi - nr log s: of the prior, and of the scale s of the points
  std::vector<double> scratch; // one subject's small matrices
};

} // namespace torvale::model
