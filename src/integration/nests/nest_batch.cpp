#include "integration/nests/nest_batch.h"

#include "evaluation/random_covariance.h"

#include <algorithm>

namespace torvale::integration {

using model::BatchWork;
using model::GroupState;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::TVLThreadCtx;

void take_nests(const GroupState& n, TVLThreadCtx& ctx)
{
  const BatchWork& b = ctx.batch;
  NestWork& w = ctx.nests;
  const auto& nodes = n.batch_nodes[static_cast<std::size_t>(b.number)];
  w.nests = b.nests;
  std::fill_n(w.failure.begin(), w.nests, 0);
  for (std::size_t k = 0; k < w.level.size(); ++k) {
    w.level[k].nodes = &nodes[k];
    w.level[k].listed.clear();
  }
  const model::NestNodes& leaves = nodes.front();
  for (int nest = 0; nest < w.nests; ++nest)
    for (int v = leaves.first[static_cast<std::size_t>(nest)]; v < leaves.first[static_cast<std::size_t>(nest) + 1];
         ++v) {
      w.nest_of_leaf[static_cast<std::size_t>(v)] = nest;
      w.leaf_of_slot[static_cast<std::size_t>(leaves.slot[static_cast<std::size_t>(v)])] = v;
    }
}

int load_nest_priors(const NX& n, TVLThreadCtx& ctx)
{
  NestWork& w = ctx.nests;
  for (std::size_t k = w.level.size(); k-- > 0;) {
    NestLevel& l = w.level[k];
    const model::REFFECT& reff = n.reff[k];
    const int count = static_cast<int>(l.nodes->subject.size());
    const evaluation::PriorEntries entries{reff, l, l.nodes->slot.data(), count, l.failure.data()};
    if (const int rc = evaluation::load_priors(n, ctx, entries, reff.setup.places > reff.setup_value.places); rc > 2)
      return rc;
    for (int nest = 0; nest < w.nests; ++nest)
      for (int v = l.nodes->first[static_cast<std::size_t>(nest)];
           v < l.nodes->first[static_cast<std::size_t>(nest) + 1]; ++v)
        if (int& failure = w.failure[static_cast<std::size_t>(nest)]; failure == 0)
          failure = l.failure[static_cast<std::size_t>(v)];
  }
  return 0;
}

} // namespace torvale::integration
