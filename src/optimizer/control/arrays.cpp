#include "optimizer/control/arrays.h"

#include "optimizer/optimizer.h"
#include "optimizer/techniques/values_check.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <new>
#include <span>

namespace torvale::optimizer {
namespace {

constexpr long doubles_per_line = 8; // 64-byte lines

// One array of a block: where its pointer stands and how many doubles it needs.
struct Need {
  double* MINSTR::*array;
  long length;
};

long rounded(long length)
{
  return (std::max(length, 1L) + doubles_per_line - 1) / doubles_per_line * doubles_per_line;
}

template <class T> bool owns(const std::vector<T>& block, const T* p)
{
  return p != nullptr && !block.empty() && p >= block.data() && p < block.data() + block.size();
}

// Lays the arrays out in the block, each on a line of its own. Arrays that the caller has bound stay as they are; those
// of an earlier layout move, and their contents are lost when the block has to grow.
void lay_out(MINSTR* str, std::vector<double>& block, std::span<const Need> needs)
{
  long total = 0;
  for (const Need& need : needs) {
    double*& array = str->*need.array;
    if (owns(block, static_cast<const double*>(array))) array = nullptr;
    if (array == nullptr && need.length > 0) total += rounded(need.length);
  }
  const auto size = static_cast<std::size_t>(total + doubles_per_line);
  if (block.size() < size) block.assign(size, 0.0);
  const auto address = reinterpret_cast<std::uintptr_t>(block.data());
  double* next = block.data() + (64 - address % 64) % 64 / sizeof(double);
  for (const Need& need : needs) {
    double*& array = str->*need.array;
    if (array != nullptr || need.length <= 0) continue;
    array = next;
    next += rounded(need.length);
  }
}

template <class T> void bind(T*& array, std::vector<T>& block, std::size_t offset)
{
  if (array == nullptr || owns(block, static_cast<const T*>(array))) array = block.data() + offset;
}

} // namespace

namespace {

// What a technique works with. The one place that decides sizes, for every combination of options: `load`, a metric of
// the caller's and a switch of the technique may come later, and are provided for.
struct Sizes {
  bool matrix = false; // hess and hpro: a Hessian, its approximation or a factor, and its part on the free space
  bool factor = false; // half: a factor kept beside the Hessian
  long scratch = 0;    // doubles of wrk2
};

Sizes sizes_of(const MINSTR& str)
{
  const long n = str.nvar;
  switch (str.tech) {
  case NMSIMP:
  case NMSIM2:
    return {false, false, (n + 4) * n + n + 1 + values_check_length(n)}; // vertices, values, three points
  case CONGRA:
    return {false, false, 7 * n};
  case DBLDOG:
    return {true, false, 12 * n}; // 7n of the quasi-Newton matrix, five vectors
  case TRUREG:
  case NEWRAP:
  case NRLINS:
  case NRRIDG:
    return {true, true, 8 * n};
  case QUANEW:
  case DUQUAN:
    return {true, false, 7 * n};
  default:
    return {};
  }
}

} // namespace

int tvlopta(MINSTR* str)
{
  str->nnva = str->nvar * (str->nvar + 1) / 2;
  const long n = std::max(str->nvar, 1L); // a problem without parameters has arrays as well
  const long rows = str->ncon;
  const Need needs[] = {
      {&MINSTR::x, n},    {&MINSTR::xold, n},        {&MINSTR::grad, n},
      {&MINSTR::gold, n}, {&MINSTR::sdir, n},        {&MINSTR::work, n},
      {&MINSTR::dsca, n}, {&MINSTR::ster, n},        {&MINSTR::wfid, n + str->mequ},
      {&MINSTR::hfwd, n}, {&MINSTR::hcnt, n},        {&MINSTR::lb, n},
      {&MINSTR::ub, n},   {&MINSTR::alcn, rows * n}, {&MINSTR::blcn, rows},
      {&MINSTR::gpro, n}, {&MINSTR::lagm, n + rows}, {&MINSTR::awrk, 8 * n + 2 * rows},
      {&MINSTR::xval, n}, {&MINSTR::xbes, n},        {&MINSTR::gbes, n},
      {&MINSTR::xtmp, n}, {&MINSTR::gtmp, n},        {&MINSTR::hlim, n},
      {&MINSTR::unit, n},
  };
  const bool own_lower = str->lb == nullptr || owns(str->problem_block, static_cast<const double*>(str->lb));
  const bool own_upper = str->ub == nullptr || owns(str->problem_block, static_cast<const double*>(str->ub));
  try {
    lay_out(str, str->problem_block, needs);
    const auto count = static_cast<std::size_t>(std::max(n, 1L));
    const auto constraints = count + static_cast<std::size_t>(rows);
    str->index_block.assign(count + 2 * constraints, 0);
    str->flag_block.assign(count, 0);
    str->state_block.assign(count, 0);
    bind(str->ifxr, str->index_block, 0);
    bind(str->iact, str->index_block, count);
    bind(str->ldco, str->index_block, count + constraints);
    bind(str->ofco, str->flag_block, 0);
    bind(str->iabc, str->state_block, 0);
  } catch (const std::bad_alloc&) {
    return 1016;
  }
  if (own_lower) std::fill_n(str->lb, n, -largest);
  if (own_upper) std::fill_n(str->ub, n, largest);
  std::fill_n(str->hfwd, n, missing);
  std::fill_n(str->hcnt, n, missing);
  str->xval_current = false;
  return 0;
}

int provide_technique_arrays(MINSTR* str)
{
  const long n = str->nvar;
  const long packed = n * (n + 1) / 2;
  const Sizes sizes = sizes_of(*str);
  if (owns(str->hessian_block, static_cast<const double*>(str->hess))) str->hess = nullptr;
  const Need needs[] = {
      {&MINSTR::hess, sizes.matrix ? packed : 0},    {&MINSTR::hpro, sizes.matrix ? packed : 0},
      {&MINSTR::half, sizes.factor ? packed : 0},    {&MINSTR::wrk2, sizes.scratch},
      {&MINSTR::qlcn, str->lincon != 0 ? n * n : 0}, {&MINSTR::llcn, str->lincon != 0 ? packed : 0},
  };
  try {
    lay_out(str, str->technique_block, needs);
  } catch (const std::bad_alloc&) {
    return 1016;
  }
  return 0;
}

} // namespace torvale::optimizer
