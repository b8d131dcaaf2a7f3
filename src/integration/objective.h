#pragma once
// What the optimizer calls: the integrated negative log likelihood of the data, its gradient, and the modes that
// evaluations start from.

#include "model/run_record.h"

namespace torvale::integration {

// size_contexts: contexts, work arrays, slots, batches and the storage of modes. Call when a BY group's store and
// subject index stand (n.bound set) and after every tvlqpts. Modes are kept when the number of subjects has not
// changed; forget_modes clears them.
void size_contexts(model::NX& n);

// forget_modes: no subject has a stored mode any more. At the start of every BY group.
void forget_modes(model::NX& n);

// tvllike: the objective at n.parm into n.objfun and, when n.dograd is set, its gradient into n.objgrad. A failed
// evaluation sets n.failed, objfun to failure_objective and objgrad to ones (to the last good gradient once n.converged
// is set), and says under itdetails which subject failed first and why. The modes found go to ebtrial, tagged with the
// point. What the last evaluation has found at this point is not found again. Returns 0, failed or not (1 when failed,
// with RETFAIL$ and several levels); 1012 when the program ended the run (STOP, ABORT).
int tvllike(model::NX& n);

// forget_evaluation: the next one is made whatever the last has found.
inline void forget_evaluation(model::NX& n)
{
  n.evaluated = model::GroupState::Evaluated::nothing;
}

// shift_predictor: from now on evaluations are of a model whose predictor is moved by a number for each row of the
// store (borrowed); null ends it. What the last evaluation found, modes included, belongs to another model and is
// forgotten.
void shift_predictor(model::NX& n, const engine::CMPSYM* predictor, const double* by_row);

// stand_by_prediction: from now on an evaluation with a gradient takes modes as it finds them where the derivatives of
// the accepted modes say, if these are there; false ends it. For differences around the point of the accepted modes:
// the error of a mode is even in the step, so that central differences do not see it, and one pass for each evaluation
// is enough. The modes of such evaluations cannot be accepted.
void stand_by_prediction(model::NX& n, bool stands);

// Callbacks of the optimizer; str->comstr is the NX, str->x the point. nlpfunc writes crit and, with dograd, grad too.
int nlpfunc(optimizer::MINSTR* str);
int nlpfunclog(optimizer::MINSTR* str); // and logs message 503/407
// nlpgrad: costs nothing at the point of the last nlpfunc. At another point it evaluates there, says 503/360 and raises
// tvlrc.
int nlpgrad(optimizer::MINSTR* str);

// accept_modes: call when the optimizer accepts the iterate n.parm (from nlpterm), and for the grid point that the fit
// starts from. Commits the trial modes if they belong to exactly this point; otherwise the accepted modes stay as they
// are.
void accept_modes(model::NX& n);

// outer_products: the sum over subjects, or over observations without random effects, of (weight times) the outer
// product of the gradient, packed, from the last evaluation or a kept one. Returns 0; 1 when that failed, had no
// gradient or was at another point.
int outer_products(model::NX& n, std::vector<double>& sum);

// parameters_of_covariance: 1 for each parameter that elements of G depend on, at any level, 0 for the others; in the
// order of a slot's gradient.
std::vector<char> parameters_of_covariance(const model::NX& n);

// form_meat: n.meat = sum over subjects of (weight times) the outer product of the subject's gradient, from the slots
// of the last evaluation. Returns 0 and sets havemeat; or 1 when that evaluation failed, had no gradient or was at
// another point.
int form_meat(model::NX& n);

} // namespace torvale::integration
