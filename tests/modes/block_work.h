#pragma once
// The work space of an inversion, for tests of single matrices.

#include "model/thread_context.h"

namespace torvale::modes {

inline model::BlockWork block_for(int nr)
{
  model::BlockWork b;
  const auto bordered = static_cast<std::size_t>((nr + 1) * (nr + 2) / 2);
  b.hessumat.resize(bordered);
  b.hessumat0.resize(bordered);
  b.dfr.resize(static_cast<std::size_t>(nr + 1));
  for (auto* v : {&b.work1, &b.work2, &b.work3}) v->resize(bordered + 5 * static_cast<std::size_t>(nr));
  return b;
}

} // namespace torvale::modes
