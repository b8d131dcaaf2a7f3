#pragma once
// The arrow matrix of a nest: siblings are independent given their parents, so leaves are eliminated first and every
// elimination adds to the rows of one chain only. Cost is linear in the nodes. (Multifrontal elimination on the tree:
// Duff and Reid, ACM Trans. Math. Softw. 9, 1983; a front here is the chain of a node.)

#include "model/nest_work.h"
#include "model/run_record.h"
#include "modes/packed.h"

namespace torvale::modes {

// eliminate: takes a node out of its front: inverse, regression, logdet, step (the part that does not wait for the
// ancestors); what remains of front and right is added to the parent's. Returns 0; 1 when the block cannot be inverted.
int eliminate(const model::RunOptions& options, model::NestWork& w, int level, int node, model::BlockWork& block);

// log_determinant: of a nest's arrow: of the blocks of all its nodes, or of those of one level. A single pivot stands
// in its inverse (one that was given up counts as 1), and logarithms are taken of products of these.
double log_determinant(const model::NestWork& w, int nest, int level = -1);

// clear_fronts: makes room for the sums of a nest's fronts above the leaves.
void clear_fronts(model::NestWork& w, int nest);

// leaf_front: front and right of a leaf from its records: -L' ll_uu L and -L' ll_u along its chain, with the prior's
// part of the leaf itself. sums: results of programs.mode by place, `stride` apart.
void leaf_front(const model::ModelLists& n, model::NestWork& w, int node, const double* sums, long stride);

// solve: x = H^-1 y for a nest, y and x as rows `own` of every node in the member `vector`; after eliminate.
void solve(model::NestWork& w, int nest, std::vector<double> model::NestLevel::*vector);

// chain_factor: L of the chain of a node, blocks along the diagonal, as pointers per level (index as in w.level).
inline const double* factor_of(const model::NestLevel& level, int node)
{
  return level.factor.data() + static_cast<long>(level.prior_of(node)) * level.triangle();
}

} // namespace torvale::modes
