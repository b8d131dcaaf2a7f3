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
// What it must keep to. It writes ctx only (close_modes: the trial modes of its nest too). What a nest yields must not
// depend on the other nests of its batch nor on the worker: all sums over a nest have one order. `evaluate` and the
// `close` functions allocate nothing: `size_batch` makes room. A slot that fails gets its message number in
// ctx.batch.failure and is left out; the others go on. The log likelihood of a record that is not above
// model::impossible_loglik has failed.
//
// How to add one. Derive, make the programs that it reads in evaluation/specialised_programs.cpp (and ask for their
// derivatives in derivative_requests.cpp), choose it in integrator_of, and see that evaluation::can_evaluate tells what
// it can do: a gradient is asked for only where can_evaluate says so, otherwise the optimizer takes differences of the
// value.

#include "model/run_record.h"

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

  // close_value: the negative log of a nest's integral, all constants included. Returns 0, or the number of the message
  // that its failure deserves (503/...), value then unset. A value that is not finite is reported by the caller as a
  // zero integral.
  virtual int close_value(const model::NX& n, const model::TVLThreadCtx& ctx, int nest, double& value) const = 0;

  // close_gradient: its derivatives by the parameters, n.nparm doubles. Called after close_value returned 0.
  virtual void close_gradient(const model::NX& n, const model::TVLThreadCtx& ctx, int nest, double* gradient) const = 0;

  // close_modes: the random effects u found for these nests, of all their subjects, into n.ebtrial; only where modes
  // were searched. The nests are ascending, those whose values are known.
  virtual void close_modes(model::NX& n, const model::TVLThreadCtx& ctx, std::span<const int> nests) const = 0;
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
