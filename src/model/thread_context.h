#pragma once
// TVLThreadCtx: the private state of one worker. Everything an evaluation writes is here or in the worker's own slots.

#include "engine/engine.h"
#include "host/messages/messages.h"
#include "model/batch_work.h"
#include "model/nest_work.h"
#include "optimizer/minstr.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace torvale::model {

// BlockWork: work of one block of random effects for the current subject. nr random effects, nrs = nr(nr+1)/2,
// np parameters, npr = np + nr. Sized by the setup of a point set, never in an evaluation.
struct BlockWork {
  std::vector<double> mean;      // m: nr means of the random effects
  std::vector<double> dmean;     // nr x np: derivatives of the means
  std::vector<double> gi;        // G, packed
  std::vector<double> gic;       // L: Cholesky factor of G
  std::vector<double> gici;      // L^-1
  std::vector<double> gii;       // G^-1, packed
  std::vector<short> singGr;     // per dimension: pivot below singchol
  bool badG = false;             // an element is missing
  bool negG = false;             // not positive semidefinite
  bool singG = false;            // semidefinite
  double logdetgi = 0.0;         // log det G
  double logdetsi = 0.0;         // log det of the inverse Hessian; later of the scale squared
  std::vector<double> gigrad;    // np x nrs: dG
  std::vector<int> zgradg;       // per parameter: 1 when G does not depend on it
  std::vector<double> ligrad;    // np x nrs: dL
  std::vector<double> gigc;      // np x nrs: L^-1 dG L^-T
  std::vector<double> dlogdetgi; // np
  std::vector<double> ran;       // nr: current random effects
  std::vector<double> ranold;    // nr: last accepted ones
  std::vector<double> hessumat;  // packed triangle of order nr + 1: Hessian, then the gradient as last row
  std::vector<double> hessumat0; // saved copy
  std::vector<char> dfr;         // sweep flags, nr + 1
  std::vector<double> scale;     // packed lower factor that maps standard points to deviations
  std::vector<double> demp;      // np x nr: derivative of the mode
  std::vector<double> triumat;   // npr x nrs: third derivatives summed over the subject
  std::vector<double> cross;     // nr x np: cross derivatives summed over the subject
  std::vector<double> dlogdetsi; // np
  std::vector<double> sigrad;    // np x nrs: dscale
  std::vector<int> zgradt;       // per parameter: 1 when the curvature does not depend on it
  // Singular G only:
  std::vector<double> ebgrad, ebhess, ebcross, pigrad, hessing, pi, cii, cg;
  std::vector<int> zgradp;
  std::vector<double> work1, work2, work3, work4, work5, work6; // scratch, sized for the largest use
};

// What the tile runner keeps: lane maps, sums per point.
struct TileWork {
  std::vector<std::int32_t> observation, point, state; // per lane
  std::vector<double> ran;                             // nr x stride: random effects per point
  std::vector<double> loglike;  // per point: log likelihood summed over the subject's observations
  std::vector<double> dloglike; // (np + nr) x stride: its derivatives
  std::vector<double> sums;     // other sums per point or subject
};

struct alignas(64) TVLThreadCtx {
  int threadId = 0;
  std::unique_ptr<engine::Frame> frame; // the worker's engine state
  BlockWork block;
  TileWork tile;
  BatchWork batch;
  NestWork nests;                           // with several levels of random effects
  std::unique_ptr<optimizer::MINSTR> streb; // inner optimizer of the modes (EBOPT), made at first use
  std::vector<double> work;                 // gradient of the subject
  double llo = 0.0;                         // last log likelihood
  host::Journal journal;                    // messages, replayed by the main thread in subject order
  long ncmpRuns = 0;                        // lanes run
};

} // namespace torvale::model
