#pragma once
// The interface of an integrator: one way of integrating the random effects out of the likelihood. tvllike knows
// nothing else.
//
// What an integrator finds. An evaluation deals batches of outermost subjects ("nests"; with one level a nest is a
// subject) to workers. Before `evaluate` the batch stands in ctx.batch: slots (the subjects of the deepest level, by
// falling record count, at most n.batches' largest), their records by level, nest 0..nests-1 with its index in
// outer().SubInfo, failure[slot] = 0; ctx.frame has the parameters and the records of the batch. A slot's priors (u = m
// + L z, L L' = G) come from evaluation::load_priors, sums of a program's outputs over the records of (slot, point)
// pairs from evaluation::tvllogl with the program and its layout in n.programs, modes from modes::tvlebes.
//
// What it must keep to. It writes ctx only (close_nests: slots of its nests, close_modes: their trial modes). What a
// nest yields must not depend on the other nests of its batch nor on the worker: all sums over a nest have one order.
// `evaluate` and the `close` functions allocate nothing: `size_batch` makes room. A slot that fails gets its message
// number in ctx.batch.failure and is left out; the others go on. The log likelihood of a record that is not above
// model::impossible_loglik has failed.
//
// How to add one. Derive, make the programs that it reads in evaluation/specialised_programs.cpp (and ask for their
// derivatives in derivative_requests.cpp), choose it in integrator_of, and see that evaluation::can_evaluate tells what
// it can do: a gradient is asked for only where can_evaluate says so, otherwise the optimizer takes differences of the
// value.

#include "model/run_record.h"

#include <cmath>
#include <span>

namespace torvale::integration {

class Integrator {
public:
  virtual ~Integrator() = default;

  // size_batch: what it needs in ctx.batch (or in a record of its own in the context) beyond slots, nests and their
  // records, for every batch of n.batches. Called by size_contexts, once per context, when batches, programs and point
  // set stand.
  virtual void size_batch(const model::NX& n, model::TVLThreadCtx& ctx) const = 0;

  // evaluate: all that the nests of ctx.batch need to be closed; with `gradient` the derivatives too. Returns 0, or the
  // engine's code above 2: the program ended the run.
  virtual int evaluate(const model::NX& n, model::TVLThreadCtx& ctx, bool gradient) const = 0;

  // close_nests: after `evaluate`, of every nest of the batch the negative log of its integral, all constants included,
  // and with n.dograd its n.nparm derivatives by the parameters, into the nest's own slot of the run; keep_value says
  // which failed. Lists those whose values are known in ctx.batch.active, ascending, and returns how many they are.
  virtual int close_nests(model::NX& n, model::TVLThreadCtx& ctx) const = 0;

  // close_modes: the random effects u found for these nests, of all their subjects, into n.ebtrial; only where modes
  // were searched. The nests are ascending, those whose values are known.
  virtual void close_modes(model::NX& n, const model::TVLThreadCtx& ctx, std::span<const int> nests) const = 0;
};

// keep_failure: for the slot of the run of a nest that failed; status 0: its integral is zero.
void keep_failure(model::NX& n, std::size_t subject, int status);

// keep_value: takes the value of a nest and how it ended, 0 or the number of the message that its failure deserves
// (503/...; the value is then anything), for the slot of the run. A value that is not finite is a zero integral. True
// when it is known.
inline bool keep_value(model::NX& n, std::size_t subject, int status, double value)
{
  if (status != 0 || !(value < model::failure_objective) || !std::isfinite(value)) {
    keep_failure(n, subject, status);
    return false;
  }
  n.slot_status[subject] = 0;
  n.slot_value[subject] = value;
  return true;
}

// ClosesEach: an integrator that closes nest by nest. Own has
//   int close_value(const model::NX&, const model::TVLThreadCtx&, int nest, double& value) const;  returns the status
//   void close_gradient(const model::NX&, const model::TVLThreadCtx&, int nest, double* gradient) const;
template <class Own> class ClosesEach : public Integrator {
public:
  int close_nests(model::NX& n, model::TVLThreadCtx& ctx) const final
  {
    const Own& own = static_cast<const Own&>(*this);
    int known = 0;
    for (int nest = 0; nest < ctx.batch.nests; ++nest) {
      const auto subject = static_cast<std::size_t>(ctx.batch.nest[static_cast<std::size_t>(nest)]);
      double value = 0.0;
      const int status = own.close_value(n, ctx, nest, value);
      if (!keep_value(n, subject, status, value)) continue;
      if (n.dograd) own.close_gradient(n, ctx, nest, n.slot_grad.data() + static_cast<long>(subject) * n.grad_stride);
      ctx.batch.active[static_cast<std::size_t>(known++)] = nest;
    }
    return known;
  }
};

// integrator_of: the integrator of the run's method; the run has random effects. Constant, without state, for all
// contexts.
const Integrator& integrator_of(const model::NX& n);

// take_batch: makes a batch the one in hand of a context.
void take_batch(const model::NX& n, model::TVLThreadCtx& ctx, const model::Batch& batch);

// evaluate_batch: takes a batch in hand, has it evaluated, and closes its nests: value, gradient (with n.dograd), trial
// modes and status into the nests' own slots of the run. Returns 0 or the engine's code above 2.
int evaluate_batch(model::NX& n, model::TVLThreadCtx& ctx, const model::Batch& batch);

} // namespace torvale::integration
